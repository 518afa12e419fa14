#include "catalogue.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "config_root.h"
#include "discovery.h"
#include "errors.h"

namespace fs = std::filesystem;
namespace marlet = com::quorixtech::marlet;

namespace qxbus {

TagGroupCatalogue TagGroupCatalogue::load(const std::string &root) {
    TagGroupCatalogue catalogue;
    const fs::path dir = fs::path(root) / kTagGroupDir;
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) {
        catalogue.problems_.push_back("no tag-group definitions: " + dir.string() + " is not a directory");
        return catalogue;
    }
    std::vector<fs::path> files;
    for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
        if (it->is_regular_file(ec) && it->path().extension() == ".json") files.push_back(it->path());
    std::sort(files.begin(), files.end()); // stable order: the same root always resolves the same way

    for (const auto &file : files) {
        const std::string uri = fileUri(root, fs::relative(file, root, ec).string());
        try {
            marlet::JSonTagGroupRegistry registry;
            registry.registerTagGroupsFromURI(uri);
            for (const auto &definition : registry.tagGroups())
                catalogue.entries_.push_back({uri, definition});
        } catch (const std::exception &e) {
            catalogue.problems_.push_back("skipped " + file.string() + ": " + e.what());
        }
    }
    return catalogue;
}

const TagGroupEntry *TagGroupCatalogue::findByTopic(const std::string &topic) const {
    for (const auto &entry : entries_)
        if (entry.definition.topic == topic || ddsTopicName(entry.definition.topic) == topic) return &entry;
    return nullptr;
}

const TagGroupEntry &TagGroupCatalogue::resolve(const std::string &name) const {
    if (const auto *byTopic = findByTopic(name)) return *byTopic;

    std::vector<const TagGroupEntry *> matches;
    for (const auto &entry : entries_)
        if (entry.definition.name == name || entry.definition.qualifiedName() == name) matches.push_back(&entry);
    if (matches.size() > 1) {
        std::vector<const TagGroupEntry *> onDefaultTopic;
        for (const auto *entry : matches) {
            const auto &d = entry->definition;
            if (d.topic == d.nameSpace + "." + d.name) onDefaultTopic.push_back(entry);
        }
        if (onDefaultTopic.size() == 1) return *onDefaultTopic.front();
        std::string topics;
        for (const auto *entry : matches)
            topics += " " + entry->definition.topic;
        throw UsageError("tag group \"" + name + "\" is ambiguous; name one of its topics:" + topics);
    }
    if (matches.size() == 1) return *matches.front();

    std::string known;
    for (const auto &entry : entries_)
        known += " " + entry.definition.name + " (" + entry.definition.topic + ")";
    throw UsageError("unknown tag group \"" + name +
                     "\"; defined under the configuration root:" + (known.empty() ? std::string(" none") : known));
}

} // namespace qxbus
