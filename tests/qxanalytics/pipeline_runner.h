#pragma once
// Runs a gst-launch style pipeline with the build tree's plug-ins and collects
// what its appsinks receive, or the error it posts.

#include <map>
#include <string>
#include <vector>

#include <gst/gst.h>

namespace qxanalytics_test {

// Points GStreamer at the build-tree plug-ins with a private registry; once per process.
void initGstreamer();

class Pipeline {
  public:
    explicit Pipeline(const std::string &description);
    ~Pipeline();
    Pipeline(const Pipeline &) = delete;
    Pipeline &operator=(const Pipeline &) = delete;

    GstElement *element(const std::string &name) const;
    // Plays until every named appsink reached end of stream or the pipeline posted an error;
    // returns the samples per sink (owned by the caller: release with releaseSamples).
    std::map<std::string, std::vector<GstSample *>> run(const std::vector<std::string> &sinks);
    const std::string &error() const { return error_; }

  private:
    GstElement *pipeline_ = nullptr;
    std::string error_;
};

void releaseSamples(std::map<std::string, std::vector<GstSample *>> &samples);

// Pushes the buffers into the appsrc "in" and returns what appsink "out" receives
// (in the same order). The buffers are taken over.
std::vector<GstBuffer *> pushThrough(const std::string &description, const std::vector<GstBuffer *> &buffers,
                                     std::string &error);

} // namespace qxanalytics_test
