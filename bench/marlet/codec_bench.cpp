// Encode/decode cost of the payload encoding for the two shapes that matter:
// one full-HD BGR frame (one big byte sequence) and a long result list.

#include <benchmark/benchmark.h>

#include "marlet/pair_codec.h"

namespace {

using namespace com::quorixtech;
using iot::IOT_NVP;
namespace codec = marlet::codec;

std::vector<IOT_NVP> fullHdFrame() {
    std::vector<IOT_NVP> pairs(3);
    pairs[0].name("frame_id");
    pairs[0].value().iotv_uint32(1);
    pairs[1].name("data");
    pairs[1].value().iotv_byte_seq(std::vector<std::uint8_t>(6220800, 0x7f));
    pairs[2].name("format");
    pairs[2].value().iotv_string("com.vision.models.PIXEL_FORMAT_BGR8");
    return pairs;
}

// 10,000 unnamed entries of four pairs each, the shape of a classification list.
std::vector<IOT_NVP> longResultList() {
    std::vector<IOT_NVP> items(10000);
    for (std::size_t i = 0; i < items.size(); ++i) {
        std::vector<IOT_NVP> item(4);
        item[0].name("index");
        item[0].value().iotv_int32(static_cast<std::int32_t>(i));
        item[1].name("output");
        item[1].value().iotv_string("logits");
        item[2].name("label");
        item[2].value().iotv_string("label-" + std::to_string(i));
        item[3].name("probability");
        item[3].value().iotv_float32(0.5f);
        items[i].value().iotv_nvp_seq(std::move(item));
    }
    std::vector<IOT_NVP> pairs(1);
    pairs[0].name("data");
    pairs[0].value().iotv_nvp_seq(std::move(items));
    return pairs;
}

void encodeInto(benchmark::State &state, const std::vector<IOT_NVP> &pairs) {
    std::vector<std::uint8_t> buffer;
    for (auto _ : state) {
        // What a writer does per sample: size, reuse its buffer, encode.
        const std::size_t size = codec::encodedSize(pairs);
        buffer.resize(size);
        codec::encodeInto(pairs, buffer.data(), size);
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * buffer.size()));
}

void decode(benchmark::State &state, const std::vector<IOT_NVP> &pairs) {
    const std::vector<std::uint8_t> bytes = codec::encode(pairs);
    for (auto _ : state) {
        auto decoded = codec::decode(bytes);
        benchmark::DoNotOptimize(decoded.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

// The floor for the frame: one plain copy of its bytes.
void copyFrameBytes(benchmark::State &state) {
    const std::vector<std::uint8_t> src(6220800, 0x7f);
    std::vector<std::uint8_t> dst(src.size());
    for (auto _ : state) {
        std::copy(src.begin(), src.end(), dst.begin());
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * src.size()));
}

void BM_EncodeFullHdFrame(benchmark::State &s) { encodeInto(s, fullHdFrame()); }
void BM_DecodeFullHdFrame(benchmark::State &s) { decode(s, fullHdFrame()); }
void BM_EncodeResultList10k(benchmark::State &s) { encodeInto(s, longResultList()); }
void BM_DecodeResultList10k(benchmark::State &s) { decode(s, longResultList()); }
void BM_CopyFullHdFrameBytes(benchmark::State &s) { copyFrameBytes(s); }

BENCHMARK(BM_CopyFullHdFrameBytes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EncodeFullHdFrame)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DecodeFullHdFrame)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EncodeResultList10k)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DecodeResultList10k)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
