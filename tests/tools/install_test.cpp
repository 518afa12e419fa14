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

// Installing needs every target of the project built; before the plug-in
// exists there is nothing meaningful to check.
bool pluginBuilt() { return fs::exists(fs::path(qxtest::pluginBuildDir()) / kPluginFile); }

// Checks an installed tree under `tree` (prefix /usr): every file is where it
// belongs, gst-inspect-1.0 loads both plug-ins with only that tree to search
// and no LD_LIBRARY_PATH (so their run path must find our libraries), and the
// tool finds the bus library relative to itself.
void expectWorkingTree(const std::string &tree, const std::string &scratch) {
    const std::string prefix = tree + "/usr/";
    const std::string pluginDir = tree + QX_GST_PLUGIN_INSTALL_DIR;
    const std::string libdir = prefix + QX_INSTALL_LIBDIR;
    const std::string configRoot = tree + QX_CONFIG_ROOT_INSTALL_DIR;
    for (const std::string &file :
         {pluginDir + "/" + kPluginFile, libdir + "/libmarletapi.so.2", libdir + "/libgstqxmeta.so.2",
          libdir + "/pkgconfig/marletapi.pc", libdir + "/pkgconfig/gstqxmeta.pc",
          prefix + QX_INSTALL_INCLUDEDIR + "/marlet/marlet.h", prefix + QX_INSTALL_BINDIR + "/qxbus",
          configRoot + "/config/Marlet.xml",
          configRoot + "/definitions/TagGroup/com.vision.data/VideoFrameTagGroup.json"})
        EXPECT_TRUE(fs::exists(file)) << file;

    const auto found = qxbus_test::run({qxbus_test::findProgram("gst-inspect-1.0"), "qxedge"}, scratch,
                                       {{"GST_PLUGIN_PATH", pluginDir},
                                        {"GST_PLUGIN_SYSTEM_PATH_1_0", pluginDir},
                                        {"GST_PLUGIN_SYSTEM_PATH", pluginDir},
                                        {"GST_REGISTRY", scratch + "/registry.bin"},
                                        {"GST_REGISTRY_FORK", "no"}});
    EXPECT_EQ(found.status, 0) << found.err;
    for (const char *element : {"qxedgesink", "qxedgesrc"})
        EXPECT_NE(found.out.find(element), std::string::npos) << found.out << found.err;

    const auto help = qxbus_test::run({prefix + QX_INSTALL_BINDIR + "/qxbus", "--help"}, scratch);
    EXPECT_EQ(help.status, 0) << help.err;
}

TEST(Install, StagedTreeHoldsEverythingAndThePluginLoads) {
    if (!pluginBuilt()) GTEST_SKIP() << "the qxedge plug-in is not built yet";
    const qxtest::ConfigRoot scratch; // only a private directory here
    const std::string stage = scratch.path() + "/stage";
    const auto installed = qxbus_test::run({QX_CMAKE_PROGRAM, "--install", qxtest::buildDir(), "--prefix", "/usr"},
                                           scratch.path(), {{"DESTDIR", stage}}, 300s);
    ASSERT_EQ(installed.status, 0) << installed.out << installed.err;
    expectWorkingTree(stage, scratch.path());
}

TEST(Package, DebHoldsEverythingAndThePluginLoadsFromIt) {
    if (!pluginBuilt()) GTEST_SKIP() << "the qxedge plug-in is not built yet";
    const std::string dpkgDeb = qxbus_test::findProgram("dpkg-deb");
    if (dpkgDeb.empty()) GTEST_SKIP() << "dpkg-deb is missing";
    const qxtest::ConfigRoot scratch; // only a private directory here
    const auto packed = qxbus_test::run(
        {QX_CPACK_PROGRAM, "-G", "DEB", "--config", qxtest::buildDir() + "/CPackConfig.cmake", "-B", scratch.path()},
        scratch.path(), {}, 600s);
    ASSERT_EQ(packed.status, 0) << packed.out << packed.err;
    std::string deb;
    for (const auto &entry : fs::directory_iterator(scratch.path()))
        if (entry.path().extension() == ".deb") deb = entry.path().string();
    ASSERT_FALSE(deb.empty()) << packed.out;

    const auto info = qxbus_test::run({dpkgDeb, "-f", deb, "Package", "Depends"}, scratch.path());
    EXPECT_NE(info.out.find("Package: qxedge"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("libgstreamer1.0-0"), std::string::npos) << info.out;

    // Unpacked, the package must hold the same layout as an install.
    const std::string tree = scratch.path() + "/tree";
    const auto extracted = qxbus_test::run({dpkgDeb, "-x", deb, tree}, scratch.path());
    ASSERT_EQ(extracted.status, 0) << extracted.err;
    expectWorkingTree(tree, scratch.path());
}

} // namespace
