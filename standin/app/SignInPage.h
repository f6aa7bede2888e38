// Where the service sends the user back to after the sign-in.

#ifndef STANDIN_APP_SIGNINPAGE_H
#define STANDIN_APP_SIGNINPAGE_H

#include <Poco/Net/ServerSocket.h>

#include <chrono>
#include <string>

namespace flickr_app {

/// One address on loopback, with a random part and a port that the system picks, and the page that a person
/// sees there.
class SignInPage {
public:
    SignInPage();

    /// For the service.
    std::string address() const;

    /// Waits for the user to come back with the answer about this token, and returns the verifier; empty when
    /// they have refused. Whatever else asks is turned away. Throws Poco::TimeoutException.
    std::string await(const std::string& requestToken, std::chrono::seconds time);

private:
    /// Whether the connection brought the answer, which it then puts into verifier.
    bool answer(Poco::Net::StreamSocket& socket, const std::string& requestToken,
                std::string& verifier) const;

    Poco::Net::ServerSocket socket_;
    const std::string path_;
};

}  // namespace flickr_app

#endif
