// Calls of the service's REST interface.

#ifndef GATEWAY_SERVICECLIENT_H
#define GATEWAY_SERVICECLIENT_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "gateway/HourlyBudget.h"
#include "gateway/HttpClient.h"
#include "gateway/OAuth.h"
#include "gateway/Patience.h"
#include "gateway/ServiceAnswer.h"

namespace flickr_gateway {

/// Asks the service on one user's behalf. Keeps to the hourly limit, waits when the service wants it and
/// tries again what failed on the way. Can be used from several threads, each with a client of its own.
class ServiceClient {
public:
    /// restAddress: "https://api.flickr.com/services/rest/". budgetFile: as HourlyBudget has it.
    ServiceClient(std::string restAddress, const OAuthKeys& keys, const std::string& budgetFile,
                  const PatienceLimits& limits);

    /// One call. The answer is never a failure: what the service refuses is thrown as Failure, with its kind
    /// and a sentence. Throws CancelledFailure too.
    ServiceAnswer call(HttpClient& http, const std::string& method, Parameters parameters,
                       const Cancelled& cancelled);

    /// How long the service wants us to wait still, and how long the hourly limit does.
    std::chrono::milliseconds waitOfService() const { return patience_.remaining(); }
    std::chrono::milliseconds waitOfBudget() const;

private:
    ServiceAnswer ask(HttpClient& http, const Parameters& parameters, const Cancelled& cancelled);
    void awaitBudget(const Cancelled& cancelled);

    const std::string address_;
    const OAuthKeys keys_;
    HourlyBudget budget_;
    Patience patience_;
    const std::chrono::milliseconds retryPause_;
    std::atomic<std::int64_t> budgetUntil_{0};  // steady clock, milliseconds
};

/// Waits so long, or throws CancelledFailure.
void pauseFor(std::chrono::milliseconds time, const Cancelled& cancelled);

}  // namespace flickr_gateway

#endif
