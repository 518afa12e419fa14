#include "writer_watch.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <vector>

namespace com::quorixtech::marlet::detail {

namespace {

// The thing id out of "thingId=<id>;thingClass=..." user data.
std::string thingIdOf(const dds_qos_t *qos) {
    void *data = nullptr;
    size_t size = 0;
    if (qos == nullptr || !dds_qget_userdata(qos, &data, &size) || data == nullptr) return "";
    const std::string text(static_cast<const char *>(data), size);
    dds_free(data);
    const std::string key = "thingId=";
    if (text.compare(0, key.size(), key) != 0) return "";
    return text.substr(key.size(), text.find(';') - key.size());
}

std::vector<dds_instance_handle_t> matchedWriters(dds_entity_t reader) {
    std::vector<dds_instance_handle_t> handles(8);
    for (;;) {
        const dds_return_t n = dds_get_matched_publications(reader, handles.data(), handles.size());
        if (n < 0) return {};
        const auto count = static_cast<std::size_t>(n);
        const bool complete = count <= handles.size();
        handles.resize(count);
        if (complete) return handles;
    }
}

} // namespace

bool GoneReports::first(const std::string &participant) {
    std::lock_guard<std::mutex> lock(mutex_);
    return reported_.insert(participant).second;
}

void GoneReports::seenAlive(const std::string &participant) {
    std::lock_guard<std::mutex> lock(mutex_);
    reported_.erase(participant);
}

void WriterWatch::attach(dds_entity_t reader, dds_entity_t waitset) {
    // A failure here costs only the report, never the data: results ignored on purpose.
    (void)dds_set_status_mask(reader, DDS_SUBSCRIPTION_MATCHED_STATUS | DDS_LIVELINESS_CHANGED_STATUS);
    (void)dds_waitset_attach(waitset, reader, reader);
}

void WriterWatch::update(dds_entity_t reader, const std::string &topic, GoneReports &reports) {
    dds_subscription_matched_status_t matched{};
    const bool matchChanged = dds_get_subscription_matched_status(reader, &matched) == DDS_RETCODE_OK &&
                              (matched.total_count_change != 0 || matched.current_count_change != 0);
    std::vector<dds_instance_handle_t> now;
    if (matchChanged) {
        now = matchedWriters(reader);
        std::sort(now.begin(), now.end());
        for (dds_instance_handle_t handle : now)
            if (!known_.count(handle)) learn(reader, handle);
    }

    // A writer stops being alive when it is deleted or when its lease runs out
    // (its process was killed, or the network between us failed); the process
    // itself is dropped only when the bus's longer participant lease runs out.
    dds_liveliness_changed_status_t live{};
    if (dds_get_liveliness_changed_status(reader, &live) == DDS_RETCODE_OK && live.alive_count_change != 0) {
        const auto it = known_.find(live.last_publication_handle);
        if (live.alive_count_change > 0 && it != known_.end()) {
            reports.seenAlive(it->second.participant);
        } else if (live.alive_count_change < 0 && (it == known_.end() || reports.first(it->second.participant))) {
            report(it == known_.end() ? nullptr : &it->second, topic, -live.alive_count_change);
        }
    }

    if (matchChanged) {
        for (auto it = known_.begin(); it != known_.end();)
            it = std::binary_search(now.begin(), now.end(), it->first) ? std::next(it) : known_.erase(it);
    }
}

void WriterWatch::learn(dds_entity_t reader, dds_instance_handle_t handle) {
    dds_builtintopic_endpoint_t *data = dds_get_matched_publication_data(reader, handle);
    if (data == nullptr) return; // gone again already
    Writer writer;
    writer.thingId = thingIdOf(data->qos);
    // The GUID prefix names the participant, and so the process, behind the writer.
    writer.participant.assign(reinterpret_cast<const char *>(data->participant_key.v), 12);
    dds_liveliness_kind_t kind;
    dds_duration_t lease = DDS_INFINITY;
    if (data->qos && dds_qget_liveliness(data->qos, &kind, &lease) && lease != DDS_INFINITY)
        writer.leaseMs = lease / DDS_NSECS_IN_MSEC;
    dds_builtintopic_free_endpoint(data);
    known_.emplace(handle, std::move(writer));
}

void WriterWatch::report(const Writer *gone, const std::string &topic, std::int32_t count) {
    const bool named = gone != nullptr && !gone->thingId.empty();
    std::cerr << "marlet: publisher " << (named ? gone->thingId : std::string("(not a thing of this bus)"));
    if (count > 1) std::cerr << " and " << count - 1 << " more";
    std::cerr << " of " << topic << (count > 1 ? " are" : " is") << " gone (it closed, or showed no sign of life for ";
    if (gone != nullptr && gone->leaseMs > 0)
        std::cerr << "its lease of " << gone->leaseMs << " ms)" << std::endl;
    else
        std::cerr << "its lease)" << std::endl;
}

} // namespace com::quorixtech::marlet::detail
