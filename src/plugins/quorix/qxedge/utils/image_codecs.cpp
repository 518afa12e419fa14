#include "image_codecs.h"

#include <iostream>
#include <mutex>

#include <dlfcn.h>

namespace TOLVIXO {

namespace {

struct Codecs {
    bool (*decode)(const unsigned char *, std::size_t, cv::Mat *) = nullptr;
    bool (*write)(const char *, const cv::Mat *) = nullptr;
};

// The directory of the module that holds this code: the plug-in when it was
// installed, from where the library directory is known.
std::string ownDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void *>(&ownDirectory), &info) == 0 || info.dli_fname == nullptr) return {};
    const std::string path = info.dli_fname;
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

const Codecs &codecs() {
    static Codecs loaded;
    static std::once_flag once;
    std::call_once(once, [] {
        // The build tree's module, the one beside the installed libraries, then the loader's own search.
        const std::string candidates[] = {QX_CODECS_BUILD_FILE, ownDirectory() + "/" + QX_CODECS_FROM_PLUGIN_DIR,
                                          ownDirectory() + "/" + QX_CODECS_FROM_PACKAGED_PLUGIN_DIR,
                                          QX_CODECS_FILE_NAME};
        void *module = nullptr;
        for (const std::string &candidate : candidates) {
            if ((module = dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL)) != nullptr) break;
        }
        if (module == nullptr) {
            std::cerr << "qxedge: compressed pictures cannot be decoded or written: " << QX_CODECS_FILE_NAME
                      << " not found (" << dlerror() << ")" << std::endl;
            return;
        }
        loaded.decode = reinterpret_cast<decltype(loaded.decode)>(dlsym(module, "qx_image_decode"));
        loaded.write = reinterpret_cast<decltype(loaded.write)>(dlsym(module, "qx_image_write"));
    });
    return loaded;
}

} // namespace

cv::Mat decodeImage(const std::vector<unsigned char> &bytes) {
    cv::Mat out;
    if (codecs().decode != nullptr) codecs().decode(bytes.data(), bytes.size(), &out);
    return out;
}

bool writeImage(const std::string &path, const cv::Mat &image) {
    return codecs().write != nullptr && codecs().write(path.c_str(), &image);
}

} // namespace TOLVIXO
