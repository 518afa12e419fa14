#include "modelloader.h"

#include <cerrno>
#include <ctime>

#include <glib.h>

#include "receiver.h"
#include "utils.h"

namespace {

struct ResolvedFiles {
    std::string root;
    std::vector<std::string> uris; // same order as the relative names given
};

// Finds the root holding every file and turns each into a "file:/" URI under
// it. Empty root (and a message on stderr) when no root holds them all.
ResolvedFiles resolveUnderRoot(const std::vector<std::string> &files) {
    ResolvedFiles resolved;
    resolved.root = search_files(files);
    if (resolved.root.empty()) {
        std::cerr << "Can not find all edge configuration files" << std::endl;
        std::cerr << Edge::describeMissing(files) << std::endl;
        return resolved;
    }
    // "Kelpkit" is the product name operators grep for in logs.
    std::cout << "Find Kelpkit configuration files under " << resolved.root << std::endl;
    const std::string prefix = path_join({"file:/", resolved.root});
    resolved.uris = combine_paths(prefix, files);
    return resolved;
}

std::string listed(const std::vector<std::string> &files) {
    std::string text;
    for (const auto &file : files)
        text += (text.empty() ? "" : ", ") + file;
    return text;
}

// One second, resumed for the rest of it when a signal cuts it short.
void sleepOneSecond() {
    timespec remaining{1, 0};
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
}

} // namespace

namespace edge_detail {

void printCaught(const std::exception &e) {
    // One write per line: readers of several tag groups print concurrently.
    std::ostringstream line;
    line << "A exception was caught with message " << e.what() << '\n';
    std::cout << line.str() << std::flush;
}

} // namespace edge_detail

std::shared_ptr<Edge> Edge::create(const std::string &configFile, const std::string &propertiesFile,
                                   const std::string &thingClassFile, const std::vector<std::string> &tagGroupFiles,
                                   std::string edgeProperty) {
    std::vector<std::string> files = tagGroupFiles;
    files.push_back(thingClassFile);
    files.push_back(propertiesFile);
    files.push_back(configFile);
    ResolvedFiles resolved = resolveUnderRoot(files);
    if (resolved.root.empty()) return {};

    auto &uris = resolved.uris;
    std::string configUri = uris[uris.size() - 1];
    std::string propertiesUri = uris[uris.size() - 2];
    std::string thingClassUri = uris[uris.size() - 3];
    std::vector<std::string> tagGroupUris(uris.begin(), uris.end() - 3);
    return std::make_shared<Edge>(std::move(configUri), std::move(propertiesUri), std::move(thingClassUri),
                                  std::move(tagGroupUris), std::move(edgeProperty));
}

std::string Edge::describeMissing(const std::vector<std::string> &files) {
    const auto missing = missing_config_files(files);
    if (missing.empty()) return "no configuration root holds all of " + listed(files) + " at once";
    return "missing under every configuration root: " + listed(missing);
}

Edge::Edge(std::string configUri_, std::string thingPropertiesUri_, std::string thingClassUri_,
           std::vector<std::string> tagGroupUris_, std::string edgeProperty_)
    : configUri(std::move(configUri_)), thingPropertiesUri(std::move(thingPropertiesUri_)),
      thingClassUri(std::move(thingClassUri_)), tagGroupUris(std::move(tagGroupUris_)),
      edgeProperty(std::move(edgeProperty_)), bus(Marlet::getInstance("config=" + configUri)) {
    thing = createThing(tagGroupUris, thingClassUri, thingPropertiesUri, true);
    thingId = thing.getId();
    // The session is named after its first main thing; every thing it makes
    // writes that name, so subscribers see one publisher.
    sessionId = thingId;
    thing.joinSession(sessionId);
}

Edge::~Edge() {
    std::cout << "edge ~Edge() called." << std::endl;
    try {
        shutdown();
    } catch (const std::exception &e) {
        // A destructor has nowhere to send it; say so rather than terminate.
        edge_detail::printCaught(e);
    }
}

Edge::Thing Edge::createThing(const std::vector<std::string> &tagGroupUris_, const std::string &thingClassUri_,
                              const std::string &propertiesUri, bool autoId) {
    namespace marlet = com::quorixtech::marlet;
    // Each loading step reports its failure and lets the next one try: the
    // library decides in createThing whether what did load is enough.
    try {
        marlet::JSonTagGroupRegistry tagGroups;
        for (const auto &uri : tagGroupUris_)
            tagGroups.registerTagGroupsFromURI(uri);
        bus.addTagGroupRegistry(tagGroups);
    } catch (const std::exception &) {
        std::cout << "Load Tag group failed." << std::endl;
    }
    try {
        marlet::JSonThingClassRegistry thingClasses;
        thingClasses.registerThingClassesFromURI(thingClassUri_);
        bus.addThingClassRegistry(thingClasses);
    } catch (const std::exception &) {
        std::cout << "Load Thing Class failed." << std::endl;
    }
    marlet::JSonThingProperties properties;
    try {
        if (!autoId) {
            if (edgeProperty.empty()) {
                properties.readPropertiesFromURI(propertiesUri);
            } else {
                properties.readPropertiesFromString(
                    replace_thing_property_context_id(propertiesUri, edgeProperty, true));
            }
        } else {
            std::string text = autoGenerateTingID(propertiesUri, true);
            if (!edgeProperty.empty()) text = replace_thing_property_context_id(text, edgeProperty, false);
            properties.readPropertiesFromString(text, propertiesUri);
        }
    } catch (const std::exception &) {
        std::cout << "Load Thing Properties failed." << std::endl;
    }
    Thing created = bus.createThing(properties);
    if (!sessionId.empty()) created.joinSession(sessionId);
    std::cout << "[" << created.getId() << "] Init flow " << created.getContextId() << " done" << std::endl;
    return created;
}

