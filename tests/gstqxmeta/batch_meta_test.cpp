// Guards the batch record riding on buffers: a record not found after attaching,
// one that comes back after removal, copies that share (and so corrupt) the
// original's storage, and pipeline elements (tee, videoconvert) that drop it.

#include "gstqxmeta.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

namespace {

// Texts longer than the small-string buffer, so that shared storage would show.
void fill(GstQxBatchMeta *batch) {
    batch->devices.emplace_back().uri = "rtsp://camera-7.example/stream/main";
    batch->frames.emplace_back().det_results.emplace_back().obj_label = "person-with-a-long-label";
}

void expectFilled(const GstQxBatchMeta *batch) {
    ASSERT_NE(batch, nullptr);
    EXPECT_EQ(batch->devices.at(0).uri, "rtsp://camera-7.example/stream/main");
    EXPECT_EQ(batch->frames.at(0).det_results.at(0).obj_label, "person-with-a-long-label");
}

TEST(BatchMeta, AttachLookupCopyAndRemove) {
    gst_init(nullptr, nullptr);
    EXPECT_EQ(gst_meta_get_info("GstQxBatchMeta"), gst_qx_batch_meta_get_info()); // the name peers look it up by
    GstBuffer *buffer = gst_buffer_new_allocate(nullptr, 64, nullptr);
    // The generic call is how the subscriber side attaches it.
    auto *batch =
        reinterpret_cast<GstQxBatchMeta *>(gst_buffer_add_meta(buffer, gst_qx_batch_meta_get_info(), nullptr));
    ASSERT_NE(batch, nullptr);
    EXPECT_TRUE(batch->devices.empty() && batch->frames.empty());
    EXPECT_EQ(gst_buffer_get_qx_batch_meta(buffer), batch);
    fill(batch);
    for (GstBuffer *copy : {gst_buffer_copy(buffer), gst_buffer_copy_deep(buffer),
                            gst_buffer_copy_region(buffer, GST_BUFFER_COPY_ALL, 0, 32)}) {
        GstQxBatchMeta *copied = gst_buffer_get_qx_batch_meta(copy);
        ASSERT_TRUE(copied != nullptr && copied != batch);
        expectFilled(copied);
        copied->frames.clear();
        gst_buffer_unref(copy);
    }
    expectFilled(batch); // copies changed and freed, the original intact
    ASSERT_TRUE(gst_buffer_remove_meta(buffer, &batch->meta));
    EXPECT_EQ(gst_buffer_get_qx_batch_meta(buffer), nullptr);
    // Whatever memory GStreamer hands back, a new record starts empty.
    batch = gst_buffer_add_qx_batch_meta(buffer);
    EXPECT_TRUE(batch->devices.empty() && batch->frames.empty());
    gst_buffer_unref(buffer);
}

TEST(BatchMeta, TeeBranchesAndVideoconvertPassTheRecordOn) {
    gst_init(nullptr, nullptr);
    GstElement *pipeline = gst_parse_launch("appsrc name=in format=time caps=video/x-raw,format=I420,width=8,height=8,"
                                            "framerate=30/1 ! tee name=t t. ! queue ! appsink name=a sync=false t. ! "
                                            "queue ! videoconvert ! video/x-raw,format=BGR ! appsink name=b sync=false",
                                            nullptr);
    ASSERT_NE(pipeline, nullptr);
    GstElement *src = gst_bin_get_by_name(GST_BIN(pipeline), "in");
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBuffer *buffer = gst_buffer_new_allocate(nullptr, 8 * 8 * 3 / 2, nullptr);
    fill(gst_buffer_add_qx_batch_meta(buffer));
    EXPECT_EQ(gst_app_src_push_buffer(GST_APP_SRC(src), buffer), GST_FLOW_OK);
    gst_app_src_end_of_stream(GST_APP_SRC(src));
    gst_object_unref(src);
    for (const char *name : {"a", "b"}) {
        SCOPED_TRACE(name);
        GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), name);
        GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 10 * GST_SECOND);
        gst_object_unref(sink);
        ASSERT_NE(sample, nullptr);
        expectFilled(gst_buffer_get_qx_batch_meta(gst_sample_get_buffer(sample)));
        gst_sample_unref(sample);
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
}

} // namespace
