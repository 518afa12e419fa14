#pragma once
// Helpers used before the bus connection is opened: finding the configuration
// root, building "file:/" URIs, making thing ids and rewriting the properties
// text of a thing, plus the string hash every name switch is built on.

#include <cstdint>
#include <string>
#include <vector>

// True when a status query on the path succeeds, whatever kind of entry it is.
bool is_file_exist(const std::string &path);

// Parts joined with "/" in order; an empty list gives an empty string.
std::string path_join(const std::vector<std::string> &parts);

// path_join(prefix, item) for every item, in order.
std::vector<std::string> combine_paths(const std::string &prefix, const std::vector<std::string> &items);

// The first configuration root under which every one of the relative files
// exists, returned as it stands (relative roots stay relative); empty when no
// root holds them all. Roots tried: ".", "/opt/quorix/ixo",
// "/src/common/data_model", "./common/data_model", then $IXO_ROOT if set.
std::string search_files(const std::vector<std::string> &files);

// The files of the list that none of those roots holds, to tell the operator
// what is missing when search_files finds no root.
std::vector<std::string> missing_config_files(const std::vector<std::string> &files);

// A random thing id of lowercase hex groups. The generator is re-seeded from
// the current millisecond on every call, so two calls in the same millisecond
// give the same id; peers rely on nothing else, and that is accepted.
std::string generateUUID();

// Reads the properties file named by the URI (its first seven characters, the
// "file:/" prefix and the following slash, are dropped) and returns its text
// with the first string value (the thing id) replaced by a fresh id. The flag
// is ignored. Prints "[OPEN ERROR] ..." and returns "" if the file cannot be
// opened. The spelling of the name is kept: callers know it by it.
std::string autoGenerateTingID(const std::string &uri, bool flag);

// Writes contextId into the value of the "contextId" key of a properties text,
// by position. With fromFile the source is a URI as above and the file's text
// is used (an unreadable file gives an empty text). Throws std::out_of_range
// when the text has no such key.
std::string replace_thing_property_context_id(const std::string &source, const std::string &contextId, bool fromFile);

// 64-bit FNV-1a of a zero-terminated string; constexpr so that name switches
// can use it in case labels.
constexpr std::uint64_t hash_(const char *s) {
    std::uint64_t h = 0xcbf29ce484222325ULL;
    for (; *s != '\0'; ++s) {
        h ^= static_cast<std::uint64_t>(static_cast<unsigned char>(*s));
        h *= 0x100000001b3ULL;
    }
    return h;
}
