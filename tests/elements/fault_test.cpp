// Faults across processes on the real bus, in both pairings. Guards against a
// subscriber that does not come back (or grows) after its publisher was killed
// and restarted, a publisher held back or growing when a subscriber was killed
// or is slow, and a malformed flood crashing a reader, costing real frames or
// passing unnoticed.

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <regex>
#include <thread>

#include "element_support.h"
#include "marlet/pair_codec.h"
#include "raw_writer.h"

namespace {

using namespace elemtest;
using srcexpect::kResultGroups;
const std::string kCaps = "video/x-raw,format=BGR,width=320,height=240,framerate=30/1";
const std::string kExact = std::string("pairing=frame-id taggroups=") + kResultGroups;
const std::string kCompatible = std::string("taggroups=") + kResultGroups;

// Frame-id pairing: at least share of the frames up to last, each once, in
// order, with its own results.
void expectFrames(const std::vector<Received> &got, int last, double share, const std::string &stream) {
    EXPECT_GE(got.size(), share * (last + 1)) << "frames lost";
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got.back().id(), last);
    for (std::size_t i = 0; i < got.size(); ++i) {
        if (i > 0) EXPECT_GT(got[i].id(), got[i - 1].id()) << "out of order or repeated";
        EXPECT_TRUE(srcexpect::sameWithResults(got[i].frames.front(), srcexpect::frame(got[i].id(), stream, 320, 240)));
    }
}

TEST(Faults, PublisherKilledAndStartedAgain) {
    qxtest::ConfigRoot root;
    root.enter();
    Subscriber exact(kExact, kCaps), compatible(kCompatible, kCaps);
    exact.start();
    compatible.start();
    auto killed = startPublisher(root, {"BGR", 100000, "first"});
    ASSERT_FALSE(pull(exact, "first", {30, 0, 60s}).empty());
    ASSERT_FALSE(pull(compatible, "first", {30, 0, 10s}).empty());
    killed->terminate(SIGKILL);
    killed->wait(10s);
    // Twice more, frame ids from 0 each time. The first restart may cost the
    // sources memory once (threads, the new writers' state); the second may not.
    std::vector<double> memory;
    for (const char *stream : {"second", "third"}) {
        SCOPED_TRACE(stream);
        testing::internal::CaptureStdout(); // no ASSERT until it is taken back: it would swallow the report
        auto restarted = startPublisher(root, {"BGR", 90, stream});
        const auto started = std::chrono::steady_clock::now();
        auto exactRun = pull(exact, stream, {89, 0, 30s});
        EXPECT_LT(std::chrono::steady_clock::now() - started, 1s + 3s + 3s) << "resumed too late"; // settle + frames
        EXPECT_FALSE(pull(compatible, stream, {89, 0, 10s}).empty()) << "the synchroniser did not resume";
        EXPECT_NE(testing::internal::GetCapturedStdout().find("clear all queued data from marlet"), std::string::npos);
        expectFrames(exactRun, 89, 0.9, stream);
        EXPECT_EQ(restarted->wait(30s), 0);
        exactRun.clear(); // the test's own copies of the pictures are not the sources' memory
        memory.push_back(residentMb());
    }
    if (kResidentMemoryTells) EXPECT_LT(memory[1] - memory[0], 15.0) << "memory grew with each publisher restart";
}

// The times (s, from the publisher's start) of each frame handled by the sink, from its INFO log.
std::vector<std::pair<double, double>> frameTimes(const std::string &log) {
    std::vector<std::pair<double, double>> frames;
    static const std::regex line(R"((\d+):(\d+):(\d+\.\d+) .*(Call paddingData|qx_edgesink_write_data done))");
    double begin = 0;
    for (auto it = std::sregex_iterator(log.begin(), log.end(), line); it != std::sregex_iterator(); ++it) {
        const auto &m = *it;
        const double t = std::stod(m[1]) * 3600 + std::stod(m[2]) * 60 + std::stod(m[3]);
        if (m[4] == "Call paddingData")
            begin = t;
        else
            frames.emplace_back(begin, t);
    }
    return frames;
}

