// TLS for the listener, with certificates made on the spot.

#ifndef SIM_TLSCONTEXT_H
#define SIM_TLSCONTEXT_H

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <vector>

namespace flickr_sim {

/// A server's TLS settings: a fresh authority, and a certificate that it has signed for "localhost", one
/// address and further names. Sessions can be resumed.
class TlsContext {
public:
    /// furtherNames: host names, or addresses in the form 10.0.0.1. Throws Poco::Exception when OpenSSL
    /// refuses.
    explicit TlsContext(const std::string& address, const std::vector<std::string>& furtherNames = {});

    /// The authority's certificate in PEM: what a client has to trust. Its key is gone.
    const std::string& authorityPem() const { return authorityPem_; }
    /// A new connection's state on a connected socket, or null.
    SSL* accept(int socket) const;

private:
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> context_;
    std::string authorityPem_;
};

}  // namespace flickr_sim

#endif
