// A peer that writes samples whose payload does not decode: echo reports each
// and goes on with the good records after it.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <dds/dds.h>

#include "BusSample.h"
#include "qxtest/child_process.h"
#include "qxtest/config_root.h"
#include "tool_runner.h"

namespace {

// Owns one DDS entity; deleting the domain takes everything in it.
struct DdsHandle {
    explicit DdsHandle(dds_entity_t h) : handle(h) {}
    ~DdsHandle() {
        if (handle > 0) dds_delete(handle);
    }
    dds_entity_t handle;
};

// Writes raw samples on one topic and flow of the test's domain.
class RawWriter {
  public:
    RawWriter(const qxtest::ConfigRoot &root, const char *ddsTopic, const char *partition)
        : domain_(dds_create_domain(root.domainId(), root.readFile("config/Marlet.xml").c_str())),
          participant_(dds_create_participant(root.domainId(), nullptr, nullptr)) {
        if (domain_.handle < 0 || participant_.handle < 0)
            throw std::runtime_error(std::string("raw participant: ") +
                                     dds_strretcode(participant_.handle < 0 ? participant_.handle : domain_.handle));
        const dds_entity_t topic =
            dds_create_topic(participant_.handle, &marlet_wire_BusSample_desc, ddsTopic, nullptr, nullptr);
        dds_qos_t *qos = dds_create_qos();
        dds_qset_partition1(qos, partition);
        const dds_entity_t publisher = dds_create_publisher(participant_.handle, qos, nullptr);
        dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(2));
        writer_ = dds_create_writer(publisher, topic, qos, nullptr);
        dds_delete_qos(qos);
        if (topic < 0 || publisher < 0 || writer_ < 0) throw std::runtime_error("raw writer could not be made");
    }

    // Waits (bounded by the caller's test timeout) until a reader has matched.
    bool waitForReader(int attempts) const {
        for (int i = 0; i < attempts; ++i) {
            dds_publication_matched_status_t status{};
            if (dds_get_publication_matched_status(writer_, &status) == DDS_RETCODE_OK && status.current_count > 0)
                return true;
            dds_sleepfor(DDS_MSECS(100));
        }
        return false;
    }

    void write(std::vector<unsigned char> payload) const {
        marlet_wire_BusSample sample{};
        sample.sourceId = const_cast<char *>("hostile-peer");
        sample.flowId = const_cast<char *>("x");
        sample.tagGroup = const_cast<char *>("com.vision.data:SegmentationData");
        sample.sequenceNumber = 1;
        sample.payload._buffer = payload.data();
        sample.payload._length = static_cast<uint32_t>(payload.size());
        sample.payload._maximum = sample.payload._length;
        sample.payload._release = false;
        if (dds_write(writer_, &sample) != DDS_RETCODE_OK) throw std::runtime_error("raw write failed");
    }

  private:
    DdsHandle domain_;
    DdsHandle participant_;
    dds_entity_t writer_ = 0;
};

TEST(QxbusEcho, SkipsSamplesThatDoNotDecodeAndKeepsReading) {
    const qxtest::ConfigRoot root;
    qxtest::ChildProcess echo(
        qxbus_test::qxbusArgv({"echo", "SegmentationData", "--json", "--count", "1", "--timeout", "100"}), root.path());
    const RawWriter peer(root, "com/vision/data/SegmentationData", "flow.x");
    ASSERT_TRUE(peer.waitForReader(600)) << "echo's reader never matched";
    peer.write({0x00});                        // wrong magic byte
    peer.write({0xB7, 0x01, 0x05});            // claims five pairs, holds none
    peer.write({0xB7, 0x01, 0x01, 0x02, 'i'}); // a name cut short

    const auto good = qxbus_test::runQxbus(
        {"publish", "SegmentationData", R"({"engine_id": "after"})", "--flow", "x", "--wait", "60"}, root.path());
    ASSERT_EQ(good.status, 0) << good.err;

    ASSERT_EQ(echo.wait(std::chrono::seconds(120)), 0) << echo.err();
    const auto received = qxbus_test::lines(echo.out());
    ASSERT_EQ(received.size(), 1u) << echo.out();
    EXPECT_EQ(nlohmann::json::parse(received[0]).at("record").at("engine_id"), "after");
    std::size_t reported = 0;
    for (std::size_t at = 0; (at = echo.err().find("skipped a sample that does not decode", at)) != std::string::npos;
         ++at)
        ++reported;
    EXPECT_EQ(reported, 3u) << echo.err();
}

} // namespace
