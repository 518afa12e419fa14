#pragma once
// Where the tool finds its configuration: the same roots, in the same order,
// that the plug-in searches, so the tool joins the bus the pipelines are on.

#include <string>
#include <vector>

namespace qxbus {

inline constexpr const char *kBusConfigFile = "config/Marlet.xml";
inline constexpr const char *kTagGroupDir = "definitions/TagGroup";

// ".", "/opt/quorix/ixo", "/src/common/data_model", "./common/data_model",
// then $IXO_ROOT when it is set.
std::vector<std::string> configRootCandidates();

// The explicit root when given (UsageError if it lacks the bus configuration),
// else the first candidate holding it (RuntimeFailure when none does).
std::string findConfigRoot(const std::string &explicitRoot);

// "file://" URI of a file under the root, absolute so that it does not depend
// on how the library joins relative paths.
std::string fileUri(const std::string &root, const std::string &relative);

} // namespace qxbus
