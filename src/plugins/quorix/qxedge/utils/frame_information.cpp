#include "frame_information.h"

#include <algorithm>
#include <sstream>

#include "record_fields.h"

namespace TOLVIXO {

namespace {

const char *const kRule = "************************************";

// Header shared by the classification and detection dumps. The label
// "Data content = " ends in a newline of its own and is followed by another,
// which leaves the blank line that readers of these logs are used to.
template <typename T> void dumpResultHeader(std::ostringstream &ss, const Information<T> &info) {
    ss << kRule << std::endl;
    ss << "EngineID = " << info.engine_id << std::endl;
    ss << "StreamID = " << info.stream_id << std::endl;
    ss << "FrameID = " << info.frame_id << std::endl;
    ss << "Data content = \n" << std::endl;
}

} // namespace

NvpList FrameInfo::Encode() const {
    NvpList pairs;
    pairs.reserve(11);
    fields::encodeFrame(*this, pairs);
    return pairs;
}

std::string FrameInfo::GetString() const {
    if (data.empty()) return std::string();
    std::ostringstream ss;
    ss << kRule << std::endl;
    ss << "stream_id = " << stream_id << std::endl;
    ss << "frame_id = " << frame_id << std::endl;
    ss << "timestamp = " << timestamp << std::endl;
    // At most ten payload bytes, so that dumps of full frames stay short.
    ss << "data = ";
    const std::size_t shown = std::min<std::size_t>(data.size(), 10);
    for (std::size_t i = 0; i < shown; ++i)
        ss << static_cast<unsigned>(data[i]) << ",";
    ss << " ... " << std::endl;
    ss << "width = " << width << std::endl;
    ss << "height = " << height << std::endl;
    ss << "channels = " << channels << std::endl;
    ss << "size = " << size << std::endl;
    ss << "format = " << format << std::endl;
    ss << "compression = " << compression << std::endl;
    ss << "framerate = " << framerate << std::endl;
    ss << kRule << std::endl;
    return ss.str();
}

void FrameInfo::Copy(FrameInfo &target) {
    target.stream_id = stream_id;
    target.frame_id = frame_id;
    target.timestamp = timestamp;
    // Appended, not assigned: a destination that still holds bytes keeps them
    // in front. Callers hand over an empty frame; the behaviour is kept as is.
    target.data.insert(target.data.end(), data.begin(), data.end());
    target.width = width;
    target.height = height;
    target.channels = channels;
    target.size = size;
    target.format = format;
    target.compression = compression;
    target.framerate = framerate;
}

NvpList DeviceInfo::Encode() const {
    NvpList pairs;
    pairs.reserve(13);
    fields::encodeDevice(*this, pairs);
    return pairs;
}

std::string DeviceInfo::GetString() const {
    std::ostringstream ss;
    ss << kRule << std::endl;
    ss << "stream_id = " << stream_id << std::endl;
    ss << "mac_address = " << mac_address << std::endl;
    ss << "ip_address = " << ip_address << std::endl;
    ss << "port = " << port << std::endl;
    // Upper case in this one label: log readers grep for it.
    ss << "URI = " << uri << std::endl;
    ss << "manufacturer = " << manufacturer << std::endl;
    ss << "model = " << model << std::endl;
    ss << "serial = " << serial << std::endl;
    ss << "fw_version = " << fw_version << std::endl;
    ss << "dev_id = " << dev_id << std::endl;
    ss << "status = " << status << std::endl;
    ss << "kind = " << kind << std::endl;
    ss << "protocol = " << protocol << std::endl;
    ss << kRule << std::endl;
    return ss.str();
}

namespace {

// Both result groups: the header, then one list entry per result.
template <typename T, typename EncodeItem>
NvpList encodeResults(const Information<T> &info, std::size_t pairsPerItem, EncodeItem encodeItem) {
    NvpList entries;
    entries.reserve(info.data.size());
    for (const auto &result : info.data) {
        NvpList item;
        item.reserve(pairsPerItem);
        encodeItem(result, item);
        entries.push_back(fields::entry(std::move(item)));
    }
    NvpList pairs;
    pairs.reserve(4);
    pairs.push_back(fields::str("engine_id", info.engine_id));
    pairs.push_back(fields::str("stream_id", info.stream_id));
    pairs.push_back(fields::u32("frame_id", info.frame_id));
    pairs.push_back(fields::seq("data", std::move(entries)));
    return pairs;
}

} // namespace

template <> NvpList Information<ClassificationData>::Encode() const {
    return encodeResults(*this, 4, [](const ClassificationData &c, NvpList &item) { fields::encodeClass(c, item); });
}

template <> std::string Information<ClassificationData>::GetString() const {
    std::ostringstream ss;
    dumpResultHeader(ss, *this);
    for (std::size_t i = 0; i < data.size(); ++i) {
        const auto &c = data[i];
        ss << "[" << i << "]" << std::endl;
        ss << " Index = " << c.index << std::endl;
        ss << " Output = " << c.output << std::endl;
        ss << " Label = " << c.label << std::endl;
        ss << " Probability = " << c.probability << std::endl;
        ss << " --------- " << std::endl;
    }
    ss << kRule << std::endl;
    return ss.str();
}

void DetectionBoxData::Encode(NvpList &seq) const { fields::encodeBox(*this, seq); }

template <> NvpList Information<DetectionBoxData>::Encode() const {
    return encodeResults(*this, 10, [](const DetectionBoxData &box, NvpList &item) { box.Encode(item); });
}

template <> std::string Information<DetectionBoxData>::GetString() const {
    std::ostringstream ss;
    dumpResultHeader(ss, *this);
    for (std::size_t i = 0; i < data.size(); ++i) {
        const auto &b = data[i];
        ss << "[" << i << "]" << std::endl;
        ss << " (ObjID, ObjLabel) = (" << b.obj_id << ", " << b.obj_label << ")" << std::endl;
        ss << " (ClassID, ClassLabel) = (" << b.class_id << ", " << b.class_label << ")" << std::endl;
        ss << " (X1, Y1, X2, Y2) = (" << b.x1 << ", " << b.y1 << ", " << b.x2 << ", " << b.y2 << ")" << std::endl;
        ss << " Probability = " << b.probability << std::endl;
        ss << " Meta = " << b.meta << std::endl;
        ss << " --------- " << std::endl;
    }
    ss << kRule << std::endl;
    return ss.str();
}

NvpList SegmentationData::Encode() const { return fields::encodeMask(*this); }

NvpList SegmentInfo::Encode() const {
    NvpList entries;
    entries.reserve(data.size());
    for (const auto &mask : data)
        entries.push_back(fields::entry(mask.Encode()));
    NvpList pairs;
    pairs.reserve(5);
    pairs.push_back(fields::str("engine_id", engine_id));
    pairs.push_back(fields::str("stream_id", stream_id));
    pairs.push_back(fields::u32("frame_id", frame_id));
    pairs.push_back(fields::u32("inference_id", inference_id));
    pairs.push_back(fields::seq("data", std::move(entries)));
    return pairs;
}

std::string SegmentInfo::GetString() const {
    std::ostringstream ss;
    ss << kRule << std::endl;
    ss << "engine_id = " << engine_id << std::endl;
    ss << "stream_id = " << stream_id << std::endl;
    ss << "frame_id = " << frame_id << std::endl;
    ss << "inference_id = " << inference_id << std::endl;
    ss << "data = \n";
    // Ten elements at most: a full mask set runs to thousands.
    const std::size_t shown = std::min<std::size_t>(data.size(), 10);
    for (std::size_t i = 0; i < shown; ++i) {
        const auto &m = data[i];
        ss << m.id << ", " << m.label << ", " << m.width << ", " << m.height << std::endl;
    }
    ss << " ... " << std::endl;
    return ss.str();
}

} // namespace TOLVIXO
