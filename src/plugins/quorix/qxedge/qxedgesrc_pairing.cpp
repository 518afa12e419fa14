#include "qxedgesrc_pairing.h"

#include "utils.h"

GType qx_edgesrc_pairing_get_type() {
    static GType type = 0;
    static const GEnumValue values[] = {
        {QX_EDGESRC_PAIRING_COMPATIBLE,
         "The synchroniser: each queued frame takes the results of its frame id found in the queues; best "
         "effort when tag groups travel separately",
         "compatible"},
        {QX_EDGESRC_PAIRING_FRAME_ID,
         "Frame-exact: each frame waits (up to result-wait) for the results of its frame id from its own "
         "publisher and is pushed once, in order",
         "frame-id"},
        {0, nullptr, nullptr}};
    if (g_once_init_enter(&type)) g_once_init_leave(&type, g_enum_register_static("QxEdgeSrcPairing", values));
    return type;
}

std::unique_ptr<PairingEngine> makePairingEngine(const std::vector<std::string> &taggroups, guint resultWaitMs) {
    PairingSettings settings;
    for (const std::string &name : taggroups) {
        switch (hash_(name.c_str())) {
        case hash_("ClassificationData"):
            settings.needClassification = true;
            break;
        case hash_("DetectionBoxData"):
            settings.needDetection = true;
            break;
        case hash_("SegmentationData"):
            settings.needSegmentation = true;
            break;
        case hash_("DeviceInfoData"):
            settings.needDevice = true;
            break;
        default:
            break;
        }
    }
    settings.resultWait = std::chrono::milliseconds(resultWaitMs);
    return std::make_unique<PairingEngine>(settings);
}

GstStructure *pairingStats(QxEdgeSrcPairing mode, const PairingEngine *engine, guint64 buffersPushed,
                           guint64 samplesRejected) {
    GstStructure *stats = gst_structure_new(
        "qxedgesrc-stats", "pairing", G_TYPE_STRING, mode == QX_EDGESRC_PAIRING_FRAME_ID ? "frame-id" : "compatible",
        "buffers-pushed", G_TYPE_UINT64, buffersPushed, "samples-rejected", G_TYPE_UINT64, samplesRejected, nullptr);
    if (engine == nullptr) return stats;
    const PairingCounters c = engine->counters();
    gst_structure_set(stats, "frames-received", G_TYPE_UINT64, c.framesReceived, "frames-delivered", G_TYPE_UINT64,
                      c.framesDelivered, "frames-dropped", G_TYPE_UINT64, c.framesDropped, "frames-incomplete",
                      G_TYPE_UINT64, c.framesIncomplete, "results-matched", G_TYPE_UINT64, c.resultsMatched,
                      "results-late", G_TYPE_UINT64, c.resultsLate, "results-dropped", G_TYPE_UINT64, c.resultsDropped,
                      "publisher-restarts", G_TYPE_UINT64, c.restarts, nullptr);
    return stats;
}
