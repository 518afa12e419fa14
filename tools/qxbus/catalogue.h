#pragma once
// The tag groups defined under a configuration root, each with the file that
// defines it. Two files may define the same qualified name with different
// topics (the plain video record and the combined pipe record both travel as
// "VideoFrameData"), so entries are kept per file and matched by topic too.

#include <string>
#include <vector>

#include "marlet/marlet.h"

namespace qxbus {

struct TagGroupEntry {
    std::string fileUri; // the definition file, registered again when a thing needs it
    com::quorixtech::marlet::TagGroupDefinition definition;
};

class TagGroupCatalogue {
  public:
    // Reads every *.json file below <root>/definitions/TagGroup. A file that
    // does not load is reported in problems() and skipped.
    static TagGroupCatalogue load(const std::string &root);

    const std::vector<TagGroupEntry> &entries() const { return entries_; }
    const std::vector<std::string> &problems() const { return problems_; }

    // A topic, a qualified name or a plain name. Where a name matches several
    // definitions the one on the default topic (namespace + "." + name) wins.
    // Throws UsageError when nothing (or more than one) matches.
    const TagGroupEntry &resolve(const std::string &name) const;
    // By the topic of a definition, or by the DDS topic name it travels under.
    const TagGroupEntry *findByTopic(const std::string &topic) const;

    void add(TagGroupEntry entry) { entries_.push_back(std::move(entry)); }

  private:
    std::vector<TagGroupEntry> entries_;
    std::vector<std::string> problems_;
};

} // namespace qxbus
