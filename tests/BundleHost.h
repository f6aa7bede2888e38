// For programs that load the plug-in's bundle as a host does: an application folder, a device, an account and
// the service that simulates it.

#ifndef TESTS_BUNDLEHOST_H
#define TESTS_BUNDLEHOST_H

#include <memory>
#include <string>

#include "sim/FlickrSim.h"
#include "standin/framework/store/BackupDatabase.h"
#include "tests/TestFolder.h"

/// The plug-in looks for its configuration in the main bundle, and so the program has to stand in a folder of
/// its own. Returns the folder for a process that does; otherwise runs the program again, from a new folder
/// with the bundle in it, and ends with its exit status. To be called first in main().
std::string inApplicationFolder(char** argv);

/// A new device, an empty account and a configuration that points to the service.
class BundleHost {
public:
    explicit BundleHost(const std::string& retries = "2");
    ~BundleHost();
    BundleHost(const BundleHost&) = delete;
    BundleHost& operator=(const BundleHost&) = delete;

    void configure(const std::string& dataUrl);
    std::string bundle() const;
    std::string device() const { return device_; }
    std::string serviceFolder(const std::string& culture = "en") const;

    /// What is wrong with the backup: an item of the account that is not there exactly once and with its
    /// bytes, a file too many. Empty when nothing is.
    std::string backupProblem(const std::string& culture = "en");

    /// As the application does before a run, after one, and before one begins again.
    void recover();

    flickr_sim::Account account;
    flickr_sim::FlickrSim sim;
    std::unique_ptr<flickr_standin::BackupDatabase> database;

private:
    const TestFolder temporary_;
    const std::string device_ = temporary_.path();
    const std::string retries_;
};

#endif