void Edge::AddThing(const std::string &name, const std::string &propertiesFile, const std::string &thingClassFile,
                    const std::vector<std::string> &tagGroupFiles) {
    std::vector<std::string> files = tagGroupFiles;
    files.push_back(thingClassFile);
    files.push_back(propertiesFile);
    ResolvedFiles resolved = resolveUnderRoot(files);
    if (resolved.root.empty()) return;

    auto &uris = resolved.uris;
    const std::string propertiesUri = uris[uris.size() - 1];
    const std::string classUri = uris[uris.size() - 2];
    const std::vector<std::string> groupUris(uris.begin(), uris.end() - 2);
    Thing added = createThing(groupUris, classUri, propertiesUri, true);

    bool inserted = false;
    {
        std::lock_guard<std::mutex> lock(thingsMutex);
        inserted = things.emplace(name, added).second;
        if (inserted) addedFiles_[name] = ThingUris{groupUris, classUri, propertiesUri};
    }
    // The first thing under a name stays; a later one would only hold bus
    // resources that nothing can reach.
    if (!inserted) added.close();
}

void Edge::reopen() {
    if (!stopRequested.load()) return;
    bus = Marlet::getInstance("config=" + configUri);
    thing = createThing(tagGroupUris, thingClassUri, thingPropertiesUri, true);
    thingId = thing.getId();
    {
        std::lock_guard<std::mutex> lock(thingsMutex);
        for (const auto &[name, uris] : addedFiles_)
            things[name] = createThing(uris.tagGroups, uris.thingClass, uris.properties, true);
    }
    stopRequested.store(false);
}

Edge::Thing &Edge::writerOf(const std::string &tagGroupName) {
    std::lock_guard<std::mutex> lock(thingsMutex);
    auto it = things.find(tagGroupName);
    return it != things.end() ? it->second : thing; // map nodes stay put while others are added
}

void Edge::writeSample(const std::string &tagGroupName, const std::vector<IOT_NVP> &data) {
    writerOf(tagGroupName).write<std::vector<IOT_NVP>>(tagGroupName, data);
}

void Edge::writeSample(const std::string &tagGroupName, const std::vector<IOT_NVP> &data,
                       const Thing::InPlaceBytes &inPlace) {
    writerOf(tagGroupName).writePairs(tagGroupName, data, inPlace);
}

Edge::Thing::Selector Edge::selectInput(const std::string &input) {
    Thing *source = &thing;
    std::ostringstream line;
    line << "New read thread [" << std::this_thread::get_id() << "] for ";
    {
        std::lock_guard<std::mutex> lock(thingsMutex);
        auto it = things.find(input);
        if (it == things.end()) {
            line << "main input\n";
        } else {
            line << "input " << input << '\n';
            source = &it->second;
        }
    }
    std::cout << line.str() << std::flush;
    return source->select(input);
}

bool Edge::deinit() {
    shutdown();
    return true;
}

