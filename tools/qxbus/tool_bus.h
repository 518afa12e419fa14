#pragma once
// The tool's own place on the bus: one participant opened with the root's bus
// configuration, and things made on demand with one input or output for a
// tag group, from a thing class and properties written in memory.

#include <string>
#include <vector>

#include "catalogue.h"
#include "marlet/marlet.h"

namespace qxbus {

enum class PortDirection { input, output };

class ToolBus {
  public:
    explicit ToolBus(const std::string &root);
    ~ToolBus();
    ToolBus(const ToolBus &) = delete;
    ToolBus &operator=(const ToolBus &) = delete;

    // A thing whose only port, named after the tag group, reads or writes it.
    // The group's definition file is registered again just before, because the
    // latest registration of a qualified name decides the topic a thing uses.
    com::quorixtech::marlet::Thing makeThing(const TagGroupEntry &group, PortDirection direction,
                                             const std::string &flow);

    int domainId() const { return bus_.domainId(); }

  private:
    com::quorixtech::marlet::Marlet bus_;
    std::vector<com::quorixtech::marlet::Thing> things_;
    std::string instance_; // distinguishes this run's thing ids and class names
    int made_ = 0;
};

// The port name a thing made by ToolBus uses for a tag group.
std::string portName(const TagGroupEntry &group);

// The context id the plug-in's properties file for this tag group carries
// ("config/<Name without Data>ThingOutProperties.json"), or "" when there is none.
std::string defaultFlow(const std::string &root, const TagGroupEntry &group);

} // namespace qxbus
