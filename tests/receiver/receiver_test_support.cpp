#include "receiver_test_support.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace receivertest {

TOLVIXO::FrameInfo makeFrame(std::uint32_t frameId, std::uint32_t width, std::uint32_t height,
                             const std::string &format) {
    std::vector<unsigned char> bytes(width * height * 3);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<unsigned char>(i + 1);
    return {"cam-0", frameId,
            0,       bytes,
            width,   height,
            3,       width * height * 3,
            format,  "com.vision.models.COMPRESSION_KIND_NONE",
            30.0f};
}

TOLVIXO::Information<TOLVIXO::ClassificationData> makeClassification(std::uint32_t frameId, int results) {
    TOLVIXO::Information<TOLVIXO::ClassificationData> record{"classifier", "cam-0", frameId, {}};
    for (int i = 0; i < results; ++i)
        record.data.push_back({i, "prob", "label-" + std::to_string(i), 0.5f});
    return record;
}

TOLVIXO::Information<TOLVIXO::DetectionBoxData> makeDetection(std::uint32_t frameId) {
    return {"detector", "", frameId, {{static_cast<std::int32_t>(frameId)}}};
}

TOLVIXO::SegmentInfo makeSegment(std::uint32_t frameId) { return {"segmenter", "", frameId, 0, {{}}}; }

TOLVIXO::DeviceInfo makeDevice(const std::string &devId) {
    TOLVIXO::DeviceInfo device;
    device.dev_id = devId;
    return device;
}

bool eventually(const std::function<bool()> &cond) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline) {
        if (cond()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return cond();
}

namespace {

// GLib calls a log handler after letting go of its own lock, so a handler whose
// capture object was just destroyed could still be entered with it. One handler
// for the whole process, installed once and never removed, hands each line to
// the captures alive at that moment instead.
std::mutex &captureRegistryMutex() {
    static std::mutex mutex;
    return mutex;
}

std::vector<MessageCapture *> &liveCaptures() {
    static std::vector<MessageCapture *> captures;
    return captures;
}

} // namespace

MessageCapture::MessageCapture() {
    static std::once_flag installed;
    std::call_once(installed, [] {
        g_log_set_handler(nullptr,
                          static_cast<GLogLevelFlags>(G_LOG_LEVEL_MESSAGE | G_LOG_FLAG_FATAL | G_LOG_FLAG_RECURSION),
                          &MessageCapture::handle, nullptr);
    });
    std::lock_guard<std::mutex> lock(captureRegistryMutex());
    liveCaptures().push_back(this);
}

MessageCapture::~MessageCapture() {
    std::lock_guard<std::mutex> lock(captureRegistryMutex());
    auto &captures = liveCaptures();
    captures.erase(std::remove(captures.begin(), captures.end(), this), captures.end());
}

void MessageCapture::handle(const gchar *, GLogLevelFlags, const gchar *message, gpointer) {
    std::lock_guard<std::mutex> lock(captureRegistryMutex());
    for (MessageCapture *capture : liveCaptures())
        capture->lines_.emplace_back(message != nullptr ? message : "");
}

std::vector<std::string> MessageCapture::lines() const {
    std::lock_guard<std::mutex> lock(captureRegistryMutex());
    return lines_;
}

bool MessageCapture::contains(const std::string &line) const {
    std::lock_guard<std::mutex> lock(captureRegistryMutex());
    return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
}

} // namespace receivertest
