#include "uni_information.h"

#include "frame_image.h"
#include "record_fields.h"

namespace TOLVIXO {

UniNvpList IXO_ClassificationData::Encode() const {
    UniNvpList pairs;
    pairs.reserve(5);
    pairs.push_back(fields::str("engine_id", engine_id));
    fields::encodeClass(*this, pairs);
    return pairs;
}

UniNvpList IXO_DetectionBoxData::Encode() const {
    UniNvpList pairs;
    pairs.reserve(11);
    // "engin_id" is the name every deployed peer writes; the decoder reads
    // "engine_id", so a box's engine id does not survive this group. Both
    // spellings are part of the wire contract.
    pairs.push_back(fields::str("engin_id", engine_id));
    fields::encodeBox(*this, pairs);
    return pairs;
}

UniNvpList IXO_SegmentationData::Encode() const { return fields::encodeMask(*this); }

UniNvpList IXO_VideoFrameData::Encode() const {
    UniNvpList classifications;
    classifications.reserve(classificationResult.size());
    for (const auto &c : classificationResult)
        classifications.push_back(fields::entry(c.Encode()));
    UniNvpList boxes;
    boxes.reserve(detectionResult.size());
    for (const auto &b : detectionResult)
        boxes.push_back(fields::entry(b.Encode()));
    UniNvpList masks;
    masks.reserve(segmentationResult.size());
    for (const auto &m : segmentationResult)
        masks.push_back(fields::entry(m.Encode()));

    UniNvpList pairs;
    pairs.reserve(14);
    fields::encodeFrame(*this, pairs);
    pairs.push_back(fields::seq("ClassificationResult", std::move(classifications)));
    pairs.push_back(fields::seq("DetectionResult", std::move(boxes)));
    pairs.push_back(fields::seq("SegmentationResult", std::move(masks)));
    return pairs;
}

void IXO_VideoFrameData::ToMat(cv::Mat &out) const { frameToMat(data, width, height, size, compression, out); }

namespace {

void decodeClassification(const UniNvpList &pairs, IXO_ClassificationData &out) {
    for (const auto &p : pairs) {
        if (fields::is(p.name(), "engine_id")) out.engine_id = p.value().iotv_string();
        fields::decodeClassField(p, out);
    }
}

void decodeBox(const UniNvpList &pairs, IXO_DetectionBoxData &out) {
    for (const auto &p : pairs) {
        if (fields::is(p.name(), "engine_id")) out.engine_id = p.value().iotv_string();
        fields::decodeBoxField(p, out);
    }
}

} // namespace

IXO_VideoFrameData IXO_VideoFrameData::Decode(const UniNvpList &pairs) {
    IXO_VideoFrameData frame;
    for (const auto &p : pairs) {
        fields::decodeFrameField(p, frame);
        const std::string &n = p.name();
        if (fields::is(n, "ClassificationResult")) {
            frame.classificationResult.clear();
            fields::decodeList(p, frame.classificationResult, decodeClassification);
        }
        if (fields::is(n, "DetectionResult")) {
            frame.detectionResult.clear();
            fields::decodeList(p, frame.detectionResult, decodeBox);
        }
        if (fields::is(n, "SegmentationResult")) {
            frame.segmentationResult.clear();
            fields::decodeList(p, frame.segmentationResult,
                               [](const UniNvpList &e, IXO_SegmentationData &m) { fields::decodeMask(e, m); });
        }
    }
    return frame;
}

UniNvpList IXO_DeviceInfoData::Encode() const {
    UniNvpList pairs;
    pairs.reserve(13);
    fields::encodeDevice(*this, pairs);
    return pairs;
}

IXO_DeviceInfoData IXO_DeviceInfoData::Decode(const UniNvpList &pairs) {
    IXO_DeviceInfoData device;
    fields::decodeDevice(pairs, device);
    return device;
}

UniNvpList UniInfo::Encode() const {
    UniNvpList frames;
    frames.reserve(videoList.size());
    for (const auto &f : videoList)
        frames.push_back(fields::entry(f.Encode()));
    UniNvpList devices;
    devices.reserve(deviceList.size());
    for (const auto &d : deviceList)
        devices.push_back(fields::entry(d.Encode()));
    UniNvpList pairs;
    pairs.reserve(2);
    pairs.push_back(fields::seq("VideoList", std::move(frames)));
    pairs.push_back(fields::seq("DeviceList", std::move(devices)));
    return pairs;
}

UniInfo UniInfo::Decode(const com::quorixtech::marlet::DataSample<UniNvpList> &sample) {
    // Read in place: copying the whole pair tree first would copy every
    // frame's bytes twice.
    return Decode(sample.getData());
}

UniInfo UniInfo::Decode(const UniNvpList &pairs) {
    UniInfo info;
    for (const auto &p : pairs) {
        const std::string &n = p.name();
        if (fields::is(n, "VideoList")) {
            for (const auto &e : p.value().iotv_nvp_seq())
                info.videoList.push_back(IXO_VideoFrameData::Decode(e.value().iotv_nvp_seq()));
        }
        if (fields::is(n, "DeviceList")) {
            for (const auto &e : p.value().iotv_nvp_seq())
                info.deviceList.push_back(IXO_DeviceInfoData::Decode(e.value().iotv_nvp_seq()));
        }
    }
    return info;
}

} // namespace TOLVIXO
