// End-to-end transport of raw 1920x1080 I420 frames between two processes on
// loopback: qxedgesink -> bus -> qxedgesrc, beside GStreamer's own
// gdppay ! tcpclientsink -> tcpserversrc ! gdpdepay carrying the same frames
// in the same run. Both sides are child processes of this program, so their
// CPU time and peak memory are measured apart (wait4).
//
// Benchmarks (one iteration each, figures as counters):
// Peers: qxedge (qxedgesrc in its default pairing), frameid (pairing=frame-id),
// gdp (GStreamer's GDP over TCP).
//   Throughput/<peer>: frames published as fast as the publisher goes.
//   Paced/<peer>:      frames at 30 per second for E2E_SECONDS (default 60).
// Counters: fps delivered (distinct frames), latency median and 99th percentile (publish stamp
// to arrival at the subscriber's sink pad), lost frames, CPU seconds and peak
// RSS of publisher and subscriber. bench/elements/e2e_bench.sh prints the ratios.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include "gstqxmeta.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

std::uint64_t wallNs() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
}

std::map<std::string, std::string> parseArgs(int argc, char **argv) {
    std::map<std::string, std::string> out;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg.rfind("--", 0) != 0) continue;
        auto eq = arg.find('=');
        if (eq != std::string::npos) out[arg.substr(2, eq - 2)] = arg.substr(eq + 1);
    }
    return out;
}

// ---- child roles -----------------------------------------------------------

// The publish time travels in the batch metadata's frame timestamp on the bus
// and in the buffer offset through the GDP stream.
GstPadProbeReturn stampPublishTime(GstPad *, GstPadProbeInfo *info, gpointer data) {
    const bool qxedge = GPOINTER_TO_INT(data) != 0;
    GstBuffer *buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
    GST_PAD_PROBE_INFO_DATA(info) = buffer;
    static int frameId = 0;
    const std::uint64_t now = wallNs();
    if (qxedge) {
        GstQxBatchMeta *meta = gst_buffer_add_qx_batch_meta(buffer);
        VideoFrameData frame;
        frame.stream_id = "bench";
        frame.frame_id = frameId;
        frame.timestamp = now;
        frame.width = kWidth;
        frame.height = kHeight;
        frame.channels = 3;
        meta->frames.push_back(frame);
    } else {
        GST_BUFFER_OFFSET(buffer) = now;
        GST_BUFFER_OFFSET_END(buffer) = static_cast<guint64>(frameId);
    }
    ++frameId;
    return GST_PAD_PROBE_OK;
}

struct SubscriberStats {
    std::vector<double> latenciesMs;
    Clock::time_point first;
    Clock::time_point last;
    int received = 0;
    std::set<std::uint64_t> ids; // distinct frame ids: a frame handed out twice counts once
};

GstPadProbeReturn measureArrival(GstPad *, GstPadProbeInfo *info, gpointer data) {
    auto *stats = static_cast<SubscriberStats *>(data);
    GstBuffer *buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    const std::uint64_t now = wallNs();
    std::uint64_t stamp = 0;
    if (GstQxBatchMeta *meta = gst_buffer_get_qx_batch_meta(buffer)) {
        if (!meta->frames.empty()) {
            stamp = meta->frames.front().timestamp;
            stats->ids.insert(static_cast<std::uint64_t>(meta->frames.front().frame_id));
        }
    } else {
        stamp = GST_BUFFER_OFFSET(buffer);
        stats->ids.insert(GST_BUFFER_OFFSET_END(buffer));
    }
    const auto t = Clock::now();
    if (stats->received == 0) stats->first = t;
    stats->last = t;
    ++stats->received;
    if (stamp != 0 && stamp != GST_BUFFER_OFFSET_NONE && now >= stamp)
        stats->latenciesMs.push_back(static_cast<double>(now - stamp) / 1e6);
    return GST_PAD_PROBE_OK;
}

GstElement *launch(const std::string &description) {
    GError *error = nullptr;
    GstElement *pipeline = gst_parse_launch(description.c_str(), &error);
    if (error != nullptr) {
        std::fprintf(stderr, "pipeline %s: %s\n", description.c_str(), error->message);
        std::exit(2);
    }
    return pipeline;
}

