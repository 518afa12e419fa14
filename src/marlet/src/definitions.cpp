// JSON readers for tag groups, thing classes and thing properties. Every
// failure is a ConfigError whose message starts with the file (or origin) and
// says what is wrong, because callers print it and carry on.

#include <fstream>
#include <initializer_list>
#include <sstream>

#include <nlohmann/json.hpp>

#include "marlet/marlet.h"
#include "report.h"

namespace com::quorixtech::marlet {

namespace {

using nlohmann::json;

std::string readFile(const std::string &uri, const char *what) {
    const std::string path = uriToPath(uri);
    std::ifstream in(path, std::ios::binary);
    if (!in) throw ConfigError(std::string("cannot open ") + what + " file \"" + path + "\" (" + uri + ")");
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

json parse(const std::string &text, const std::string &origin) {
    try {
        return json::parse(text);
    } catch (const json::parse_error &e) {
        throw ConfigError(origin + ": JSON parse error at byte " + std::to_string(e.byte) + ": " + e.what());
    } catch (const json::exception &e) {
        // The parser reports more than syntax this way, e.g. a number too
        // large for a double ("1e999"): bad text all the same.
        throw ConfigError(origin + ": JSON parse error: " + e.what());
    }
}

// Typed access that reports the file and the path of the offending key.
class Object {
  public:
    Object(const json &value, std::string origin, std::string where)
        : value_(value), origin_(std::move(origin)), where_(std::move(where)) {
        if (!value_.is_object()) fail(where_ + " is not a JSON object");
    }

    std::string string(const char *key) const {
        const auto it = value_.find(key);
        if (it == value_.end()) fail("missing key \"" + std::string(key) + "\" in " + where_);
        return asString(*it, key);
    }
    std::string string(const char *key, const std::string &fallback) const {
        const auto it = value_.find(key);
        return it == value_.end() ? fallback : asString(*it, key);
    }
    // An absent array is an empty one.
    const json &array(const char *key) const {
        static const json empty = json::array();
        const auto it = value_.find(key);
        if (it == value_.end()) return empty;
        if (!it->is_array()) fail("key \"" + std::string(key) + "\" in " + where_ + " is not an array");
        return *it;
    }
    // A whole number from min to max; fallback when the key is absent.
    std::int64_t integer(const char *key, std::int64_t fallback, std::int64_t min, std::int64_t max) const {
        const auto it = value_.find(key);
        if (it == value_.end()) return fallback;
        if (!it->is_number_integer() || it->get<std::int64_t>() < min || it->get<std::int64_t>() > max) {
            fail("key \"" + std::string(key) + "\" in " + where_ + " is not a whole number from " +
                 std::to_string(min) + " to " + std::to_string(max));
        }
        return it->get<std::int64_t>();
    }
    // One of the texts in choices; fallback when the key is absent.
    std::string oneOf(const char *key, std::initializer_list<const char *> choices, const char *fallback) const {
        const std::string value = string(key, fallback);
        std::string listed;
        for (const char *choice : choices) {
            if (value == choice) return value;
            listed += std::string(listed.empty() ? "" : ", ") + "\"" + choice + "\"";
        }
        fail("key \"" + std::string(key) + "\" in " + where_ + " is \"" + value + "\", not one of " + listed);
    }
    bool has(const char *key) const { return value_.find(key) != value_.end(); }
    const json &member(const char *key) const { return value_.at(key); }
    Object child(const json &value, const std::string &where) const { return Object(value, origin_, where); }
    [[noreturn]] void fail(const std::string &what) const { throw ConfigError(origin_ + ": " + what); }

  private:
    std::string asString(const json &v, const char *key) const {
        if (!v.is_string()) fail("key \"" + std::string(key) + "\" in " + where_ + " is not a string");
        return v.get<std::string>();
    }
    const json &value_;
    std::string origin_;
    std::string where_;
};

iot::IotKind kindFromName(const Object &field, const std::string &name) {
    using iot::IotKind;
    for (IotKind k : {IotKind::iotv_int32, IotKind::iotv_uint32, IotKind::iotv_int64, IotKind::iotv_float32,
                      IotKind::iotv_string, IotKind::iotv_byte_seq, IotKind::iotv_nvp_seq}) {
        if (name == iot::kindName(k)) return k;
    }
    field.fail("unknown field kind \"" + name + "\"");
}

TagGroupQos readQos(const Object &group, const std::string &where) {
    TagGroupQos qos;
    if (!group.has("qos")) return qos;
    const Object o = group.child(group.member("qos"), "\"qos\" of " + where);
    qos.reliable = o.oneOf("reliability", {"reliable", "best-effort"}, "reliable") == "reliable";
    qos.keepAll = o.oneOf("history", {"keep-last", "keep-all"}, "keep-last") == "keep-all";
    qos.depth = static_cast<std::int32_t>(o.integer("depth", qos.depth, 1, 1000000));
    qos.readerDepth = static_cast<std::int32_t>(o.integer("readerDepth", qos.readerDepth, 0, 1000000));
    // Up to a day: DDS durations are nanoseconds in 64 bits.
    constexpr std::int64_t kDayMs = 24LL * 3600 * 1000;
    qos.maxBlockingMs = o.integer("maxBlockingMs", qos.maxBlockingMs, 0, kDayMs);
    qos.livelinessLeaseMs = o.integer("livelinessLeaseMs", qos.livelinessLeaseMs, 0, kDayMs);
    return qos;
}

TagGroupDefinition readTagGroup(const Object &o) {
    TagGroupDefinition def;
    def.nameSpace = o.string("namespace");
    def.name = o.string("name");
    def.version = o.string("version", "");
    def.topic = o.string("topic", def.nameSpace + "." + def.name);
    def.description = o.string("description", "");
    if (def.topic.empty()) o.fail("empty topic for tag group " + def.qualifiedName());
    def.qos = readQos(o, def.qualifiedName());
    const json &fields = o.array("fields");
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const Object f = o.child(fields[i], "fields[" + std::to_string(i) + "] of " + def.qualifiedName());
        FieldDefinition field;
        field.name = f.string("name");
        field.kind = kindFromName(f, f.string("kind"));
        def.fields.push_back(std::move(field));
    }
    return def;
}

std::vector<PortDefinition> readPorts(const Object &o, const char *key) {
    std::vector<PortDefinition> ports;
    const json &list = o.array(key);
    for (std::size_t i = 0; i < list.size(); ++i) {
        const Object p = o.child(list[i], std::string(key) + "[" + std::to_string(i) + "]");
        PortDefinition port;
        port.name = p.string("name");
        port.tagGroup = p.string("tagGroup");
        if (port.tagGroup.find(':') == std::string::npos) {
            p.fail("tagGroup \"" + port.tagGroup + "\" of " + key + "[" + std::to_string(i) +
                   "] is not of the form namespace:name");
        }
        ports.push_back(std::move(port));
    }
    return ports;
}

std::vector<TagGroupDefinition> readTagGroups(const std::string &text, const std::string &origin) {
    const json doc = parse(text, origin);
    // Validate the whole file before registering any of it.
    std::vector<TagGroupDefinition> read;
    const Object top(doc, origin, "the document");
    const json &groups = top.array("tagGroups");
    if (groups.empty()) top.fail("no tag groups in \"tagGroups\"");
    for (std::size_t i = 0; i < groups.size(); ++i) {
        read.push_back(readTagGroup(top.child(groups[i], "tagGroups[" + std::to_string(i) + "]")));
    }
    return read;
}

ThingClassDefinition readThingClass(const std::string &text, const std::string &origin) {
    const json doc = parse(text, origin);
    const Object o(doc, origin, "the document");
    ThingClassDefinition def;
    def.nameSpace = o.string("namespace");
    def.name = o.string("name");
    def.version = o.string("version", "");
    def.description = o.string("description", "");
    def.inputs = readPorts(o, "inputs");
    def.outputs = readPorts(o, "outputs");
    return def;
}

} // namespace

void JSonTagGroupRegistry::registerTagGroupsFromURI(const std::string &uri) {
    const auto read = detail::reportingFailures([&] { return readTagGroups(readFile(uri, "tag group"), uri); });
    tagGroups_.insert(tagGroups_.end(), read.begin(), read.end());
}

void JSonTagGroupRegistry::registerTagGroupsFromString(const std::string &text, const std::string &origin) {
    const auto read = detail::reportingFailures([&] { return readTagGroups(text, origin); });
    tagGroups_.insert(tagGroups_.end(), read.begin(), read.end());
}

void JSonThingClassRegistry::registerThingClassesFromURI(const std::string &uri) {
    thingClasses_.push_back(
        detail::reportingFailures([&] { return readThingClass(readFile(uri, "thing class"), uri); }));
}

void JSonThingClassRegistry::registerThingClassesFromString(const std::string &text, const std::string &origin) {
    thingClasses_.push_back(detail::reportingFailures([&] { return readThingClass(text, origin); }));
}

void JSonThingProperties::readPropertiesFromURI(const std::string &uri) {
    const std::string text = detail::reportingFailures([&] { return readFile(uri, "thing properties"); });
    readPropertiesFromString(text, uri);
}

void JSonThingProperties::readPropertiesFromString(const std::string &text, const std::string &origin) {
    detail::reportingFailures([&] { readProperties(text, origin); });
}

void JSonThingProperties::readProperties(const std::string &text, const std::string &origin) {
    const json doc = parse(text, origin);
    const Object o(doc, origin, "the document");
    std::string id = o.string("thingId");
    std::string thingClass = o.string("thingClass");
    if (id.empty()) o.fail("empty \"thingId\"");
    if (thingClass.find(':') == std::string::npos) {
        o.fail("thingClass \"" + thingClass + "\" is not of the form namespace:name");
    }
    std::string contextId = o.string("contextId", "");
    std::string name = o.string("name", "");
    contextId_ = std::move(contextId);
    name_ = std::move(name);
    thingId_ = std::move(id);
    thingClass_ = std::move(thingClass);
}

} // namespace com::quorixtech::marlet
