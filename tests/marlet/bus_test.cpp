// Things, selectors and flows on the real bus: each test has its own
// configuration root and DDS domain, traffic stays on loopback.

#include <atomic>
#include <csignal>
#include <iostream>
#include <regex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "bus_support.h"
#include "marlet/pair_codec.h"
#include "qxtest/child_process.h"
#include "qxtest/config_root.h"
#include "raw_writer.h"

namespace {

using namespace com::quorixtech::marlet;
using marlettest::frame;
using marlettest::makeThing;
using Pairs = std::vector<IOT_NVP>;
using Sample = DataSample<Pairs>;
using namespace std::chrono_literals;

constexpr std::size_t kFullHdBgrBytes = 6220800;

std::uint32_t frameIdOf(const Sample &s) { return s.getData().at(0).value().iotv_uint32(); }

class BusTest : public ::testing::Test {
  protected:
    void SetUp() override {
        bus_ = Marlet::getInstance("config=file://" + root_.file("config/Marlet.xml"));
        marlettest::registerDefinitions(bus_, root_.path());
    }
    void TearDown() override { bus_.close(); }

    // Writes `pairs` until `selector` delivers a sample satisfying `done` (any
    // sample if none is given); discovery takes an unknown time, so the first
    // writes may go unheard. Returns every sample read on the way.
    static std::vector<Sample> writeUntil(Thing &out, const std::string &output, Thing::Selector &selector,
                                          const Pairs &pairs, const std::function<bool(const Sample &)> &done = {}) {
        std::vector<Sample> seen;
        for (int attempt = 0; attempt < 100; ++attempt) {
            out.write(output, pairs);
            for (auto &s : selector.read<Pairs>(300)) {
                seen.push_back(s);
                if (!done || done(s)) return seen;
            }
        }
        ADD_FAILURE() << "no matching sample after 100 writes";
        return seen;
    }

    // Gives a shipped tag group other QoS, for the peers started from now on
    // and, registered again, for the things made here from now on.
    void setQos(const std::string &file, const std::string &qos) {
        const std::string path = "definitions/TagGroup/com.vision.data/" + file;
        root_.writeFile(path,
                        std::regex_replace(root_.readFile(path), std::regex(R"("qos": \{[^}]*\})"), "\"qos\": " + qos));
        marlettest::registerDefinitions(bus_, root_.path());
    }

    // Starts the echoing peer process, reading `group`, in this test's configuration root.
    std::unique_ptr<qxtest::ChildProcess> startPeer(const std::string &group = "VideoFrameData") {
        auto peer =
            std::make_unique<qxtest::ChildProcess>(std::vector<std::string>{MARLET_PEER_PATH, group}, root_.path());
        EXPECT_TRUE(peer->waitForOutput("ready peer-out", std::chrono::seconds(30))) << peer->err();
        return peer;
    }

