// `qxbus list`: things and tag groups seen through DDS discovery.

#include <chrono>
#include <iostream>
#include <map>
#include <set>

#include "catalogue.h"
#include "commands.h"
#include "config_root.h"
#include "discovery.h"
#include "errors.h"
#include "stop_signal.h"
#include "tool_bus.h"
#include "value_format.h"

namespace qxbus {

namespace {

constexpr double kDefaultListSeconds = 3.0;

std::string joined(const std::set<std::string> &items) {
    std::string out;
    for (const auto &item : items)
        out += (out.empty() ? "" : ",") + (item.empty() ? std::string("\"\"") : printable(item));
    return out;
}

struct TopicSummary {
    int writers = 0;
    int readers = 0;
    std::set<std::string> flows;
};

struct ThingSummary {
    std::string thingClass;
    std::set<std::string> flows;
    std::set<std::string> outputs;
    std::set<std::string> inputs;
};

} // namespace

int runList(const Options &options) {
    const std::string root = findConfigRoot(options.root);
    const TagGroupCatalogue catalogue = loadCatalogue(root);
    ToolBus bus(root);
    Discovery discovery(bus.domainId());

    // Discovery trickles in as peers are found; keep taking until the time is up.
    const auto timeout = std::chrono::duration<double>(options.timeoutSeconds.value_or(kDefaultListSeconds));
    const auto endpoints = discovery.waitUntil(std::chrono::duration_cast<std::chrono::milliseconds>(timeout),
                                               [](const std::vector<Endpoint> &) { return stopRequested(); });

    std::map<std::string, TopicSummary> topics;
    std::map<std::string, ThingSummary> things;
    for (const auto &e : endpoints) {
        auto &topic = topics[e.topic];
        (e.writer ? topic.writers : topic.readers)++;
        const std::string key = e.thingId.empty() ? "(participant " + e.participant + ")" : printable(e.thingId);
        auto &thing = things[key];
        if (!e.thingClass.empty()) thing.thingClass = printable(e.thingClass);
        (e.writer ? thing.outputs : thing.inputs).insert(e.topic);
        for (const auto &partition : e.partitions) {
            topic.flows.insert(flowOf(partition));
            thing.flows.insert(flowOf(partition));
        }
    }
    if (endpoints.empty()) {
        std::cerr << "qxbus: nothing found on the bus (domain " << bus.domainId() << ") within "
                  << secondsText(timeout.count()) << "\n";
        return kExitFailure;
    }

    const auto shownTopic = [&](const std::string &ddsName) {
        const auto *entry = catalogue.findByTopic(ddsName);
        return entry ? entry->definition.topic : printable(ddsName);
    };
    std::cout << "Tag groups:\n";
    for (const auto &[name, topic] : topics) {
        const auto *entry = catalogue.findByTopic(name);
        std::cout << "  " << (entry ? entry->definition.qualifiedName() : std::string("(not defined here)"))
                  << "  topic " << shownTopic(name) << "  writers " << topic.writers << "  readers " << topic.readers
                  << "  flows " << joined(topic.flows) << '\n';
    }
    std::cout << "Things:\n";
    for (const auto &[id, thing] : things) {
        std::cout << "  " << id << "  class " << (thing.thingClass.empty() ? "-" : thing.thingClass) << "  flows "
                  << joined(thing.flows) << '\n';
        for (const auto &topic : thing.outputs)
            std::cout << "    out " << shownTopic(topic) << '\n';
        for (const auto &topic : thing.inputs)
            std::cout << "    in  " << shownTopic(topic) << '\n';
    }
    return kExitOk;
}

} // namespace qxbus
