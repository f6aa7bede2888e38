#include "standin/framework/run/Secrets.h"

#include <Poco/URI.h>

#include <algorithm>
#include <cctype>
#include <mutex>
#include <string_view>

#include "standin/framework/base/Cipher.h"

namespace flickr_standin {

namespace {

constexpr std::string_view kMask = "***";

// Never destroyed: threads of the plug-in's pool may outlast the statics of the program.
struct Secrets {
    std::mutex mutex;
    std::vector<std::string> texts;
};

Secrets& theSecrets() {
    static Secrets& instance = *new Secrets;
    return instance;
}

/// Replaces the value of every key=value in text, up to what ends a value in an address or a message.
void maskValues(std::string& text, std::string_view key) {
    for (std::string::size_type at = text.find(key); at != std::string::npos; at = text.find(key, at)) {
        at += key.size();
        const std::string::size_type end = std::min(text.find_first_of("&;#'\"<>() \t\r\n", at), text.size());
        text.replace(at, end - at, kMask);
    }
}

/// A letter or digit; bytes of other alphabets count as letters.
bool isWordByte(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x80 || std::isalnum(byte);
}

/// Whether text holds the secret at a place where it is a word of its own, not a part of one.
bool standsAlone(const std::string& text, std::size_t at, std::size_t size) {
    const std::size_t end = at + size;
    const bool joinedBefore = at > 0 && isWordByte(text[at]) && isWordByte(text[at - 1]);
    const bool joinedBehind = end < text.size() && isWordByte(text[end - 1]) && isWordByte(text[end]);
    return !joinedBefore && !joinedBehind;
}

/// Masks a secret wherever it stands. A short one can be a part of any word: it counts where it stands alone.
void maskSecret(std::string& text, const std::string& secret) {
    constexpr std::size_t kShort = 8;
    for (std::string::size_type at = text.find(secret); at != std::string::npos; at = text.find(secret, at)) {
        if (secret.size() < kShort && !standsAlone(text, at, secret.size())) {
            ++at;
        } else {
            text.replace(at, secret.size(), kMask);
            at += kMask.size();
        }
    }
}

}  // namespace

void setLogSecrets(std::vector<std::string> secrets) {
    // As they stand and as they stand in an address; longer ones first, so that none survives in a part.
    std::vector<std::string> all;
    for (std::string& secret : secrets) {
        if (secret.empty()) continue;
        std::string encoded;
        Poco::URI::encode(secret, "+/=&?#", encoded);
        if (encoded != secret) all.push_back(encoded);
        all.push_back(secret);
        wipe(encoded);
        wipe(secret);
    }
    std::sort(all.begin(), all.end(),
              [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
    const std::lock_guard<std::mutex> lock(theSecrets().mutex);
    theSecrets().texts.swap(all);
    for (std::string& former : all) wipe(former);
}

std::string maskSecrets(std::string text) {
    {
        const std::lock_guard<std::mutex> lock(theSecrets().mutex);
        for (const std::string& secret : theSecrets().texts) maskSecret(text, secret);
    }
    if (text.find('=') == std::string::npos) return text;
    for (const std::string_view key : {"auth_token=", "api_key=", "api_sig="}) maskValues(text, key);
    return text;
}

}  // namespace flickr_standin
