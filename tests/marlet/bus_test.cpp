// Things, selectors and flows on the real bus: each test has its own
// configuration root and DDS domain, traffic stays on loopback.

#include <atomic>
#include <csignal>
#include <thread>

#include <dds/dds.h>
#include <gtest/gtest.h>

#include "BusSample.h"
#include "bus_support.h"
#include "marlet/pair_codec.h"
#include "qxtest/child_process.h"
#include "qxtest/config_root.h"

namespace {

using namespace com::quorixtech::marlet;
using marlettest::frame;
using marlettest::makeThing;
using Pairs = std::vector<IOT_NVP>;
using Sample = DataSample<Pairs>;

constexpr std::size_t kFullHdBgrBytes = 6220800;

std::uint32_t frameIdOf(const Sample &s) { return s.getData().at(0).value().iotv_uint32(); }

class BusTest : public ::testing::Test {
  protected:
    void SetUp() override {
        bus_ = Marlet::getInstance("config=file://" + root_.file("config/Marlet.xml"));
        marlettest::registerDefinitions(bus_, root_.path());
    }
    void TearDown() override { bus_.close(); }

    // Writes frame `id` until `selector` delivers a sample satisfying `done`;
    // discovery takes an unknown time, so the first writes may go unheard.
    // Returns every sample read on the way.
    static std::vector<Sample> writeUntil(Thing &out, const std::string &output, Thing::Selector &selector,
                                          const Pairs &pairs, const std::function<bool(const Sample &)> &done) {
        std::vector<Sample> seen;
        for (int attempt = 0; attempt < 100; ++attempt) {
            out.write(output, pairs);
            for (auto &s : selector.read<Pairs>(300)) {
                seen.push_back(s);
                if (done(s)) return seen;
            }
        }
        ADD_FAILURE() << "no matching sample after 100 writes";
        return seen;
    }

    static std::vector<Sample> drain(Thing::Selector &selector, long timeoutMs) {
        std::vector<Sample> all;
        for (;;) {
            auto got = selector.read<Pairs>(timeoutMs);
            if (got.empty()) return all;
            all.insert(all.end(), got.begin(), got.end());
        }
    }

