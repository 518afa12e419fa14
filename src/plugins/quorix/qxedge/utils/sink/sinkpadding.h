#pragma once
// Per-frame work of qxedgesink: fill the working records with the picture
// and the loader's results (padding), then encode and write them (publishing).
// Everything runs on the sink's streaming thread; failures are thrown to the
// frame handler.

#include <gst/video/video.h>

#include "gstqxmeta.h"
#include "metaloader.h"
#include "qxedgesink.h"

void paddingData(QxEdgeSink *sink, GstVideoFrame frame, GstBuffer *buffer);

// Converts the picture to packed B,G,R into frameInfo (toUni 0) or into the
// first video entry of uniInfo (toUni 1); writeDebugImage also dumps it to a
// .bmp in the working directory.
void paddingImageData(QxEdgeSink *sink, GstVideoFrame frame, int toUni, int writeDebugImage);

void publishData(QxEdgeSink *sink);
