#pragma once
// The tag groups of the shipped configuration root, in file-name order, so
// that the publish-JSON target and its seeds agree on which input byte picks
// which definition.

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "marlet/marlet.h"

namespace qxfuzz {

inline std::vector<com::quorixtech::marlet::TagGroupDefinition> shippedTagGroups(const std::string &sourceDir) {
    std::vector<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(
             std::filesystem::path(sourceDir) / "common/data_model/definitions/TagGroup/com.vision.data"))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    com::quorixtech::marlet::JSonTagGroupRegistry registry;
    for (const auto &file : files)
        registry.registerTagGroupsFromURI("file://" + file.string());
    return registry.tagGroups();
}

} // namespace qxfuzz
