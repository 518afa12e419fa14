// Guards the bus library on a real bus, in one process and across processes:
// names resolving to the wrong tag group, handles and things misbehaving once
// closed, a stalled reader holding back more than a keep-all writer (or a
// keep-all writer losing samples to a reader that is merely slow), a vanished
// publisher going unreported (or reported twice), and dispatcher events lost.

#include <csignal>
#include <future>
#include <iostream>
#include <sstream>

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
using Clock = std::chrono::steady_clock;

class BusTest : public ::testing::Test {
  protected:
    void SetUp() override { open(); }
    void open() {
        bus_ = Marlet::getInstance("config=file://" + root_.file("config/Marlet.xml"));
        marlettest::registerDefinitions(bus_, root_.path());
    }

    qxtest::ConfigRoot root_;
    Marlet bus_;
};

// A name is a port of the thing's class or else any registered tag group, as
// registered when the thing was created: the pipe group, registered later,
// redefines the video group for later things only.
TEST_F(BusTest, NamesResolveAgainstTheDefinitionsOfTheThingsCreation) {
    Thing plainOut = makeThing(bus_, "VideoFrameThingOut", "plain-out");
    Thing plainIn = makeThing(bus_, "VideoFrameThingIn", "plain-in");
    JSonTagGroupRegistry pipe;
    pipe.registerTagGroupsFromURI("file://" + root_.file("definitions/TagGroup/com.vision.data/IXOPipeTagGroup.json"));
    bus_.addTagGroupRegistry(pipe);
    Thing pipeOut = makeThing(bus_, "VideoFrameThingOut", "pipe-out");
    Thing pipeIn = makeThing(bus_, "VideoFrameThingIn", "pipe-in");
    Thing::Selector plain = plainIn.select("VideoFrameData"), piped = pipeIn.select("VideoFrameData");
    plain.batch(8).read<Pairs>(0);
    piped.batch(8).read<Pairs>(0);

    pipeOut.write("VideoFrameData", frame(5, 4));
    plainOut.write("VideoFrameData", frame(6, 4));
    EXPECT_NO_THROW(plainOut.write("DeviceInfoData", frame(7, 4))); // registered, though not a port
    const auto onPipe = piped.read<Pairs>(5000), onPlain = plain.read<Pairs>(5000);
    ASSERT_EQ(onPipe.size(), 1u);
    ASSERT_EQ(onPlain.size(), 1u);
    EXPECT_EQ(onPipe[0].getSourceId() + " " + onPlain[0].getSourceId(), "pipe-out plain-out");
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
    Thing thing = makeThing(second, "VideoFrameThingOut", "second");
    EXPECT_NO_THROW(thing.write("VideoFrameData", frame(1, 1)));
    second.close();
    second.close();
    EXPECT_THROW(makeThing(second, "VideoFrameThingOut", "closed"), MarletError);
    thing.close();
    thing.close();
    EXPECT_THROW(thing.write("VideoFrameData", frame(1, 1)), MarletError);
    // The participant lives on through the first handle, and comes back after the last one went.
    EXPECT_NO_THROW(makeThing(bus_, "VideoFrameThingOut", "still").write("VideoFrameData", frame(1, 1)));
    bus_.close();
    open();
    EXPECT_NO_THROW(makeThing(bus_, "VideoFrameThingOut", "again").write("VideoFrameData", frame(1, 1)));
}

// Writes frame `id` until the peer echoes it: the first writes may go unheard while it is discovered.
bool echoed(Thing &out, const std::string &output, Thing::Selector &echoes, std::uint32_t id) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        out.write(output, frame(id, 16));
        for (auto &s : echoes.read<Pairs>(300))
            if (s.getData().at(0).value().iotv_uint32() == id) return true;
    }
    return false;
}

// The peer process (helpers/marlet_peer.cpp) reads pictures (shipped keep-last
// QoS) and masks (made keep-all), stalls (SIGSTOP) and is killed at the end.
TEST_F(BusTest, AStalledReaderHoldsBackOnlyKeepAllWritersAndAKilledWriterIsReportedOnce) {
    constexpr std::size_t kFullHdBgrBytes = 6220800;
    // Other QoS for two shipped tag groups, for the peer and, registered again, for the things made here.
    root_.setQos("Segmentation", R"({"history": "keep-all"})");
    root_.setQos("DeviceInfo", R"({"livelinessLeaseMs": 1000})");
    marlettest::registerDefinitions(bus_, root_.path());
    Thing pictures = makeThing(bus_, "VideoFrameThingOut", "pictures");
    Thing masks = makeThing(bus_, "SegmentationThingOut", "masks");
    Thing::Selector echoes = makeThing(bus_, "DeviceInfoThingIn", "echoes").select("DeviceInfoData");
    const qxtest::ChildProcess peer({MARLET_PEER_PATH, "VideoFrameData", "SegmentationData"}, root_.path());
    ASSERT_TRUE(peer.waitForOutput("ready peer-out", 30s)) << peer.err();
    ASSERT_TRUE(echoed(pictures, "VideoFrameData", echoes, 1));
    ASSERT_TRUE(echoed(masks, "SegmentationData", echoes, 2));
    // Far beyond what the socket buffers hold: the reader falls behind, keep-all loses nothing.
    std::string reported = "ready peer-out\n";
    for (std::uint32_t id = 1; id <= 30; ++id) {
        masks.write("SegmentationData", frame(id, kFullHdBgrBytes));
        reported += "frame " + std::to_string(id) + "\n";
    }
    EXPECT_TRUE(peer.waitForOutput("frame 30\n", 60s)) << peer.err();
    EXPECT_EQ(peer.out(), reported);

    // Stalled, it acknowledges nothing: pictures never wait, keep-all masks wait
    // out their blocking time and then drop the sample rather than fail.
    ::kill(peer.pid(), SIGSTOP);
    for (std::uint32_t id = 1; id <= 45; ++id) // 1.5 s of a 30 fps camera, as fast as it goes
        pictures.write("VideoFrameData", frame(id, kFullHdBgrBytes));
    EXPECT_EQ(pictures.droppedWrites(), 0u);
    for (std::uint32_t id = 100; id < 110 && masks.droppedWrites() == 0; ++id)
        EXPECT_NO_THROW(masks.write("SegmentationData", frame(id, kFullHdBgrBytes)));
    EXPECT_GT(masks.droppedWrites(), 0u);
    ::kill(peer.pid(), SIGCONT);
    ASSERT_TRUE(echoed(pictures, "VideoFrameData", echoes, 4)); // alive again

    // Killed, a publisher says nothing: its readers learn of it when the
    // liveliness lease of its tag group runs out, and say so once.
    std::ostringstream log;
    std::streambuf *const stderrBuffer = std::cerr.rdbuf(log.rdbuf());
    ::kill(peer.pid(), SIGKILL);
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

TEST(DispatcherTest, AnEventWakesBlockedWaitersAndIsRememberedUntilWaitedFor) {
    Dispatcher d;
    d.throwEvent();
    EXPECT_TRUE(d.waitEvent(0ms));  // thrown before the wait
    EXPECT_FALSE(d.waitEvent(0ms)); // and consumed by it
    const auto waiter = [&] { return d.waitEvent(60s); };
    auto first = std::async(std::launch::async, waiter), second = std::async(std::launch::async, waiter);
    while (first.wait_for(10ms) != std::future_status::ready || second.wait_for(0ms) != std::future_status::ready)
        d.throwEvent(); // again and again: a waiter may still be on its way in
    EXPECT_TRUE(first.get() && second.get());
}

} // namespace
