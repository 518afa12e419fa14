// Guards the bus library on a real bus, in one process and across processes:
// samples lost, duplicated, reordered or changed on the way (header fields
// included), flows leaking into each other, names resolving to the wrong tag
// group, handles and things misbehaving once closed, a stalled reader holding
// back more than a keep-all writer, a vanished publisher going unreported (or
// reported twice), and configurations failing without naming file and fault.

#include <atomic>
#include <csignal>
#include <iostream>
#include <map>
#include <numeric>
#include <regex>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bus_support.h"
#include "qxtest/child_process.h"
#include "qxtest/config_root.h"

namespace {

using namespace com::quorixtech::marlet;
using namespace std::chrono_literals;
using marlettest::frame;
using marlettest::makeThing;
using Pairs = std::vector<IOT_NVP>;
using Sample = DataSample<Pairs>;
using Clock = std::chrono::steady_clock;

std::uint32_t frameIdOf(const Sample &s) { return s.getData().at(0).value().iotv_uint32(); }

class BusTest : public ::testing::Test {
  protected:
    void SetUp() override { open(); }
    void TearDown() override { bus_.close(); }
    void open() {
        bus_ = Marlet::getInstance("config=file://" + root_.file("config/Marlet.xml"));
        marlettest::registerDefinitions(bus_, root_.path());
    }

    // Gives a shipped tag group other QoS, for the peers started from now on
    // and, registered again, for the things made here from now on.
    void setQos(const std::string &file, const std::string &qos) {
        const std::string path = "definitions/TagGroup/com.vision.data/" + file;
        root_.writeFile(path,
                        std::regex_replace(root_.readFile(path), std::regex(R"("qos": \{[^}]*\})"), "\"qos\": " + qos));
        marlettest::registerDefinitions(bus_, root_.path());
    }

    // The peer process (helpers/marlet_peer.cpp) reading `groups`, in this test's configuration root.
    std::unique_ptr<qxtest::ChildProcess> startPeer(std::vector<std::string> groups) {
        groups.insert(groups.begin(), MARLET_PEER_PATH);
        auto peer = std::make_unique<qxtest::ChildProcess>(groups, root_.path());
        EXPECT_TRUE(peer->waitForOutput("ready peer-out", 30s)) << peer->err();
        return peer;
    }

