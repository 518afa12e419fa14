#pragma once
// Fills the sink's working record of one tag group from the batch metadata
// of a frame, or from filler values when the frame carries none, so that a
// pipeline without inference still publishes well-formed records.

#include <gst/video/video.h>

#include <string>

#include "gstqxmeta.h"
#include "qxedgesink.h"

// meta may be null. Appends to result lists; the caller empties them.
void metaloader(GstQxBatchMeta *meta, QxEdgeSink *sink, GstVideoFrame frame, std::string taggroup);
