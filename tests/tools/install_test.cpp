// Guards the shipped layout: an install or a Debian package missing the
// plug-in, a library, the headers, the pkg-config files, the tool or the
// configuration root, a package without its dependencies, or a plug-in or
// tool that does not run from there.

#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "qxtest/config_root.h"
#include "tool_runner.h"

namespace {

using qxbus_test::run;
using testing::HasSubstr;
namespace fs = std::filesystem;

// The tree (prefix /usr) holds every file, gst-inspect-1.0 loads the elements from it with no
// LD_LIBRARY_PATH (their run path must find our libraries), and the tool runs from there.
void expectWorkingTree(const std::string &tree, const std::string &scratch) {
    const std::string usr = tree + "/usr/", plugins = tree + QX_GST_PLUGIN_INSTALL_DIR, lib = usr + QX_INSTALL_LIBDIR,
                      config = tree + QX_CONFIG_ROOT_INSTALL_DIR;
    for (const std::string &file :
         {plugins + "/libgstqxedge.so", lib + "/libmarletapi.so.2", lib + "/libgstqxmeta.so.2",
          lib + "/pkgconfig/marletapi.pc", lib + "/pkgconfig/gstqxmeta.pc",
          usr + QX_INSTALL_INCLUDEDIR + "/marlet/marlet.h", config + "/config/Marlet.xml",
          config + "/definitions/TagGroup/com.vision.data/VideoFrameTagGroup.json"})
        EXPECT_TRUE(fs::exists(file)) << file;
    const auto inspected = run({"/usr/bin/env", "gst-inspect-1.0", "qxedge"}, scratch,
                               {{"GST_PLUGIN_PATH", plugins},
                                {"GST_PLUGIN_SYSTEM_PATH_1_0", plugins},
                                {"GST_REGISTRY", scratch + "/registry.bin"},
                                {"GST_REGISTRY_FORK", "no"}});
    EXPECT_THAT(inspected.out, testing::AllOf(HasSubstr("qxedgesink"), HasSubstr("qxedgesrc"))) << inspected.err;
    EXPECT_EQ(run({usr + QX_INSTALL_BINDIR + "/qxbus", "--help"}, scratch).status, 0);
}

TEST(Install, StagedTreeAndDebianPackageHoldEverythingAndThePluginLoads) {
    // Installing needs every target built; before the plug-in exists there is nothing to check.
    if (!fs::exists(qxtest::pluginBuildDir() + "/libgstqxedge.so")) GTEST_SKIP() << "the qxedge plug-in is not built";
    const qxtest::ConfigRoot scratch; // only a private directory here
    const std::string dir = scratch.path();
    const auto installed = run({QX_CMAKE_PROGRAM, "--install", qxtest::buildDir(), "--prefix", "/usr"}, dir,
                               {{"DESTDIR", dir + "/stage"}}, std::chrono::minutes(5));
    ASSERT_EQ(installed.status, 0) << installed.out << installed.err;
    expectWorkingTree(dir + "/stage", dir);

    // From the build directory, cpack reads its CPackConfig.cmake.
    const auto packed =
        run({QX_CPACK_PROGRAM, "-G", "DEB", "-B", dir}, qxtest::buildDir(), {}, std::chrono::minutes(10));
    ASSERT_EQ(packed.status, 0) << packed.out << packed.err;
    std::string deb;
    for (const auto &entry : fs::directory_iterator(dir))
        if (entry.path().extension() == ".deb") deb = entry.path().string();
    EXPECT_THAT(run({"/usr/bin/env", "dpkg-deb", "-f", deb, "Package", "Depends"}, dir).out,
                testing::AllOf(HasSubstr("Package: qxedge\n"), HasSubstr("libgstreamer1.0-0")));
    ASSERT_EQ(run({"/usr/bin/env", "dpkg-deb", "-x", deb, dir + "/tree"}, dir).status, 0) << deb;
    expectWorkingTree(dir + "/tree", dir); // the package holds what an install holds
}

} // namespace
