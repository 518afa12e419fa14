#include "bus_qos.h"

namespace com::quorixtech::marlet::detail {

namespace {
// Long enough to ride out a reader that is a few 6 MB frames behind; a writer
// that is stuck longer than this reports the timeout instead of hanging the
// streaming thread.
constexpr dds_duration_t kMaxBlockingTime = DDS_SECS(2);

void setUserData(Qos &qos, const std::string &identity) {
    dds_qset_userdata(qos.get(), identity.data(), identity.size());
}
} // namespace

std::string flowPartition(const std::string &contextId) { return "flow." + contextId; }
std::string anyFlowPartition() { return "flow.*"; }

void fillGroupQos(Qos &qos, const std::string &partition, const std::string &identity) {
    dds_qset_partition1(qos.get(), partition.c_str());
    dds_qset_groupdata(qos.get(), identity.data(), identity.size());
}

void fillWriterQos(Qos &qos, const std::string &identity) {
    dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, kMaxBlockingTime);
    dds_qset_durability(qos.get(), DDS_DURABILITY_VOLATILE);
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_ALL, DDS_LENGTH_UNLIMITED);
    setUserData(qos, identity);
}

void fillReaderQos(Qos &qos, const std::string &identity) {
    dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, kMaxBlockingTime);
    dds_qset_durability(qos.get(), DDS_DURABILITY_VOLATILE);
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_ALL, DDS_LENGTH_UNLIMITED);
    setUserData(qos, identity);
}

} // namespace com::quorixtech::marlet::detail
