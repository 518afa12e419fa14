#include "taggroups.h"

#include <map>
#include <mutex>
#include <regex>

#include "utils.h"

namespace {

std::string buildUsage(const std::string &role) {
    std::string text = "Provide the tag groups name you want to use. Example: taggroups=VideoFrameData.\n";
    text += "\t\t\tIf there are more than one tage group used, please use the delimiter '+' to separate them. Just "
            "like: taggroups=VideoFrameData+ClassificationData.";
    static const std::pair<const char *, const char *> groups[] = {
        {"=> VideoFrameData", "\t\t For publishing image data to edge marlet."},
        {"=> DetectionBoxData", "\t\t For publishing detection inference result to edge marlet."},
        {"=> SegmentationData", "\t\t For publishing segmentation inference result to edge marlet."},
        {"=> ClassificationData", "\t\t For publishing classification inference result to edge marlet."},
        {"=> DeviceInfoData", "\t\t For publishing camera device information to edge marlet."},
    };
    for (const auto &[name, description] : groups) {
        text += "\n\t\t\t";
        text += name;
        text += ":";
        text += description;
    }
    switch (hash_(role.c_str())) {
    case hash_("sink"):
        text += "\n\t\t\t";
        text += "qxedgesink should set taggroups=VideoFrameData for publishing frame data, otherwise qxedgesrc will "
                "not pass any frame data to downstream.";
        break;
    case hash_("src"):
        text += "\n\t\t\t";
        text += "VideoFrameData is the required tag group for synchronization.";
        break;
    default:
        break;
    }
    return text;
}

} // namespace

const char *tag_group_usage_manual(std::string role) {
    // One text per role, built once and never freed: GObject holds the
    // pointer for the life of the class. Map nodes never move, so c_str() stays valid.
    static std::mutex mutex;
    static std::map<std::string, std::string> built;
    std::lock_guard<std::mutex> lock(mutex);
    auto it = built.find(role);
    if (it == built.end()) {
        it = built.emplace(role, buildUsage(role)).first;
    }
    return it->second.c_str();
}

std::vector<std::string> split(const char *text) {
    const std::string input = text != nullptr ? text : "";
    static const std::regex delimiter("\\++", std::regex::ECMAScript);
    std::vector<std::string> names;
    // Submatch -1 yields the pieces between matches; an empty trailing piece
    // is dropped and an empty text yields one empty piece, as users expect.
    for (std::sregex_token_iterator it(input.begin(), input.end(), delimiter, -1), end; it != end; ++it) {
        names.push_back(*it);
    }
    if (input.empty() && names.empty()) {
        names.emplace_back();
    }
    return names;
}
