#include "sim/TlsContext.h"

#include <Poco/Exception.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>

namespace flickr_sim {

namespace {

void require(bool done, const char* step) {
    if (!done) throw Poco::RuntimeException(std::string("OpenSSL cannot make the certificate: ") + step);
}

}  // namespace

TlsContext::TlsContext(const std::string& address)
    : context_(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free) {
    require(context_ != nullptr, "no context");
    const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
    require(key != nullptr, "no key");
    const std::unique_ptr<X509, void (*)(X509*)> certificate(X509_new(), &X509_free);
    require(certificate != nullptr, "no certificate");

    X509_set_version(certificate.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 30L * 24 * 3600);
    X509_set_pubkey(certificate.get(), key.get());
    X509_NAME* name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("localhost"),
                               -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    const std::string names = "DNS:localhost,IP:" + address;
    const std::unique_ptr<X509_EXTENSION, void (*)(X509_EXTENSION*)> extension(
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, names.c_str()), &X509_EXTENSION_free);
    require(extension && X509_add_ext(certificate.get(), extension.get(), -1), "names");
    require(X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0, "signature");

    require(SSL_CTX_use_certificate(context_.get(), certificate.get()) == 1, "use of the certificate");
    require(SSL_CTX_use_PrivateKey(context_.get(), key.get()) == 1, "use of the key");
    static const unsigned char kSessions[] = "flickr-sim";
    SSL_CTX_set_session_id_context(context_.get(), kSessions, sizeof kSessions - 1);
    SSL_CTX_set_mode(context_.get(), SSL_MODE_AUTO_RETRY);
}

SSL* TlsContext::accept(int socket) const {
    SSL* tls = SSL_new(context_.get());
    if (tls == nullptr) return nullptr;
    SSL_set_fd(tls, socket);
    SSL_set_accept_state(tls);
    return tls;
}

}  // namespace flickr_sim
