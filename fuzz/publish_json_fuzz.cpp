// qxbus publish's JSON-to-pairs on arbitrary text, with the field list of one
// of the shipped tag groups (chosen by the first input byte) or none. The
// text comes from a person at a terminal or a script; it may only fail with
// JsonInputError, and what it accepts must go on the bus: the pairs encode.

#include <cstdint>
#include <string>
#include <vector>

#include "json_pairs.h"
#include "marlet/pair_codec.h"
#include "shipped_tag_groups.h"

namespace marlet = com::quorixtech::marlet;

namespace {
std::vector<std::vector<marlet::FieldDefinition>> fieldLists;
} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    for (const auto &group : qxfuzz::shippedTagGroups(QX_SOURCE_DIR))
        fieldLists.push_back(group.fields);
    fieldLists.emplace_back(); // no definition: every kind inferred or explicit
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size == 0) return 0;
    const auto &fields = fieldLists[data[0] % fieldLists.size()];
    qxbus::Pairs pairs;
    try {
        pairs = qxbus::pairsFromJson(std::string(reinterpret_cast<const char *>(data) + 1, size - 1), fields);
    } catch (const qxbus::JsonInputError &) {
        return 0;
    }
    marlet::codec::encode(pairs);
    return 0;
}
