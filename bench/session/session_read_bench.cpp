// Full-HD frames from a writer to a receiver, one at a time, in one process
// on a private loopback bus:
//   BM_LibraryReadOnCallingThread  the peer: the bus library's own read, decoded
//                                  into a FrameInfo on the thread that waits;
//   BM_SessionReaderThread         Edge::writeSample, a session reader thread,
//                                  decoding and the receiver callback.
// The ratio of the two times is the session's cost per frame; absolute times
// on shared machines drift and mean little.

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "edge_sample_records.h"
#include "modelloader.h"
#include "qxtest/config_root.h"

namespace {

namespace s = edge_samples;
using Pairs = std::vector<com::quorixtech::iot::IOT_NVP>;

std::shared_ptr<Edge> openWriter() {
    return Edge::create(s::kConfig, s::kVideoOutProperties, s::kVideoOutClass, {s::kVideoTagGroup}, "bench");
}

std::shared_ptr<Edge> openReader() {
    return Edge::create(s::kConfig, s::kVideoInProperties, s::kVideoInClass, {s::kVideoTagGroup}, "");
}

void setFrameCounters(benchmark::State &state, std::size_t frameBytes) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * frameBytes));
    state.SetItemsProcessed(state.iterations());
}

void BM_LibraryReadOnCallingThread(benchmark::State &state) {
    qxtest::ConfigRoot root;
    root.enter();
    auto writer = openWriter();
    auto reader = openReader();
    auto selector = reader->thing.select("VideoFrameData");
    const Pairs pairs = s::frame(1).Encode();

    const auto readOne = [&](long timeoutMs) {
        auto got = selector.read<Pairs>(timeoutMs);
        if (got.empty()) return false;
        TOLVIXO::FrameInfo frame;
        TOLVIXO::DecodeRecord(std::move(got.front().getData()), frame);
        benchmark::DoNotOptimize(frame.data.data());
        return true;
    };
    // Until the writer has matched the reader; samples before that are not kept.
    do {
        writer->thing.write<Pairs>("VideoFrameData", pairs);
    } while (!readOne(100));
    while (readOne(100)) {
    }

    for (auto _ : state) {
        writer->thing.write<Pairs>("VideoFrameData", pairs);
        while (!readOne(1000)) {
        }
    }
    setFrameCounters(state, s::frame(1).data.size());
    reader->deinit();
    writer->deinit();
}
BENCHMARK(BM_LibraryReadOnCallingThread)->Unit(benchmark::kMillisecond)->UseRealTime();

class CountingReceiver {
  public:
    void callback(const TOLVIXO::FrameInfo &frame) {
        benchmark::DoNotOptimize(frame.data.data());
        std::lock_guard<std::mutex> lock(mutex_);
        ++frames_;
        arrived_.notify_all();
    }
    void callback(const TOLVIXO::DeviceInfo &) {}
    void callback(const TOLVIXO::Information<TOLVIXO::ClassificationData> &) {}
    void callback(const TOLVIXO::Information<TOLVIXO::DetectionBoxData> &) {}
    void callback(const TOLVIXO::SegmentInfo &) {}
    void callback(const TOLVIXO::UniInfo &) {}

    std::uint64_t frames() {
        std::lock_guard<std::mutex> lock(mutex_);
        return frames_;
    }
    bool waitFor(std::uint64_t count, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        return arrived_.wait_for(lock, timeout, [&] { return frames_ >= count; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::uint64_t frames_ = 0;
};

void BM_SessionReaderThread(benchmark::State &state) {
    qxtest::ConfigRoot root;
    root.enter();
    auto writer = openWriter();
    auto reader = openReader();
    CountingReceiver receiver;
    reader->readThreads.emplace_back(&Edge::run_read<CountingReceiver, TOLVIXO::FrameInfo>, reader.get(), &receiver,
                                     std::string("VideoFrameData"));
    const Pairs pairs = s::frame(1).Encode();

    do {
        writer->writeSample("VideoFrameData", pairs);
    } while (!receiver.waitFor(1, std::chrono::milliseconds(100)));

    std::uint64_t expected = receiver.frames();
    for (auto _ : state) {
        writer->writeSample("VideoFrameData", pairs);
        receiver.waitFor(++expected, std::chrono::seconds(10));
    }
    setFrameCounters(state, s::frame(1).data.size());
    reader->deinit();
    writer->deinit();
}
BENCHMARK(BM_SessionReaderThread)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
