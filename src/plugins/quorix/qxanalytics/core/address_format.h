#pragma once
// Checks for the device addresses that users type into element properties, so a
// typo is reported where it is made instead of travelling to every subscriber.

#include <string>

namespace qxanalytics {

// Dotted IPv4 or textual IPv6.
bool isIpAddress(const std::string &text);
// Six two-digit hex groups separated all by ':' or all by '-'.
bool isMacAddress(const std::string &text);

} // namespace qxanalytics
