#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "config_check.h"
#include "config_text.h"
#include "report.h"
#include "state.h"

namespace com::quorixtech::marlet {

namespace {

constexpr const char *kConfigPrefix = "config=";

// One participant per configuration file and one domain per id within this
// process. Recursive because a failed getInstance can drop the last reference
// to a domain (whose destructor takes the lock) while the lock is held.
std::recursive_mutex &registryMutex() {
    static std::recursive_mutex m;
    return m;
}
std::map<std::string, std::weak_ptr<detail::ParticipantState>> &participants() {
    static std::map<std::string, std::weak_ptr<detail::ParticipantState>> m;
    return m;
}
std::map<int, std::weak_ptr<detail::DomainHandle>> &domains() {
    static std::map<int, std::weak_ptr<detail::DomainHandle>> m;
    return m;
}

std::string readConfig(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw ConfigError("cannot read bus configuration file \"" + path + "\"");
    std::ostringstream text;
    text << in.rdbuf();
    if (!in && !in.eof()) throw ConfigError("cannot read bus configuration file \"" + path + "\"");
    return text.str();
}

std::shared_ptr<detail::DomainHandle> domainFor(int id, const std::string &xml) {
    auto &known = domains();
    if (auto it = known.find(id); it != known.end()) {
        if (auto alive = it->second.lock()) return alive;
    }
    auto handle = std::make_shared<detail::DomainHandle>();
    handle->id = id;
    const dds_entity_t domain = dds_create_domain(static_cast<dds_domainid_t>(id), xml.c_str());
    // Another part of this process created the domain already (e.g. a plain
    // participant): join it as it is, and leave its deletion to its creator.
    if (domain != DDS_RETCODE_PRECONDITION_NOT_MET) handle->domain = detail::Entity(domain, "dds_create_domain");
    known[id] = handle;
    return handle;
}

std::string canonicalKey(const std::string &path) {
    std::error_code ec;
    const auto canonical = std::filesystem::weakly_canonical(path, ec);
    return ec ? path : canonical.string();
}

} // namespace

DdsError::DdsError(const std::string &call, int retcode)
    : MarletError(call + " failed: " + dds_strretcode(retcode)), retcode_(retcode) {}

std::string uriToPath(const std::string &uri) {
    static const std::string scheme = "file://";
    if (uri.compare(0, scheme.size(), scheme) == 0) return uri.substr(scheme.size());
    return uri;
}

namespace detail {

DomainHandle::~DomainHandle() {
    // Deleting the domain while getInstance builds a new one for the same id
    // would make that creation fail; the registry lock keeps them apart.
    std::lock_guard<std::recursive_mutex> lock(registryMutex());
    domain.reset();
}

std::optional<TagGroupDefinition> ParticipantState::tagGroupByQualifiedName(const std::string &qualified) {
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = tagGroups.rbegin(); it != tagGroups.rend(); ++it) {
        if (it->qualifiedName() == qualified) return *it;
    }
    return std::nullopt;
}

std::optional<TagGroupDefinition> ParticipantState::tagGroupByName(const std::string &name) {
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = tagGroups.rbegin(); it != tagGroups.rend(); ++it) {
        if (it->name == name) return *it;
    }
    return std::nullopt;
}

std::optional<ThingClassDefinition> ParticipantState::thingClass(const std::string &qualified) {
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = thingClasses.rbegin(); it != thingClasses.rend(); ++it) {
        if (it->qualifiedName() == qualified) return *it;
    }
    return std::nullopt;
}

dds_entity_t ParticipantState::topic(const std::string &topicName) {
    std::lock_guard<std::mutex> lock(mutex);
    if (auto it = topics.find(topicName); it != topics.end()) return it->second;
    const std::string ddsName = ddsTopicName(topicName);
    const dds_entity_t t =
        check(dds_create_topic(participant.get(), &marlet_wire_BusSample_desc, ddsName.c_str(), nullptr, nullptr),
              ("dds_create_topic(" + ddsName + ")").c_str());
    topics.emplace(topicName, t);
    return t;
}

WriterTopic ParticipantState::writerTopic(const std::string &topicName) {
    std::lock_guard<std::mutex> lock(mutex);
    if (auto it = writerTopics.find(topicName); it != writerTopics.end()) return it->second;
    const WriterTopic t = createWriterTopic(participant.get(), ddsTopicName(topicName));
    writerTopics.emplace(topicName, t);
    return t;
}

std::int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace detail

Marlet Marlet::getInstance(const std::string &args) {
    return detail::reportingFailures([&] { return openInstance(args); });
}

Marlet Marlet::openInstance(const std::string &args) {
    if (args.compare(0, std::char_traits<char>::length(kConfigPrefix), kConfigPrefix) != 0) {
        throw ConfigError("Marlet::getInstance expects \"config=<file URI>\", got \"" + args + "\"");
    }
    const std::string path = uriToPath(args.substr(std::char_traits<char>::length(kConfigPrefix)));
    const std::string key = canonicalKey(path);

    std::lock_guard<std::recursive_mutex> lock(registryMutex());
    Marlet handle;
    if (auto it = participants().find(key); it != participants().end()) {
        if ((handle.state_ = it->second.lock())) return handle;
    }

    const std::string xml = detail::expandLibraryVariables(readConfig(path), path);
    const int id = detail::checkedDomainId(xml, path);
    auto state = std::make_shared<detail::ParticipantState>();
    state->configPath = path;
    state->domain = domainFor(id, xml);
    state->participant = detail::Entity(dds_create_participant(static_cast<dds_domainid_t>(id), nullptr, nullptr),
                                        "dds_create_participant");
    participants()[key] = state;
    handle.state_ = std::move(state);
    return handle;
}

void Marlet::addTagGroupRegistry(const TagGroupRegistry &registry) {
    if (!state_) throw MarletError("addTagGroupRegistry on a closed Marlet handle");
    std::lock_guard<std::mutex> lock(state_->mutex);
    const auto &groups = registry.tagGroups();
    state_->tagGroups.insert(state_->tagGroups.end(), groups.begin(), groups.end());
}

void Marlet::addThingClassRegistry(const ThingClassRegistry &registry) {
    if (!state_) throw MarletError("addThingClassRegistry on a closed Marlet handle");
    std::lock_guard<std::mutex> lock(state_->mutex);
    const auto &classes = registry.thingClasses();
    state_->thingClasses.insert(state_->thingClasses.end(), classes.begin(), classes.end());
}

void Marlet::close() { state_.reset(); }

int Marlet::domainId() const {
    if (!state_) throw MarletError("domainId on a closed Marlet handle");
    return state_->domain->id;
}

std::string ddsTopicName(const std::string &topic) {
    // DDS topic names allow letters, digits, '_' and '/', and no leading digit;
    // our dotted names keep their structure with '/' in place of '.'.
    std::string name = topic;
    for (char &c : name) {
        const bool allowed =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '/';
        if (c == '.')
            c = '/';
        else if (!allowed)
            c = '_';
    }
    if (name.empty() || (name[0] >= '0' && name[0] <= '9')) name.insert(0, "_");
    return name;
}

} // namespace com::quorixtech::marlet
