// `qxbus publish`: write one record, given as JSON, to a tag group.

#include <chrono>
#include <iostream>
#include <thread>

#include "commands.h"
#include "config_root.h"
#include "discovery.h"
#include "errors.h"
#include "json_pairs.h"
#include "stop_signal.h"
#include "tool_bus.h"

namespace qxbus {

namespace marlet = com::quorixtech::marlet;

int runPublish(const Options &options) {
    const std::string root = findConfigRoot(options.root);
    const TagGroupCatalogue catalogue = loadCatalogue(root);
    const TagGroupEntry &group = catalogue.resolve(options.tagGroup);
    // Checked before joining the bus, so a typo costs no discovery time.
    const Pairs record = pairsFromJson(options.json, group.definition.fields);
    const std::string flow = options.flow ? *options.flow : defaultFlow(root, group);

    ToolBus bus(root);
    if (options.waitSeconds > 0) {
        // The bus keeps no history for late joiners: a record written before any
        // reader is known goes nowhere, so give discovery a chance first.
        Discovery discovery(bus.domainId());
        const std::string partition = "flow." + flow;
        const std::string ddsTopic = ddsTopicName(group.definition.topic);
        const auto wait =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(options.waitSeconds));
        const auto seen = discovery.waitUntil(wait, [&](const std::vector<Endpoint> &endpoints) {
            if (stopRequested()) return true;
            for (const auto &e : endpoints)
                if (!e.writer && e.topic == ddsTopic && partitionsMatch(e.partitions, partition)) return true;
            return false;
        });
        bool found = false;
        for (const auto &e : seen)
            found = found || (!e.writer && e.topic == ddsTopic && partitionsMatch(e.partitions, partition));
        if (!found)
            std::cerr << "qxbus: no subscriber of " << group.definition.topic << " in flow \"" << flow
                      << "\" found; publishing anyway\n";
    }

    marlet::Thing thing = bus.makeThing(group, PortDirection::output, flow);
    const std::uint64_t count = options.count.value_or(1);
    std::uint64_t written = 0;
    for (; written < count && !stopRequested(); ++written) {
        if (written > 0 && options.intervalSeconds > 0)
            std::this_thread::sleep_for(std::chrono::duration<double>(options.intervalSeconds));
        thing.write(portName(group), record);
    }
    std::cerr << "qxbus: published " << written << (written == 1 ? " record" : " records") << " to "
              << group.definition.topic << " in flow \"" << flow << "\"\n";
    return kExitOk;
}

} // namespace qxbus
