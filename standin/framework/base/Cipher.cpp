#include "standin/framework/base/Cipher.h"

#include <Poco/Exception.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <climits>
#include <memory>

namespace flickr_standin {
namespace {

// Rounds make guessing a pass phrase slow. Without one there is nothing to guess: the key follows from the
// salt.
constexpr int kRounds = 100000;
constexpr int kRoundsWithoutPassPhrase = 1;
constexpr std::size_t kKeyBytes = 32;
constexpr std::size_t kNonceBytes = 12;
constexpr std::size_t kTagBytes = 16;

unsigned char* bytes(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

const unsigned char* bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

void require(bool done, const char* step) {
    if (!done) throw Poco::RuntimeException(std::string("The cryptographic library could not ") + step);
}

using Context = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

Context newContext() {
    Context context(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
    require(context != nullptr, "start");
    return context;
}

// The library counts in int.
int lengthOf(std::size_t length) {
    if (length > INT_MAX - kNonceBytes - kTagBytes) {
        throw Poco::InvalidArgumentException("The text is too long to be enciphered");
    }
    return static_cast<int>(length);
}

std::string deriveKey(const std::string& passPhrase, const std::string& salt) {
    const int rounds = passPhrase.empty() ? kRoundsWithoutPassPhrase : kRounds;
    std::string key(kKeyBytes, '\0');
    require(
        PKCS5_PBKDF2_HMAC(passPhrase.data(), lengthOf(passPhrase.size()), bytes(salt), lengthOf(salt.size()),
                          rounds, EVP_sha256(), static_cast<int>(kKeyBytes), bytes(key)) == 1,
        "derive a key");
    return key;
}

}  // namespace

void wipe(std::string& text) {
    text.resize(text.capacity());  // stays where it is
    OPENSSL_cleanse(text.data(), text.size());
    text.clear();
}

Cipher::Cipher(const std::string& passPhrase, const std::string& salt) : key_(deriveKey(passPhrase, salt)) {}

Cipher::~Cipher() {
    wipe(key_);
}

std::string Cipher::encrypt(const std::string& plain) const {
    const int length = lengthOf(plain.size());
    std::string sealed(kNonceBytes + plain.size() + kTagBytes, '\0');
    unsigned char* const nonce = bytes(sealed);
    unsigned char* const body = nonce + kNonceBytes;
    unsigned char* const tag = body + plain.size();

    const Context context = newContext();
    int written = 0;
    require(RAND_bytes(nonce, static_cast<int>(kNonceBytes)) == 1, "make a random number");
    require(
        EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, bytes(key_), nonce) == 1 &&
            EVP_EncryptUpdate(context.get(), body, &written, bytes(plain), length) == 1 &&
            EVP_EncryptFinal_ex(context.get(), body + written, &written) == 1 &&
            EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(kTagBytes), tag) == 1,
        "encipher the text");
    return sealed;
}

std::string Cipher::decrypt(const std::string& sealed) const {
    if (sealed.size() < kNonceBytes + kTagBytes) {
        throw Poco::DataFormatException("The text is too short to be an enciphered one");
    }
    const std::size_t plainBytes = sealed.size() - kNonceBytes - kTagBytes;
    const int length = lengthOf(plainBytes);
    std::string tag = sealed.substr(kNonceBytes + plainBytes);
    std::string plain(plainBytes, '\0');

    const Context context = newContext();
    int written = 0;
    require(EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, bytes(key_), bytes(sealed)) == 1 &&
                EVP_DecryptUpdate(context.get(), bytes(plain), &written, bytes(sealed) + kNonceBytes,
                                  length) == 1 &&
                EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(kTagBytes),
                                    tag.data()) == 1,
            "decipher the text");
    if (EVP_DecryptFinal_ex(context.get(), bytes(plain) + written, &written) != 1) {
        wipe(plain);
        throw Poco::DataFormatException("The enciphered text was changed or was enciphered with another key");
    }
    return plain;
}

}  // namespace flickr_standin
