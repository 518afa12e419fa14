// Bad property values and unsupported caps are refused with a clear error, and
// nothing else is lost.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "pipeline_runner.h"

using namespace qxanalytics_test;

namespace {

struct AddressCase {
    const char *property;
    const char *accepted;
    const char *refused;
};

class AnalyzeAddress : public ::testing::TestWithParam<AddressCase> {};

TEST_P(AnalyzeAddress, RefusedValueKeepsThePreviousOne) {
    initGstreamer();
    const AddressCase c = GetParam();
    GstElement *element = gst_element_factory_make("qxanalyze", nullptr);
    ASSERT_NE(element, nullptr);
    g_object_set(element, c.property, c.accepted, nullptr);
    g_object_set(element, c.property, c.refused, nullptr);
    gchar *value = nullptr;
    g_object_get(element, c.property, &value, nullptr);
    EXPECT_STREQ(value, c.accepted);
    g_free(value);
    g_object_set(element, c.property, "", nullptr); // empty clears
    g_object_get(element, c.property, &value, nullptr);
    EXPECT_STREQ(value, "");
    g_free(value);
    gst_object_unref(element);
}

INSTANTIATE_TEST_SUITE_P(Addresses, AnalyzeAddress,
                         ::testing::Values(AddressCase{"ip-address", "127.0.0.1", "127.0.0.256"},
                                           AddressCase{"ip-address", "::1", "localhost"},
                                           AddressCase{"ip-address", "10.1.2.3", "10.1.2"},
                                           AddressCase{"mac-address", "02:00:5e:10:00:01", "02:00:5e:10:00"},
                                           AddressCase{"mac-address", "02-00-5E-10-00-01", "02:00-5e:10:00:01"},
                                           AddressCase{"mac-address", "aa:bb:cc:dd:ee:ff", "aa:bb:cc:dd:ee:fg"}));

struct CapsCase {
    const char *name;
    const char *element;
    const char *format;
};

class UnsupportedCaps : public ::testing::TestWithParam<CapsCase> {};

// appsrc links to anything, so the refusal happens in caps negotiation while streaming.
TEST_P(UnsupportedCaps, FailNegotiationWithAnError) {
    const CapsCase c = GetParam();
    std::string error;
    GstBuffer *buffer = gst_buffer_new_allocate(nullptr, 64 * 48 * 4, nullptr);
    const std::vector<GstBuffer *> out =
        pushThrough(std::string("appsrc name=in format=time caps=video/x-raw,format=") + c.format +
                        ",width=64,height=48,framerate=30/1 ! " + c.element + " ! appsink name=out sync=false",
                    {buffer}, error);
    EXPECT_NE(error.find("not-negotiated"), std::string::npos) << error;
    EXPECT_TRUE(out.empty());
    for (GstBuffer *b : out)
        gst_buffer_unref(b);
}

INSTANTIATE_TEST_SUITE_P(Elements, UnsupportedCaps,
                         ::testing::Values(CapsCase{"analyze_gray", "qxanalyze", "GRAY8"},
                                           CapsCase{"analyze_yuy2", "qxanalyze", "YUY2"},
                                           CapsCase{"overlay_i420", "qxoverlay", "I420"},
                                           CapsCase{"overlay_nv12", "qxoverlay", "NV12"}),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
