#include "uni_information.h"

#include "frame_image.h"
#include "record_fields.h"

namespace TOLVIXO {

UniNvpList IXO_ClassificationData::Encode() const {
    UniNvpList pairs;
    pairs.reserve(5);
    pairs.push_back(fields::str("engine_id", engine_id));
    pairs.push_back(fields::u32("index", index));
    pairs.push_back(fields::str("output", output));
    pairs.push_back(fields::str("label", label));
    pairs.push_back(fields::f32("probability", probability));
    return pairs;
}

UniNvpList IXO_DetectionBoxData::Encode() const {
    UniNvpList pairs;
    pairs.reserve(11);
    // "engin_id" is the name every deployed peer writes; the decoder reads
    // "engine_id", so a box's engine id does not survive this group. Both
    // spellings are part of the wire contract.
    pairs.push_back(fields::str("engin_id", engine_id));
    pairs.push_back(fields::u32("obj_id", obj_id));
    pairs.push_back(fields::str("obj_label", obj_label));
    pairs.push_back(fields::u32("class_id", class_id));
    pairs.push_back(fields::str("class_label", class_label));
    pairs.push_back(fields::f32("x1", x1));
    pairs.push_back(fields::f32("y1", y1));
    pairs.push_back(fields::f32("x2", x2));
    pairs.push_back(fields::f32("y2", y2));
    pairs.push_back(fields::f32("probability", probability));
    pairs.push_back(fields::str("meta", meta));
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
        const std::string &n = p.name();
        if (fields::is(n, "engine_id")) out.engine_id = p.value().iotv_string();
        if (fields::is(n, "index")) out.index = p.value().iotv_uint32();
        if (fields::is(n, "output")) out.output = p.value().iotv_string();
        if (fields::is(n, "label")) out.label = p.value().iotv_string();
        if (fields::is(n, "probability")) out.probability = p.value().iotv_float32();
    }
}

void decodeBox(const UniNvpList &pairs, IXO_DetectionBoxData &out) {
    for (const auto &p : pairs) {
        const std::string &n = p.name();
        if (fields::is(n, "engine_id")) out.engine_id = p.value().iotv_string();
        if (fields::is(n, "obj_id")) out.obj_id = p.value().iotv_uint32();
        if (fields::is(n, "obj_label")) out.obj_label = p.value().iotv_string();
        if (fields::is(n, "class_id")) out.class_id = p.value().iotv_uint32();
        if (fields::is(n, "class_label")) out.class_label = p.value().iotv_string();
        if (fields::is(n, "x1")) out.x1 = p.value().iotv_float32();
        if (fields::is(n, "y1")) out.y1 = p.value().iotv_float32();
        if (fields::is(n, "x2")) out.x2 = p.value().iotv_float32();
        if (fields::is(n, "y2")) out.y2 = p.value().iotv_float32();
        if (fields::is(n, "probability")) out.probability = p.value().iotv_float32();
        if (fields::is(n, "meta")) out.meta = p.value().iotv_string();
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
