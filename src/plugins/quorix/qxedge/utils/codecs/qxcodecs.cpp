// The image codecs, in a module of their own that the core loads only when a
// picture has to be decoded or written (image_codecs.cpp). OpenCV's codec
// library brings some hundred further libraries with it (GDAL, Poppler, x265
// and more, some 40 MB resident): an element that never meets a compressed
// frame should not carry them.

#include <opencv2/imgcodecs.hpp>

extern "C" {

__attribute__((visibility("default"))) bool qx_image_decode(const unsigned char *bytes, std::size_t size,
                                                            cv::Mat *out) {
    try {
        const cv::Mat encoded(1, static_cast<int>(size), CV_8UC1, const_cast<unsigned char *>(bytes));
        *out = cv::imdecode(encoded, cv::IMREAD_COLOR);
        return true;
    } catch (const cv::Exception &) {
        out->release();
        return false;
    }
}

__attribute__((visibility("default"))) bool qx_image_write(const char *path, const cv::Mat *image) {
    try {
        return cv::imwrite(path, *image);
    } catch (const cv::Exception &) {
        return false;
    }
}
}