    qxtest::ConfigRoot root_;
    Marlet bus_;
};

// The subscriber's shape: reader threads with copies of their selectors while
// another thread writes on things of the same participant.
TEST_F(BusTest, EveryFrameArrivesOnceInOrderWithItsHeaderAndFlowsStayApart) {
    constexpr std::uint32_t kFrames = 200;
    Thing outA = makeThing(bus_, "ClassificationThingOut", "out-a", "A");
    Thing outB = makeThing(bus_, "ClassificationThingOut", "out-b", "B");
    Thing in = makeThing(bus_, "ClassificationThingIn", "in", "A");
    std::vector<Thing::Selector> selectors = {in.select("ClassificationData"), in.select("ClassificationData")};
    selectors[0].flow("A"); // the other, unflowed, sees every flow
    std::vector<std::vector<Sample>> received(selectors.size());
    std::vector<std::thread> readers;
    for (std::size_t r = 0; r < selectors.size(); ++r) {
        selectors[r].batch(4).read<Pairs>(0);
        readers.emplace_back([&, r, selector = selectors[r]]() mutable {
            for (auto got = selector.read<Pairs>(10000); !got.empty(); got = selector.read<Pairs>(1000))
                received[r].insert(received[r].end(), got.begin(), got.end());
        });
    }
    const auto nowNs = [] { return std::chrono::system_clock::now().time_since_epoch() / 1ns; };
    const std::int64_t before = nowNs();
    std::thread([&] {
        for (std::uint32_t id = 1; id <= kFrames; ++id) {
            outA.write("ClassificationData", frame(id, 64 + id));
            outB.write("ClassificationData", frame(id, 64 + id));
        }
    }).join();
    const std::int64_t after = nowNs();
    for (auto &t : readers)
        t.join();

    for (std::size_t r = 0; r < selectors.size(); ++r) {
        std::map<std::string, std::uint32_t> lastIdBySource;
        for (const Sample &s : received[r]) {
            const std::uint32_t id = ++lastIdBySource[s.getSourceId()];
            EXPECT_EQ(s.getData(), frame(id, 64 + id));
            EXPECT_EQ(s.getSequence(), id);
            EXPECT_EQ(s.getFlowId(), s.getSourceId() == "out-a" ? "A" : "B");
            EXPECT_EQ(s.getTagGroup(), "com.vision.data:ClassificationData");
            EXPECT_TRUE(s.getSourceTime() >= before && s.getSourceTime() <= after);
        }
        std::map<std::string, std::uint32_t> expected = {{"out-a", kFrames}, {"out-b", kFrames}};
        if (r == 0) expected.erase("out-b");
        EXPECT_EQ(lastIdBySource, expected);
    }
}

// A name is a port of the thing's class or else any registered tag group, as
// registered when the thing was created: the pipe group, registered later,
// redefines the video group for later things only.
TEST_F(BusTest, NamesResolveAgainstTheDefinitionsOfTheThingsCreation) {
    Thing plainOut = makeThing(bus_, "VideoFrameThingOut", "plain-out", "default");
    Thing plainIn = makeThing(bus_, "VideoFrameThingIn", "plain-in", "default");
    JSonTagGroupRegistry pipe;
    pipe.registerTagGroupsFromURI("file://" + root_.file("definitions/TagGroup/com.vision.data/IXOPipeTagGroup.json"));
    bus_.addTagGroupRegistry(pipe);
    Thing pipeOut = makeThing(bus_, "VideoFrameThingOut", "pipe-out", "default");
    Thing pipeIn = makeThing(bus_, "VideoFrameThingIn", "pipe-in", "default");
    Thing::Selector plain = plainIn.select("VideoFrameData"), piped = pipeIn.select("VideoFrameData");
    plain.batch(8).read<Pairs>(0);
    piped.batch(8).read<Pairs>(0);

    pipeOut.write("VideoFrameData", frame(5, 4));
    plainOut.write("VideoFrameData", frame(6, 4));
    EXPECT_NO_THROW(plainOut.write("DeviceInfoData", frame(7, 4))); // registered, though not a port
    const auto onPipe = piped.read<Pairs>(5000), onPlain = plain.read<Pairs>(5000);
    ASSERT_EQ(onPipe.size(), 1u);
    EXPECT_EQ(onPipe[0].getSourceId(), "pipe-out");
    ASSERT_EQ(onPlain.size(), 1u);
    EXPECT_EQ(onPlain[0].getSourceId(), "plain-out");
    EXPECT_TRUE(plain.read<Pairs>(200).empty()); // a quiet topic: nothing, after the wait

    EXPECT_THROW(plainIn.select("NoSuchInput").read<Pairs>(50), MarletError);
    EXPECT_THROW(plainOut.write("NoSuchOutput", frame(1, 1)), MarletError);
    plainIn.close();
    EXPECT_THROW(plain.read<Pairs>(10), MarletError); // a selector outliving its thing
    EXPECT_THROW(plainIn.select("VideoFrameData"), MarletError);
}

TEST_F(BusTest, HandlesShareOneParticipantAndClosingTwiceIsHarmless) {
    // Another spelling of the file: the same participant, with the definitions registered through the first handle.
    Marlet second = Marlet::getInstance("config=file://" + root_.path() + "/config/../config/Marlet.xml");
    EXPECT_EQ(second.domainId(), root_.domainId());
    Thing thing = makeThing(second, "VideoFrameThingOut", "second", "default");
    EXPECT_NO_THROW(thing.write("VideoFrameData", frame(1, 1)));
    second.close();
    second.close();
    EXPECT_THROW(makeThing(second, "VideoFrameThingOut", "closed", "default"), MarletError);
    thing.close();
    thing.close();
    EXPECT_THROW(thing.write("VideoFrameData", frame(1, 1)), MarletError);
    // The participant lives on through the first handle, and comes back after the last one went.
    EXPECT_NO_THROW(makeThing(bus_, "VideoFrameThingOut", "still", "default").write("VideoFrameData", frame(1, 1)));
    bus_.close();
    open();
    EXPECT_NO_THROW(makeThing(bus_, "VideoFrameThingOut", "again", "default").write("VideoFrameData", frame(1, 1)));
}

// Writes `pairs` until `selector` delivers a sample with frame id `echoId`:
// discovery takes an unknown time, so the first writes may go unheard.
std::vector<Sample> writeUntil(Thing &out, const std::string &output, Thing::Selector &selector, const Pairs &pairs,
                               std::uint32_t echoId) {
    std::vector<Sample> seen;
    for (int attempt = 0; attempt < 100; ++attempt) {
        out.write(output, pairs);
        for (auto &s : selector.read<Pairs>(300)) {
            seen.push_back(s);
            if (frameIdOf(s) == echoId) return seen;
        }
    }
    ADD_FAILURE() << "no echo of frame " << echoId << " after 100 writes";
    return seen;
}

// A frame the peer reports as "burst <id>" instead of echoing it.
Pairs burstFrame(std::uint32_t id, std::size_t bytes) {
    Pairs pairs = frame(id, bytes);
    pairs[0].name("burst_id");
    return pairs;
}

// Whether the peer reported bursts 1 to last, in order and nothing else, within a minute.
void expectBursts(const qxtest::ChildProcess &peer, std::uint32_t last) {
    EXPECT_TRUE(peer.waitForOutput("burst " + std::to_string(last) + "\n", 60s)) << peer.err();
    std::vector<std::uint32_t> ids, expected(last);
    std::iota(expected.begin(), expected.end(), 1u);
    std::istringstream out(peer.out());
    for (std::string word; out >> word;)
        if (word == "burst") out >> ids.emplace_back();
    EXPECT_EQ(ids, expected);
}

// Two peer processes: one stalls (SIGSTOP) while reading pictures (shipped
// keep-last QoS) and masks (made keep-all), the other reads results and is
// killed at the end.
TEST_F(BusTest, PeersGetEveryFrameAStalledOneHoldsBackOnlyKeepAllAndAKilledOneIsReportedOnce) {
    constexpr std::size_t kFullHdBgrBytes = 6220800;
    setQos("SegmentationTagGroup.json", R"({"history": "keep-all"})");
    setQos("DeviceInfoTagGroup.json", R"({"livelinessLeaseMs": 1000})");
    Thing pictures = makeThing(bus_, "VideoFrameThingOut", "pictures", "default");
    Thing masks = makeThing(bus_, "SegmentationThingOut", "masks", "default");
    Thing results = makeThing(bus_, "DetectionBoxThingOut", "results", "default");
    Thing in = makeThing(bus_, "DeviceInfoThingIn", "echoes", "default");
    Thing::Selector echoes = in.select("DeviceInfoData");
    echoes.read<Pairs>(0);
    const auto stalling = startPeer({"VideoFrameData", "SegmentationData"});
    const auto keepingUp = startPeer({"DetectionBoxData"});

    const Pairs fullHd = frame(1, kFullHdBgrBytes);
    const auto seen = writeUntil(pictures, "VideoFrameData", echoes, fullHd, 1);
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back().getSourceId(), "peer-out");
    EXPECT_EQ(seen.back().getData(), fullHd); // every byte, both ways
    ASSERT_FALSE(writeUntil(masks, "SegmentationData", echoes, frame(2, 16), 2).empty());
    ASSERT_FALSE(writeUntil(results, "DetectionBoxData", echoes, frame(3, 16), 3).empty());
    // Far beyond what the socket buffers hold: the reader falls behind, keep-all loses nothing.
    for (std::uint32_t id = 1; id <= 30; ++id)
        masks.write("SegmentationData", burstFrame(id, kFullHdBgrBytes));
    expectBursts(*stalling, 30);

