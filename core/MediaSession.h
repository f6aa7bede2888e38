// Connections to the service's content servers.

#ifndef CORE_MEDIASESSION_H
#define CORE_MEDIASESSION_H

#include <Poco/URI.h>

#include <string>

#include "core/HttpExchange.h"

namespace Norvale_Plugin_Flickr {

/// One request for a media file and its answer, over a connection of its own: plain for "http", TLS on port
/// 443 for "https".
///
/// Certificates are not verified. TLS settings are made once in the process, and a host's last TLS session is
/// offered to it again.
class MediaSession : public HttpExchange {
public:
    /// Whether there is a connection for the address's scheme.
    static bool supports(const Poco::URI& address);

    /// Prepares for an address of a supported scheme; url is the text from which it was parsed.
    MediaSession(const Poco::URI& address, const std::string& url);
    ~MediaSession() override;
};

}  // namespace Norvale_Plugin_Flickr

#endif
