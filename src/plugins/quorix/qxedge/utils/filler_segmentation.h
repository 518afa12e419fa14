#pragma once
// The segmentation the sink publishes for a frame that carries no masks: a
// 100 x 100 grid of one-pixel elements, so subscribers still receive a
// well-formed record of a realistic size.

#include <vector>

#include "frame_information.h"

namespace TOLVIXO {

// Appends the 10,000 grid elements, row by row.
void appendFillerSegmentation(std::vector<SegmentationData> &data);

} // namespace TOLVIXO
