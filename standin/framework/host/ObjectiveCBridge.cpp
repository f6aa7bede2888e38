#include "standin/framework/host/ObjectiveCBridge.h"

#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "hostapi/DevLogger.h"
#include "standin/framework/base/Cipher.h"
#include "standin/framework/base/Localisation.h"
#include "standin/framework/run/RunState.h"

using namespace flickr_standin;

namespace {

char* copyOf(const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy != nullptr) std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

/// The cipher of a pass phrase and a salt. The last one is kept: deriving its key takes long on purpose, and
/// a plug-in asks for the same one again and again.
std::shared_ptr<const Cipher> cipherOf(const std::string& passPhrase, const std::string& salt) {
    static std::mutex& mutex = *new std::mutex;
    static auto& last = *new std::pair<std::pair<std::string, std::string>, std::shared_ptr<const Cipher>>;
    const std::lock_guard<std::mutex> lock(mutex);
    const auto key = std::make_pair(passPhrase, salt);
    if (!last.second || last.first != key) last = {key, std::make_shared<const Cipher>(passPhrase, salt)};
    return last.second;
}

}  // namespace

char* NVServiceFolderName(const char* culture) {
    return copyOf(localisedServiceFolderName(culture));
}

int NVDeriveKey(const char* material, size_t length, const char* salt, unsigned char* key) {
    try {
        const std::string derived = cipherOf(std::string(material, length), salt)->key();
        if (derived.size() != NVKeyLength) return 0;
        std::memcpy(key, derived.data(), NVKeyLength);
        return 1;
    } catch (const std::exception&) {
        return 0;
    }
}

char* NVDecrypt(const char* passPhrase, const char* salt, const void* sealed, size_t length,
                size_t* plainLength) {
    try {
        const std::string plain =
            cipherOf(passPhrase, salt)->decrypt(std::string(static_cast<const char*>(sealed), length));
        *plainLength = plain.size();
        return copyOf(plain);
    } catch (const std::exception&) {
        return nullptr;
    }
}

void NVWriteLog(int isFailure, const char* message, const char* sourceFile, int line) {
    using namespace Norvale_Plugin_Core;
    DevLogger::writeLog(message, isFailure ? LogLevelFailure : LogLevelInformation, sourceFile, line);
}

int NVIsBackupStopped(void) {
    return isRunStopped();
}

void NVGetTotals(double* items, double* bytes) {
    *items = static_cast<double>(finishedItems());
    *bytes = static_cast<double>(writtenBytes());
}
