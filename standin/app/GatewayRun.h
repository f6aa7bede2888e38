// A run's way to the service as it is today.

#ifndef STANDIN_APP_GATEWAYRUN_H
#define STANDIN_APP_GATEWAYRUN_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "gateway/Gateway.h"
#include "standin/app/Credentials.h"
#include "standin/app/DeviceLayout.h"
#include "standin/app/PerformRun.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_app {

/// Where the service is, and whom to trust there.
struct ServicePlace {
    flickr_gateway::ServiceAddresses addresses;
    flickr_gateway::HttpTrust trust;
};
ServicePlace placeOf(const Credentials& credentials);

flickr_gateway::OAuthKeys keysOf(const Credentials& credentials);

/// What the user can set.
struct GatewayOptions {
    unsigned transfers = 4;                ///< files at a time
    std::uint64_t readAhead = 256u << 20;  ///< bytes that may wait in temporary files
    std::uint64_t bytesPerSecond = 0;      ///< 0: no limit
};

/// While it lives a gateway runs in this process, and the plug-in's configuration leads to it.
class GatewayRun {
public:
    /// Puts the gateway's own token into the request. The database says what is recorded, and has to outlive
    /// it. Throws Poco::Exception.
    GatewayRun(const Credentials& credentials, const GatewayOptions& options,
               flickr_standin::BackupDatabase& database, RunRequest& request);
    ~GatewayRun();
    GatewayRun(const GatewayRun&) = delete;
    GatewayRun& operator=(const GatewayRun&) = delete;

    /// What the log is not to show.
    std::vector<std::string> secrets() const;
    /// What is waited for; empty when nothing is.
    std::string waitText() const;
    /// What went wrong, in the service's words where it had some.
    std::vector<std::string> problems() const;

private:
    std::unique_ptr<flickr_gateway::Gateway> gateway_;
};

/// A device belongs to one account: ".records/.account" in the service folder holds its id, a blank and its
/// name. Throws CannotBegin when the device is another account's.
void refuseOtherAccount(const DeviceLayout& layout, const Credentials& credentials);
/// The same, and writes that file when there is none and ".records" is there. Whether nothing is left to do.
bool tieToAccount(const DeviceLayout& layout, const Credentials& credentials);

}  // namespace flickr_app

#endif
