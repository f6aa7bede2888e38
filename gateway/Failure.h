// How a request to the service can fail.

#ifndef GATEWAY_FAILURE_H
#define GATEWAY_FAILURE_H

#include <functional>
#include <stdexcept>
#include <string>

namespace flickr_gateway {

/// Asked again and again by whatever waits: true once nobody wants the outcome any more.
using Cancelled = std::function<bool()>;

/// The wait was given up because its Cancelled said so.
class CancelledFailure : public std::runtime_error {
public:
    CancelledFailure() : std::runtime_error("The request was given up.") {}
};

/// The service could not give what was asked. what() is a sentence for the user.
class Failure : public std::runtime_error {
public:
    enum class Kind {
        Refused,     ///< the service does not accept the key or the sign-in
        NotFound,    ///< the service does not have the set or item
        Unavailable  ///< anything else: it may be there another time
    };

    Failure(Kind kind, const std::string& sentence, int code = 0)
        : std::runtime_error(sentence), kind_(kind), code_(code) {}

    Kind kind() const { return kind_; }
    /// The service's error code; 0 when it gave none.
    int code() const { return code_; }

private:
    Kind kind_;
    int code_;
};

}  // namespace flickr_gateway

#endif
