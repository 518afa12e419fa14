#include "qxtest/config_root.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace qxtest {

namespace {
// Cyclone derives ports from the domain id (7400 + 250 * id + ...); ids up to
// 230 keep every port below 65535. 0 is left to people running the demo.
constexpr int kFirstDomain = 1;
constexpr int kLastDomain = 230;
} // namespace

DomainLease::DomainLease() {
    const fs::path dir = fs::temp_directory_path() / "qxedge-test-domains";
    fs::create_directories(dir);
    const int span = kLastDomain - kFirstDomain + 1;
    const int start = static_cast<int>(getpid()) % span;
    for (int k = 0; k < span; ++k) {
        const int id = kFirstDomain + (start + k) % span;
        const std::string lock = (dir / (std::to_string(id) + ".lock")).string();
        const int fd = ::open(lock.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0666);
        if (fd < 0) continue;
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            id_ = id;
            fd_ = fd;
            return;
        }
        ::close(fd);
    }
    throw std::runtime_error("no free DDS domain id for this test");
}

DomainLease::~DomainLease() {
    if (fd_ >= 0) ::close(fd_);
}

ConfigRoot::ConfigRoot() {
    std::string tmpl = (fs::temp_directory_path() / "qxtest-root-XXXXXX").string();
    if (!::mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
    fs::copy(fs::path(sourceDir()) / "common" / "data_model", path_, fs::copy_options::recursive);
    std::string xml = readFile("config/Marlet.xml");
    const std::string from = "<Domain Id=\"0\">";
    const auto at = xml.find(from);
    if (at == std::string::npos) throw std::runtime_error("shipped Marlet.xml has no <Domain Id=\"0\">");
    xml.replace(at, from.size(), "<Domain Id=\"" + std::to_string(lease_.id()) + "\">");
    writeFile("config/Marlet.xml", xml);
}

ConfigRoot::~ConfigRoot() {
    std::error_code ec;
    if (const char* keep = std::getenv("QXTEST_KEEP_ROOT"); keep && *keep) return;
    fs::remove_all(path_, ec);
}

void ConfigRoot::enter() const {
    if (::chdir(path_.c_str()) != 0) throw std::runtime_error("chdir " + path_ + " failed");
}

void ConfigRoot::writeFile(const std::string& relative, const std::string& text) const {
    const fs::path p = fs::path(path_) / relative;
    fs::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) throw std::runtime_error("cannot write " + p.string());
}

std::string ConfigRoot::readFile(const std::string& relative) const {
    std::ifstream in(fs::path(path_) / relative, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + relative);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void ConfigRoot::removeFile(const std::string& relative) const { fs::remove(fs::path(path_) / relative); }

void ConfigRoot::setQos(const std::string& file, const std::string& qos) const {
    const std::string relative = "definitions/TagGroup/com.vision.data/" + file + "TagGroup.json";
    const std::string text = readFile(relative);
    const std::regex shipped(R"("qos": \{[^}]*\})");
    if (!std::regex_search(text, shipped)) throw std::runtime_error(relative + " has no \"qos\" object");
    writeFile(relative, std::regex_replace(text, shipped, "\"qos\": " + qos));
}

std::string sourceDir() { return QX_SOURCE_DIR; }
std::string buildDir() { return QX_BUILD_DIR; }
std::string pluginBuildDir() { return QX_PLUGIN_BUILD_DIR; }

void useBuildPlugins(const std::string& dir) {
    ::setenv("GST_PLUGIN_PATH", pluginBuildDir().c_str(), 1);
    ::setenv("GST_REGISTRY", (dir + "/gst-registry.bin").c_str(), 1);
    ::setenv("GST_REGISTRY_FORK", "no", 1);
}

void useBuildPluginsWithTemporaryRegistry() {
    static std::string dir = (fs::temp_directory_path() / "qxtest-gst-XXXXXX").string();
    if (!::mkdtemp(dir.data())) throw std::runtime_error("cannot make a directory for the registry");
    useBuildPlugins(dir);
    std::atexit([] {
        std::error_code ec;
        fs::remove_all(dir, ec);
    });
}

} // namespace qxtest