int runPublisher(const std::map<std::string, std::string> &args) {
    const bool qxedge = args.at("peer") != "gdp";
    const std::string frames = args.at("frames");
    const std::string fps = args.at("fps");
    const bool paced = fps != "0";
    std::string description =
        "videotestsrc num-buffers=" + frames + " pattern=smpte horizontal-speed=4" +
        " ! video/x-raw,format=I420,width=1920,height=1080,framerate=" + (paced ? fps : std::string("30")) +
        "/1 ! identity name=stamp ! ";
    const std::string sync = paced ? "true" : "false";
    if (qxedge)
        description += "qxedgesink taggroups=VideoFrameData sync=" + sync;
    else
        description += "gdppay ! tcpclientsink host=127.0.0.1 port=" + args.at("port") + " sync=" + sync;
    GstElement *pipeline = launch(description);
    GstElement *stamp = gst_bin_get_by_name(GST_BIN(pipeline), "stamp");
    GstPad *pad = gst_element_get_static_pad(stamp, "src");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, stampPublishTime, GINT_TO_POINTER(qxedge ? 1 : 0), nullptr);
    gst_object_unref(pad);
    gst_object_unref(stamp);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus *bus = gst_element_get_bus(pipeline);
    GstMessage *msg = gst_bus_timed_pop_filtered(bus, 600 * GST_SECOND,
                                                 static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    int status = 0;
    if (msg == nullptr || GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR) status = 3;
    if (msg) gst_message_unref(msg);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
    return status;
}

