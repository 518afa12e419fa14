// `qxbus stats`: samples/s and bytes/s per tag group over a measuring window.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <thread>

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

constexpr long kReadSliceMs = 100;
constexpr std::size_t kReadBatch = 64;

struct Counter {
    const TagGroupEntry *group = nullptr;
    marlet::Thing::Selector selector;
    std::atomic<std::uint64_t> samples{0};
    std::atomic<std::uint64_t> bytes{0};
    std::atomic<std::uint64_t> malformed{0};
    bool failed = false; // touched by its reader thread only
};

// Reads one batch; false when nothing came, or reading this group is no longer possible.
bool countBatch(Counter &counter, long timeoutMs) {
    try {
        const auto samples = counter.selector.read<Pairs>(timeoutMs);
        for (const auto &sample : samples) {
            counter.samples.fetch_add(1);
            counter.bytes.fetch_add(recordBytes(sample.getData()));
        }
        return !samples.empty();
    } catch (const marlet::DecodeError &) {
        counter.malformed.fetch_add(1);
        return true;
    } catch (const std::exception &e) {
        std::cerr << "qxbus: stopped reading " << counter.group->definition.topic << ": " << e.what() << '\n';
        counter.failed = true;
        return false;
    }
}

// One reader per tag group, so a busy video topic never delays the counting of the others.
void countSamples(Counter &counter, const std::atomic<bool> &done) {
    while (!done.load() && !counter.failed)
        countBatch(counter, kReadSliceMs);
    // What had arrived when the window closed belongs to the window.
    while (!counter.failed && countBatch(counter, 0)) {
    }
}

} // namespace

int runStats(const Options &options) {
    const std::string root = findConfigRoot(options.root);
    const TagGroupCatalogue catalogue = loadCatalogue(root);
    if (catalogue.entries().empty()) throw RuntimeFailure("no tag groups defined under " + root);

    ToolBus bus(root);
    std::vector<std::unique_ptr<Counter>> counters;
    for (const auto &entry : catalogue.entries()) {
        auto counter = std::make_unique<Counter>();
        counter->group = &entry;
        counter->selector = bus.makeThing(entry, PortDirection::input, "").select(portName(entry));
        counter->selector.batch(kReadBatch);
        counters.push_back(std::move(counter));
    }

    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    for (auto &counter : counters)
        readers.emplace_back(countSamples, std::ref(*counter), std::cref(done));
    const auto start = Clock::now();
    const auto window = std::chrono::duration<double>(options.durationSeconds);
    while (!stopRequested() && Clock::now() - start < window)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    done = true;
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (auto &reader : readers)
        reader.join();

    std::uint64_t total = 0;
    std::printf("%-36s %-34s %10s %12s %14s\n", "TAG GROUP", "TOPIC", "SAMPLES", "SAMPLES/S", "BYTES/S");
    for (const auto &counter : counters) {
        const auto samples = counter->samples.load();
        total += samples;
        std::printf("%-36s %-34s %10llu %12.2f %14.0f%s\n", counter->group->definition.qualifiedName().c_str(),
                    counter->group->definition.topic.c_str(), static_cast<unsigned long long>(samples),
                    samples / seconds, counter->bytes.load() / seconds,
                    counter->malformed ? ("  (" + std::to_string(counter->malformed.load()) + " malformed)").c_str()
                                       : "");
    }
    std::printf("measured over %.2f s; bytes are the record contents (names, texts, bytes, numbers)\n", seconds);
    std::fflush(stdout);
    if (total == 0) {
        std::cerr << "qxbus: no samples on any tag group\n";
        return kExitFailure;
    }
    return kExitOk;
}

} // namespace qxbus
