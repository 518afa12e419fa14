#include "config_check.h"

#include <algorithm>
#include <cctype>
#include <regex>
#include <vector>

#include "marlet/marlet.h"

namespace com::quorixtech::marlet::detail {

namespace {

// Walks the markup and reports the first construct that does not close:
// tags that do not nest, a tag or comment cut off, text outside the root.
// Enough to tell a real configuration from a damaged one; the content is
// Cyclone's to judge.
class WellFormed {
  public:
    WellFormed(const std::string &xml, const std::string &path) : xml_(xml), path_(path) {}

    void check() {
        std::size_t roots = 0;
        while (skipText()) {
            if (startsWith("<?")) {
                skipPast("?>", "processing instruction");
            } else if (startsWith("<!--")) {
                skipPast("-->", "comment");
            } else if (startsWith("<![CDATA[")) {
                if (open_.empty()) fail("character data outside the root element");
                skipPast("]]>", "character data");
            } else if (startsWith("<!")) {
                skipPast(">", "declaration");
            } else if (startsWith("</")) {
                closeTag();
            } else {
                if (open_.empty() && roots++ > 0) fail("a second root element");
                openTag();
            }
        }
        if (roots == 0) fail("no element at all");
        if (!open_.empty()) fail("<" + open_.back() + "> is never closed");
    }

  private:
    bool startsWith(const char *text) const {
        return xml_.compare(at_, std::char_traits<char>::length(text), text) == 0;
    }

    // Moves to the next '<'; text between elements is allowed only inside the root.
    bool skipText() {
        while (at_ < xml_.size() && xml_[at_] != '<') {
            if (open_.empty() && !std::isspace(static_cast<unsigned char>(xml_[at_])))
                fail("text outside the root element");
            ++at_;
        }
        return at_ < xml_.size();
    }

    void skipPast(const char *end, const char *what) {
        const std::size_t found = xml_.find(end, at_);
        if (found == std::string::npos) fail(std::string(what) + " is not closed");
        at_ = found + std::char_traits<char>::length(end);
    }

    std::string name(std::size_t &i) const {
        const std::size_t start = i;
        while (i < xml_.size() && (std::isalnum(static_cast<unsigned char>(xml_[i])) || xml_[i] == '_' ||
                                   xml_[i] == '-' || xml_[i] == '.' || xml_[i] == ':'))
            ++i;
        return xml_.substr(start, i - start);
    }

    void openTag() {
        std::size_t i = at_ + 1;
        const std::string tag = name(i);
        if (tag.empty()) fail("a '<' that starts no element");
        // Attributes: name="value" or name='value', up to '>' or '/>'.
        for (;;) {
            while (i < xml_.size() && std::isspace(static_cast<unsigned char>(xml_[i])))
                ++i;
            if (i >= xml_.size()) fail("<" + tag + "> is cut off");
            if (xml_[i] == '>') {
                open_.push_back(tag);
                break;
            }
            if (xml_.compare(i, 2, "/>") == 0) {
                ++i;
                break;
            }
            if (name(i).empty()) fail("a broken attribute in <" + tag + ">");
            while (i < xml_.size() && std::isspace(static_cast<unsigned char>(xml_[i])))
                ++i;
            if (i >= xml_.size() || xml_[i] != '=') fail("an attribute without a value in <" + tag + ">");
            ++i;
            while (i < xml_.size() && std::isspace(static_cast<unsigned char>(xml_[i])))
                ++i;
            if (i >= xml_.size() || (xml_[i] != '"' && xml_[i] != '\'')) fail("an unquoted attribute in <" + tag + ">");
            const std::size_t close = xml_.find(xml_[i], i + 1);
            if (close == std::string::npos) fail("an attribute value that is never closed in <" + tag + ">");
            i = close + 1;
        }
        at_ = i + 1;
    }

    void closeTag() {
        std::size_t i = at_ + 2;
        const std::string tag = name(i);
        while (i < xml_.size() && std::isspace(static_cast<unsigned char>(xml_[i])))
            ++i;
        if (i >= xml_.size() || xml_[i] != '>') fail("</" + tag + "> is cut off");
        if (open_.empty() || open_.back() != tag)
            fail("</" + tag + "> closes " + (open_.empty() ? std::string("nothing") : "<" + open_.back() + ">"));
        open_.pop_back();
        at_ = i + 1;
    }

    [[noreturn]] void fail(const std::string &what) const {
        const long line = 1 + static_cast<long>(std::count(
                                  xml_.begin(), xml_.begin() + static_cast<long>(std::min(at_, xml_.size())), '\n'));
        throw ConfigError("bus configuration file \"" + path_ + "\" is not well-formed XML: " + what + " (line " +
                          std::to_string(line) + ")");
    }

    const std::string &xml_;
    const std::string &path_;
    std::size_t at_ = 0;
    std::vector<std::string> open_;
};

} // namespace

int checkedDomainId(const std::string &xml, const std::string &path) {
    if (xml.find_first_not_of(" \t\r\n") == std::string::npos)
        throw ConfigError("bus configuration file \"" + path + "\" is empty");
    WellFormed(xml, path).check();

    static const std::regex domainTag(R"(<\s*Domain\b([^>]*)>)", std::regex::icase);
    static const std::regex idAttr(R"(\bId\s*=\s*["']([^"']*)["'])", std::regex::icase);
    std::smatch tag;
    if (!std::regex_search(xml, tag, domainTag))
        throw ConfigError("bus configuration file \"" + path + "\" has no <Domain> element");
    const std::string attrs = tag[1].str();
    std::smatch id;
    if (!std::regex_search(attrs, id, idAttr)) return 0;
    const std::string value = id[1].str();
    if (value == "any" || value == "ANY" || value == "Any") return 0;
    try {
        std::size_t used = 0;
        const int n = std::stoi(value, &used);
        if (used != value.size() || n < 0 || n > 232) throw std::out_of_range(value);
        return n;
    } catch (const std::exception &) {
        throw ConfigError("bus configuration file \"" + path + "\": Domain Id \"" + value +
                          "\" is not a number from 0 to 232 or \"any\"");
    }
}

} // namespace com::quorixtech::marlet::detail
