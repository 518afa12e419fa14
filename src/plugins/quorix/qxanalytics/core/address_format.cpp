#include "address_format.h"

#include <cctype>

#include <arpa/inet.h>

namespace qxanalytics {

bool isIpAddress(const std::string &text) {
    unsigned char buffer[sizeof(struct in6_addr)];
    return inet_pton(AF_INET, text.c_str(), buffer) == 1 || inet_pton(AF_INET6, text.c_str(), buffer) == 1;
}

bool isMacAddress(const std::string &text) {
    if (text.size() != 17) return false;
    const char separator = text[2];
    if (separator != ':' && separator != '-') return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool separatorPlace = i % 3 == 2;
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (separatorPlace ? c != static_cast<unsigned char>(separator) : !std::isxdigit(c)) return false;
    }
    return true;
}

} // namespace qxanalytics
