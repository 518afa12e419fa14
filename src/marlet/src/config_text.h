#pragma once
// Values the bus library writes into the bus configuration text before DDS
// reads it, so that one file works wherever its root is installed:
//   ${MARLET_CONFIG_ROOT}       the configuration root the file belongs to
//                               (the directory above its config/ directory)
//   ${MARLET_SECURITY_PLUGINS}  where this build found DDS's security plug-ins
// DDS itself then expands environment variables, ${NAME} and ${NAME:-default}.

#include <string>

namespace com::quorixtech::marlet::detail {

std::string expandLibraryVariables(const std::string &xml, const std::string &configPath);

} // namespace com::quorixtech::marlet::detail