// Readers that die or lag cost their publisher nothing. One subscriber
// process is killed mid-stream: after it, no frame takes longer than one frame
// period to publish, the publisher keeps 30 frames a second and its memory
// stays flat. Another takes 200 ms a buffer: it drops what it cannot hand on
// (counted) and its memory stays bounded.
TEST(Faults, PublisherKeepsItsRateWhenReadersDieOrLag) {
    qxtest::ConfigRoot root;
    root.enter();
    auto killed = startLaunch(root, {"qxedgesrc", "pairing=frame-id", std::string("taggroups=") + kResultGroups, "!",
                                     kCaps, "!", "fakesink"});
    ASSERT_TRUE(killed->waitForOutput("waiting for marlet data", 30s));
    Subscriber slow(kExact, kCaps + " ! identity sleep-time=200000");
    slow.start();
    auto publisher = startPublisher(root, {"BGR", 240, "rate"}, "qxedgesink:4");
    std::size_t atKill = 0;
    double publisherAtKill = 0, publisherAfter = 0, lowest = 1e9, highest = 0;
    std::chrono::steady_clock::time_point killedAt;
    for (Received r; publisher->running();) {
        slow.pull(r, 100ms);
        lowest = std::min(lowest, residentMb());
        highest = std::max(highest, residentMb());
        if (!atKill && (atKill = countOf(publisher->err(), "qx_edgesink_write_data done")) >= 60) {
            killed->terminate(SIGKILL);
            killedAt = std::chrono::steady_clock::now();
            publisherAtKill = residentMb(std::to_string(publisher->pid()));
        } else if (atKill < 60) {
            atKill = 0;
        } else if (!publisherAfter && std::chrono::steady_clock::now() - killedAt > 3s) {
            publisherAfter = residentMb(std::to_string(publisher->pid()));
        }
    }
    ASSERT_EQ(publisher->wait(1s), 0) << publisher->err();

    const auto frames = frameTimes(publisher->err());
    ASSERT_EQ(frames.size(), 240u);
    double longest = 0;
    for (std::size_t i = atKill; i < frames.size(); ++i)
        longest = std::max(longest, frames[i].second - frames[i].first);
    EXPECT_LT(longest, 1.0 / 30) << "a write blocked after the reader was gone";
    EXPECT_GT((frames.size() - 1 - atKill) / (frames.back().second - frames[atKill].second), 28.0) << "frames/s";
    EXPECT_GT(slow.stat("frames-dropped"), 0u);
    if (kResidentMemoryTells) {
        EXPECT_LT(publisherAfter - publisherAtKill, 10.0) << "publisher memory grew after the reader was gone";
        EXPECT_LT(highest - lowest, 40.0) << "the slow source's memory grew with the backlog";
    }
}

// Malformed samples (every way the bytes can be wrong) on every topic, over a
// thousand a second, beside a real publisher: nothing crashes, frame-id pairing
// still delivers its frames with their own results, and both sources count
// what they rejected.
TEST(Faults, MalformedFloodBesideRealFrames) {
    qxtest::ConfigRoot root;
    root.enter();
    testing::internal::CaptureStdout(); // a line per rejected sample
    Subscriber exact(kExact, kCaps), compatible(kCompatible, kCaps);
    exact.start();
    compatible.start();

    TOLVIXO::Information<TOLVIXO::ClassificationData> classification;
    classification.frame_id = 1;
    classification.data.push_back({1, "out", "label", 0.5f});
    const auto valid = com::quorixtech::marlet::codec::encode(classification.Encode());
    auto wrongKind = classification.Encode();
    wrongKind[2].value().iotv_string("not a frame id"); // "frame_id"
    const std::vector<std::vector<std::uint8_t>> payloads = {
        {},                                                                                     // empty
        {0x00, 0x01, 0x00},                                                                     // wrong magic
        {0xB7, 0x09, 0x00},                                                                     // wrong version
        {valid.begin(), valid.begin() + valid.size() / 2},                                      // truncated
        {0xB7, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F},                                             // forged count
        {0xB7, 0x01, 0x01, 0x04, 'd', 'a', 't', 'a', 0x06, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}, // huge length
        com::quorixtech::marlet::codec::encode(wrongKind),                                      // wrong kind
    };
    std::atomic<bool> flooding{true};
    std::atomic<long> written{0};
    std::thread flood([&] {
        std::vector<std::unique_ptr<marlettest::RawWriter>> writers;
        for (const char *group :
             {"VideoFrameData", "ClassificationData", "DetectionBoxData", "SegmentationData", "DeviceInfoData"})
            writers.push_back(std::make_unique<marlettest::RawWriter>(
                root, ("com/vision/data/" + std::string(group)).c_str(), "flow.flood"));
        for (std::uint64_t n = 1; flooding; ++n) {
            for (auto &writer : writers)
                writer->write(payloads[n % payloads.size()], "flood", "com.vision.data:x", n);
            written += static_cast<long>(writers.size());
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    });
    const auto floodStart = std::chrono::steady_clock::now();
    auto publisher = startPublisher(root, {"BGR", 150, "real"});
    const auto exactRun = pull(exact, "real", {149, 0, 60s});
    const auto compatibleRun = pull(compatible, "real", {149, 0, 10s});
    flooding = false;
    flood.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - floodStart).count();
    EXPECT_EQ(publisher->wait(30s), 0);
    testing::internal::GetCapturedStdout();

    EXPECT_GT(written / seconds, 1000.0) << "the flood was too thin to show anything";
    // Real frames compete with the flood for the readers' picture history; most must come through.
    expectFrames(exactRun, 149, 0.9, "real");
    EXPECT_FALSE(compatibleRun.empty());
    for (const Received &r : compatibleRun)
        EXPECT_TRUE(srcexpect::sameWithResults(r.frames.front(), srcexpect::frame(r.id(), "real", 320, 240), true));
    EXPECT_GT(exact.stat("samples-rejected"), 1000u);
    EXPECT_GT(compatible.stat("samples-rejected"), 1000u);
}

} // namespace
