#include "frame_image.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include "frame_information.h"
#include "image_codecs.h"

namespace TOLVIXO {

namespace {

// Raw rows, read consecutively from the start of the payload. A payload that
// runs out mid-image fills what it can, then throws.
void copyRows(const std::vector<unsigned char> &data, cv::Mat &out) {
    const std::size_t rowBytes = out.step[0];
    std::size_t offset = 0;
    for (int row = 0; row < out.rows; ++row) {
        if (offset + rowBytes > data.size()) {
            const std::size_t left = data.size() > offset ? data.size() - offset : 0;
            if (left > 0) std::memcpy(out.ptr(row), data.data() + offset, left);
            throw std::out_of_range("frame payload of " + std::to_string(data.size()) + " bytes is shorter than " +
                                    std::to_string(out.rows) + " rows of " + std::to_string(rowBytes) + " bytes");
        }
        std::memcpy(out.ptr(row), data.data() + offset, rowBytes);
        offset += rowBytes;
    }
}

// The payload's first size bytes, taken as pixels already. Never writes past
// the image: a size larger than the picture is a broken sample, not a reason
// to overrun memory.
void copyEncoded(const std::vector<unsigned char> &data, std::uint32_t size, cv::Mat &out) {
    const std::size_t capacity = out.isContinuous() ? out.total() * out.elemSize() : out.step[0];
    const std::size_t available = std::min<std::size_t>(size, data.size());
    std::memcpy(out.data, data.data(), std::min(available, capacity));
    if (data.size() < size)
        throw std::out_of_range("frame payload of " + std::to_string(data.size()) + " bytes is shorter than size " +
                                std::to_string(size));
    if (size > capacity)
        throw std::out_of_range("frame size " + std::to_string(size) + " exceeds the " + std::to_string(capacity) +
                                " bytes of the image");
}

} // namespace

void frameToMat(const std::vector<unsigned char> &data, std::uint32_t width, std::uint32_t height, std::uint32_t size,
                const std::string &compression, cv::Mat &out) {
    if (data.empty() || width == 0 || height == 0) return;
    // Every frame is taken as 3 bytes a pixel, whatever its format token says.
    if (out.rows != static_cast<int>(height) || out.cols != static_cast<int>(width))
        out.create(static_cast<int>(height), static_cast<int>(width), CV_8UC3);

    if (compression.find("NONE") != std::string::npos) {
        copyRows(data, out);
    } else if (compression.find("GST_ENCODED") != std::string::npos) {
        copyEncoded(data, size, out);
    } else if (compression.find("JPG") != std::string::npos) {
        out = decodeImage(data);
    } else {
        // Wording kept: operators' log filters match it.
        std::cerr << "Unsupport image format: " << compression << std::endl;
    }
}

void FrameInfo::ToMat(cv::Mat &out) const { frameToMat(data, width, height, size, compression, out); }

} // namespace TOLVIXO