    // Stalled, it acknowledges nothing: pictures never wait, a reader that keeps
    // up gets every result, keep-all masks wait out their blocking time and then
    // drop the sample rather than fail.
    ::kill(stalling->pid(), SIGSTOP);
    const auto start = Clock::now();
    for (std::uint32_t id = 1; id <= 45; ++id) { // 1.5 s of a 30 fps camera
        results.write("DetectionBoxData", burstFrame(id, 64));
        pictures.write("VideoFrameData", burstFrame(id, kFullHdBgrBytes));
        std::this_thread::sleep_until(start + id * 33ms);
    }
    EXPECT_EQ(pictures.droppedWrites(), 0u);
    expectBursts(*keepingUp, 45);
    for (std::uint32_t id = 100; id < 110 && masks.droppedWrites() == 0; ++id)
        EXPECT_NO_THROW(masks.write("SegmentationData", burstFrame(id, kFullHdBgrBytes)));
    EXPECT_GT(masks.droppedWrites(), 0u);
    ::kill(stalling->pid(), SIGCONT);
    ASSERT_FALSE(writeUntil(pictures, "VideoFrameData", echoes, frame(4, 16), 4).empty()); // alive again

    // Killed, a publisher says nothing: its readers learn of it when the
    // liveliness lease of its tag group runs out, and say so once.
    std::ostringstream log;
    std::streambuf *const stderrBuffer = std::cerr.rdbuf(log.rdbuf());
    ::kill(keepingUp->pid(), SIGKILL);
    const auto killed = Clock::now();
    while (log.str().empty() && Clock::now() - killed < 20s)
        echoes.read<Pairs>(100);
    const auto noticed = Clock::now() - killed;
    echoes.read<Pairs>(1000); // time for a second report, which must not come
    std::cerr.rdbuf(stderrBuffer);
    EXPECT_EQ(log.str(), "marlet: publisher peer-out of com.vision.data.DeviceInfoData is gone (it closed, or "
                         "showed no sign of life for its lease of 1000 ms)\n");
    EXPECT_LT(noticed, 8s); // well before the bus's own participant lease (10 s) would have told
}

