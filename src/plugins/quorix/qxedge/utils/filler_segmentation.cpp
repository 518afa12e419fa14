#include "filler_segmentation.h"

#include <cstdint>

namespace TOLVIXO {

namespace {
const char *const kFillerSegmentLabels[] = {"bike", "motor", "car", "background"};
constexpr std::uint32_t kFillerSegmentSide = 100;
} // namespace

void appendFillerSegmentation(std::vector<SegmentationData> &data) {
    data.reserve(data.size() + kFillerSegmentSide * kFillerSegmentSide);
    for (std::uint32_t r = 0; r < kFillerSegmentSide; ++r) {
        for (std::uint32_t c = 0; c < kFillerSegmentSide; ++c) {
            const std::uint32_t n = c + kFillerSegmentSide * r;
            SegmentationData element;
            element.id = n;
            element.repeat = 1;
            element.width = kFillerSegmentSide;
            element.height = kFillerSegmentSide;
            element.size = 1;
            element.channels = 1;
            element.color = 0;
            element.label = kFillerSegmentLabels[n % 4];
            element.probability = 0.99f;
            data.push_back(std::move(element));
        }
    }
}

} // namespace TOLVIXO
