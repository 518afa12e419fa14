#pragma once
// Tells the operator when a publisher that a reader received from is gone:
// closed, or killed and silent past its liveliness lease. A killed publisher
// process is reported once, however many of its writers this process read.

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include <dds/dds.h>

namespace com::quorixtech::marlet::detail {

// Per participant: the publisher processes already reported gone.
class GoneReports {
  public:
    // True for the first report of a participant since it was last seen alive.
    bool first(const std::string &participant);
    void seenAlive(const std::string &participant);

  private:
    std::mutex mutex_;
    std::set<std::string> reported_;
};

// Per reader: the writers it is matched with.
class WriterWatch {
  public:
    // Makes changes of the reader's matched writers wake the waitset.
    static void attach(dds_entity_t reader, dds_entity_t waitset);
    // After the waitset woke: learns the writers that came, reports those that
    // stopped being alive (one line per publisher process).
    void update(dds_entity_t reader, const std::string &topic, GoneReports &reports);

  private:
    struct Writer {
        std::string thingId;
        std::string participant;
        std::int64_t leaseMs = 0; // 0: no lease of its own
    };
    void learn(dds_entity_t reader, dds_instance_handle_t handle);
    static void report(const Writer *gone, const std::string &topic, std::int32_t count);
    std::map<dds_instance_handle_t, Writer> known_;
};

} // namespace com::quorixtech::marlet::detail
