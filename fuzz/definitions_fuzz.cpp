// One JSON reader of bus definitions (QX_FUZZ_READ_<reader>: TagGroups,
// ThingClasses or ThingProperties) on arbitrary text. Definition files are
// edited by hand and copied between machines; whatever they hold, the reader
// may only fail with a ConfigError that names the file.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "marlet/marlet.h"

namespace marlet = com::quorixtech::marlet;

namespace {

constexpr const char *kOrigin = "fuzz.json";

void read(const std::string &text) {
#if defined(QX_FUZZ_READ_TagGroups)
    marlet::JSonTagGroupRegistry().registerTagGroupsFromString(text, kOrigin);
#elif defined(QX_FUZZ_READ_ThingClasses)
    marlet::JSonThingClassRegistry().registerThingClassesFromString(text, kOrigin);
#elif defined(QX_FUZZ_READ_ThingProperties)
    marlet::JSonThingProperties().readPropertiesFromString(text, kOrigin);
#else
#error "define QX_FUZZ_READ_TagGroups, QX_FUZZ_READ_ThingClasses or QX_FUZZ_READ_ThingProperties"
#endif
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    try {
        read(std::string(reinterpret_cast<const char *>(data), size));
    } catch (const marlet::ConfigError &e) {
        if (std::string(e.what()).rfind(kOrigin, 0) != 0) {
            std::fprintf(stderr, "error does not name the file: %s\n", e.what());
            std::abort();
        }
    }
    return 0;
}
