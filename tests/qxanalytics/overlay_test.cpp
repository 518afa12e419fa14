// qxoverlay in real pipelines: exactly the pixels that the results call for change.

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "gstqxmeta.h"
#include "pipeline_runner.h"

using namespace qxanalytics_test;

namespace {

constexpr int kWidth = 320;
constexpr int kHeight = 240;

int bytesPerPixel(const std::string &format) { return format.size() == 4 ? 4 : 3; }

std::string overlayPipeline(const std::string &format, const std::string &overlayProperties) {
    return "appsrc name=in format=time caps=video/x-raw,format=" + format + ",width=" + std::to_string(kWidth) +
           ",height=" + std::to_string(kHeight) + ",framerate=30/1 ! qxoverlay " + overlayProperties +
           " ! appsink name=out sync=false";
}

// A picture of one grey level, or of noise, as an unpadded buffer (widths here keep rows 4-byte aligned).
GstBuffer *makePicture(const std::string &format, int grey) {
    const int bpp = bytesPerPixel(format);
    cv::Mat picture(kHeight, kWidth, CV_8UC(bpp));
    if (grey >= 0)
        picture.setTo(cv::Scalar::all(grey));
    else
        cv::randu(picture, cv::Scalar::all(0), cv::Scalar::all(256));
    const gsize size = picture.total() * picture.elemSize();
    GstBuffer *buffer = gst_buffer_new_allocate(nullptr, size, nullptr);
    gst_buffer_fill(buffer, 0, picture.data, size);
    GST_BUFFER_PTS(buffer) = 0;
    return buffer;
}

std::vector<unsigned char> bytesOf(GstBuffer *buffer) {
    std::vector<unsigned char> bytes(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
    return bytes;
}

VideoFrameData &addFrame(GstBuffer *buffer, int width = kWidth, int height = kHeight) {
    GstQxBatchMeta *meta = gst_buffer_add_qx_batch_meta(buffer);
    meta->frames.emplace_back();
    meta->frames.back().width = width;
    meta->frames.back().height = height;
    return meta->frames.back();
}

// Pushes one picture through qxoverlay; returns the bytes before and after.
std::pair<std::vector<unsigned char>, std::vector<unsigned char>>
drawOnce(const std::string &format, const std::string &properties, GstBuffer *picture) {
    std::vector<unsigned char> before = bytesOf(picture);
    std::string error;
    std::vector<GstBuffer *> out = pushThrough(overlayPipeline(format, properties), {picture}, error);
    EXPECT_EQ(error, "");
    EXPECT_EQ(out.size(), 1u);
    std::vector<unsigned char> after = out.empty() ? std::vector<unsigned char>{} : bytesOf(out[0]);
    for (GstBuffer *buffer : out)
        gst_buffer_unref(buffer);
    return {before, after};
}

bool pixelChanged(const std::vector<unsigned char> &a, const std::vector<unsigned char> &b, int bpp, int x, int y) {
    const std::size_t at = (static_cast<std::size_t>(y) * kWidth + x) * bpp;
    return std::memcmp(&a[at], &b[at], static_cast<std::size_t>(bpp)) != 0;
}

struct BoxCase {
    const char *format;
    int metaWidth; // the frame size the box coordinates refer to
    int metaHeight;
};

class OverlayBox : public ::testing::TestWithParam<BoxCase> {};

TEST_P(OverlayBox, ChangesOutlineAndLabelOnly) {
    const BoxCase c = GetParam();
    const cv::Rect drawn(100, 80, 120, 100); // where the box must land on the 320x240 picture
    const float sx = static_cast<float>(c.metaWidth) / kWidth;
    const float sy = static_cast<float>(c.metaHeight) / kHeight;
    GstBuffer *picture = makePicture(c.format, 90);
    const quorix::ai::DetectionBoxResult box{
        3, "object", 0, "", drawn.x * sx, drawn.y * sy, drawn.br().x * sx, drawn.br().y * sy, 0.9f};
    addFrame(picture, c.metaWidth, c.metaHeight).det_results.push_back(box);

    const int lineWidth = 2;
    const auto [before, after] = drawOnce(c.format, "line-width=" + std::to_string(lineWidth), picture);
    ASSERT_EQ(before.size(), after.size());
    const int bpp = bytesPerPixel(c.format);
    const int margin = lineWidth + 1;
    const cv::Rect outer(drawn.x - margin, drawn.y - margin, drawn.width + 2 * margin, drawn.height + 2 * margin);
    const cv::Rect inner(drawn.x + margin, drawn.y + margin, drawn.width - 2 * margin, drawn.height - 2 * margin);
    const cv::Rect labelZone(drawn.x - margin, drawn.y - 30, 160, 30);

    int outlineUnchanged = 0, strayChanges = 0, labelChanges = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const cv::Point p(x, y);
            const bool changed = pixelChanged(before, after, bpp, x, y);
            const bool onOutline = ((x == drawn.x || x == drawn.br().x) && y >= drawn.y && y <= drawn.br().y) ||
                                   ((y == drawn.y || y == drawn.br().y) && x >= drawn.x && x <= drawn.br().x);
            if (onOutline) {
                outlineUnchanged += changed ? 0 : 1;
                const std::size_t at = (static_cast<std::size_t>(y) * kWidth + x) * bpp;
                EXPECT_EQ(after[at + 1], 255) << "outline green at " << x << "," << y;
            } else if (labelZone.contains(p)) {
                labelChanges += changed ? 1 : 0;
            } else if (!outer.contains(p) || inner.contains(p)) {
                strayChanges += changed ? 1 : 0;
            }
        }
    }
    EXPECT_EQ(outlineUnchanged, 0);
    EXPECT_EQ(strayChanges, 0);
    EXPECT_GT(labelChanges, 0);
}

