#include "bus_qos.h"

namespace com::quorixtech::marlet::detail {

namespace {

void setUserData(Qos &qos, const std::string &identity) {
    dds_qset_userdata(qos.get(), identity.data(), identity.size());
}

void fillDeliveryQos(Qos &qos, const TagGroupQos &group, bool keepAll, std::int32_t depth) {
    dds_qset_reliability(qos.get(), group.reliable ? DDS_RELIABILITY_RELIABLE : DDS_RELIABILITY_BEST_EFFORT,
                         DDS_MSECS(group.maxBlockingMs));
    dds_qset_durability(qos.get(), DDS_DURABILITY_VOLATILE);
    if (keepAll)
        dds_qset_history(qos.get(), DDS_HISTORY_KEEP_ALL, DDS_LENGTH_UNLIMITED);
    else
        dds_qset_history(qos.get(), DDS_HISTORY_KEEP_LAST, depth);
}

} // namespace

std::string flowPartition(const std::string &contextId) { return "flow." + contextId; }
std::string anyFlowPartition() { return "flow.*"; }

void fillGroupQos(Qos &qos, const std::string &partition, const std::string &identity) {
    dds_qset_partition1(qos.get(), partition.c_str());
    dds_qset_groupdata(qos.get(), identity.data(), identity.size());
}

void fillWriterQos(Qos &qos, const std::string &identity, const TagGroupQos &group) {
    fillDeliveryQos(qos, group, group.keepAll, group.depth);
    if (group.livelinessLeaseMs > 0)
        dds_qset_liveliness(qos.get(), DDS_LIVELINESS_AUTOMATIC, DDS_MSECS(group.livelinessLeaseMs));
    setUserData(qos, identity);
}

void fillReaderQos(Qos &qos, const std::string &identity, const TagGroupQos &group) {
    // A reader that keeps everything acknowledges everything: only a reader
    // process that stops altogether holds a keep-all writer back.
    fillDeliveryQos(qos, group, group.readerDepth == 0, group.readerDepth);
    setUserData(qos, identity);
}

} // namespace com::quorixtech::marlet::detail
