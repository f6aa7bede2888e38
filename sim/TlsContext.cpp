#include "sim/TlsContext.h"

#include <Poco/Exception.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

namespace flickr_sim {

namespace {

using Key = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;
using Certificate = std::unique_ptr<X509, void (*)(X509*)>;

void require(bool done, const char* step) {
    if (!done) throw Poco::RuntimeException(std::string("OpenSSL cannot make the certificate: ") + step);
}

Key newKey() {
    Key key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
    require(key != nullptr, "no key");
    return key;
}

void addExtension(X509* certificate, X509* issuer, int kind, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    const std::unique_ptr<X509_EXTENSION, void (*)(X509_EXTENSION*)> extension(
        X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()), &X509_EXTENSION_free);
    require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, value.c_str());
}

/// A certificate without extensions and signature; issuer null: its own. Its number is random: clients that
/// meet several simulators would otherwise hold two of one issuer for the same.
Certificate newCertificate(EVP_PKEY* key, const char* name, X509* issuer) {
    Certificate certificate(X509_new(), &X509_free);
    require(certificate != nullptr, "no certificate");
    std::uint64_t number = 0;
    require(RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof number) == 1, "no random numbers");
    X509_set_version(certificate.get(), X509_VERSION_3);
    ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()), number >> 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -24L * 3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 30L * 24 * 3600);
    X509_set_pubkey(certificate.get(), key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer ? issuer : certificate.get()));
    return certificate;
}

std::string toPem(X509* certificate) {
    const std::unique_ptr<BIO, int (*)(BIO*)> memory(BIO_new(BIO_s_mem()), &BIO_free);
    require(memory && PEM_write_bio_X509(memory.get(), certificate) == 1, "no PEM");
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    return std::string(text, static_cast<std::size_t>(length));
}

}  // namespace

TlsContext::TlsContext(const std::string& address, const std::vector<std::string>& furtherNames)
    : context_(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free) {
    require(context_ != nullptr, "no context");
    const Key authorityKey = newKey();
    const Certificate authority = newCertificate(authorityKey.get(), "flickr-sim authority", nullptr);
    addExtension(authority.get(), authority.get(), NID_basic_constraints, "critical,CA:TRUE");
    addExtension(authority.get(), authority.get(), NID_key_usage, "critical,keyCertSign");
    addExtension(authority.get(), authority.get(), NID_subject_key_identifier, "hash");
    require(X509_sign(authority.get(), authorityKey.get(), EVP_sha256()) > 0, "signature");
    authorityPem_ = toPem(authority.get());

    std::string names = "DNS:localhost,IP:" + address;
    for (const std::string& name : furtherNames) {
        const bool isAddress = name.find_first_not_of("0123456789.") == std::string::npos;
        names += (isAddress ? ",IP:" : ",DNS:") + name;
    }
    const Key key = newKey();
    const Certificate certificate = newCertificate(key.get(), "localhost", authority.get());
    addExtension(certificate.get(), authority.get(), NID_basic_constraints, "critical,CA:FALSE");
    addExtension(certificate.get(), authority.get(), NID_ext_key_usage, "serverAuth");
    addExtension(certificate.get(), authority.get(), NID_subject_alt_name, names);
    addExtension(certificate.get(), authority.get(), NID_authority_key_identifier, "keyid");
    require(X509_sign(certificate.get(), authorityKey.get(), EVP_sha256()) > 0, "signature");

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