TEST(BusConfig, UnusableConfigurationsRaiseConfigErrorNamingTheFileAndTheFault) {
    const qxtest::ConfigRoot root;
    const std::string path = root.file("Bus.xml");
    root.writeFile("Bad.xml", R"(<CycloneDDS><Domain Id="seven"/></CycloneDDS>)");
    const std::pair<std::string, std::string> cases[] = {
        {"config=file://" + path, "cannot read bus configuration file \"" + path + "\""},
        {"file://" + path, "Marlet::getInstance expects \"config=<file URI>\", got \"file://" + path + "\""},
        {"config=file://" + root.file("Bad.xml"),
         "bus configuration file \"" + root.file("Bad.xml") +
             "\": Domain Id \"seven\" is not a number from 0 to 232 or \"any\""},
    };
    for (const auto &[args, message] : cases)
        EXPECT_THAT([&] { Marlet::getInstance(args); }, testing::ThrowsMessage<ConfigError>(testing::StrEq(message)));
}

TEST(DispatcherTest, AnEventWakesEveryWaiterAndIsRememberedUntilWaitedFor) {
    Dispatcher d;
    EXPECT_FALSE(d.waitEvent(10ms));
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] { woken += d.waitEvent(60s); });
    for (int i = 0; i < 6000 && woken < 3; ++i, std::this_thread::sleep_for(10ms))
        d.throwEvent(); // again and again: a waiter may still be on its way in
    for (auto &t : waiters)
        t.join();
    EXPECT_EQ(woken, 3);
    d.throwEvent();
    EXPECT_TRUE(d.waitEvent(0ms));  // thrown before the wait
    EXPECT_FALSE(d.waitEvent(0ms)); // and consumed by it
}

} // namespace
