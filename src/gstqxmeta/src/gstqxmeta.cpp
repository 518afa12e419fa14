// Registration and life cycle of the batch record. The record holds C++
// containers inside GstMeta storage that GStreamer allocates and frees as
// raw memory, so init and free construct and destroy them in place.

#include "gstqxmeta.h"

#include <new>

namespace {

gboolean batchMetaInit(GstMeta *meta, gpointer /*params*/, GstBuffer * /*buffer*/) {
    auto *batch = reinterpret_cast<GstQxBatchMeta *>(meta);
    // No exception may cross into GStreamer; a failed allocation here fails the add.
    try {
        new (&batch->devices) std::vector<DeviceInfoData>();
        new (&batch->frames) std::vector<VideoFrameData>();
    } catch (...) {
        return FALSE;
    }
    return TRUE;
}

void batchMetaFree(GstMeta *meta, GstBuffer * /*buffer*/) {
    auto *batch = reinterpret_cast<GstQxBatchMeta *>(meta);
    batch->devices.~vector();
    batch->frames.~vector();
}

// Copies (gst_buffer_copy, tee branches made writable, queue leaks) keep the
// results with the picture; other transforms (scaling, conversion) would
// invalidate pixel-based results, so the record is not carried across them.
gboolean batchMetaTransform(GstBuffer *dest, GstMeta *meta, GstBuffer * /*buffer*/, GQuark type, gpointer /*data*/) {
    if (!GST_META_TRANSFORM_IS_COPY(type)) {
        return FALSE;
    }
    auto *source = reinterpret_cast<GstQxBatchMeta *>(meta);
    GstQxBatchMeta *target = gst_buffer_get_qx_batch_meta(dest);
    if (target == nullptr) {
        target = gst_buffer_add_qx_batch_meta(dest);
    }
    if (target == nullptr) {
        return FALSE;
    }
    if (target == source) {
        return TRUE;
    }
    try {
        target->devices = source->devices;
        target->frames = source->frames;
    } catch (...) {
        return FALSE;
    }
    return TRUE;
}

} // namespace

GType gst_qx_batch_meta_api_get_type(void) {
    static gsize registered = 0;
    if (g_once_init_enter(&registered)) {
        // No tags: the record is not tied to memory, colour space, size or
        // orientation, so elements that copy tag-less metas pass it on.
        static const gchar *tags[] = {nullptr};
        GType type = gst_meta_api_type_register("GstQxBatchMetaAPI", tags);
        g_once_init_leave(&registered, type);
    }
    return static_cast<GType>(registered);
}

const GstMetaInfo *gst_qx_batch_meta_get_info(void) {
    static const GstMetaInfo *info = nullptr;
    if (g_once_init_enter(&info)) {
        const GstMetaInfo *registered =
            gst_meta_register(gst_qx_batch_meta_api_get_type(), "GstQxBatchMeta", sizeof(GstQxBatchMeta), batchMetaInit,
                              batchMetaFree, batchMetaTransform);
        g_once_init_leave(&info, registered);
    }
    return info;
}

GstQxBatchMeta *gst_buffer_get_qx_batch_meta(GstBuffer *buffer) {
    g_return_val_if_fail(GST_IS_BUFFER(buffer), nullptr);
    return reinterpret_cast<GstQxBatchMeta *>(gst_buffer_get_meta(buffer, gst_qx_batch_meta_api_get_type()));
}

GstQxBatchMeta *gst_buffer_add_qx_batch_meta(GstBuffer *buffer) {
    g_return_val_if_fail(GST_IS_BUFFER(buffer), nullptr);
    return reinterpret_cast<GstQxBatchMeta *>(gst_buffer_add_meta(buffer, gst_qx_batch_meta_get_info(), nullptr));
}
