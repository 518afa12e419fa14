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
// Volatile, with the tag group's reliability and history (a keep-last writer
// never waits for a reader that fell behind while depth samples fit under
// WhcHigh of the bus configuration; a keep-all one waits, at most the group's
// max blocking time). The writer offers automatic liveliness with the group's
// lease, so readers learn of a publisher that vanished within that lease.
void fillWriterQos(Qos &qos, const std::string &identity, const TagGroupQos &group);
// Volatile, the group's reliability, keep-last readerDepth or keep-all. The
// reader asks for no liveliness lease of its own: it matches writers of any lease.
void fillReaderQos(Qos &qos, const std::string &identity, const TagGroupQos &group);

} // namespace com::quorixtech::marlet::detail
