// Connections to the service's content servers.

#ifndef CORE_MEDIASESSION_H
#define CORE_MEDIASESSION_H

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/URI.h>

#include <cstdint>
#include <istream>
#include <memory>
#include <streambuf>
#include <string>

namespace Norvale_Plugin_Flickr {

/// One request for a media file and its answer, over a connection of its own: plain for "http", TLS on port
/// 443 for "https".
///
/// Certificates are not verified. TLS settings are made once in the process, and a host's last TLS session is
/// offered to it again.
class MediaSession {
public:
    /// Whether there is a connection for the address's scheme.
    static bool supports(const Poco::URI& address);

    /// Prepares for an address of a supported scheme; url is the text from which it was parsed.
    MediaSession(const Poco::URI& address, const std::string& url);
    ~MediaSession();
    MediaSession(const MediaSession&) = delete;
    MediaSession& operator=(const MediaSession&) = delete;

    /// Sends the request and reads the answer's header. Throws Poco::Exception.
    const Poco::Net::HTTPResponse& exchange();

    /// The answer's body. Its badbit tells a body that broke off from one that ended. Throws as
    /// contentLength() does.
    std::istream& body();

    /// The number of bytes that the answer announces for its body, -1 when it announces none. Throws
    /// Poco::Exception for an announcement that makes no sense.
    std::int64_t contentLength() const;

    /// Throws what broke the connection while the body was read, when something did.
    void rethrowNetworkFailure() const;

private:
    std::unique_ptr<Poco::Net::HTTPClientSession> session_;
    std::string host_;
    std::string target_;
    Poco::Net::HTTPResponse response_;
    std::unique_ptr<std::streambuf> bodyBuffer_;
    std::unique_ptr<std::istream> body_;
};

}  // namespace Norvale_Plugin_Flickr

#endif
