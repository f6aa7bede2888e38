#include "standin/framework/ObjectiveCBridge.h"

#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "hostapi/DevLogger.h"
#include "hostapi/HostServiceUsageParams.h"
#include "standin/framework/Cipher.h"
#include "standin/framework/Localisation.h"

using namespace Norvale_Plugin_Core;

namespace {

char* copyOf(const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy != nullptr) std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

}  // namespace

char* NVServiceFolderName(const char* culture) {
    return copyOf(localisedServiceFolderName(culture));
}

int NVDeriveKey(const char* material, size_t length, const char* salt, unsigned char* key) {
    try {
        const std::string derived = deriveKey(std::string(material, length), salt);
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
        const Cipher cipher(passPhrase, salt);
        const std::string plain = cipher.decrypt(std::string(static_cast<const char*>(sealed), length));
        *plainLength = plain.size();
        return copyOf(plain);
    } catch (const std::exception&) {
        return nullptr;
    }
}

void NVWriteLog(int isFailure, const char* message, const char* sourceFile, int line) {
    DevLogger::writeLog(message, isFailure ? LogLevelFailure : LogLevelInformation, sourceFile, line);
}

int NVIsBackupStopped(void) {
    return HostServiceUsageParams::getInstance()->isBackupStopped();
}

void NVGetTotals(double* items, double* bytes) {
    *items = HostServiceUsageParams::getInstance()->getTotalCount();
    *bytes = HostServiceUsageParams::getInstance()->getTotalSize();
}
