// The one cipher of the host: API key and secret in the configuration file, and the host's security service.
//
//   sealed text = nonce (12 bytes) + AES-256-GCM ciphertext (as long as the plain text) + tag (16 bytes)
//   key         = PBKDF2-HMAC-SHA256(pass phrase, salt, rounds), 32 bytes; 100,000 rounds, or
//                 one where the pass phrase is empty
//
// The nonce is random, so the same text is sealed differently each time. The tag covers everything: a text
// that was changed in any bit, or that was sealed with another key, is refused and never deciphered to
// something else.
//
// A pass phrase may be empty. The key then depends on the salt alone, and whoever has the program can
// compute it: that hides a text from a casual look and from searches, and protects it from nobody.

#ifndef STANDIN_FRAMEWORK_BASE_CIPHER_H
#define STANDIN_FRAMEWORK_BASE_CIPHER_H

#include <string>

namespace flickr_standin {

/// Overwrites the memory of a text that was secret, and empties it.
void wipe(std::string& text);

/// Seals and opens texts of any bytes with one key. Safe to use from several threads.
class Cipher {
public:
    /// Takes tens of milliseconds, on purpose. Throws Poco::Exception when the library cannot compute the
    /// key.
    Cipher(const std::string& passPhrase, const std::string& salt);
    /// Overwrites the key.
    ~Cipher();
    Cipher(const Cipher&) = delete;
    Cipher& operator=(const Cipher&) = delete;

    /// 28 bytes longer than the plain text.
    std::string encrypt(const std::string& plain) const;

    /// Throws Poco::DataFormatException, with a sentence, when the text was not sealed with this key or was
    /// changed since.
    std::string decrypt(const std::string& sealed) const;

    /// The 32 bytes of the key.
    const std::string& key() const { return key_; }

private:
    std::string key_;
};

}  // namespace flickr_standin

#endif