    qxtest::ConfigRoot root_;
    Marlet bus_;
};

TEST_F(BusTest, DeliversPairsAndHeaderFieldsInOrderWithinOneParticipant) {
    Thing out = makeThing(bus_, "VideoFrameThingOut", "cam-out", "default");
    Thing in = makeThing(bus_, "VideoFrameThingIn", "cam-in", "default");
    Thing::Selector selector = in.select("VideoFrameData");
    selector.batch(8);
    writeUntil(out, "VideoFrameData", selector, frame(0, 16), [](const Sample &) { return true; });
    drain(selector, 100);

    const auto before = std::chrono::system_clock::now().time_since_epoch();
    for (std::uint32_t id = 1; id <= 5; ++id)
        out.write("VideoFrameData", frame(id, 1000 + id));
    const auto after = std::chrono::system_clock::now().time_since_epoch();

    std::vector<Sample> got;
    for (int i = 0; i < 50 && got.size() < 5; ++i) {
        auto batch = selector.read<Pairs>(200);
        got.insert(got.end(), batch.begin(), batch.end());
    }
    ASSERT_EQ(got.size(), 5u);
    for (std::uint32_t i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(got[i].getData(), frame(i + 1, 1001 + i));
        EXPECT_EQ(got[i].getSourceId(), "cam-out");
        EXPECT_EQ(got[i].getFlowId(), "default");
        EXPECT_EQ(got[i].getTagGroup(), "com.vision.data:VideoFrameData");
        if (i > 0) EXPECT_EQ(got[i].getSequence(), got[i - 1].getSequence() + 1);
        EXPECT_GE(got[i].getSourceTime(), std::chrono::duration_cast<std::chrono::nanoseconds>(before).count());
        EXPECT_LE(got[i].getSourceTime(), std::chrono::duration_cast<std::chrono::nanoseconds>(after).count());
    }
}

TEST_F(BusTest, FullHdFrameCrossesToAnotherProcessAndBackIntact) {
    Thing out = makeThing(bus_, "VideoFrameThingOut", "parent-out", "default");
    Thing in = makeThing(bus_, "DeviceInfoThingIn", "parent-in", "default");
    Thing::Selector echoes = in.select("DeviceInfoData");
    echoes.read<Pairs>(0);

    qxtest::ChildProcess peer({MARLET_PEER_PATH}, root_.path());
    ASSERT_TRUE(peer.waitForOutput("ready peer-out", std::chrono::seconds(30))) << peer.err();

    const Pairs sent = frame(77, kFullHdBgrBytes);
    const auto seen = writeUntil(out, "VideoFrameData", echoes, sent, [](const Sample &) { return true; });
    ASSERT_FALSE(seen.empty()) << peer.err();
    EXPECT_EQ(seen.back().getSourceId(), "peer-out");
    EXPECT_EQ(seen.back().getData(), sent); // every byte of the 6 MB payload, both directions

    // A burst far beyond what the socket buffers hold: every frame must still
    // arrive, in order, however far the reader falls behind.
    constexpr std::uint32_t kBurst = 30;
    for (std::uint32_t id = 1; id <= kBurst; ++id) {
        Pairs burst = frame(id, kFullHdBgrBytes);
        burst[0].name("burst_id");
        out.write("VideoFrameData", burst);
    }

    Pairs stop(1);
    stop[0].name("stop");
    for (int i = 0; i < 100 && peer.running(); ++i) {
        out.write("VideoFrameData", stop);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(peer.wait(std::chrono::seconds(10)), 0) << peer.out() << peer.err();
    EXPECT_NE(peer.out().find("big frames 30 in order"), std::string::npos) << peer.out();
}

TEST_F(BusTest, AStalledReaderCostsDroppedSamplesNotAFailedWrite) {
    Thing out = makeThing(bus_, "VideoFrameThingOut", "parent-out", "default");
    Thing in = makeThing(bus_, "DeviceInfoThingIn", "parent-in", "default");
    Thing::Selector echoes = in.select("DeviceInfoData");
    echoes.read<Pairs>(0);
    qxtest::ChildProcess peer({MARLET_PEER_PATH}, root_.path());
    ASSERT_TRUE(peer.waitForOutput("ready peer-out", std::chrono::seconds(30))) << peer.err();
    // Matched both ways before the reader freezes.
    ASSERT_FALSE(writeUntil(out, "VideoFrameData", echoes, frame(1, 16), [](const Sample &) { return true; }).empty());

    // A frozen reader acknowledges nothing: once a few 6 MB frames are in
    // flight every write waits out its blocking time and must give up on the
    // sample rather than fail (which would stop the publishing pipeline).
    ::kill(peer.pid(), SIGSTOP);
    std::uint32_t id = 0;
    while (out.droppedWrites() == 0 && id < 20) {
        Pairs burst = frame(++id, kFullHdBgrBytes);
        burst[0].name("burst_id");
        EXPECT_NO_THROW(out.write("VideoFrameData", burst));
    }
    EXPECT_GT(out.droppedWrites(), 0u) << "20 frames of 6 MB were accepted by a frozen reader";

    // Once the reader runs again, writes go through again.
    ::kill(peer.pid(), SIGCONT);
    const std::uint64_t droppedWhileStalled = out.droppedWrites();
    Pairs stop(1);
    stop[0].name("stop");
    for (int i = 0; i < 100 && peer.running(); ++i) {
        out.write("VideoFrameData", stop);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(peer.wait(std::chrono::seconds(10)), 0) << peer.out() << peer.err();
    EXPECT_EQ(out.droppedWrites(), droppedWhileStalled);
    EXPECT_NE(peer.out().find("big frames "), std::string::npos) << peer.out();
}

TEST_F(BusTest, FlowSelectorSeesOnlyItsFlowWhileAnUnflowedOneSeesAll) {
    Thing outA = makeThing(bus_, "VideoFrameThingOut", "out-a", "A");
    Thing outB = makeThing(bus_, "VideoFrameThingOut", "out-b", "B");
    Thing in = makeThing(bus_, "VideoFrameThingIn", "in", "A");
    Thing::Selector onlyA = in.select("VideoFrameData");
    onlyA.flow("A").batch(16);
    Thing::Selector all = in.select("VideoFrameData");
    all.batch(16);
    onlyA.read<Pairs>(0);

    std::vector<Sample> seenByAll =
        writeUntil(outB, "VideoFrameData", all, frame(2, 8), [](const Sample &) { return true; });
    auto moreSeenByAll =
        writeUntil(outA, "VideoFrameData", all, frame(1, 8), [](const Sample &s) { return s.getFlowId() == "A"; });
    seenByAll.insert(seenByAll.end(), moreSeenByAll.begin(), moreSeenByAll.end());
    EXPECT_TRUE(std::any_of(seenByAll.begin(), seenByAll.end(), [](auto &s) { return s.getFlowId() == "B"; }));

    for (int i = 0; i < 20; ++i)
        outB.write("VideoFrameData", frame(2, 8));
    auto seenByA = writeUntil(outA, "VideoFrameData", onlyA, frame(3, 8),
                              [](const Sample &s) { return s.getFlowId() == "A" && frameIdOf(s) == 3; });
    auto late = drain(onlyA, 300);
    seenByA.insert(seenByA.end(), late.begin(), late.end());
    ASSERT_FALSE(seenByA.empty());
    for (const auto &s : seenByA) {
        EXPECT_EQ(s.getFlowId(), "A");
        EXPECT_EQ(s.getSourceId(), "out-a");
    }
    // The unflowed reader got the 20 B frames as well.
    auto rest = drain(all, 300);
    EXPECT_GE(std::count_if(rest.begin(), rest.end(), [](auto &s) { return s.getFlowId() == "B"; }), 20);
}

TEST_F(BusTest, ReadOnAQuietTopicReturnsEmptyAndUnknownNamesFail) {
    Thing out = makeThing(bus_, "VideoFrameThingOut", "out", "default");
    Thing in = makeThing(bus_, "SegmentationThingIn", "in", "default");
    EXPECT_TRUE(in.select("SegmentationData").read<Pairs>(200).empty());

    // A name that is neither a port nor a registered tag group.
    EXPECT_THROW(in.select("NoSuchInput").read<Pairs>(50), MarletError);
    EXPECT_THROW(out.write("NoSuchOutput", frame(1, 1)), MarletError);
    // A registered tag group that is not a port of the class is still reachable by name.
    EXPECT_NO_THROW(out.write("DeviceInfoData", frame(1, 1)));

    Thing::Selector outlivesItsThing = in.select("SegmentationData");
    in.close();
    EXPECT_THROW(outlivesItsThing.read<Pairs>(10), MarletError);
    EXPECT_THROW(in.select("SegmentationData"), MarletError);
}

// A peer that sends bytes our codec rejects costs exactly its own sample.
TEST_F(BusTest, UndecodablePayloadRaisesDecodeErrorAndLosesNothingElse) {
    Thing in = makeThing(bus_, "VideoFrameThingIn", "in", "default");
    Thing::Selector selector = in.select("VideoFrameData");
    selector.batch(3);
    selector.read<Pairs>(0);

    const dds_entity_t participant =
        dds_create_participant(static_cast<dds_domainid_t>(root_.domainId()), nullptr, nullptr);
    ASSERT_GT(participant, 0);
    const dds_entity_t topic =
        dds_create_topic(participant, &marlet_wire_BusSample_desc, "com/vision/data/VideoFrameData", nullptr, nullptr);
    ASSERT_GT(topic, 0);
    dds_qos_t *qos = dds_create_qos();
    dds_qset_partition1(qos, "flow.default");
    dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
    dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
    const dds_entity_t publisher = dds_create_publisher(participant, qos, nullptr);
    const dds_entity_t writer = dds_create_writer(publisher, topic, qos, nullptr);
    dds_delete_qos(qos);
    ASSERT_GT(writer, 0);
    dds_publication_matched_status_t matched{};
    for (int i = 0; i < 200 && matched.current_count == 0; ++i) {
        ASSERT_EQ(dds_get_publication_matched_status(writer, &matched), DDS_RETCODE_OK);
        if (matched.current_count == 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_GT(matched.current_count, 0u);

    auto send = [&](std::vector<std::uint8_t> payload, std::uint64_t seq) {
        marlet_wire_BusSample s{};
        s.sourceId = const_cast<char *>("raw");
        s.flowId = const_cast<char *>("default");
        s.tagGroup = const_cast<char *>("com.vision.data:VideoFrameData");
        s.sequenceNumber = seq;
        s.payload._buffer = payload.data();
        s.payload._length = static_cast<std::uint32_t>(payload.size());
        s.payload._maximum = s.payload._length;
        ASSERT_EQ(dds_write(writer, &s), DDS_RETCODE_OK);
    };
    send(codec::encode(frame(1, 10)), 1);
    send({codec::kMagic, codec::kVersion, 0x01, 0x00, 0x09}, 2);
    send(codec::encode(frame(3, 10)), 3);

    auto first = selector.read<Pairs>(5000);
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(frameIdOf(first[0]), 1u);
    try {
        selector.read<Pairs>(5000);
        ADD_FAILURE() << "no DecodeError for the bad sample";
    } catch (const DecodeError &e) {
        EXPECT_NE(std::string(e.what()).find("unknown kind 9"), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("\"raw\""), std::string::npos) << e.what();
    }
    auto third = selector.read<Pairs>(5000);
    ASSERT_EQ(third.size(), 1u);
    EXPECT_EQ(frameIdOf(third[0]), 3u);
    dds_delete(participant);
}

TEST_F(BusTest, PortsResolveAgainstTheDefinitionsRegisteredWhenTheThingIsCreated) {
    Thing plainOut = makeThing(bus_, "VideoFrameThingOut", "plain-out", "default");
    Thing plainIn = makeThing(bus_, "VideoFrameThingIn", "plain-in", "default");
    JSonTagGroupRegistry pipe;
    pipe.registerTagGroupsFromURI("file://" + root_.file("definitions/TagGroup/com.vision.data/IXOPipeTagGroup.json"));
    bus_.addTagGroupRegistry(pipe);
    Thing pipeOut = makeThing(bus_, "VideoFrameThingOut", "pipe-out", "default");
    Thing pipeIn = makeThing(bus_, "VideoFrameThingIn", "pipe-in", "default");

    Thing::Selector plainSel = plainIn.select("VideoFrameData");
    Thing::Selector pipeSel = pipeIn.select("VideoFrameData");
    plainSel.batch(64).read<Pairs>(0);
    pipeSel.batch(64).read<Pairs>(0);

    auto onPipe = writeUntil(pipeOut, "VideoFrameData", pipeSel, frame(5, 4), [](const Sample &) { return true; });
    auto onPlain = writeUntil(plainOut, "VideoFrameData", plainSel, frame(6, 4), [](const Sample &) { return true; });
    auto lateOnPipe = drain(pipeSel, 200);
    auto lateOnPlain = drain(plainSel, 200);
    onPipe.insert(onPipe.end(), lateOnPipe.begin(), lateOnPipe.end());
    onPlain.insert(onPlain.end(), lateOnPlain.begin(), lateOnPlain.end());
    for (const auto &s : onPipe)
        EXPECT_EQ(s.getSourceId(), "pipe-out");
    for (const auto &s : onPlain)
        EXPECT_EQ(s.getSourceId(), "plain-out");
}

TEST_F(BusTest, HandlesShareOneParticipantAndCloseTwiceIsHarmless) {
    const std::string indirect = "config=file://" + root_.path() + "/config/../config/Marlet.xml";
    Marlet second = Marlet::getInstance(indirect);
    EXPECT_EQ(second.domainId(), root_.domainId());

    // A definition added through one handle is visible through the other.
    JSonTagGroupRegistry extra;
    extra.registerTagGroupsFromString(R"({"tagGroups":[{"namespace":"x","name":"Extra"}]})");
    JSonThingClassRegistry extraClass;
    extraClass.registerThingClassesFromString(
        R"({"namespace":"x","name":"ExtraThing","outputs":[{"name":"Extra","tagGroup":"x:Extra"}]})");
    bus_.addTagGroupRegistry(extra);
    bus_.addThingClassRegistry(extraClass);
    JSonThingProperties props;
    props.readPropertiesFromString(R"({"thingId":"e1","thingClass":"x:ExtraThing","contextId":""})");
    Thing thing = second.createThing(props);
    EXPECT_EQ(thing.getContextId(), "");
    EXPECT_NO_THROW(thing.write("Extra", frame(1, 1)));

    second.close();
    second.close();
    EXPECT_FALSE(second.valid());
    EXPECT_THROW(second.createThing(props), MarletError);
    thing.close();
    thing.close();
    EXPECT_THROW(thing.write("Extra", frame(1, 1)), MarletError);

    // The participant lives on through the first handle, and comes back after the last one went.
    EXPECT_NO_THROW(makeThing(bus_, "VideoFrameThingOut", "still", "default").write("VideoFrameData", frame(1, 1)));
    bus_.close();
    bus_ = Marlet::getInstance(indirect);
    marlettest::registerDefinitions(bus_, root_.path());
    EXPECT_NO_THROW(makeThing(bus_, "VideoFrameThingOut", "again", "default").write("VideoFrameData", frame(1, 1)));
}

// The subscriber's shape: one reader thread per tag group, copies of the
// selector handed to the threads, while another thread writes on other things
// of the same participant.
TEST_F(BusTest, ReaderThreadsAndAWriterThreadShareOneParticipant) {
    const std::vector<std::pair<std::string, std::string>> groups = {{"Classification", "ClassificationData"},
                                                                     {"DetectionBox", "DetectionBoxData"}};
    constexpr std::uint32_t kFrames = 200;
    std::vector<Thing> outs, ins;
    std::vector<Thing::Selector> selectors;
    for (const auto &[stem, group] : groups) {
        outs.push_back(makeThing(bus_, stem + "ThingOut", stem + "-out", "default"));
        ins.push_back(makeThing(bus_, stem + "ThingIn", stem + "-in", "default"));
        selectors.push_back(ins.back().select(group));
        selectors.back().batch(4);
        selectors.back().read<Pairs>(0);
    }
    // Discovery first, so that the counted frames all have a reader to go to.
    for (std::size_t g = 0; g < groups.size(); ++g) {
        writeUntil(outs[g], groups[g].second, selectors[g], frame(0, 4), [](const Sample &) { return true; });
        drain(selectors[g], 100);
    }

    std::atomic<bool> writing{true};
    std::vector<std::vector<std::uint32_t>> received(groups.size());
    std::vector<std::thread> readers;
    for (std::size_t g = 0; g < groups.size(); ++g) {
        readers.emplace_back([&, g, selector = selectors[g]]() mutable {
            for (int idle = 0; idle < 10 && received[g].size() < kFrames;) {
                auto got = selector.read<Pairs>(500);
                if (got.empty() && !writing) ++idle;
                for (const auto &s : got)
                    received[g].push_back(frameIdOf(s));
            }
        });
    }
    std::thread writer([&] {
        for (std::uint32_t id = 1; id <= kFrames; ++id) {
            for (std::size_t g = 0; g < groups.size(); ++g)
                outs[g].write(groups[g].second, frame(id, 64));
        }
        writing = false;
    });
    writer.join();
    for (auto &t : readers)
        t.join();

    for (std::size_t g = 0; g < groups.size(); ++g) {
        SCOPED_TRACE(groups[g].second);
        ASSERT_EQ(received[g].size(), kFrames);
        for (std::uint32_t i = 0; i < kFrames; ++i)
            EXPECT_EQ(received[g][i], i + 1);
    }
}

TEST(BusConfig, UnusableConfigurationsRaiseConfigErrorNamingTheFile) {
    qxtest::ConfigRoot root;
    root.writeFile("config/BadId.xml", R"(<CycloneDDS><Domain Id="seven"></Domain></CycloneDDS>)");
    const struct {
        std::string args;
        std::string fragment;
    } cases[] = {
        {"config=file://" + root.file("config/Missing.xml"), root.file("config/Missing.xml")},
        {"config=file://" + root.file("config/BadId.xml"), "Domain Id \"seven\""},
        {"file://" + root.file("config/Marlet.xml"), "expects \"config=<file URI>\""},
    };
    for (const auto &c : cases) {
        try {
            Marlet::getInstance(c.args);
            ADD_FAILURE() << "no ConfigError for " << c.args;
        } catch (const ConfigError &e) {
            EXPECT_NE(std::string(e.what()).find(c.fragment), std::string::npos) << e.what();
        }
    }
}

TEST(DispatcherTest, ThrowEventWakesEveryWaiterAndIsRememberedUntilWaited) {
    Dispatcher d;
    EXPECT_FALSE(d.waitEvent(std::chrono::milliseconds(10)));

    std::atomic<int> woken{0};
    std::atomic<int> started{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            ++started;
            if (d.waitEvent(std::chrono::seconds(60))) ++woken;
        });
    }
    while (started < 3)
        std::this_thread::yield();
    // A waiter may still be on its way into waitEvent: keep throwing until all woke.
    for (int i = 0; i < 6000 && woken < 3; ++i) {
        d.throwEvent();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (auto &t : waiters)
        t.join();
    EXPECT_EQ(woken, 3);

    d.throwEvent();
    EXPECT_TRUE(d.waitEvent(std::chrono::milliseconds(0)));  // thrown before the wait
    EXPECT_FALSE(d.waitEvent(std::chrono::milliseconds(0))); // and consumed by it
}

} // namespace
