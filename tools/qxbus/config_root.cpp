#include "config_root.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "errors.h"

namespace fs = std::filesystem;

namespace qxbus {

std::vector<std::string> configRootCandidates() {
    std::vector<std::string> roots = {".", "/opt/quorix/ixo", "/src/common/data_model", "./common/data_model"};
    if (const char *extra = std::getenv("IXO_ROOT")) roots.emplace_back(extra);
    return roots;
}

namespace {
bool holdsBusConfig(const std::string &root) {
    std::error_code ec;
    return fs::is_regular_file(fs::path(root) / kBusConfigFile, ec);
}
} // namespace

std::string findConfigRoot(const std::string &explicitRoot) {
    if (!explicitRoot.empty()) {
        if (!holdsBusConfig(explicitRoot))
            throw UsageError("--root " + explicitRoot + ": no " + kBusConfigFile + " there");
        return explicitRoot;
    }
    std::string tried;
    for (const auto &root : configRootCandidates()) {
        if (holdsBusConfig(root)) return root;
        tried += (tried.empty() ? "" : ", ") + root;
    }
    throw RuntimeFailure(std::string("no configuration root found: none of ") + tried + " holds " + kBusConfigFile +
                         " (use --root DIR or set IXO_ROOT)");
}

std::string fileUri(const std::string &root, const std::string &relative) {
    std::error_code ec;
    fs::path path = fs::absolute(fs::path(root) / relative, ec);
    if (ec) path = fs::path(root) / relative;
    return "file://" + path.lexically_normal().string();
}

} // namespace qxbus
