#pragma once
// Turning a received frame payload into an image; shared by FrameInfo and
// the frames of the combined pipe record, which carry the same fields.

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace TOLVIXO {

void frameToMat(const std::vector<unsigned char> &data, std::uint32_t width, std::uint32_t height, std::uint32_t size,
                const std::string &compression, cv::Mat &out);

} // namespace TOLVIXO
