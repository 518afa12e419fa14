#pragma once
// Extraction of synchronised bus records into the buffers that qxedgesrc
// pushes: the picture in the negotiated format and the results as
// GstQxBatchMeta.

#include <mutex>
#include <string>

#include <gst/gst.h>
#include <gst/video/video.h>

#include "gstqxmeta.h"
#include "qxedgesrc_private.h"

// Guards taking entries off the synchroniser's output queue on the streaming
// thread. Lock order: extract_mutex, then the receiver's m.
extern std::mutex extract_mutex;

// The element's receive_image: waits for the oldest synchronised entry and
// writes it into frame and meta. False when no entry was written: the wait
// ended (this element flushing, or its bus connection stopped reading) or
// extraction failed in a way that the element cannot go on from.
gboolean qx_edge_receive_data(QxEdgeSrc *src, GstVideoFrame *frame, GstMeta *meta, GstBuffer *buffer);

// Takes one entry off the output queue; false when none is queued.
bool extractingData(QxEdgeSrc *src, GstVideoFrame *frame, GstMeta *meta, ReceiveImage &receiver, GstBuffer *buffer);

// Writes an entry of the frame-exact pairing into frame and meta; the entry is
// kept by the element until the next one. False when its picture is unusable.
bool extractPairedEntry(QxEdgeSrc *src, GstVideoFrame *frame, GstMeta *meta, SynchronizedData &&entry);

// Fills the batch metadata from one synchronised entry.
void extractInfo2Meta(GstMeta *meta, SynchronizedData *entry);

// Multi-line text of a batch, for debug output.
std::string getMetaString(GstQxBatchMeta *meta);

// Rebuilds segmentation rows from run-length elements: each element stands
// for `repeat` neighbouring pixels of one class; rows are `width` entries long.
// At most maxEntries pixels are rebuilt, so a hostile record cannot exhaust memory.
std::vector<std::vector<quorix::ai::SegmentResult>> segmentRows(const TOLVIXO::SegmentInfo &segment,
                                                                std::size_t maxEntries);
