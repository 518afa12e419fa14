#pragma once
// A peer that writes bus samples with whatever payload a test gives it, below
// the bus library, to inject bytes no well-behaved writer would send.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <dds/dds.h>

#include "BusSample.h"
#include "qxtest/config_root.h"

namespace marlettest {

class RawWriter {
  public:
    // Joins the root's domain, made from its own configuration unless this
    // process has the domain already.
    RawWriter(const qxtest::ConfigRoot &root, const char *ddsTopic, const char *partition) {
        const auto id = static_cast<dds_domainid_t>(root.domainId());
        domain_ = dds_create_domain(id, root.readFile("config/Marlet.xml").c_str());
        if (domain_ != DDS_RETCODE_PRECONDITION_NOT_MET) check("dds_create_domain", domain_);
        participant_ = check("dds_create_participant", dds_create_participant(id, nullptr, nullptr));
        const dds_entity_t topic = check("dds_create_topic", dds_create_topic(participant_, &marlet_wire_BusSample_desc,
                                                                              ddsTopic, nullptr, nullptr));
        dds_qos_t *qos = dds_create_qos();
        dds_qset_partition1(qos, partition);
        dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(2));
        dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
        const dds_entity_t publisher = dds_create_publisher(participant_, qos, nullptr);
        writer_ = publisher < 0 ? publisher : dds_create_writer(publisher, topic, qos, nullptr);
        dds_delete_qos(qos);
        check("dds_create_writer", writer_);
    }
    ~RawWriter() { dds_delete(domain_ > 0 ? domain_ : participant_); }
    RawWriter(const RawWriter &) = delete;
    RawWriter &operator=(const RawWriter &) = delete;

    // Polls (bounded by attempts x 100 ms) until `readers` readers have matched.
    bool waitForReader(int attempts, std::uint32_t readers = 1) const {
        dds_publication_matched_status_t status{};
        for (int i = 0; i < attempts; ++i, dds_sleepfor(DDS_MSECS(100)))
            if (dds_get_publication_matched_status(writer_, &status) == DDS_RETCODE_OK &&
                status.current_count >= readers)
                return true;
        return false;
    }

    void write(std::vector<std::uint8_t> payload, const char *flowId, const char *tagGroup,
               std::uint64_t sequence = 1) const {
        marlet_wire_BusSample sample{};
        sample.sourceId = const_cast<char *>("raw");
        sample.flowId = const_cast<char *>(flowId);
        sample.tagGroup = const_cast<char *>(tagGroup);
        sample.sequenceNumber = sequence;
        sample.payload._buffer = payload.data();
        sample.payload._length = sample.payload._maximum = static_cast<std::uint32_t>(payload.size());
        check("dds_write", dds_write(writer_, &sample));
    }

  private:
    static dds_entity_t check(const char *call, dds_entity_t rc) {
        if (rc < 0) throw std::runtime_error(std::string(call) + ": " + dds_strretcode(rc));
        return rc;
    }

    dds_entity_t domain_ = 0;
    dds_entity_t participant_ = 0;
    dds_entity_t writer_ = 0;
};

} // namespace marlettest
