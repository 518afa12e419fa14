#pragma once
// The four commands of qxbus. Each returns the process exit code and throws
// UsageError, JsonInputError or RuntimeFailure (and the bus library's
// MarletError) for main to report.

#include "options.h"

namespace qxbus {

int runList(const Options &options);
int runEcho(const Options &options);
int runStats(const Options &options);
int runPublish(const Options &options);

} // namespace qxbus

#include <string>

#include "catalogue.h"

namespace qxbus {

// Loads the root's tag groups, telling stderr about files that did not load.
TagGroupCatalogue loadCatalogue(const std::string &root);

} // namespace qxbus
