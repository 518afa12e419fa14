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
// Reliable, volatile, keep everything until acknowledged: with a short
// keep-last history a reader that fell a few 6 MB frames behind lost frames for
// good (the writer had replaced them before the repair request came). Keep-all
// makes write() wait instead, bounded by WhcHigh in the bus configuration
// (bytes in flight) and the max blocking time (then DdsError with timeout).
void fillWriterQos(Qos &qos, const std::string &identity);
// Reliable, volatile, keep everything: the reader thread drains continuously
// and every frame is wanted.
void fillReaderQos(Qos &qos, const std::string &identity);

} // namespace com::quorixtech::marlet::detail
