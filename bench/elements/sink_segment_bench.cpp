// What the sink pays per frame for the filler segmentation record (10,000
// elements built, encoded to pairs and to wire bytes) compared with encoding
// a video record whose wire size is the same. Printed as a ratio: absolute
// times drift on shared machines, the ratio much less.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "filler_segmentation.h"
#include "frame_information.h"
#include "marlet/pair_codec.h"

namespace {

namespace codec = com::quorixtech::marlet::codec;

// Mirrors the loader's filler path value for value, so the cost is the same.
TOLVIXO::SegmentInfo buildFillerSegmentation(std::uint32_t frameId) {
    TOLVIXO::SegmentInfo segment;
    segment.engine_id = "0123456789abcdef";
    segment.stream_id = "b5d84236-a23d-49fc-a574-e0cd944490bb";
    segment.frame_id = frameId;
    segment.inference_id = 0;
    TOLVIXO::appendFillerSegmentation(segment.data); // the sink's own filler code
    return segment;
}

std::size_t wireSize(const TOLVIXO::NvpList &pairs) { return codec::encodedSize(pairs); }

// A video record padded until its wire size matches the segmentation record's.
TOLVIXO::FrameInfo videoOfWireSize(std::size_t target) {
    TOLVIXO::FrameInfo frame;
    frame.stream_id = "b5d84236-a23d-49fc-a574-e0cd944490bb";
    frame.format = "com.vision.models.PIXEL_FORMAT_RGB8";
    frame.compression = "com.vision.models.COMPRESSION_KIND_NONE";
    const std::size_t overhead = wireSize(frame.Encode());
    frame.data.assign(target > overhead ? target - overhead : 0, 0x5a);
    frame.size = static_cast<std::uint32_t>(frame.data.size());
    return frame;
}

void BM_FillerSegmentationBuildAndEncode(benchmark::State &state) {
    std::uint32_t frameId = 0;
    std::size_t bytes = 0;
    for (auto _ : state) {
        const TOLVIXO::SegmentInfo segment = buildFillerSegmentation(frameId++);
        const auto wire = codec::encode(segment.Encode());
        bytes = wire.size();
        benchmark::DoNotOptimize(wire.data());
    }
    state.counters["wire_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_FillerSegmentationBuildAndEncode)->Unit(benchmark::kMicrosecond);

void BM_PeerVideoRecordEncodeSameSize(benchmark::State &state) {
    const std::size_t target = wireSize(buildFillerSegmentation(0).Encode());
    TOLVIXO::FrameInfo frame = videoOfWireSize(target);
    std::size_t bytes = 0;
    for (auto _ : state) {
        ++frame.frame_id;
        const auto wire = codec::encode(frame.Encode());
        bytes = wire.size();
        benchmark::DoNotOptimize(wire.data());
    }
    state.counters["wire_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_PeerVideoRecordEncodeSameSize)->Unit(benchmark::kMicrosecond);

// Keeps each run's time per iteration so main can print the ratio.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            if (run.iterations > 0 && run.run_type == Run::RT_Iteration) {
                perIteration[run.benchmark_name()] = run.GetAdjustedRealTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> perIteration;
};

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto segment = reporter.perIteration.find("BM_FillerSegmentationBuildAndEncode");
    const auto peer = reporter.perIteration.find("BM_PeerVideoRecordEncodeSameSize");
    if (segment != reporter.perIteration.end() && peer != reporter.perIteration.end() && peer->second > 0) {
        std::printf("filler segmentation record / same-size video record: %.2fx\n", segment->second / peer->second);
    }
    benchmark::Shutdown();
    return 0;
}
