#pragma once
// Decoding and writing pictures with OpenCV's codecs, loaded on first use
// from the qxcodecs module rather than linked: see codecs/qxcodecs.cpp.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace TOLVIXO {

// cv::imdecode in colour mode; an empty image when the bytes do not decode,
// or when the codecs cannot be loaded (said once on standard error).
cv::Mat decodeImage(const std::vector<unsigned char> &bytes);

// cv::imwrite; false when it fails or the codecs cannot be loaded.
bool writeImage(const std::string &path, const cv::Mat &image);

} // namespace TOLVIXO
