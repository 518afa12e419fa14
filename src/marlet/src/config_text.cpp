#include "config_text.h"

#include <filesystem>

namespace com::quorixtech::marlet::detail {

namespace {

void replaceAll(std::string &text, const std::string &from, const std::string &to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

} // namespace

std::string expandLibraryVariables(const std::string &xml, const std::string &configPath) {
    std::error_code ec;
    std::filesystem::path file = std::filesystem::weakly_canonical(std::filesystem::absolute(configPath, ec), ec);
    if (ec) file = configPath;
    std::string out = xml;
    replaceAll(out, "${MARLET_CONFIG_ROOT}", file.parent_path().parent_path().string());
    replaceAll(out, "${MARLET_SECURITY_PLUGINS}", MARLET_SECURITY_PLUGIN_DIR);
    return out;
}

} // namespace com::quorixtech::marlet::detail