INSTANTIATE_TEST_SUITE_P(Formats, OverlayBox,
                         ::testing::Values(BoxCase{"BGR", kWidth, kHeight}, BoxCase{"RGB", kWidth, kHeight},
                                           BoxCase{"BGRx", kWidth, kHeight}, BoxCase{"RGBx", kWidth, kHeight},
                                           BoxCase{"BGRx", 2 * kWidth, 2 * kHeight}),
                         [](const auto &info) {
                             return std::string(info.param.format) + "_" + std::to_string(info.param.metaWidth);
                         });

TEST(OverlayCaption, StaysInTheTopLeftCorner) {
    GstBuffer *picture = makePicture("BGR", 200);
    addFrame(picture).class_results.push_back({0, "", "bright", 0.75f});
    const auto [before, after] = drawOnce("BGR", "", picture);
    const cv::Rect corner(0, 0, 160, 30);
    int inside = 0, outside = 0;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            (corner.contains(cv::Point(x, y)) ? inside : outside) += pixelChanged(before, after, 3, x, y) ? 1 : 0;
    EXPECT_GT(inside, 0);
    EXPECT_EQ(outside, 0);
}

enum class MetaKind { None, EmptyBatch, FrameWithoutResults, BackgroundOnlyMask, UnlabelledClassZeroMask };

class OverlayNothingToDraw : public ::testing::TestWithParam<MetaKind> {};

TEST_P(OverlayNothingToDraw, LeavesBufferBitIdentical) {
    GstBuffer *picture = makePicture("RGBx", -1);
    switch (GetParam()) {
    case MetaKind::None:
        break;
    case MetaKind::EmptyBatch:
        gst_buffer_add_qx_batch_meta(picture);
        break;
    case MetaKind::FrameWithoutResults:
        addFrame(picture);
        break;
    case MetaKind::BackgroundOnlyMask:
        addFrame(picture).seg_results.assign(
            4, std::vector<quorix::ai::SegmentResult>(4, quorix::ai::SegmentResult{0, 1.f, "background"}));
        break;
    case MetaKind::UnlabelledClassZeroMask:
        addFrame(picture).seg_results.assign(
            4, std::vector<quorix::ai::SegmentResult>(4, quorix::ai::SegmentResult{0, 1.f, ""}));
        break;
    }
    const auto [before, after] = drawOnce("RGBx", "alpha=1.0", picture);
    EXPECT_EQ(before, after);
}

INSTANTIATE_TEST_SUITE_P(Kinds, OverlayNothingToDraw,
                         ::testing::Values(MetaKind::None, MetaKind::EmptyBatch, MetaKind::FrameWithoutResults,
                                           MetaKind::BackgroundOnlyMask, MetaKind::UnlabelledClassZeroMask));

class OverlayMask : public ::testing::TestWithParam<const char *> {};

TEST_P(OverlayMask, TintsExactlyTheForegroundCells) {
    const std::string format = GetParam();
    const int columns = 8, rows = 6; // 40 x 40 pixel cells
    const std::vector<std::string> pattern = {"........", ".##.....", ".##...#.", "......#.", "###.....", "........"};
    GstBuffer *picture = makePicture(format, 100);
    auto &seg = addFrame(picture).seg_results;
    for (const auto &line : pattern) {
        std::vector<quorix::ai::SegmentResult> row;
        for (char cell : line)
            row.push_back(cell == '#' ? quorix::ai::SegmentResult{1, 0.9f, "foreground"}
                                      : quorix::ai::SegmentResult{0, 0.9f, "background"});
        seg.push_back(row);
    }
    const auto [before, after] = drawOnce(format, "alpha=0.5 mask-color=0xFF0000", picture);
    const int bpp = bytesPerPixel(format);
    const int red = format[0] == 'R' ? 0 : 2; // byte that holds red
    int wrong = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const bool masked = pattern[y / (kHeight / rows)][x / (kWidth / columns)] == '#';
            const std::size_t at = (static_cast<std::size_t>(y) * kWidth + x) * bpp;
            if (!masked) {
                wrong += pixelChanged(before, after, bpp, x, y) ? 1 : 0;
                continue;
            }
            // Half grey 100, half pure red.
            const int r = after[at + red], g = after[at + 1], b = after[at + 2 - red];
            wrong += (std::abs(r - 178) <= 1 && std::abs(g - 50) <= 1 && std::abs(b - 50) <= 1) ? 0 : 1;
        }
    }
    EXPECT_EQ(wrong, 0);
}

INSTANTIATE_TEST_SUITE_P(Formats, OverlayMask, ::testing::Values("BGR", "RGB", "BGRx", "RGBx"));

} // namespace