void Edge::shutdown() {
    stopRequested.store(true);
    // Readers blocked in a read return at once and see the flag, rather than
    // after their read timeout: stopping an element takes milliseconds.
    {
        std::lock_guard<std::mutex> lock(thingsMutex);
        thing.wakeReaders();
        for (auto &entry : things)
            entry.second.wakeReaders();
    }
    for (auto &listener : listeners) {
        if (listener.second) listener.second->throwEvent();
    }
    // Woken readers end within moments; give them that before the long wait.
    for (int i = 0; i < 200 && activeReaders.load() != 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    // A reader stuck inside the library must not hold shutdown up for more
    // than ten seconds here.
    for (int i = 0; i < 10 && activeReaders.load() != 0; ++i)
        sleepOneSecond();
    for (auto &reader : readThreads) {
        if (!reader.joinable()) continue;
        // Shutdown from inside a reader (a receiver that drops the last
        // reference) cannot wait for itself.
        if (reader.get_id() == std::this_thread::get_id()) {
            reader.detach();
        } else {
            reader.join();
        }
    }
    readThreads.clear();
    listeners.clear();

    thing.close();
    for (auto &entry : things)
        entry.second.close();
    bus.close();
}

ModelLoader::Group ModelLoader::groupOf(const std::string &name) {
    // Names are matched by their hash, as everywhere else tag-group names are dispatched.
    switch (hash_(name.c_str())) {
    case hash_("VideoFrameData"):
        return Group::VideoFrame;
    case hash_("DeviceInfoData"):
        return Group::DeviceInfo;
    case hash_("ClassificationData"):
        return Group::Classification;
    case hash_("DetectionBoxData"):
        return Group::DetectionBox;
    case hash_("SegmentationData"):
        return Group::Segmentation;
    default:
        g_error("No matched tag group name.");
    }
}

ModelLoader::ThingFiles ModelLoader::filesOf(Group group, Direction direction) {
    const bool out = direction == Direction::Out;
    switch (group) {
    case Group::DeviceInfo:
        return {out ? "config/DeviceInfoThingOutProperties.json" : "config/DeviceInfoThingInProperties.json",
                out ? "definitions/ThingClass/com.vision.data/DeviceInfoThingOutClass.json"
                    : "definitions/ThingClass/com.vision.data/DeviceInfoThingInClass.json",
                "definitions/TagGroup/com.vision.data/DeviceInfoTagGroup.json"};
    case Group::Classification:
        return {out ? "config/ClassificationThingOutProperties.json" : "config/ClassificationThingInProperties.json",
                out ? "definitions/ThingClass/com.vision.data/ClassificationThingOutClass.json"
                    : "definitions/ThingClass/com.vision.data/ClassificationThingInClass.json",
                "definitions/TagGroup/com.vision.data/ClassificationTagGroup.json"};
    case Group::DetectionBox:
        return {out ? "config/DetectionBoxThingOutProperties.json" : "config/DetectionBoxThingInProperties.json",
                out ? "definitions/ThingClass/com.vision.data/DetectionBoxThingOutClass.json"
                    : "definitions/ThingClass/com.vision.data/DetectionBoxThingInClass.json",
                "definitions/TagGroup/com.vision.data/DetectionBoxTagGroup.json"};
    case Group::Segmentation:
        return {out ? "config/SegmentationThingOutProperties.json" : "config/SegmentationThingInProperties.json",
                out ? "definitions/ThingClass/com.vision.data/SegmentationThingOutClass.json"
                    : "definitions/ThingClass/com.vision.data/SegmentationThingInClass.json",
                "definitions/TagGroup/com.vision.data/SegmentationTagGroup.json"};
    case Group::VideoFrame:
        break;
    }
    // The video group is carried by the main thing; callers skip it before asking.
    g_error("No matched tag group name.");
}

void ModelLoader::addThing(Edge &edge, const std::string &name, Group group, Direction direction) {
    const ThingFiles files = filesOf(group, direction);
    edge.AddThing(name, files.properties, files.thingClass, {files.tagGroup});
    // A thing that is missing, or that cannot reach its tag group because a
    // definition did not load, would fail on the first frame; fail the open
    // instead, with the files named.
    bool usable = false;
    {
        std::lock_guard<std::mutex> lock(edge.thingsMutex);
        auto it = edge.things.find(name);
        if (it != edge.things.end())
            usable = direction == Direction::Out ? it->second.hasOutput(name) : it->second.hasInput(name);
    }
    if (!usable) {
        const std::vector<std::string> all{files.tagGroup, files.thingClass, files.properties};
        const std::string problem =
            missing_config_files(all).empty() ? "its files did not load: " + listed(all) : Edge::describeMissing(all);
        Edge::failOpen("tag group " + name + " cannot be " +
                       (direction == Direction::Out ? "published" : "subscribed") + ": " + problem);
    }
}

void Edge::requireMainPort(const std::string &name, bool output) {
    if (output ? thing.hasOutput(name) : thing.hasInput(name)) return;
    failOpen("tag group " + name + " cannot be " + (output ? "published" : "subscribed") +
             ": its definition did not load: " + listed(tagGroupUris));
}

void Edge::failOpen(const std::string &problem) {
    // Said here as well as thrown: the elements report only that the open failed.
    std::cerr << problem << std::endl;
    throw com::quorixtech::marlet::ConfigError(problem);
}

void ModelLoader::addThingOutByProp(std::shared_ptr<Edge> edge, std::vector<std::string> &tagGroupNames) {
    for (const auto &name : tagGroupNames) {
        const Group group = groupOf(name);
        if (group == Group::VideoFrame) continue; // carried by the main thing
        addThing(*edge, name, group, Direction::Out);
    }
}

void ModelLoader::addThingInByProp(std::shared_ptr<Edge> edge, std::vector<std::string> &tagGroupNames,
                                   ReceiveImage &receiver, std::string flowId) {
    addThingsIn(edge, tagGroupNames, receiver, flowId);
}
