// TLS for the listener, with a certificate made on the spot.

#ifndef SIM_TLSCONTEXT_H
#define SIM_TLSCONTEXT_H

#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace flickr_sim {

/// A server's TLS settings with a fresh key and a certificate for "localhost" and one address, signed by
/// itself. Sessions can be resumed.
class TlsContext {
public:
    /// Throws Poco::Exception when OpenSSL refuses.
    explicit TlsContext(const std::string& address);

    /// A new connection's state on a connected socket, or null.
    SSL* accept(int socket) const;

private:
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> context_;
};

}  // namespace flickr_sim

#endif
