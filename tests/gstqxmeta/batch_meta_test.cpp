// The batch record: attaching, lookup and removal, and that it survives the
// buffer copies a pipeline makes (explicit copies, tee branches, converters).

#include "gstqxmeta.h"
#include "src_expected.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class BatchMetaTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

// A record with entries of every kind and strings long enough to live on the
// heap, so that a copy sharing storage with its original would show.
GstQxBatchMeta *attachSample(GstBuffer *buffer) {
    GstQxBatchMeta *batch = gst_buffer_add_qx_batch_meta(buffer);
    batch->devices.push_back(srcexpect::device());
    batch->frames.push_back(srcexpect::frame(42, "camera-7", 64, 48));
    return batch;
}

void expectSample(const GstQxBatchMeta *batch) {
    ASSERT_NE(batch, nullptr);
    ASSERT_EQ(batch->devices.size(), 1u);
    ASSERT_EQ(batch->frames.size(), 1u);
    EXPECT_TRUE(srcexpect::same(batch->devices[0], srcexpect::device()));
    EXPECT_TRUE(srcexpect::sameWithResults(batch->frames[0], srcexpect::frame(42, "camera-7", 64, 48)));
}

// Both ways of attaching (the typed call and the generic one the subscriber
// side uses) give the same, empty record that lookup then finds; removing a
// filled record and attaching again must not resurrect the old contents,
// whatever memory GStreamer hands back.
TEST_F(BatchMetaTest, AttachedRecordStartsEmptyAndIsFoundByLookup) {
    EXPECT_STREQ(g_type_name(gst_qx_batch_meta_get_info()->api), "GstQxBatchMetaAPI");
    EXPECT_EQ(gst_meta_get_info("GstQxBatchMeta"), gst_qx_batch_meta_get_info());
    struct Case {
        const char *how;
        GstQxBatchMeta *(*attach)(GstBuffer *);
    };
    const std::vector<Case> cases = {
        {"gst_buffer_add_qx_batch_meta", gst_buffer_add_qx_batch_meta},
        {"gst_buffer_add_meta",
         [](GstBuffer *b) {
             return reinterpret_cast<GstQxBatchMeta *>(gst_buffer_add_meta(b, gst_qx_batch_meta_get_info(), nullptr));
         }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.how);
        GstBuffer *buffer = gst_buffer_new_allocate(nullptr, 16, nullptr);
        EXPECT_EQ(gst_buffer_get_qx_batch_meta(buffer), nullptr);
        for (int round = 0; round < 2; ++round) {
            GstQxBatchMeta *fresh = c.attach(buffer);
            ASSERT_NE(fresh, nullptr);
            EXPECT_TRUE(fresh->devices.empty()) << "round " << round;
            EXPECT_TRUE(fresh->frames.empty()) << "round " << round;
            EXPECT_EQ(gst_buffer_get_qx_batch_meta(buffer), fresh);
            fresh->frames.emplace_back().frame_id = 42;
            fresh->devices.emplace_back().port = 554;
            ASSERT_TRUE(gst_buffer_remove_meta(buffer, reinterpret_cast<GstMeta *>(fresh)));
            EXPECT_EQ(gst_buffer_get_qx_batch_meta(buffer), nullptr);
        }
        gst_buffer_unref(buffer);
    }
}

TEST_F(BatchMetaTest, BufferCopiesCarryAnIndependentRecord) {
    GstBuffer *original = gst_buffer_new_allocate(nullptr, 64, nullptr);
    GstQxBatchMeta *source = attachSample(original);

    struct Copy {
        const char *how;
        GstBuffer *buffer;
    };
    const std::vector<Copy> copies = {
        {"gst_buffer_copy", gst_buffer_copy(original)},
        {"gst_buffer_copy_deep", gst_buffer_copy_deep(original)},
        {"gst_buffer_copy_region", gst_buffer_copy_region(original, GST_BUFFER_COPY_ALL, 0, 32)},
    };
    for (const Copy &copy : copies) {
        SCOPED_TRACE(copy.how);
        GstQxBatchMeta *copied = gst_buffer_get_qx_batch_meta(copy.buffer);
        expectSample(copied);
        ASSERT_NE(copied, source);
        copied->frames[0].class_results.clear();
        EXPECT_FALSE(source->frames[0].class_results.empty()) << "copy shares storage with the original";
        gst_buffer_unref(copy.buffer);
    }
    expectSample(source);
    gst_buffer_unref(original);
}

// Runs one buffer with a record through a launch line between appsrc "in"
// and appsinks named in sinkNames, returning the record each sink saw.
std::vector<std::vector<int>> frameIdsSeenBy(const std::string &launch, const std::vector<std::string> &sinkNames) {
    GError *error = nullptr;
    GstElement *pipeline = gst_parse_launch(launch.c_str(), &error);
    EXPECT_EQ(error, nullptr) << (error ? error->message : "");
    if (pipeline == nullptr) {
        return {};
    }
    GstElement *src = gst_bin_get_by_name(GST_BIN(pipeline), "in");
    EXPECT_EQ(gst_element_set_state(pipeline, GST_STATE_PLAYING), GST_STATE_CHANGE_ASYNC);

    GstBuffer *buffer = gst_buffer_new_allocate(nullptr, 8 * 8 * 3 / 2, nullptr);
    gst_buffer_memset(buffer, 0, 0x80, 8 * 8 * 3 / 2);
    GST_BUFFER_PTS(buffer) = 0;
    GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;
    attachSample(buffer);
    EXPECT_EQ(gst_app_src_push_buffer(GST_APP_SRC(src), buffer), GST_FLOW_OK);
    gst_app_src_end_of_stream(GST_APP_SRC(src));

    std::vector<std::vector<int>> seen;
    for (const std::string &name : sinkNames) {
        GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), name.c_str());
        std::vector<int> ids;
        while (GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 10 * GST_SECOND)) {
            GstQxBatchMeta *batch = gst_buffer_get_qx_batch_meta(gst_sample_get_buffer(sample));
            ids.push_back(batch && !batch->frames.empty() ? batch->frames[0].frame_id : -1);
            gst_sample_unref(sample);
        }
        seen.push_back(ids);
        gst_object_unref(sink);
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(src);
    gst_object_unref(pipeline);
    return seen;
}

TEST_F(BatchMetaTest, PipelineElementsPassTheRecordOn) {
    const std::string caps = "video/x-raw,format=I420,width=8,height=8,framerate=30/1";
    struct Case {
        const char *what;
        std::string launch;
        std::vector<std::string> sinks;
    };
    const std::vector<Case> cases = {
        {"tee with two queued branches",
         "appsrc name=in format=time caps=" + caps +
             " ! tee name=t t. ! queue ! appsink name=a sync=false t. ! queue ! appsink name=b sync=false",
         {"a", "b"}},
        {"videoconvert to another format",
         "appsrc name=in format=time caps=" + caps +
             " ! videoconvert ! video/x-raw,format=BGR ! appsink name=a sync=false",
         {"a"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        const auto seen = frameIdsSeenBy(c.launch, c.sinks);
        ASSERT_EQ(seen.size(), c.sinks.size());
        for (const auto &ids : seen) {
            EXPECT_EQ(ids, std::vector<int>{42});
        }
    }
}

} // namespace
