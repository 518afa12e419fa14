#pragma once
// Failures while opening a participant, reading definitions or creating a
// thing are printed on standard error as they leave the library: callers
// such as the plug-in only say that their session did not open, and the
// operator needs the file or the call that failed.

#include <exception>
#include <iostream>

namespace com::quorixtech::marlet::detail {

template <typename Body> auto reportingFailures(Body &&body) -> decltype(body()) {
    try {
        return body();
    } catch (const std::exception &e) {
        std::cerr << "marlet: " << e.what() << std::endl;
        throw;
    }
}

} // namespace com::quorixtech::marlet::detail
