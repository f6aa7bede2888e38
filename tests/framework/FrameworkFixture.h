// A device and a run for tests of the stand-in framework by itself.

#ifndef TESTS_FRAMEWORK_FRAMEWORKFIXTURE_H
#define TESTS_FRAMEWORK_FRAMEWORKFIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "hostapi/DbInterface.h"
#include "hostapi/HostServiceClientMac.h"
#include "hostapi/HostServiceUsageParams.h"
#include "tests/TestFolder.h"

/// A folder, a service folder in it, and a run that is to try twice.
class FrameworkTest : public testing::Test {
protected:
    FrameworkTest();
    ~FrameworkTest() override;

    /// A path in the service folder.
    std::filesystem::path device(const std::string& path) const { return folder_ / "service" / path; }

    /// One file through the service; the answer of the last operation.
    std::string store(Norvale_Plugin_Core::HostServiceClientMac& client, const std::string& path,
                      std::string content, const std::string& item = "");

    /// The files in the service folder without the ledger.
    std::set<std::string> files() const;

    const TestFolder temporary_;
    const std::filesystem::path folder_ = temporary_.path();
    Norvale_Plugin_Core::HostServiceUsageParams* params_ =
        Norvale_Plugin_Core::HostServiceUsageParams::getInstance();
    std::string command_, result_, error_;
};

/// The host's database with rows as the plug-in writes them.
struct Database : Norvale_Plugin_Core::DbInterface {
    explicit Database(const std::string& path) { setConnectionString(path); }
    int item(const std::string& id, const std::string& set, const std::string& name,
             const std::string& folder) {
        return createEntry(id, name, "Set", name, folder, id, set, Poco::DateTime(), Poco::DateTime(),
                           "FlickrPhoto", "jpg", "", "", "");
    }
    int folder(const std::string& id, const std::string& name) {
        return createEntry(id, name, "Flickr", name, "Flickr", id, "Flickr_ID", Poco::DateTime(),
                           Poco::DateTime(), "FlickrFolder", "", "", "", "");
    }
};

#endif
