#include "sim/OAuthSignature.h"

#include <Poco/String.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>

namespace flickr_sim {

namespace {

/// What a "+" stands for.
enum class Plus { Itself, Blank };

std::string oauthDecode(const std::string& text, Plus plus) {
    const auto digit = [](char c) {
        if (c >= '0' && c <= '9') return c - '0';
        c = static_cast<char>(c | 0x20);
        return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    };
    std::string decoded;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '%' && at + 2 < text.size() && digit(text[at + 1]) >= 0 && digit(text[at + 2]) >= 0) {
            decoded += static_cast<char>(digit(text[at + 1]) * 16 + digit(text[at + 2]));
            at += 2;
        } else {
            decoded += plus == Plus::Blank && text[at] == '+' ? ' ' : text[at];
        }
    }
    return decoded;
}

/// The address without its query; a port is part of it unless it is the scheme's own.
std::string baseAddress(const Request& request) {
    std::string host = Poco::toLower(request.header("Host"));
    const std::string usual = request.https ? ":443" : ":80";
    if (host.size() > usual.size() && host.compare(host.size() - usual.size(), usual.size(), usual) == 0) {
        host.resize(host.size() - usual.size());
    }
    return (request.https ? "https://" : "http://") + host + request.path;
}

}  // namespace

std::string oauthEncode(const std::string& text) {
    std::string encoded;
    for (const char c : text) {
        const bool isLetter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        if (isLetter || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == '~') {
            encoded += c;
        } else {
            encoded += '%';
            encoded += "0123456789ABCDEF"[static_cast<unsigned char>(c) >> 4];
            encoded += "0123456789ABCDEF"[c & 15];
        }
    }
    return encoded;
}

OAuthParameters::OAuthParameters(const Request& request) {
    const std::size_t question = request.target.find('?');
    if (question != std::string::npos) addForm(request.target.substr(question + 1));
    if (request.hasForm()) addForm(request.body);
    addHeader(request.header("Authorization"));
}

void OAuthParameters::addForm(const std::string& form) {
    for (std::size_t start = 0; start < form.size();) {
        const std::size_t end = std::min(form.find('&', start), form.size());
        const std::size_t equals = std::min(form.find('=', start), end);
        if (end > start) {
            pairs_.emplace_back(oauthDecode(form.substr(start, equals - start), Plus::Blank),
                                equals < end
                                    ? oauthDecode(form.substr(equals + 1, end - equals - 1), Plus::Blank)
                                    : std::string());
        }
        start = end + 1;
    }
}

void OAuthParameters::addHeader(const std::string& authorization) {
    // OAuth realm="…", oauth_consumer_key="…", …
    if (Poco::icompare(authorization, 0, 6, std::string("OAuth ")) != 0) return;
    for (std::size_t start = 6; start < authorization.size();) {
        const std::size_t end = std::min(authorization.find(',', start), authorization.size());
        const std::string part = Poco::trim(authorization.substr(start, end - start));
        const std::size_t equals = part.find("=\"");
        if (equals != std::string::npos && part.size() > equals + 2 && part.back() == '"') {
            const std::string name = oauthDecode(part.substr(0, equals), Plus::Itself);
            const std::string value = part.substr(equals + 2, part.size() - equals - 3);
            if (name != "realm") pairs_.emplace_back(name, oauthDecode(value, Plus::Itself));
        }
        start = end + 1;
    }
}

std::string OAuthParameters::value(const std::string& name) const {
    const auto found =
        std::find_if(pairs_.begin(), pairs_.end(), [&](const auto& pair) { return pair.first == name; });
    return found == pairs_.end() ? std::string() : found->second;
}

bool OAuthParameters::has(const std::string& name) const {
    return std::any_of(pairs_.begin(), pairs_.end(), [&](const auto& pair) { return pair.first == name; });
}

std::string OAuthParameters::baseString(const Request& request) const {
    std::vector<std::pair<std::string, std::string>> encoded;
    for (const auto& [name, value] : pairs_) {
        if (name != "oauth_signature") encoded.emplace_back(oauthEncode(name), oauthEncode(value));
    }
    std::sort(encoded.begin(), encoded.end());
    std::string joined;
    for (const auto& [name, value] : encoded) {
        joined += joined.empty() ? "" : "&";
        joined += name + '=' + value;
    }
    return Poco::toUpper(request.verb) + '&' + oauthEncode(baseAddress(request)) + '&' + oauthEncode(joined);
}

std::string oauthSignature(const std::string& baseString, const std::string& applicationSecret,
                           const std::string& tokenSecret) {
    const std::string key = oauthEncode(applicationSecret) + '&' + oauthEncode(tokenSecret);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()),
         reinterpret_cast<const unsigned char*>(baseString.data()), baseString.size(), digest, &length);
    unsigned char text[2 * EVP_MAX_MD_SIZE];
    const int size = EVP_EncodeBlock(text, digest, static_cast<int>(length));
    return std::string(reinterpret_cast<const char*>(text), static_cast<std::size_t>(size));
}

}  // namespace flickr_sim