int runSubscriber(const std::map<std::string, std::string> &args) {
    const bool qxedge = args.at("peer") != "gdp";
    const int expected = std::atoi(args.at("frames").c_str());
    std::string description;
    if (qxedge)
        description = std::string("qxedgesrc") + (args.at("peer") == "frameid" ? " pairing=frame-id" : "") +
                      " ! video/x-raw,format=I420,width=1920,height=1080,framerate=30/1";
    else
        description = "tcpserversrc host=127.0.0.1 port=" + args.at("port") +
                      " ! gdpdepay ! video/x-raw,format=I420,width=1920,height=1080";
    description += " ! appsink name=out sync=false drop=true max-buffers=4";
    GstElement *pipeline = launch(description);
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "out");
    SubscriberStats stats;
    GstPad *pad = gst_element_get_static_pad(sink, "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, measureArrival, &stats, nullptr);
    gst_object_unref(pad);

    if (gst_element_set_state(pipeline, GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) return 4;
    // Both sources complete PAUSED only once data comes (tcpserversrc listens from the start of it).
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::ofstream(args.at("ready")) << "ready\n";

    // Drain the appsink; finish when every frame came or nothing came for a while.
    auto lastActivity = Clock::now();
    int seen = 0;
    while (true) {
        GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 200 * GST_MSECOND);
        if (sample) gst_sample_unref(sample);
        if (stats.received != seen) {
            seen = stats.received;
            lastActivity = Clock::now();
        }
        if (static_cast<int>(stats.ids.size()) >= expected) break;
        const auto idle = Clock::now() - lastActivity;
        if (idle > std::chrono::seconds(seen == 0 ? 60 : 4)) break;
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(sink);
    gst_object_unref(pipeline);

    std::sort(stats.latenciesMs.begin(), stats.latenciesMs.end());
    auto pct = [&](double p) {
        if (stats.latenciesMs.empty()) return 0.0;
        const std::size_t i = std::min(stats.latenciesMs.size() - 1,
                                       static_cast<std::size_t>(p * static_cast<double>(stats.latenciesMs.size())));
        return stats.latenciesMs[i];
    };
    const double seconds = std::chrono::duration<double>(stats.last - stats.first).count();
    std::ofstream out(args.at("result"));
    const int unique = static_cast<int>(stats.ids.size());
    out << unique << " " << (seconds > 0 ? (unique - 1) / seconds : 0.0) << " " << pct(0.5) << " " << pct(0.99) << " "
        << stats.received - unique << "\n";
    return 0;
}

// ---- the benchmark side ----------------------------------------------------

struct Child {
    pid_t pid = -1;
    rusage usage{};
    int status = -1;
};

Child spawn(const std::vector<std::string> &args, const std::string &cwd) {
    Child child;
    child.pid = ::fork();
    if (child.pid == 0) {
        if (::chdir(cwd.c_str()) != 0) ::_exit(126);
        std::vector<char *> argv;
        for (const auto &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        ::execv("/proc/self/exe", argv.data());
        ::_exit(127);
    }
    return child;
}

void reap(Child &child) {
    int status = 0;
    ::wait4(child.pid, &status, 0, &child.usage);
    child.status = status;
}

double cpuSeconds(const rusage &u) {
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

int freeLoopbackPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    ::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr));
    socklen_t len = sizeof(addr);
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

// A private copy of the shipped configuration root with a domain id of its own.
std::string makeConfigRoot() {
    char pattern[] = "/tmp/qx-e2e-XXXXXX";
    std::string dir = ::mkdtemp(pattern);
    const std::string copy = "cp -r '" + std::string(QX_SOURCE_DIR) + "/common/data_model/.' '" + dir + "'";
    if (std::system(copy.c_str()) != 0) return dir;
    const std::string xml = dir + "/config/Marlet.xml";
    std::ifstream in(xml);
    std::stringstream text;
    text << in.rdbuf();
    std::string s = text.str();
    const std::string key = "<Domain Id=\"";
    const auto at = s.find(key);
    if (at != std::string::npos) {
        const auto end = s.find('"', at + key.size());
        s.replace(at + key.size(), end - at - key.size(), std::to_string(150 + ::getpid() % 70));
    }
    std::ofstream(xml) << s;
    return dir;
}

bool fileExists(const std::string &path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

void runTransfer(benchmark::State &state, const std::string &peer, int frames, int fps) {
    const std::string root = makeConfigRoot();
    const std::string port = std::to_string(freeLoopbackPort());
    const std::string ready = root + "/sub.ready";
    const std::string result = root + "/sub.result";
    ::setenv("GST_PLUGIN_PATH", QX_PLUGIN_BUILD_DIR, 1);
    ::setenv("GST_REGISTRY", (root + "/registry.bin").c_str(), 1);
    const std::vector<std::string> common{"--peer=" + peer, "--frames=" + std::to_string(frames),
                                          "--fps=" + std::to_string(fps), "--port=" + port};

    for (auto _ : state) {
        const auto begin = Clock::now();
        std::vector<std::string> subArgs{"e2e_transport", "--role=sub", "--ready=" + ready, "--result=" + result};
        subArgs.insert(subArgs.end(), common.begin(), common.end());
        Child sub = spawn(subArgs, root);
        while (!fileExists(ready) && Clock::now() - begin < std::chrono::seconds(60))
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::vector<std::string> pubArgs{"e2e_transport", "--role=pub"};
        pubArgs.insert(pubArgs.end(), common.begin(), common.end());
        Child pub = spawn(pubArgs, root);
        reap(pub);
        reap(sub);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());

        int received = 0;
        int duplicates = 0;
        double rate = 0, median = 0, p99 = 0;
        std::ifstream(result) >> received >> rate >> median >> p99 >> duplicates;
        state.counters["duplicates"] = duplicates;
        state.counters["fps"] = rate;
        state.counters["lat_med_ms"] = median;
        state.counters["lat_p99_ms"] = p99;
        state.counters["received"] = received;
        state.counters["lost"] = frames - received;
        state.counters["pub_cpu_s"] = cpuSeconds(pub.usage);
        state.counters["sub_cpu_s"] = cpuSeconds(sub.usage);
        state.counters["pub_rss_mb"] = static_cast<double>(pub.usage.ru_maxrss) / 1024.0;
        state.counters["sub_rss_mb"] = static_cast<double>(sub.usage.ru_maxrss) / 1024.0;
        if (pub.status != 0 || sub.status != 0) state.SkipWithError("a child process failed");
    }
    std::system(("rm -rf '" + root + "'").c_str());
}

int pacedSeconds() {
    const char *s = std::getenv("E2E_SECONDS");
    return s ? std::max(1, std::atoi(s)) : 60;
}

void BM_Throughput(benchmark::State &state, const char *peer) { runTransfer(state, peer, 300, 0); }
void BM_Paced(benchmark::State &state, const char *peer) { runTransfer(state, peer, 30 * pacedSeconds(), 30); }

BENCHMARK_CAPTURE(BM_Throughput, qxedge, "qxedge")->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(BM_Throughput, frameid, "frameid")->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(BM_Throughput, gdp, "gdp")->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(BM_Paced, qxedge, "qxedge")->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(BM_Paced, frameid, "frameid")->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(BM_Paced, gdp, "gdp")->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char **argv) {
    const auto args = parseArgs(argc, argv);
    auto role = args.find("role");
    if (role != args.end()) {
        gst_init(&argc, &argv);
        return role->second == "pub" ? runPublisher(args) : runSubscriber(args);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
