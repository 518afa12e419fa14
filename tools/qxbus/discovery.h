#pragma once
// What DDS discovery knows about the bus: every remote writer and reader, with
// the thing id and class the bus library puts into their user data and the
// flow it puts into their partition.

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "marlet/marlet.h"

namespace qxbus {

struct Endpoint {
    bool writer = false;
    std::string topic;
    std::string participant; // GUID prefix, for endpoints that carry no thing identity
    std::string thingId;
    std::string thingClass;
    std::vector<std::string> partitions;
};

// Discovery matches DDS topics by the names the bus library gives them.
using com::quorixtech::marlet::ddsTopicName;

// "thingId=<id>;thingClass=<class>" as the bus library writes it; unknown keys
// are ignored, missing ones stay empty.
void parseIdentity(const std::string &userData, Endpoint &endpoint);

// The flow a partition stands for: "flow.cam1" -> "cam1", "flow.*" -> "*";
// a partition outside the bus's scheme is returned as it is.
std::string flowOf(const std::string &partition);

// True when a reader with these partitions (which may hold wildcards) receives
// what a writer publishes into `writerPartition`.
bool partitionsMatch(const std::vector<std::string> &readerPartitions, const std::string &writerPartition);

// A participant of its own in the domain the tool's bus participant opened,
// reading the built-in publication and subscription topics.
class Discovery {
  public:
    explicit Discovery(int domainId);
    ~Discovery();
    Discovery(const Discovery &) = delete;
    Discovery &operator=(const Discovery &) = delete;

    // Takes whatever discovery learned since the last call and returns every
    // endpoint alive now. DDS's own built-in endpoints are left out; the
    // tool's own are included: `list` has none, and `publish` looks only for readers.
    std::vector<Endpoint> poll();

    // Polls until `done` holds for the endpoints seen, or the timeout passes.
    // Returns the endpoints of the last poll.
    std::vector<Endpoint> waitUntil(std::chrono::milliseconds timeout,
                                    const std::function<bool(const std::vector<Endpoint> &)> &done);

  private:
    void drain(int reader, bool writers);

    int participant_ = 0;
    int publications_ = 0;
    int subscriptions_ = 0;
    std::vector<std::pair<std::string, Endpoint>> known_; // by endpoint GUID
};

} // namespace qxbus
