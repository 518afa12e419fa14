// The frame-exact pairing engine on a fake clock. Guards against a frame paired
// with another frame's or publisher's results, released twice, out of order or
// never; results lost when they come before their frame or late; a restart or a
// second publisher disturbing the first; unbounded queues; miscounted stats.
// Each row is a script of arrivals and clock steps; after every step the
// consumer takes all that is released, and the row checks that sequence and
// the counters.
//
// Script tokens: "f3" frame 3, "c3" / "d3" / "s3" its classification, detection
// and segmentation, "f1-50" a run of ids, "vX" the device record "X", an upper-case
// prefix for another publisher ("Bf1"; none means A), "+100" 100 ms pass. A run is
// one step: the consumer looks only after its last record.
// Released entries read "A3:cd/X": publisher, frame id, the kinds it carries and
// its device; a result of another frame or publisher would show as "c?".

#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <cstring>
#include <sstream>

#include "pairing.h"
#include "receiver_test_support.h"

namespace {

using namespace receivertest;
using namespace std::chrono_literals;

// Frames delivered, dropped, incomplete; results matched, late, dropped; restarts.
using Totals = std::array<std::uint64_t, 7>;

struct PairingCase {
    const char *name;
    const char *kinds; // the kinds a frame waits for ("v": its publisher's device)
    const char *script;
    const char *released;
    Totals totals;
    // Frames per publisher, results per kind, output entries, publishers.
    std::array<std::size_t, 4> limits{32, 256, 10, 16};
};

std::ostream &operator<<(std::ostream &os, const PairingCase &c) { return os << c.name; }

void range(const std::string &text, std::uint32_t &first, std::uint32_t &last) {
    const auto dash = text.find('-');
    first = static_cast<std::uint32_t>(std::stoul(text.substr(0, dash)));
    last = dash == std::string::npos ? first : static_cast<std::uint32_t>(std::stoul(text.substr(dash + 1)));
}

// "A1-3:c" becomes "A1:c", "A2:c", "A3:c".
std::vector<std::string> expand(const std::string &released) {
    std::vector<std::string> out;
    std::istringstream in(released);
    for (std::string token; in >> token;) {
        const auto colon = token.find(':');
        std::uint32_t first = 0, last = 0;
        range(token.substr(1, colon - 1), first, last);
        for (auto id = first; id <= last; ++id)
            out.push_back(token[0] + std::to_string(id) + token.substr(colon));
    }
    return out;
}

std::string render(const SynchronizedData &e) {
    const TOLVIXO::FrameInfo &frame = e.frameInfo;
    std::string out = frame.stream_id + std::to_string(frame.frame_id) + ":";
    const auto mark = [&](char kind, const auto &result) {
        if (result.engine_id.empty()) return;
        out += kind;
        if (result.stream_id != frame.stream_id || result.frame_id != frame.frame_id) out += '?';
    };
    mark('c', e.classification);
    mark('d', e.detectionBox);
    mark('s', e.segmentInfo);
    if (!e.deviceInfo.dev_id.empty()) out += "/" + e.deviceInfo.dev_id;
    return out;
}

void pushRecord(PairingEngine &engine, const PublisherKey &key, char kind, std::uint32_t id) {
    const auto tagged = [&](auto record) {
        record.stream_id = key.flow;
        engine.push(key, std::move(record));
    };
    if (kind == 'f') return tagged(makeFrame(id));
    if (kind == 'c') return tagged(makeClassification(id));
    if (kind == 'd') return tagged(makeDetection(id));
    ASSERT_EQ(kind, 's');
    tagged(makeSegment(id));
}

class PairingTest : public ::testing::TestWithParam<PairingCase> {};

TEST_P(PairingTest, ReleasesEachFrameOnceInOrderWithItsOwnResults) {
    const PairingCase &c = GetParam();
    PairingSettings settings;
    settings.needClassification = std::strchr(c.kinds, 'c') != nullptr;
    settings.needDetection = std::strchr(c.kinds, 'd') != nullptr;
    settings.needSegmentation = std::strchr(c.kinds, 's') != nullptr;
    settings.needDevice = std::strchr(c.kinds, 'v') != nullptr;
    std::tie(settings.maxFramesPerPublisher, settings.maxResultsPerKind, settings.outputLimit, settings.maxPublishers) =
        std::tuple_cat(c.limits);
    std::chrono::steady_clock::time_point now{};
    PairingEngine engine(settings, [&] { return now; });

    std::vector<std::string> released;
    const auto drain = [&] {
        SynchronizedData entry;
        while (engine.pop(entry, 0ms))
            released.push_back(render(entry));
    };
    std::istringstream script(c.script);
    for (std::string token; script >> token; drain()) {
        if (token[0] == '+') {
            now += std::chrono::milliseconds(std::stoi(token.substr(1)));
            continue;
        }
        // The flow tells the publishers apart here; the session would do the same.
        const PublisherKey key{"writer", std::isupper(token[0]) ? token.substr(0, 1) : "A"};
        if (std::isupper(token[0])) token.erase(0, 1);
        if (token[0] == 'v') {
            engine.push(key, makeDevice(token.substr(1)));
            continue;
        }
        std::uint32_t first = 0, last = 0;
        range(token.substr(1), first, last);
        for (auto id = first; id <= last; ++id)
            pushRecord(engine, key, token[0], id);
    }

    EXPECT_EQ(released, expand(c.released));
    const PairingCounters n = engine.counters();
    EXPECT_EQ((Totals{n.framesDelivered, n.framesDropped, n.framesIncomplete, n.resultsMatched, n.resultsLate,
                      n.resultsDropped, n.restarts}),
              c.totals);
    EXPECT_EQ(n.framesReceived, n.framesDelivered + n.framesDropped + n.framesWaiting);
}

// clang-format off
const PairingCase kRows[] = {
    {"result before its frame", "c", "c1 f1", "A1:c", {1, 0, 0, 1, 0, 0, 0}},
    {"results after their frame, one twice", "cds", "f1 c1 d1 c1 s1", "A1:cds", {1, 0, 0, 3, 0, 1, 0}},
    {"missing kind: out when the wait ends, then late", "cd", "f1 c1 +99 +1 d1 +100", "A1:c", {1, 0, 1, 1, 1, 0, 0}},
    {"one late result, then on-time ones", "c", "f1 +100 c1 f2 c2 c3 f3 +100", "A1: A2:c A3:c", {3, 0, 1, 2, 1, 0, 0}},
    // The first frame waits for the publisher's first device record, later ones do not.
    {"device awaited once", "cv", "c1 f1 vX c2 f2", "A1:c/X A2:c/X", {2, 0, 0, 2, 0, 0, 0}},
    {"result waits for its frame only so long", "c", "c1 +2000 f1 +100", "A1:", {1, 0, 1, 0, 0, 1, 0}},
    {"backlog of 50 frames", "cd", "f1-50 c1-50 d1-50", "A1-50:cd", {50, 0, 0, 100, 0, 0, 0}, {64, 256, 64, 16}},
    // c5 came before the old run's last frame; c1 of the new run after it.
    {"restart, results first", "c", "c1 f1 c2 f2 c5 f3 c1 f1 c2 f2", "A1:c A2:c A3: A1:c A2:c", {5, 0, 1, 4, 0, 1, 1}},
    {"two publishers, same ids", "c", "vX BvY f1 Bf1 Bc1 vZ c1 f2 Bf2 c2 Bc2", "B1:c/Y A1:c/Z A2:c/Z B2:c/Y",
     {4, 0, 0, 4, 0, 0, 0}},
    {"late join", "c", "c7 c8 c9 f10 c10 f11 c11 c9 +100", "A10:c A11:c", {2, 0, 0, 2, 1, 3, 0}},
    {"waiting frames overflow", "c", "f1 f2 f3 c2 c3", "A2:c A3:c", {2, 1, 0, 2, 0, 0, 0}, {2, 256, 10, 16}},
    // f2 and f3 are complete at once but wait behind f1.
    {"results overflow", "c", "c1 c2 c3 f1 f2 f3 +100", "A1: A2:c A3:c", {3, 0, 1, 2, 0, 1, 0}, {32, 2, 10, 16}},
    {"output overflows", "", "f1-3", "A2: A3:", {2, 1, 0, 0, 0, 0, 0}, {32, 256, 2, 16}},
    // A spoke after B, so B and its waiting frame are forgotten when C comes.
    {"publishers overflow", "c", "f1 Bf1 c1 Cf1 Cc1 Bc1 +100", "A1:c C1:c", {2, 1, 0, 2, 0, 0, 0}, {32, 256, 10, 2}},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Rows, PairingTest, ::testing::ValuesIn(kRows));

} // namespace
