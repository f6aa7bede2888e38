// What the simulator was asked, orders to itself left out.

#ifndef SIM_REQUESTLOG_H
#define SIM_REQUESTLOG_H

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sim/Message.h"

namespace flickr_sim {

struct Counts {
    std::uint64_t rest = 0;
    std::uint64_t media = 0;
    std::uint64_t thumbnails = 0;
    std::uint64_t oauth = 0;
    std::uint64_t other = 0;
    std::uint64_t refused = 0;  ///< of all of them those answered with status 429
    std::uint64_t parts = 0;    ///< answered with status 206
    std::uint64_t connections = 0;
    std::map<std::string, std::uint64_t> methods;  ///< REST calls by method name
};

/// Counts as a JSON object in one line.
std::string toJson(const Counts& counts);

/// All operations can be called from any thread.
class RequestLog {
public:
    using Hook = std::function<void(const Request&)>;

    /// keepsRequests: every request is kept, and not only counted.
    explicit RequestLog(bool keepsRequests) : keepsRequests_(keepsRequests) {}

    /// Numbers a request and takes it down. Returns the function that is to see it, if there is one.
    Hook record(Request& request, bool firstOfConnection);
    /// Takes down how the request was answered.
    void recordStatus(const Request& request);

    /// Has the function see every request. Replaces the former one.
    void onRequest(Hook hook);

    Counts counts() const;
    /// In the order of their arrival, when they are kept.
    std::vector<Request> requests() const;
    void clear();

private:
    const bool keepsRequests_;
    mutable std::mutex mutex_;  // guards what follows
    Hook hook_;
    Counts counts_;
    std::vector<Request> requests_;
    std::uint64_t received_ = 0;
    std::uint64_t firstKept_ = 1;  // number of the first of requests_
};

}  // namespace flickr_sim

#endif
