#pragma once
// Hermetic test environment: every test gets its own copy of the shipped
// configuration root with a DDS domain id that no other test process on this
// machine holds, so parallel tests and an installed /opt/quorix/ixo never meet.

#include <string>

namespace qxtest {

// A domain id leased through an flock()ed file; released when destroyed.
class DomainLease {
public:
    DomainLease();
    ~DomainLease();
    DomainLease(const DomainLease&) = delete;
    DomainLease& operator=(const DomainLease&) = delete;
    int id() const { return id_; }

private:
    int id_ = -1;
    int fd_ = -1;
};

class ConfigRoot {
public:
    // Copies <source>/common/data_model into a fresh temporary directory and
    // rewrites the domain id of config/Marlet.xml.
    ConfigRoot();
    ~ConfigRoot();
    ConfigRoot(const ConfigRoot&) = delete;
    ConfigRoot& operator=(const ConfigRoot&) = delete;

    const std::string& path() const { return path_; }
    int domainId() const { return lease_.id(); }
    std::string file(const std::string& relative) const { return path_ + "/" + relative; }
    // Makes the root the working directory, so "." is the first root searched.
    void enter() const;
    void writeFile(const std::string& relative, const std::string& text) const;
    std::string readFile(const std::string& relative) const;
    void removeFile(const std::string& relative) const;
    // Gives the shipped tag group definitions/TagGroup/com.vision.data/<file>TagGroup.json
    // another "qos" object (JSON text), for writers and readers alike.
    void setQos(const std::string& file, const std::string& qos) const;

private:
    DomainLease lease_;
    std::string path_;
};

std::string sourceDir();
std::string buildDir();
std::string pluginBuildDir();

// Points GStreamer at the plug-ins of the build tree with a private registry
// inside dir. Call before gst_init.
void useBuildPlugins(const std::string& dir);
// The same with the registry in a temporary directory of this process's own,
// removed when the process exits. Once per process.
void useBuildPluginsWithTemporaryRegistry();

} // namespace qxtest
