#include "discovery.h"

#include <algorithm>
#include <cstdio>
#include <thread>

#include <dds/dds.h>
#include <fnmatch.h>

#include "marlet/marlet.h"

namespace qxbus {

namespace {

using com::quorixtech::marlet::DdsError;

dds_entity_t checked(dds_entity_t rc, const char *call) {
    if (rc < 0) throw DdsError(call, rc);
    return rc;
}

std::string guidText(const dds_guid_t &guid, std::size_t bytes) {
    std::string out;
    char hex[3];
    for (std::size_t i = 0; i < bytes && i < sizeof guid.v; ++i) {
        std::snprintf(hex, sizeof hex, "%02x", guid.v[i]);
        out += hex;
    }
    return out;
}

constexpr std::size_t kGuidPrefixBytes = 12;
constexpr int kTakeBatch = 64;
constexpr auto kPollInterval = std::chrono::milliseconds(50);

} // namespace

void parseIdentity(const std::string &userData, Endpoint &endpoint) {
    std::size_t start = 0;
    while (start <= userData.size()) {
        const std::size_t end = std::min(userData.find(';', start), userData.size());
        const std::string item = userData.substr(start, end - start);
        if (const auto eq = item.find('='); eq != std::string::npos) {
            const std::string key = item.substr(0, eq);
            if (key == "thingId") endpoint.thingId = item.substr(eq + 1);
            if (key == "thingClass") endpoint.thingClass = item.substr(eq + 1);
        }
        start = end + 1;
    }
}

std::string flowOf(const std::string &partition) {
    const std::string prefix = "flow.";
    return partition.compare(0, prefix.size(), prefix) == 0 ? partition.substr(prefix.size()) : partition;
}

bool partitionsMatch(const std::vector<std::string> &readerPartitions, const std::string &writerPartition) {
    // DDS: no partition at all is the default partition "".
    if (readerPartitions.empty()) return writerPartition.empty();
    return std::any_of(readerPartitions.begin(), readerPartitions.end(), [&](const std::string &pattern) {
        return fnmatch(pattern.c_str(), writerPartition.c_str(), 0) == 0;
    });
}

Discovery::Discovery(int domainId) {
    participant_ = checked(dds_create_participant(static_cast<dds_domainid_t>(domainId), nullptr, nullptr),
                           "dds_create_participant");
    try {
        publications_ = checked(dds_create_reader(participant_, DDS_BUILTIN_TOPIC_DCPSPUBLICATION, nullptr, nullptr),
                                "dds_create_reader(DCPSPublication)");
        subscriptions_ = checked(dds_create_reader(participant_, DDS_BUILTIN_TOPIC_DCPSSUBSCRIPTION, nullptr, nullptr),
                                 "dds_create_reader(DCPSSubscription)");
    } catch (...) {
        dds_delete(participant_);
        throw;
    }
}

Discovery::~Discovery() { dds_delete(participant_); } // takes its readers with it

void Discovery::drain(int reader, bool writers) {
    for (;;) {
        void *samples[kTakeBatch] = {nullptr};
        dds_sample_info_t infos[kTakeBatch];
        const dds_return_t n = dds_take(reader, samples, infos, kTakeBatch, kTakeBatch);
        if (n < 0) throw DdsError("dds_take(built-in topic)", n);
        for (dds_return_t i = 0; i < n; ++i) {
            const auto *sample = static_cast<const dds_builtintopic_endpoint_t *>(samples[i]);
            const std::string key = guidText(sample->key, sizeof sample->key.v);
            known_.erase(std::remove_if(known_.begin(), known_.end(), [&](const auto &e) { return e.first == key; }),
                         known_.end());
            if (infos[i].instance_state != DDS_IST_ALIVE || !infos[i].valid_data) continue;

            // Readers of the built-in topics (our own and every peer's) are DDS plumbing.
            if (sample->topic_name && std::string(sample->topic_name).rfind("DCPS", 0) == 0) continue;

            Endpoint endpoint;
            endpoint.writer = writers;
            endpoint.topic = sample->topic_name ? sample->topic_name : "";
            endpoint.participant = guidText(sample->participant_key, kGuidPrefixBytes);
            void *userData = nullptr;
            size_t size = 0;
            if (sample->qos && dds_qget_userdata(sample->qos, &userData, &size) && userData) {
                parseIdentity(std::string(static_cast<const char *>(userData), size), endpoint);
                dds_free(userData);
            }
            uint32_t count = 0;
            char **names = nullptr;
            if (sample->qos && dds_qget_partition(sample->qos, &count, &names)) {
                for (uint32_t p = 0; p < count; ++p) {
                    endpoint.partitions.emplace_back(names[p]);
                    dds_free(names[p]);
                }
                dds_free(names);
            }
            known_.emplace_back(key, std::move(endpoint));
        }
        if (n > 0) dds_return_loan(reader, samples, n);
        if (n < kTakeBatch) return;
    }
}

std::vector<Endpoint> Discovery::poll() {
    drain(publications_, true);
    drain(subscriptions_, false);
    std::vector<Endpoint> alive;
    alive.reserve(known_.size());
    for (const auto &entry : known_)
        alive.push_back(entry.second);
    return alive;
}

std::vector<Endpoint> Discovery::waitUntil(std::chrono::milliseconds timeout,
                                           const std::function<bool(const std::vector<Endpoint> &)> &done) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto endpoints = poll();
        if (done(endpoints) || std::chrono::steady_clock::now() >= deadline) return endpoints;
        std::this_thread::sleep_for(kPollInterval);
    }
}

} // namespace qxbus
