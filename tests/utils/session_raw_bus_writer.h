#pragma once
// Puts arbitrary payload bytes on a tag group's topic, as a faulty or hostile
// peer would, so that the session's readers can be shown bad samples that the
// bus library itself never writes.
//
// The test binary reaches DDS only through the bus library, so the few DDS
// calls needed are looked up at run time in the DDS library that the bus
// library has already loaded, and the sample type is the bus library's own
// descriptor. Payload layout and naming follow the bus library: one sample
// type for every topic, a tag group's dotted topic name with '/' for '.', a
// flow published as partition "flow.<id>". Should those change, the writer
// finds no reader and the test says so.

#include <dlfcn.h>

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <dds/dds.h>

namespace session_test {

class RawBusWriter {
  public:
    RawBusWriter(int domainId, const std::string &topicName, const std::string &flowId) {
        participant_ = check(call<decltype(&dds_create_participant)>("dds_create_participant")(
                                 static_cast<dds_domainid_t>(domainId), nullptr, nullptr),
                             "dds_create_participant");
        auto *desc = static_cast<const dds_topic_descriptor_t *>(::dlsym(RTLD_DEFAULT, "marlet_wire_BusSample_desc"));
        if (!desc) throw std::runtime_error("the bus library does not export its sample type");
        std::string ddsName = topicName;
        for (char &c : ddsName)
            c = c == '.' ? '/' : c;
        const dds_entity_t topic = check(call<decltype(&dds_create_topic)>("dds_create_topic")(
                                             participant_, desc, ddsName.c_str(), nullptr, nullptr),
                                         "dds_create_topic");
        dds_qos_t *qos = call<decltype(&dds_create_qos)>("dds_create_qos")();
        const std::string partition = "flow." + flowId;
        call<decltype(&dds_qset_partition1)>("dds_qset_partition1")(qos, partition.c_str());
        call<decltype(&dds_qset_reliability)>("dds_qset_reliability")(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(2));
        const dds_entity_t publisher =
            call<decltype(&dds_create_publisher)>("dds_create_publisher")(participant_, qos, nullptr);
        const dds_entity_t writer =
            call<decltype(&dds_create_writer)>("dds_create_writer")(publisher, topic, qos, nullptr);
        call<decltype(&dds_delete_qos)>("dds_delete_qos")(qos);
        publisher_ = check(publisher, "dds_create_publisher");
        writer_ = check(writer, "dds_create_writer");
    }

    ~RawBusWriter() {
        if (participant_ > 0) call<decltype(&dds_delete)>("dds_delete")(participant_);
    }
    RawBusWriter(const RawBusWriter &) = delete;
    RawBusWriter &operator=(const RawBusWriter &) = delete;

    // True once a reader has matched; samples written before that are not kept
    // for late joiners.
    bool waitForReader(std::chrono::seconds guard) {
        auto status = call<decltype(&dds_get_publication_matched_status)>("dds_get_publication_matched_status");
        const auto deadline = std::chrono::steady_clock::now() + guard;
        while (std::chrono::steady_clock::now() < deadline) {
            dds_publication_matched_status_t st{};
            if (status(writer_, &st) == DDS_RETCODE_OK && st.current_count > 0) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    void write(std::vector<std::uint8_t> payload) {
        Sample sample{};
        sample.sourceId = const_cast<char *>("raw-writer");
        sample.flowId = const_cast<char *>("raw");
        sample.tagGroup = const_cast<char *>("raw");
        sample.sequenceNumber = ++sequence_;
        sample.payload._maximum = static_cast<std::uint32_t>(payload.size());
        sample.payload._length = static_cast<std::uint32_t>(payload.size());
        sample.payload._buffer = payload.data();
        sample.payload._release = false;
        check(call<decltype(&dds_write)>("dds_write")(writer_, &sample), "dds_write");
    }

  private:
    // Mirrors the bus library's sample type (fields in declaration order).
    struct Octets {
        std::uint32_t _maximum;
        std::uint32_t _length;
        std::uint8_t *_buffer;
        bool _release;
    };
    struct Sample {
        char *sourceId;
        char *flowId;
        char *tagGroup;
        std::uint64_t sequenceNumber;
        std::int64_t sourceTime;
        Octets payload;
    };

    template <typename Fn> static Fn call(const char *name) {
        void *fn = ::dlsym(RTLD_DEFAULT, name);
        if (!fn) throw std::runtime_error(std::string("DDS function not loaded: ") + name);
        return reinterpret_cast<Fn>(fn);
    }
    static dds_entity_t check(dds_entity_t rc, const char *callName) {
        if (rc < 0) throw std::runtime_error(std::string(callName) + " failed: " + std::to_string(rc));
        return rc;
    }

    dds_entity_t participant_ = 0;
    dds_entity_t publisher_ = 0;
    dds_entity_t writer_ = 0;
    std::uint64_t sequence_ = 0;
};

} // namespace session_test