    // Tells the peer to stop and waits for it; returns what it printed.
    static std::string stopPeer(Thing &out, qxtest::ChildProcess &peer, const std::string &output = "VideoFrameData") {
        Pairs stop(1);
        stop[0].name("stop");
        for (int i = 0; i < 100 && peer.running(); ++i) {
            out.write(output, stop);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        EXPECT_EQ(peer.wait(std::chrono::seconds(10)), 0) << peer.out() << peer.err();
        return peer.out();
    }

    // A frame (1080p BGR unless told) the peer counts instead of echoing.
    static Pairs burstFrame(std::uint32_t id, std::size_t bytes = kFullHdBgrBytes) {
        Pairs pairs = frame(id, bytes);
        pairs[0].name("burst_id");
        return pairs;
    }

    // Appends to `seen` what arrives until `timeoutMs` pass without a sample.
    static std::vector<Sample> drain(Thing::Selector &selector, long timeoutMs, std::vector<Sample> seen = {}) {
        for (auto got = selector.read<Pairs>(timeoutMs); !got.empty(); got = selector.read<Pairs>(timeoutMs))
            seen.insert(seen.end(), got.begin(), got.end());
        return seen;
    }

    qxtest::ConfigRoot root_;
    Marlet bus_;
};

TEST_F(BusTest, FullHdFrameCrossesToAnotherProcessAndBackIntact) {
    setQos("VideoFrameTagGroup.json", R"({"history": "keep-all"})"); // for every frame of the burst below
    Thing out = makeThing(bus_, "VideoFrameThingOut", "parent-out", "default");
    Thing in = makeThing(bus_, "DeviceInfoThingIn", "parent-in", "default");
    Thing::Selector echoes = in.select("DeviceInfoData");
    echoes.read<Pairs>(0);
    const auto peer = startPeer();

    const Pairs sent = frame(77, kFullHdBgrBytes);
    const auto seen = writeUntil(out, "VideoFrameData", echoes, sent);
    ASSERT_FALSE(seen.empty()) << peer->err();
    EXPECT_EQ(seen.back().getSourceId(), "peer-out");
    EXPECT_EQ(seen.back().getData(), sent); // every byte of the 6 MB payload, both directions

    // A burst far beyond what the socket buffers hold: every frame must still
    // arrive, in order, however far the reader falls behind.
    for (std::uint32_t id = 1; id <= 30; ++id)
        out.write("VideoFrameData", burstFrame(id));
    const std::string printed = stopPeer(out, *peer);
    EXPECT_NE(printed.find("big frames 30 in order"), std::string::npos) << printed;
}

// A reader process that stops (SIGSTOP) acknowledges nothing. With the shipped
// QoS (null below) the camera's writes never wait for it and a reader that keeps
// up still gets every result; with keep-all pictures each write waits out its
// blocking time and then drops its sample rather than fail.
TEST_F(BusTest, AStalledReaderHoldsBackOnlyAKeepAllPublisher) {
    const std::pair<const char *, bool> cases[] = {{nullptr, false},
                                                   {R"({"history": "keep-all", "maxBlockingMs": 300})", true}};
    constexpr std::uint32_t kFrames = 45; // 1.5 s of a 30 fps camera
    const auto echoOf2 = [](const Sample &s) { return frameIdOf(s) == 2; };
    for (const auto &[pictureQos, writesWait] : cases) {
        SCOPED_TRACE(pictureQos ? pictureQos : "shipped QoS");
        if (pictureQos) setQos("VideoFrameTagGroup.json", pictureQos);
        Thing pictures = makeThing(bus_, "VideoFrameThingOut", "pictures", "default");
        Thing results = makeThing(bus_, "DetectionBoxThingOut", "results", "default");
        Thing in = makeThing(bus_, "DeviceInfoThingIn", "echoes", "default");
        Thing::Selector echoes = in.select("DeviceInfoData");
        echoes.read<Pairs>(0);
        const auto stalled = startPeer();
        const auto keepingUp = startPeer("DetectionBoxData");
        ASSERT_FALSE(writeUntil(pictures, "VideoFrameData", echoes, frame(1, 16)).empty());
        ASSERT_FALSE(writeUntil(results, "DetectionBoxData", echoes, frame(2, 16), echoOf2).empty());

        ::kill(stalled->pid(), SIGSTOP);
        std::uint32_t sent = 0;
        const auto start = std::chrono::steady_clock::now();
        while (sent < kFrames && !(writesWait && pictures.droppedWrites() > 0)) {
            ++sent;
            EXPECT_NO_THROW(results.write("DetectionBoxData", burstFrame(sent, 64)));
            EXPECT_NO_THROW(pictures.write("VideoFrameData", burstFrame(sent)));
            std::this_thread::sleep_until(start + sent * std::chrono::milliseconds(33));
        }
        EXPECT_EQ(pictures.droppedWrites() > 0, writesWait) << "after " << sent << " frames";
        ::kill(stalled->pid(), SIGCONT);
        const std::string counted = stopPeer(results, *keepingUp, "DetectionBoxData");
        EXPECT_NE(counted.find("big frames " + std::to_string(sent) + " in order"), std::string::npos) << counted;
        stopPeer(pictures, *stalled);
    }
}

// A killed publisher says nothing; its readers learn of it when the liveliness
// lease of its tag group runs out, and say so once.
TEST_F(BusTest, AKilledPublisherIsReportedOnceWithinItsLease) {
    setQos("DeviceInfoTagGroup.json", R"({"livelinessLeaseMs": 1000})");
    Thing out = makeThing(bus_, "VideoFrameThingOut", "parent-out", "default");
    Thing in = makeThing(bus_, "DeviceInfoThingIn", "parent-in", "default");
    Thing::Selector echoes = in.select("DeviceInfoData");
    echoes.read<Pairs>(0);
    const auto peer = startPeer();
    ASSERT_FALSE(writeUntil(out, "VideoFrameData", echoes, frame(1, 16)).empty());

    std::ostringstream log;
    std::streambuf *const stderrBuffer = std::cerr.rdbuf(log.rdbuf());
    ::kill(peer->pid(), SIGKILL);
    const auto killed = std::chrono::steady_clock::now();
    while (log.str().find(" is gone ") == std::string::npos && std::chrono::steady_clock::now() - killed < 20s)
        echoes.read<Pairs>(100);
    const auto noticed = std::chrono::steady_clock::now() - killed;
    echoes.read<Pairs>(1000); // time for a second report, which must not come
    std::cerr.rdbuf(stderrBuffer);
    EXPECT_EQ(log.str(), "marlet: publisher peer-out of com.vision.data.DeviceInfoData is gone (it closed, or "
                         "showed no sign of life for its lease of 1000 ms)\n");
    EXPECT_LT(noticed, 8s); // well before the bus's own participant lease (10 s) would have told
}

TEST_F(BusTest, FlowSelectorSeesOnlyItsFlowWhileAnUnflowedOneSeesAll) {
    Thing outA = makeThing(bus_, "ClassificationThingOut", "out-a", "A");
    Thing outB = makeThing(bus_, "ClassificationThingOut", "out-b", "B");
    Thing in = makeThing(bus_, "ClassificationThingIn", "in", "A");
    Thing::Selector onlyA = in.select("ClassificationData");
    onlyA.flow("A").batch(16);
    Thing::Selector all = in.select("ClassificationData");
    all.batch(16);
    onlyA.read<Pairs>(0);

    std::vector<Sample> seenByAll = writeUntil(outB, "ClassificationData", all, frame(2, 8));
    auto moreSeenByAll =
        writeUntil(outA, "ClassificationData", all, frame(1, 8), [](const Sample &s) { return s.getFlowId() == "A"; });
    seenByAll.insert(seenByAll.end(), moreSeenByAll.begin(), moreSeenByAll.end());
    EXPECT_TRUE(std::any_of(seenByAll.begin(), seenByAll.end(), [](auto &s) { return s.getFlowId() == "B"; }));

    for (int i = 0; i < 20; ++i)
        outB.write("ClassificationData", frame(2, 8));
    const auto seenByA = drain(onlyA, 300,
                               writeUntil(outA, "ClassificationData", onlyA, frame(3, 8),
                                          [](const Sample &s) { return s.getFlowId() == "A" && frameIdOf(s) == 3; }));
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

    const marlettest::RawWriter raw(root_, "com/vision/data/VideoFrameData", "flow.default");
    ASSERT_TRUE(raw.waitForReader(200));
    auto send = [&](std::vector<std::uint8_t> payload, std::uint64_t seq) {
        raw.write(std::move(payload), "default", "com.vision.data:VideoFrameData", seq);
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

    // Both writers have written before either selector is drained, so a sample
    // that went to the wrong topic would show.
    auto onPipe = writeUntil(pipeOut, "VideoFrameData", pipeSel, frame(5, 4));
    auto onPlain = writeUntil(plainOut, "VideoFrameData", plainSel, frame(6, 4));
    onPipe = drain(pipeSel, 200, std::move(onPipe));
    onPlain = drain(plainSel, 200, std::move(onPlain));
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
// of the same participant. Every frame arrives once, in order, with the
// writer's header fields.
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
        writeUntil(outs[g], groups[g].second, selectors[g], frame(0, 4));
        drain(selectors[g], 100);
    }

    std::atomic<bool> writing{true};
    std::vector<std::vector<Sample>> received(groups.size());
    std::vector<std::thread> readers;
    for (std::size_t g = 0; g < groups.size(); ++g) {
        readers.emplace_back([&, g, selector = selectors[g]]() mutable {
            for (int idle = 0; idle < 10 && received[g].size() < kFrames;) {
                auto got = selector.read<Pairs>(500);
                if (got.empty() && !writing) ++idle;
                received[g].insert(received[g].end(), got.begin(), got.end());
            }
        });
    }
    const auto nanosNow = [] {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    const auto before = nanosNow();
    std::thread writer([&] {
        for (std::uint32_t id = 1; id <= kFrames; ++id) {
            for (std::size_t g = 0; g < groups.size(); ++g)
                outs[g].write(groups[g].second, frame(id, 64 + id));
        }
        writing = false;
    });
    writer.join();
    const auto after = nanosNow();
    for (auto &t : readers)
        t.join();

    for (std::size_t g = 0; g < groups.size(); ++g) {
        SCOPED_TRACE(groups[g].second);
        ASSERT_EQ(received[g].size(), kFrames);
        for (std::uint32_t i = 0; i < kFrames; ++i) {
            const Sample &s = received[g][i];
            EXPECT_EQ(s.getData(), frame(i + 1, 65 + i));
            EXPECT_EQ(s.getSourceId(), groups[g].first + "-out");
            EXPECT_EQ(s.getFlowId(), "default");
            EXPECT_EQ(s.getTagGroup(), "com.vision.data:" + groups[g].second);
            if (i > 0) EXPECT_EQ(s.getSequence(), received[g][i - 1].getSequence() + 1);
            EXPECT_GE(s.getSourceTime(), before);
            EXPECT_LE(s.getSourceTime(), after);
        }
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
