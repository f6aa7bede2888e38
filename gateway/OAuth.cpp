#include "gateway/OAuth.h"

#include <Poco/Base64Encoder.h>
#include <Poco/DigestEngine.h>
#include <Poco/Exception.h>
#include <Poco/HMACEngine.h>
#include <Poco/SHA1Engine.h>
#include <Poco/String.h>
#include <Poco/URI.h>
#include <openssl/crypto.h>
#include <sys/random.h>

#include <algorithm>
#include <ctime>
#include <sstream>

namespace flickr_gateway {

namespace {

bool isUnreserved(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

/// Scheme and host in lower case, without the scheme's own port (RFC 5849, 3.4.1.2).
std::string baseAddress(const std::string& address) {
    const Poco::URI uri(address);
    std::string text = Poco::toLower(uri.getScheme()) + "://" + Poco::toLower(uri.getHost());
    const unsigned short port = uri.getPort();
    if (port != Poco::URI(uri.getScheme() + "://host").getPort()) text += ":" + std::to_string(port);
    return text + (uri.getPath().empty() ? "/" : uri.getPath());
}

}  // namespace

OAuthKeys::~OAuthKeys() {
    for (std::string* secret : {&apiKey, &apiSecret, &token, &tokenSecret}) {
        OPENSSL_cleanse(secret->data(), secret->size());
    }
}

std::string percentEncode(const std::string& text) {
    std::string encoded;
    for (const char c : text) {
        if (isUnreserved(c)) {
            encoded += c;
        } else {
            encoded += '%';
            encoded += "0123456789ABCDEF"[static_cast<unsigned char>(c) >> 4];
            encoded += "0123456789ABCDEF"[static_cast<unsigned char>(c) & 15];
        }
    }
    return encoded;
}

std::string queryOf(const Parameters& parameters) {
    std::string query;
    for (const auto& [name, value] : parameters) {
        if (!query.empty()) query += '&';
        query += percentEncode(name) + '=' + percentEncode(value);
    }
    return query;
}

std::string signatureBase(const std::string& method, const std::string& address, Parameters parameters) {
    for (auto& [name, value] : parameters) {
        name = percentEncode(name);
        value = percentEncode(value);
    }
    std::sort(parameters.begin(), parameters.end());
    std::string joined;
    for (const auto& [name, value] : parameters) {
        if (!joined.empty()) joined += '&';
        joined += name + '=' + value;
    }
    return method + '&' + percentEncode(baseAddress(address)) + '&' + percentEncode(joined);
}

std::string signatureOf(const std::string& base, const std::string& apiSecret,
                        const std::string& tokenSecret) {
    std::string key = percentEncode(apiSecret) + '&' + percentEncode(tokenSecret);
    Poco::HMACEngine<Poco::SHA1Engine> hmac(key);
    OPENSSL_cleanse(key.data(), key.size());
    hmac.update(base);
    const Poco::DigestEngine::Digest& digest = hmac.digest();
    std::ostringstream text;
    Poco::Base64Encoder encoder(text);
    encoder.rdbuf()->setLineLength(0);
    encoder.write(reinterpret_cast<const char*>(digest.data()), static_cast<std::streamsize>(digest.size()));
    encoder.close();
    return text.str();
}

std::string authorizationOf(const OAuthKeys& keys, const std::string& address, const Parameters& query,
                            Parameters protocol) {
    protocol.emplace_back("oauth_consumer_key", keys.apiKey);
    protocol.emplace_back("oauth_nonce", randomHex(16));
    protocol.emplace_back("oauth_signature_method", "HMAC-SHA1");
    protocol.emplace_back("oauth_timestamp", std::to_string(std::time(nullptr)));
    if (!keys.token.empty()) protocol.emplace_back("oauth_token", keys.token);
    protocol.emplace_back("oauth_version", "1.0");

    Parameters all = query;
    all.insert(all.end(), protocol.begin(), protocol.end());
    protocol.emplace_back("oauth_signature", signatureOf(signatureBase("GET", address, std::move(all)),
                                                         keys.apiSecret, keys.tokenSecret));
    std::string header = "OAuth ";
    for (const auto& [name, value] : protocol) {
        if (header.back() != ' ') header += ", ";
        header += percentEncode(name) + "=\"" + percentEncode(value) + '"';
    }
    return header;
}

std::string randomHex(std::size_t bytes) {
    Poco::DigestEngine::Digest random(bytes);
    if (::getrandom(random.data(), bytes, 0) != static_cast<ssize_t>(bytes)) {
        throw Poco::SystemException("The system gives no random numbers.");
    }
    return Poco::DigestEngine::digestToHex(random);
}

}  // namespace flickr_gateway
