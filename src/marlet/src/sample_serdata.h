#pragma once
// Bus samples serialized by this library and handed to DDS as they are.
//
// dds_write would serialize a sample into memory of its own, copying the
// payload once more after the pair encoder already wrote it; for a 1080p
// picture that copy (6 MB, every frame) was a fifth of the publisher's time.
// Writers therefore use a sample type of our own, registered under the name
// of the readers' type, whose serialized data is our buffer: the pair tree is
// encoded straight into the bytes that DDS sends fragments from and keeps in
// the writer's history until readers acknowledge them. Readers keep the
// generated type; the bytes on the wire are the same CDR either way.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <dds/dds.h>

#include "wire_view.h"

struct ddsi_sertype;

namespace com::quorixtech::marlet::detail {

// Memory for serialized samples, reused once DDS lets go of it, so that a
// steady stream of same-sized frames neither allocates nor touches new pages.
// Shared by a writer and the samples it has in flight; whichever goes last
// frees it.
class SampleBuffers {
  public:
    struct Buffer {
        std::uint8_t *bytes = nullptr;
        std::size_t capacity = 0;
    };

    static SampleBuffers *create();
    void retain();
    void release();

    // A buffer of at least size bytes, uninitialised.
    Buffer take(std::size_t size);
    void giveBack(Buffer buffer);

  private:
    SampleBuffers() = default;
    ~SampleBuffers();
    std::mutex mutex_;
    std::vector<Buffer> free_;
    std::size_t refs_ = 1;
};

// One sample being built: the header is serialized at construction, the
// caller writes payloadSize bytes at payload(), then write() hands the whole
// to a writer of a topic made by createWriterTopic.
class OutgoingSample {
  public:
    OutgoingSample(const ddsi_sertype *type, SampleBuffers &buffers, const WireHeader &header,
                   std::size_t payloadSize);
    ~OutgoingSample();
    OutgoingSample(const OutgoingSample &) = delete;
    OutgoingSample &operator=(const OutgoingSample &) = delete;

    std::uint8_t *payload() const { return payload_; }
    // dds_writecdr's return code; the sample is DDS's from here on, whatever it says.
    dds_return_t write(dds_entity_t writer);

  private:
    struct SerializedSample *sample_;
    std::uint8_t *payload_;
};

// A topic for writers on the participant, under the DDS topic name given,
// carrying samples built by OutgoingSample of its type. Throws DdsError.
struct WriterTopic {
    dds_entity_t topic = 0;
    const ddsi_sertype *type = nullptr;
};
WriterTopic createWriterTopic(dds_entity_t participant, const std::string &ddsName);

} // namespace com::quorixtech::marlet::detail
