// The gateway between the plug-in and the service as it is today.
//
//   plug-in ──HTTP, api_sig──▶ InwardServer ──▶ Catalog ───────▶ ServiceClient ──HTTPS, OAuth──▶ service
//           ◀──XML, media───                ──▶ MediaTransfers ─▶ HttpClient ────HTTPS─────────▶ media hosts

#ifndef GATEWAY_GATEWAY_H
#define GATEWAY_GATEWAY_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "gateway/HttpClient.h"
#include "gateway/InwardServer.h"
#include "gateway/KnownItem.h"
#include "gateway/MediaTransfers.h"
#include "gateway/OAuth.h"
#include "gateway/Patience.h"

namespace flickr_gateway {

/// Where the service is.
struct ServiceAddresses {
    std::string rest = "https://api.flickr.com/services/rest/";
    std::string oauth = "https://www.flickr.com/services/oauth/";

    /// Both below another server's address, such as "https://127.0.0.1:8443".
    static ServiceAddresses below(const std::string& service);
};

struct GatewaySettings {
    ServiceAddresses addresses;
    HttpTrust trust;
    OAuthKeys keys;
    std::string userId;  ///< the account's; empty: the service is asked
    /// The user's folder for what is kept from run to run, for its owner only; made when it is missing.
    /// Empty: nothing is kept, and the hourly limit is this gateway's own.
    std::string stateFolder;
    TransferLimits transfers;
    std::uint64_t bytesPerSecond = 0;  ///< of all transfers; 0: no limit
    PatienceLimits patience;
    Expectation expectation;
    std::uint16_t port = 0;  ///< on loopback; 0: the system picks
};

/// Serves from construction to destruction, which takes less than half a second whatever is under way.
class Gateway {
public:
    /// Throws Poco::Exception with a sentence.
    explicit Gateway(const GatewaySettings& settings);
    ~Gateway();
    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;

    // What the plug-in is to be given.

    /// "http://127.0.0.1:PORT/services/rest/"
    std::string dataUrl() const;
    const InwardKeys& keys() const;

    // What the user is to be told.

    /// What is waited for, as in "The service asks us to wait: 45 s"; empty when nothing is.
    std::string waitText() const;
    /// A sentence for each thing that went wrong so far, in the service's own words where it had some.
    std::vector<std::string> problems() const;

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

}  // namespace flickr_gateway

#endif
