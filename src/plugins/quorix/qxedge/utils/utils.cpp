#include "utils.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

#include <sys/stat.h>

namespace {

// URIs are made as path_join("file:/", root) + "/" + file: the first seven
// characters are "file:/" and the slash that path_join puts after it.
constexpr std::size_t kUriPrefixLength = 7;

std::string pathFromUri(const std::string &uri) {
    return uri.size() > kUriPrefixLength ? uri.substr(kUriPrefixLength) : std::string();
}

bool readWholeFile(const std::string &path, std::string &text) {
    std::ifstream in(path, std::ios::in | std::ios::binary);
    if (!in.is_open()) return false;
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

// Replaces the text between the double quote found at or after from and the
// next double quote. Throws std::out_of_range when either quote is missing.
void replaceQuotedValueAfter(std::string &text, std::size_t from, const std::string &value, const char *what) {
    const std::size_t open = from == std::string::npos ? std::string::npos : text.find('"', from);
    if (open == std::string::npos) throw std::out_of_range(std::string("no quoted value after ") + what);
    const std::size_t close = text.find('"', open + 1);
    if (close == std::string::npos) throw std::out_of_range(std::string("unterminated value after ") + what);
    text.replace(open + 1, close - open - 1, value);
}

} // namespace

bool is_file_exist(const std::string &path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

std::string path_join(const std::vector<std::string> &parts) {
    std::string joined;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) joined += '/';
        joined += parts[i];
    }
    return joined;
}

std::vector<std::string> combine_paths(const std::string &prefix, const std::vector<std::string> &items) {
    std::vector<std::string> paths;
    paths.reserve(items.size());
    for (const auto &item : items)
        paths.push_back(path_join({prefix, item}));
    return paths;
}

namespace {

std::vector<std::string> configurationRoots() {
    std::vector<std::string> roots = {".", "/opt/quorix/ixo", "/src/common/data_model", "./common/data_model"};
    // Last on purpose: an explicit root only helps when none of the usual
    // places holds a complete configuration.
    if (const char *extra = std::getenv("IXO_ROOT")) roots.emplace_back(extra);
    return roots;
}

} // namespace

std::vector<std::string> missing_config_files(const std::vector<std::string> &files) {
    std::vector<std::string> missing;
    const auto roots = configurationRoots();
    for (const auto &file : files) {
        bool found = false;
        for (const auto &root : roots)
            found = found || is_file_exist(path_join({root, file}));
        if (!found) missing.push_back(file);
    }
    return missing;
}

std::string search_files(const std::vector<std::string> &files) {
    for (const auto &root : configurationRoots()) {
        bool complete = true;
        for (const auto &file : files) {
            if (!is_file_exist(path_join({root, file}))) {
                complete = false;
                break;
            }
        }
        if (complete) return root;
    }
    return std::string();
}

std::string generateUUID() {
    // Seeded from the millisecond of the wall clock on every call: ids made in
    // the same millisecond are equal. Things are created one by one at start,
    // far apart enough in practice, and this is the settled behaviour.
    const auto ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    std::srand(static_cast<unsigned>((ns % 1000000000LL) / 1000000LL));
    unsigned r[8];
    for (unsigned &value : r)
        value = static_cast<unsigned>(std::rand());

    char id[100];
    // 16383 rather than 16384: ids already issued were made this way.
    std::snprintf(id, sizeof id, "%x%x-%x-%x-%x-%x%x%x", r[0], r[1], r[2], (r[3] & 0xfffu) | 0x4000u,
                  (r[4] % 16383u) + 32768u, r[5], r[6], r[7]);
    return id;
}

std::string autoGenerateTingID(const std::string &uri, bool /*flag*/) {
    const std::string path = pathFromUri(uri);
    std::string text;
    if (!readWholeFile(path, text)) {
        std::cout << "[OPEN ERROR] " << path << " in autoGenerateTingID" << std::endl;
        return std::string();
    }
    // The thing id is the first key of a properties file, so its value is the
    // first quoted text after the first colon.
    replaceQuotedValueAfter(text, text.find(':'), generateUUID(), "the first ':'");
    return text;
}

std::string replace_thing_property_context_id(const std::string &source, const std::string &contextId, bool fromFile) {
    std::string text;
    if (fromFile) {
        // An unreadable file gives an empty text; loading it then fails as a
        // properties error where the caller reports it.
        if (!readWholeFile(pathFromUri(source), text)) return std::string();
    } else {
        text = source;
    }
    static const std::string key = "\"contextId\":";
    const std::size_t at = text.find(key);
    replaceQuotedValueAfter(text, at == std::string::npos ? at : at + key.size(), contextId, "\"contextId\":");
    return text;
}
