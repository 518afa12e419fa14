#pragma once
// Checks of the bus configuration text before it reaches DDS. Cyclone DDS
// takes an empty or cut-off file as "use the defaults", and its defaults use
// every network interface: a configuration that is broken must stop the
// participant from opening instead, with the file and the fault named.

#include <string>

namespace com::quorixtech::marlet::detail {

// Throws ConfigError unless xml is a well-formed document with a <Domain>
// element; returns the domain id of that element ("any" or no Id means 0).
int checkedDomainId(const std::string &xml, const std::string &path);

} // namespace com::quorixtech::marlet::detail
