// Decoding of the five separate records from received pair sequences.

#include "frame_information.h"
#include "record_fields.h"

namespace TOLVIXO {

void DecodeRecord(const NvpList &pairs, FrameInfo &out) {
    for (const auto &p : pairs)
        fields::decodeFrameField(p, out);
}

void DecodeRecord(NvpList &&pairs, FrameInfo &out) {
    for (auto &p : pairs)
        fields::decodeFrameField(p, out);
}

void DecodeRecord(const NvpList &pairs, DeviceInfo &out) { fields::decodeDevice(pairs, out); }

void DecodeRecord(const NvpList &pairs, ClassificationData &out) {
    for (const auto &p : pairs)
        fields::decodeClassField(p, out);
}

void DecodeRecord(const NvpList &pairs, DetectionBoxData &out) {
    for (const auto &p : pairs)
        fields::decodeBoxField(p, out);
}

void DecodeRecord(const NvpList &pairs, SegmentationData &out) { fields::decodeMask(pairs, out); }

namespace {

// The header of both result groups plus their element list; a repeated
// "data" pair replaces the list, as any repeated name keeps the last value.
template <typename T> void decodeResults(const NvpList &pairs, Information<T> &out) {
    for (const auto &p : pairs) {
        const std::string &n = p.name();
        if (fields::is(n, "engine_id")) out.engine_id = p.value().iotv_string();
        if (fields::is(n, "stream_id")) out.stream_id = p.value().iotv_string();
        if (fields::is(n, "frame_id")) out.frame_id = p.value().iotv_uint32();
        if (fields::is(n, "data")) {
            std::vector<T> items;
            fields::decodeList(p, items, [](const NvpList &e, T &item) { DecodeRecord(e, item); });
            out.data = std::move(items);
        }
    }
}

} // namespace

void DecodeRecord(const NvpList &pairs, Information<ClassificationData> &out) { decodeResults(pairs, out); }

void DecodeRecord(const NvpList &pairs, Information<DetectionBoxData> &out) { decodeResults(pairs, out); }

void DecodeRecord(const NvpList &pairs, SegmentInfo &out) {
    for (const auto &p : pairs) {
        const std::string &n = p.name();
        if (fields::is(n, "engine_id")) out.engine_id = p.value().iotv_string();
        if (fields::is(n, "stream_id")) out.stream_id = p.value().iotv_string();
        if (fields::is(n, "frame_id")) out.frame_id = p.value().iotv_uint32();
        if (fields::is(n, "inference_id")) out.inference_id = p.value().iotv_uint32();
        if (fields::is(n, "data")) {
            std::vector<SegmentationData> items;
            fields::decodeList(p, items, [](const NvpList &e, SegmentationData &m) { DecodeRecord(e, m); });
            out.data = std::move(items);
        }
    }
}

} // namespace TOLVIXO
