#include "sample_serdata.h"

#include <cstdio>
#include <cstring>
#include <new>

#include <dds/ddsi/ddsi_keyhash.h>
#include <dds/ddsi/ddsi_serdata.h>
#include <dds/ddsi/ddsi_sertype.h>

#include "BusSample.h"
#include "dds_entity.h"

namespace com::quorixtech::marlet::detail {

// ---- buffers ---------------------------------------------------------------

namespace {
// A writer has a few samples in flight (its history depth, one being built);
// more spare buffers than that would only hold memory.
constexpr std::size_t kSpareBuffers = 4;
} // namespace

SampleBuffers *SampleBuffers::create() { return new SampleBuffers(); }

SampleBuffers::~SampleBuffers() {
    for (Buffer &b : free_)
        delete[] b.bytes;
}

void SampleBuffers::retain() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++refs_;
}

void SampleBuffers::release() {
    bool last;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        last = --refs_ == 0;
    }
    if (last) delete this;
}

SampleBuffers::Buffer SampleBuffers::take(std::size_t size) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = free_.begin(); it != free_.end(); ++it) {
            if (it->capacity >= size) {
                Buffer b = *it;
                free_.erase(it);
                return b;
            }
        }
    }
    return Buffer{new std::uint8_t[size], size};
}

void SampleBuffers::giveBack(Buffer buffer) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (free_.size() < kSpareBuffers) {
            free_.push_back(buffer);
            return;
        }
    }
    delete[] buffer.bytes;
}

// ---- the serialized sample as DDS sees it ------------------------------------

// DDS holds samples by their ddsi_serdata, the first member, and hands that
// back to the operations below.
struct SerializedSample {
    ddsi_serdata c;
    SampleBuffers *buffers; // null for key-only samples, which carry no bytes
    SampleBuffers::Buffer buffer;
    std::uint32_t size; // serialized size, encapsulation header included
};

