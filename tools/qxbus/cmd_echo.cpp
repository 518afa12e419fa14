// `qxbus echo`: print the records of one tag group as they arrive.

#include <algorithm>
#include <chrono>
#include <ctime>
#include <iostream>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "config_root.h"
#include "errors.h"
#include "json_pairs.h"
#include "stop_signal.h"
#include "tool_bus.h"
#include "value_format.h"

namespace qxbus {

namespace marlet = com::quorixtech::marlet;
using Clock = std::chrono::steady_clock;

namespace {

// Short reads keep Ctrl-C and the deadline responsive.
constexpr long kReadSliceMs = 200;
constexpr std::size_t kReadBatch = 16;

std::string utcText(std::int64_t nanoseconds) {
    const std::time_t seconds = static_cast<std::time_t>(nanoseconds / 1000000000);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[40];
    const std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text + n, sizeof text - n, ".%03dZ", static_cast<int>((nanoseconds / 1000000) % 1000));
    return text;
}

void printText(const TagGroupEntry &group, const marlet::DataSample<Pairs> &sample) {
    std::cout << "--- " << group.definition.qualifiedName() << "  topic " << group.definition.topic << "  seq "
              << sample.getSequence() << "  from " << printable(sample.getSourceId()) << "  flow "
              << quotedText(sample.getFlowId()) << "  at " << utcText(sample.getSourceTime()) << '\n'
              << formatPairs(sample.getData(), 1);
}

void printJson(const TagGroupEntry &group, const marlet::DataSample<Pairs> &sample) {
    nlohmann::ordered_json line = {{"tagGroup", group.definition.qualifiedName()},
                                   {"topic", group.definition.topic},
                                   {"source", sample.getSourceId()},
                                   {"flow", sample.getFlowId()},
                                   {"sequence", sample.getSequence()},
                                   {"sourceTime", sample.getSourceTime()},
                                   {"record", pairsToJson(sample.getData())}};
    std::cout << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

} // namespace

int runEcho(const Options &options) {
    const std::string root = findConfigRoot(options.root);
    const TagGroupCatalogue catalogue = loadCatalogue(root);
    const TagGroupEntry &group = catalogue.resolve(options.tagGroup);

    ToolBus bus(root);
    marlet::Thing thing = bus.makeThing(group, PortDirection::input, "");
    marlet::Thing::Selector selector = thing.select(portName(group));
    if (options.flow && !options.flow->empty()) selector.flow(*options.flow);
    selector.batch(kReadBatch);

    const auto start = Clock::now();
    const auto deadline = options.timeoutSeconds ? start + std::chrono::duration_cast<Clock::duration>(
                                                               std::chrono::duration<double>(*options.timeoutSeconds))
                                                 : Clock::time_point::max();
    std::uint64_t received = 0;
    std::uint64_t bad = 0;
    while (!stopRequested() && (!options.count || received < *options.count)) {
        const auto now = Clock::now();
        if (now >= deadline) break;
        const long left =
            static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count());
        std::vector<marlet::DataSample<Pairs>> samples;
        try {
            samples = selector.read<Pairs>(std::max(1L, std::min(kReadSliceMs, left)));
        } catch (const marlet::DecodeError &e) {
            // A malformed sample costs only itself: report it and keep reading.
            ++bad;
            std::cerr << "qxbus: skipped a sample that does not decode: " << e.what() << '\n';
            continue;
        }
        for (const auto &sample : samples) {
            if (options.count && received >= *options.count) break;
            options.jsonOutput ? printJson(group, sample) : printText(group, sample);
            ++received;
        }
        std::cout.flush();
    }

    if (received == 0 && !stopRequested()) {
        std::cerr << "qxbus: no record of " << group.definition.topic << " received"
                  << (options.timeoutSeconds ? " within " + secondsText(*options.timeoutSeconds) : "")
                  << (bad ? " (" + std::to_string(bad) + " malformed samples skipped)" : "") << '\n';
        return kExitFailure;
    }
    if (options.count && received < *options.count)
        std::cerr << "qxbus: received " << received << " of " << *options.count << " records\n";
    return kExitOk;
}

} // namespace qxbus
