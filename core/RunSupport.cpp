#include "core/RunSupport.h"

#include <Poco/Ascii.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cstring>

namespace Norvale_Plugin_Flickr {

namespace {

/// Whether the text is made of ASCII letters, digits and the others, and not empty.
bool holdsOnly(const std::string& text, const char* others) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [&](unsigned char c) {
        return Poco::Ascii::isAlphaNumeric(c) || (c != 0 && std::strchr(others, c) != nullptr);
    });
}

}  // namespace

void wipe(std::string& secret) {
    OPENSSL_cleanse(secret.data(), secret.size());
    secret.clear();
}

bool fitsRequestLine(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c > 0x20 && c != 0x7f; });
}

bool fitsHost(const std::string& text) {
    return holdsOnly(text, ".-_:");
}

bool isId(const std::string& text) {
    return holdsOnly(text, "@_-");
}

std::string wholeCharacters(const std::string& text, std::size_t bytes) {
    if (text.size() <= bytes) return text;
    // Back over the bytes that continue a character, which has four at most.
    std::size_t end = bytes;
    while (end > 0 && bytes - end < 4 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80) --end;
    return text.substr(0, end);
}

std::streamsize readBlock(std::istream& body, char* block) {
    constexpr auto capacity = static_cast<std::streamsize>(kBlockSize);
    std::streamsize count = 0;
    while (count < capacity && body.good() && body.peek() != std::istream::traits_type::eof()) {
        // peek() waited for bytes from the peer; take what came, so that a stop is seen between them.
        const std::streamsize available = std::max<std::streamsize>(body.rdbuf()->in_avail(), 1);
        body.read(block + count, std::min(available, capacity - count));
        count += body.gcount();
        if (isStopped()) break;
    }
    return count;
}

}  // namespace Norvale_Plugin_Flickr