namespace {

SerializedSample *own(const ddsi_serdata *d) {
    return reinterpret_cast<SerializedSample *>(const_cast<ddsi_serdata *>(d));
}

SerializedSample *newSample(const ddsi_sertype *type, ddsi_serdata_kind kind) {
    auto *s = new SerializedSample{};
    ddsi_serdata_init(&s->c, type, kind);
    // Keyless: every sample is the one instance of its topic.
    s->c.hash = type->serdata_basehash;
    return s;
}

bool sampleEqKey(const ddsi_serdata *, const ddsi_serdata *) { return true; }

uint32_t sampleSize(const ddsi_serdata *d) { return own(d)->size; }

void sampleFree(ddsi_serdata *d) {
    SerializedSample *s = own(d);
    if (s->buffers) {
        s->buffers->giveBack(s->buffer);
        s->buffers->release();
    } else {
        delete[] s->buffer.bytes;
    }
    delete s;
}

// Only the writers of this process make samples of this type; a sample that
// DDS asks to rebuild from other bytes (it converts between types that way)
// is copied once.
ddsi_serdata *sampleFromSerIov(const ddsi_sertype *type, ddsi_serdata_kind kind, ddsrt_msg_iovlen_t niov,
                               const ddsrt_iovec_t *iov, size_t size) {
    SerializedSample *s = newSample(type, kind);
    s->buffer = SampleBuffers::Buffer{new std::uint8_t[size + 4], size + 4};
    s->size = static_cast<std::uint32_t>(size);
    std::size_t at = 0;
    for (ddsrt_msg_iovlen_t i = 0; i < niov && at < size; ++i) {
        const std::size_t n = std::min<std::size_t>(iov[i].iov_len, size - at);
        std::memcpy(s->buffer.bytes + at, iov[i].iov_base, n);
        at += n;
    }
    return &s->c;
}

ddsi_serdata *sampleFromKeyhash(const ddsi_sertype *type, const ddsi_keyhash *) {
    return &newSample(type, SDK_KEY)->c;
}

// Writers here never go through dds_write, and nothing reads this type.
ddsi_serdata *sampleFromSer(const ddsi_sertype *, ddsi_serdata_kind, const nn_rdata *, size_t) { return nullptr; }
ddsi_serdata *sampleFromSample(const ddsi_sertype *, ddsi_serdata_kind, const void *) { return nullptr; }
bool sampleToSample(const ddsi_serdata *, void *, void **, void *) { return false; }
bool sampleUntypedToSample(const ddsi_sertype *, const ddsi_serdata *, void *, void **, void *) { return false; }

void sampleToSer(const ddsi_serdata *d, size_t off, size_t sz, void *buf) {
    std::memcpy(buf, own(d)->buffer.bytes + off, sz);
}

ddsi_serdata *sampleToSerRef(const ddsi_serdata *d, size_t off, size_t sz, ddsrt_iovec_t *ref) {
    ref->iov_base = own(d)->buffer.bytes + off;
    ref->iov_len = static_cast<ddsrt_iov_len_t>(sz);
    return ddsi_serdata_ref(d);
}

void sampleToSerUnref(ddsi_serdata *d, const ddsrt_iovec_t *) { ddsi_serdata_unref(d); }

// The instance map keeps one key-only sample per instance; keyless, it is empty.
ddsi_serdata *sampleToUntyped(const ddsi_serdata *d) { return &newSample(d->type, SDK_KEY)->c; }

size_t samplePrint(const ddsi_sertype *, const ddsi_serdata *d, char *buf, size_t size) {
    const int n = std::snprintf(buf, size, "bus sample of %u bytes", static_cast<unsigned>(own(d)->size));
    return n < 0 ? 0 : static_cast<size_t>(n);
}

void sampleKeyhash(const ddsi_serdata *, ddsi_keyhash *buf, bool) { std::memset(buf->value, 0, sizeof buf->value); }

const ddsi_serdata_ops &serdataOps() {
    static const ddsi_serdata_ops ops = [] {
        ddsi_serdata_ops o{};
        o.eqkey = sampleEqKey;
        o.get_size = sampleSize;
        o.from_ser = sampleFromSer;
        o.from_ser_iov = sampleFromSerIov;
        o.from_keyhash = sampleFromKeyhash;
        o.from_sample = sampleFromSample;
        o.to_ser = sampleToSer;
        o.to_ser_ref = sampleToSerRef;
        o.to_ser_unref = sampleToSerUnref;
        o.to_sample = sampleToSample;
        o.to_untyped = sampleToUntyped;
        o.untyped_to_sample = sampleUntypedToSample;
        o.free = sampleFree;
        o.print = samplePrint;
        o.get_keyhash = sampleKeyhash;
        return o;
    }();
    return ops;
}

// ---- the sample type ---------------------------------------------------------

void typeFree(ddsi_sertype *type) {
    ddsi_sertype_fini(type);
    delete type;
}

// Application samples of this type exist only on the writing side, as bytes;
// these keep DDS's generic code safe should it ask for one.
void typeZeroSamples(const ddsi_sertype *, void *samples, size_t count) {
    std::memset(samples, 0, sizeof(marlet_wire_BusSample) * count);
}

void typeReallocSamples(void **ptrs, const ddsi_sertype *, void *old, size_t oldCount, size_t count) {
    const std::size_t size = sizeof(marlet_wire_BusSample);
    auto *grown = static_cast<char *>(dds_realloc(old, size * count));
    if (grown && count > oldCount) std::memset(grown + size * oldCount, 0, size * (count - oldCount));
    for (size_t i = 0; i < count; ++i)
        ptrs[i] = grown + size * i;
}

void typeFreeSamples(const ddsi_sertype *, void **ptrs, size_t count, dds_free_op_t op) {
    if (count > 0 && (op & DDS_FREE_ALL_BIT)) dds_free(ptrs[0]);
}

bool typeEqual(const ddsi_sertype *, const ddsi_sertype *) { return true; }
uint32_t typeHash(const ddsi_sertype *) { return 0; }
size_t typeSerializedSize(const ddsi_sertype *, const void *) { return SIZE_MAX; }
bool typeSerializeInto(const ddsi_sertype *, const void *, void *, size_t) { return false; }

const ddsi_sertype_ops &sertypeOps() {
    static const ddsi_sertype_ops ops = [] {
        ddsi_sertype_ops o{};
        o.version = ddsi_sertype_v0;
        o.free = typeFree;
        o.zero_samples = typeZeroSamples;
        o.realloc_samples = typeReallocSamples;
        o.free_samples = typeFreeSamples;
        o.equal = typeEqual;
        o.hash = typeHash;
        o.get_serialized_size = typeSerializedSize;
        o.serialize_into = typeSerializeInto;
        return o;
    }();
    return ops;
}

} // namespace

OutgoingSample::OutgoingSample(const ddsi_sertype *type, SampleBuffers &buffers, const WireHeader &header,
                               std::size_t payloadSize) {
    const std::size_t size = wireSampleSize(header, payloadSize);
    if (size > UINT32_MAX) throw MarletError("sample of " + std::to_string(size) + " bytes is too large for the bus");
    sample_ = newSample(type, SDK_DATA);
    sample_->buffers = &buffers;
    buffers.retain();
    sample_->buffer = buffers.take(size);
    sample_->size = static_cast<std::uint32_t>(size);
    payload_ = writeWireSample(header, payloadSize, sample_->buffer.bytes);
}

OutgoingSample::~OutgoingSample() {
    if (sample_) ddsi_serdata_unref(&sample_->c);
}

dds_return_t OutgoingSample::write(dds_entity_t writer) {
    SerializedSample *s = sample_;
    sample_ = nullptr;
    return dds_writecdr(writer, &s->c);
}

WriterTopic createWriterTopic(dds_entity_t participant, const std::string &ddsName) {
    auto *type = new ddsi_sertype{};
    ddsi_sertype_init_flags(type, marlet_wire_BusSample_desc.m_typename, &sertypeOps(), &serdataOps(),
                            DDSI_SERTYPE_FLAG_TOPICKIND_NO_KEY);
    ddsi_sertype *actual = type;
    const dds_entity_t topic = dds_create_topic_sertype(participant, ddsName.c_str(), &actual, nullptr, nullptr, nullptr);
    if (topic < 0) {
        typeFree(type);
        throw DdsError("dds_create_topic_sertype(" + ddsName + ")", topic);
    }
    return WriterTopic{topic, actual};
}

} // namespace com::quorixtech::marlet::detail
