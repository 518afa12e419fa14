// Writes the seed corpus of every fuzz target into one directory per target:
//   fuzz_seeds <output dir> <source dir>
// Seeds are real encodings: each record of the session tests, with a value in
// every field, encoded by its own Encode() and the pair codec; the bus sample around a
// payload serialized by Cyclone's own serializer for the sample type, in each
// form a peer may send; the shipped definition files; and the same records as
// qxbus publish takes them. Hostile inputs too large for the fuzzer to grow
// (deep nesting) go to hostile/<target>, for a run of their own.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <dds/ddsi/ddsi_cdrstream.h>

#include "BusSample.h"
#include "helpers/edge_sample_records.h"
#include "json_pairs.h"
#include "marlet/pair_codec.h"
#include "shipped_tag_groups.h"

namespace {

namespace fs = std::filesystem;
namespace codec = com::quorixtech::marlet::codec;
using Bytes = std::vector<std::uint8_t>;
using Pairs = std::vector<com::quorixtech::iot::IOT_NVP>;

fs::path outputDir;

void writeSeed(const std::string &target, const std::string &name, const Bytes &bytes) {
    const fs::path dir = outputDir / target;
    fs::create_directories(dir);
    std::ofstream(dir / name, std::ios::binary).write(reinterpret_cast<const char *>(bytes.data()), bytes.size());
}
void writeSeed(const std::string &target, const std::string &name, const std::string &text) {
    writeSeed(target, name, Bytes(text.begin(), text.end()));
}

// The records the session tests send, with the pictures cut small: the seeds,
// and so the inputs the fuzzer grows from them, stay short.
TOLVIXO::UniInfo smallUni() {
    TOLVIXO::UniInfo u = edge_samples::uni();
    for (auto &frame : u.videoList) {
        frame.data.resize(std::min<std::size_t>(frame.data.size(), 48));
        frame.size = static_cast<std::uint32_t>(frame.data.size());
    }
    return u;
}

// The bus sample around a payload as Cyclone serializes the sample type, with
// the encapsulation header a receiver sees in front.
Bytes serializedSample(const Bytes &payload, std::uint32_t xcdrVersion, bool littleEndian, bool delimited) {
    marlet_wire_BusSample sample{};
    sample.sourceId = const_cast<char *>("seed-writer");
    sample.flowId = const_cast<char *>("");
    sample.tagGroup = const_cast<char *>("com.vision.data:VideoFrameData");
    sample.sequenceNumber = 1;
    sample.sourceTime = 1700000000000000000;
    sample.payload._buffer = const_cast<std::uint8_t *>(payload.data());
    sample.payload._length = static_cast<std::uint32_t>(payload.size());
    sample.payload._maximum = sample.payload._length;
    dds_ostream_t os;
    dds_ostream_init(&os, 0, xcdrVersion);
    if (littleEndian)
        dds_stream_writeLE(reinterpret_cast<dds_ostreamLE_t *>(&os), reinterpret_cast<const char *>(&sample),
                           marlet_wire_BusSample_desc.m_ops);
    else
        dds_stream_writeBE(reinterpret_cast<dds_ostreamBE_t *>(&os), reinterpret_cast<const char *>(&sample),
                           marlet_wire_BusSample_desc.m_ops);
    const std::uint16_t id = static_cast<std::uint16_t>((xcdrVersion == 1 ? 0 : delimited ? 8 : 6) + littleEndian);
    Bytes out = {static_cast<std::uint8_t>(id >> 8), static_cast<std::uint8_t>(id), 0, 0};
    if (delimited) {
        for (int i = 0; i < 4; ++i)
            out.push_back(static_cast<std::uint8_t>(os.m_index >> (8 * (littleEndian ? i : 3 - i))));
    }
    out.insert(out.end(), os.m_buffer, os.m_buffer + os.m_index);
    dds_ostream_fini(&os);
    return out;
}

void writeJsonFiles(const std::string &target, const fs::path &dir, const std::string &suffix) {
    for (const auto &entry : fs::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        if (name.size() < suffix.size() || name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
            continue;
        std::ifstream in(entry.path(), std::ios::binary);
        writeSeed(target, name, std::string(std::istreambuf_iterator<char>(in), {}));
    }
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <output dir> <source dir>\n", argv[0]);
        return 2;
    }
    outputDir = argv[1];
    const fs::path source = argv[2];

    const struct {
        const char *target;
        const char *tagGroup; // whose definition qxbus publish would use for it
        Pairs pairs;
    } records[] = {
        {"fuzz_record_frameinfo", "VideoFrameData", edge_samples::smallFrame(42, "cam-front").Encode()},
        {"fuzz_record_deviceinfo", "DeviceInfoData", edge_samples::device().Encode()},
        {"fuzz_record_classificationinfo", "ClassificationData", edge_samples::classification().Encode()},
        {"fuzz_record_detectioninfo", "DetectionBoxData", edge_samples::detection().Encode()},
        {"fuzz_record_segmentinfo", "SegmentationData", edge_samples::segmentation().Encode()},
        {"fuzz_record_uniinfo", "VideoList", smallUni().Encode()},
    };
    for (const auto &r : records) {
        const Bytes payload = codec::encode(r.pairs);
        writeSeed(r.target, "real", payload);
        writeSeed(r.target, "empty-record", codec::encode({}));
        writeSeed("fuzz_pair_codec", r.target, payload);
        for (const std::uint32_t version : {1u, 2u}) {
            for (const bool le : {true, false}) {
                const std::string form = std::string("-xcdr") + std::to_string(version) + (le ? "-le" : "-be");
                writeSeed("fuzz_wire_sample", r.target + form, serializedSample(payload, version, le, false));
                if (version == 2)
                    writeSeed("fuzz_wire_sample", r.target + form + "-delimited",
                              serializedSample(payload, version, le, true));
            }
        }
    }

    const fs::path root = source / "common/data_model";
    writeJsonFiles("fuzz_json_taggroups", root / "definitions/TagGroup/com.vision.data", ".json");
    writeJsonFiles("fuzz_json_thingclasses", root / "definitions/ThingClass/com.vision.data", ".json");
    writeJsonFiles("fuzz_json_thingproperties", root / "config", "Properties.json");

    // qxbus publish: the first byte picks the definition (see publish_json_fuzz.cpp);
    // the pipe group is the one whose first field is "VideoList".
    const auto groups = qxfuzz::shippedTagGroups(source.string());
    for (std::size_t i = 0; i < groups.size(); ++i) {
        const std::string key =
            !groups[i].fields.empty() && groups[i].fields.front().name == "VideoList" ? "VideoList" : groups[i].name;
        for (const auto &r : records) {
            if (key == r.tagGroup)
                writeSeed("fuzz_publish_json", r.target,
                          std::string(1, static_cast<char>(i)) + qxbus::pairsToJson(r.pairs).dump());
        }
    }
    writeSeed("fuzz_publish_json", "explicit-kinds",
              std::string(1, static_cast<char>(groups.size())) +
                  R"({"frame_id": {"uint32": 7}, "t": {"int64": -5}, "b": {"byte_seq": [1, 2]}, "l": [{"a": 1.5}]})");

    // A number no double holds: the JSON parser reports it apart from syntax errors.
    for (const char *target : {"fuzz_json_taggroups", "fuzz_json_thingclasses", "fuzz_json_thingproperties"})
        writeSeed(target, "number-overflow", "{\"tagGroups\": [{\"namespace\": 1e999}]}");
    writeSeed("fuzz_publish_json", "number-overflow",
              std::string(1, static_cast<char>(groups.size())) + "{\"a\": -2E5515}");

    // Hostile inputs larger than the fuzzer grows its own: each runs once, whole.
    const std::string deep = std::string(20000, '[') + std::string(20000, ']');
    for (const char *target : {"fuzz_json_taggroups", "fuzz_json_thingclasses", "fuzz_json_thingproperties"})
        writeSeed(std::string("hostile/") + target, "deep-nesting", "{\"tagGroups\": " + deep + "}");
    writeSeed("hostile/fuzz_publish_json", "deep-nesting",
              std::string(1, static_cast<char>(groups.size())) + "{\"a\": " + deep + "}");
    return 0;
}
