#pragma once
// The QoS every thing uses on the bus, in one place so that writers and
// readers always match.

#include <cstdint>
#include <string>

#include "dds_entity.h"

namespace com::quorixtech::marlet::detail {

// Writers publish into "flow." + context id; a reader of every flow uses "flow.*".
std::string flowPartition(const std::string &contextId);
std::string anyFlowPartition();

// Publisher or subscriber QoS: one partition and the thing's identity as
// group data, so that discovery tools can tell things apart.
void fillGroupQos(Qos &qos, const std::string &partition, const std::string &identity);
// Reliable, volatile, a short writer history: WhcHigh in the bus configuration
// bounds the bytes in flight, the history only the samples kept for late acks.
void fillWriterQos(Qos &qos, const std::string &identity);
// Reliable, volatile, keep everything: the reader thread drains continuously
// and every frame is wanted.
void fillReaderQos(Qos &qos, const std::string &identity);

} // namespace com::quorixtech::marlet::detail
