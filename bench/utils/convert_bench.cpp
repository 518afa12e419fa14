// The sink's YUV to BGR converters at 1080p with padded strides, against a
// plain cv::cvtColor of packed input measured in the same run.

#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "convert.h"

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr int kStrideY = 2048;
constexpr int kStrideC = 1024;

std::vector<unsigned char> plane(std::size_t bytes, int seed) {
    std::vector<unsigned char> p(bytes);
    for (std::size_t i = 0; i < bytes; ++i)
        p[i] = static_cast<unsigned char>(i * seed + 16);
    return p;
}

void BM_Peer_CvtColorI420Packed(benchmark::State &state) {
    cv::Mat packed(kHeight + kHeight / 2, kWidth, CV_8UC1);
    cv::randu(packed, 16, 240);
    cv::Mat bgr(kHeight, kWidth, CV_8UC3);
    for (auto _ : state) {
        cv::cvtColor(packed, bgr, cv::COLOR_YUV2BGR_I420);
        benchmark::DoNotOptimize(bgr.data);
    }
}

void BM_YUV420p2BGR888(benchmark::State &state) {
    const auto y = plane(kStrideY * kHeight, 3);
    const auto u = plane(kStrideC * kHeight / 2, 5);
    const auto v = plane(kStrideC * kHeight / 2, 7);
    for (auto _ : state) {
        cv::Mat bgr = YUV420p2BGR888(kWidth, kHeight, y.data(), u.data(), v.data(), kStrideY, kStrideC);
        benchmark::DoNotOptimize(bgr.data);
    }
}

void BM_Peer_CvtColorNV12Packed(benchmark::State &state) {
    cv::Mat packed(kHeight + kHeight / 2, kWidth, CV_8UC1);
    cv::randu(packed, 16, 240);
    cv::Mat bgr(kHeight, kWidth, CV_8UC3);
    for (auto _ : state) {
        cv::cvtColor(packed, bgr, cv::COLOR_YUV2BGR_NV12);
        benchmark::DoNotOptimize(bgr.data);
    }
}

void BM_YUVNV122BGR888(benchmark::State &state) {
    const auto y = plane(kStrideY * kHeight, 3);
    const auto uv = plane(kStrideY * kHeight / 2, 5);
    for (auto _ : state) {
        cv::Mat bgr = YUVNV122BGR888(kWidth, kHeight, y.data(), uv.data(), kStrideY, kStrideY);
        benchmark::DoNotOptimize(bgr.data);
    }
}

} // namespace

BENCHMARK(BM_Peer_CvtColorI420Packed)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_YUV420p2BGR888)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Peer_CvtColorNV12Packed)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_YUVNV122BGR888)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
