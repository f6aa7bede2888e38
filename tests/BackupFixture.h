// A device, a configuration and a simulated account for tests of whole runs.

#ifndef TESTS_BACKUPFIXTURE_H
#define TESTS_BACKUPFIXTURE_H

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sim/FlickrSim.h"
#include "standin/framework/store/BackupDatabase.h"
#include "tests/TestFolder.h"

/// What one run gave back.
struct RunResult {
    int status = 0;
    std::string error;
    std::string videos;
};

/// Choices of one run.
struct RunOptions {
    std::string from = "1/1/2001";
    std::string dataTypes = "Images;Videos;";
    std::string culture = "en";
    std::string token = "demo-token-1";
    std::string apiKey = flickr_sim::Credentials().apiKey;
    std::string apiSecret = flickr_sim::Credentials().apiSecret;
};

class BackupFixture : public testing::Test {
protected:
    BackupFixture();

    /// Starts the simulated service and writes a configuration that points to it.
    void serve(flickr_sim::SimOptions options = {}, const std::string& retries = "2");
    void configure(const std::string& dataUrl, const std::string& retries);

    /// One whole run, from createObject() to deleteObject().
    RunResult run(const RunOptions& options = {});

    /// The files on the device with their contents, without the stand-in's own; folders end in "/".
    std::map<std::string, std::string> device() const;
    /// The device's file names, one in a line.
    std::string names() const;
    std::string read(const std::string& path) const;
    /// Rows of a query, values joined by "|".
    std::vector<std::string> rows(const std::string& query) const;
    std::string log() const;
    /// Everything that the account holds is on the device and recorded, and nothing else is.
    void expectComplete();

    const TestFolder temporary_;
    const std::string folder_ = temporary_.path();
    std::string service_;  // the service's folder on the device
    std::string plugins_;
    flickr_sim::Account account_;
    std::unique_ptr<flickr_sim::FlickrSim> sim_;
    std::unique_ptr<flickr_standin::BackupDatabase> database_;
};

#endif
