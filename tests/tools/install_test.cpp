// The installed layout and the Debian package: staged trees must hold the
// plug-ins, libraries, tool and configuration, and GStreamer must load the
// plug-ins from them.

#include <gtest/gtest.h>

#include <filesystem>

#include "qxtest/config_root.h"
#include "tool_runner.h"

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;

const std::string kPluginFile = "libgstqxedge.so";

struct TempDir {
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "qxbus-install-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        path = pattern;
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
    std::string path;
};

// Installing needs every target of the project built; before the plug-in
// exists there is nothing meaningful to check.
bool pluginBuilt() { return fs::exists(fs::path(qxtest::pluginBuildDir()) / kPluginFile); }

// gst-inspect-1.0 with only `pluginDir` to search and a private registry; no
// LD_LIBRARY_PATH, so the plug-in's own run path must find the libraries.
qxbus_test::RunResult inspect(const std::string &pluginDir, const std::string &scratch, const std::string &what) {
    return qxbus_test::run({qxbus_test::findProgram("gst-inspect-1.0"), what}, scratch,
                           {{"GST_PLUGIN_PATH", pluginDir},
                            {"GST_PLUGIN_SYSTEM_PATH_1_0", pluginDir},
                            {"GST_PLUGIN_SYSTEM_PATH", pluginDir},
                            {"GST_REGISTRY", scratch + "/registry.bin"},
                            {"GST_REGISTRY_FORK", "no"}});
}

std::string under(const std::string &tree, const std::string &absolute) { return tree + absolute; }

void expectLayout(const std::string &tree, const std::string &prefix) {
    const std::string libdir = under(tree, prefix + "/" + QX_INSTALL_LIBDIR);
    for (const std::string &file :
         {under(tree, std::string(QX_GST_PLUGIN_INSTALL_DIR) + "/" + kPluginFile), libdir + "/libmarletapi.so.2",
          libdir + "/libgstqxmeta.so.2", libdir + "/pkgconfig/marletapi.pc", libdir + "/pkgconfig/gstqxmeta.pc",
          under(tree, prefix + "/" + QX_INSTALL_INCLUDEDIR + "/marlet/marlet.h"),
          under(tree, prefix + "/" + QX_INSTALL_BINDIR + "/qxbus"),
          under(tree, std::string(QX_CONFIG_ROOT_INSTALL_DIR) + "/config/Marlet.xml"),
          under(tree, std::string(QX_CONFIG_ROOT_INSTALL_DIR) +
                          "/definitions/TagGroup/com.vision.data/VideoFrameTagGroup.json")})
        EXPECT_TRUE(fs::exists(file)) << file;
}

TEST(Install, StagedTreeHoldsEverythingAndThePluginLoads) {
    if (!pluginBuilt()) GTEST_SKIP() << "the qxedge plug-in is not built yet";
    const TempDir scratch;
    const std::string stage = scratch.path + "/stage";
    const auto installed = qxbus_test::run({QX_CMAKE_PROGRAM, "--install", qxtest::buildDir(), "--prefix", "/usr"},
                                           scratch.path, {{"DESTDIR", stage}}, 300s);
    ASSERT_EQ(installed.status, 0) << installed.out << installed.err;
    expectLayout(stage, "/usr");

    const auto found = inspect(under(stage, QX_GST_PLUGIN_INSTALL_DIR), scratch.path, "qxedge");
    EXPECT_EQ(found.status, 0) << found.err;
    EXPECT_NE(found.out.find("qxedgesink"), std::string::npos) << found.out << found.err;
    EXPECT_NE(found.out.find("qxedgesrc"), std::string::npos) << found.out;

    // The tool finds the bus library relative to itself.
    const auto help =
        qxbus_test::run({under(stage, std::string("/usr/") + QX_INSTALL_BINDIR + "/qxbus"), "--help"}, scratch.path);
    EXPECT_EQ(help.status, 0) << help.err;
}

TEST(Package, DebHoldsEverythingAndThePluginLoadsFromIt) {
    if (!pluginBuilt()) GTEST_SKIP() << "the qxedge plug-in is not built yet";
    const std::string dpkgDeb = qxbus_test::findProgram("dpkg-deb");
    if (dpkgDeb.empty()) GTEST_SKIP() << "dpkg-deb is missing";
    const TempDir scratch;
    const auto packed = qxbus_test::run(
        {QX_CPACK_PROGRAM, "-G", "DEB", "--config", qxtest::buildDir() + "/CPackConfig.cmake", "-B", scratch.path},
        scratch.path, {}, 600s);
    ASSERT_EQ(packed.status, 0) << packed.out << packed.err;
    std::string deb;
    for (const auto &entry : fs::directory_iterator(scratch.path))
        if (entry.path().extension() == ".deb") deb = entry.path().string();
    ASSERT_FALSE(deb.empty()) << packed.out;

    const auto info = qxbus_test::run({dpkgDeb, "-f", deb, "Package", "Depends"}, scratch.path);
    EXPECT_NE(info.out.find("Package: qxedge"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("libgstreamer1.0-0"), std::string::npos) << info.out;

    const auto listing = qxbus_test::run({dpkgDeb, "-c", deb}, scratch.path);
    ASSERT_EQ(listing.status, 0) << listing.err;
    for (const std::string &path : {std::string(".") + QX_GST_PLUGIN_INSTALL_DIR + "/" + kPluginFile,
                                    std::string("./usr/") + QX_INSTALL_LIBDIR + "/libmarletapi.so",
                                    std::string("./usr/") + QX_INSTALL_LIBDIR + "/libgstqxmeta.so",
                                    std::string("./usr/") + QX_INSTALL_BINDIR + "/qxbus",
                                    std::string(".") + QX_CONFIG_ROOT_INSTALL_DIR + "/config/Marlet.xml"})
        EXPECT_NE(listing.out.find(path), std::string::npos) << path << " not in\n" << listing.out;

    const std::string tree = scratch.path + "/tree";
    const auto extracted = qxbus_test::run({dpkgDeb, "-x", deb, tree}, scratch.path);
    ASSERT_EQ(extracted.status, 0) << extracted.err;
    expectLayout(tree, "/usr");
    const auto found = inspect(under(tree, QX_GST_PLUGIN_INSTALL_DIR), scratch.path, "qxedge");
    EXPECT_EQ(found.status, 0) << found.err;
    EXPECT_NE(found.out.find("qxedgesink"), std::string::npos) << found.out << found.err;
}

} // namespace
