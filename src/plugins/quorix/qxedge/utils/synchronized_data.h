#pragma once
// What the subscriber hands downstream for one frame, whichever way it was
// paired: the frame and whatever results were found for it. A member without
// a partner keeps its default (empty) value.

#include "frame_information.h"

class SynchronizedData {
  public:
    TOLVIXO::FrameInfo frameInfo;
    TOLVIXO::DeviceInfo deviceInfo;
    TOLVIXO::Information<TOLVIXO::ClassificationData> classification;
    TOLVIXO::Information<TOLVIXO::DetectionBoxData> detectionBox;
    TOLVIXO::SegmentInfo segmentInfo;
};
