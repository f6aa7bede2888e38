#include "host/CoreBridge.h"

#include <cstring>
#include <mutex>

#include "core/FlickrPluginCore.h"
#include "hostapi/Conventions.h"

namespace flickr = Norvale_Plugin_Flickr;

namespace {

static_assert(FlickrCoreSuccess == Norvale_Plugin_Core::kSuccess, "the core answers with it");
static_assert(FlickrVideoListCapacity == flickr::kVideoListCapacity, "the core writes as much");
static_assert(FlickrTextCapacity == flickr::kTextCapacity, "the core writes as much");

struct {
    std::mutex mutex;
    void* handle = nullptr;
    int backups = 0;  // between their first step and their last
} core;

// The entry functions take writable texts and only read them.
char* text(const char* constant) {
    return const_cast<char*>(constant);
}

int fail(int status, const char* reason, char* error) {
    if (error != nullptr) std::strcpy(error, reason);
    return status;
}

// With the lock held.
void destroyUnlessInUse(char* error) {
    if (core.handle == nullptr || core.backups > 0) return;
    void* handle = core.handle;
    core.handle = nullptr;
    flickr::deleteObject(handle, error);
}

}  // namespace

int FlickrCoreCreate(const char* logDirectory, const char* configDirectory, char* error) {
    std::lock_guard<std::mutex> lock(core.mutex);
    if (core.handle != nullptr) return 0;
    core.handle = flickr::createObject(text(logDirectory), text(configDirectory), error);
    return 1;
}

int FlickrCoreExists(void) {
    std::lock_guard<std::mutex> lock(core.mutex);
    return core.handle != nullptr;
}

void FlickrCoreEnter(void) {
    std::lock_guard<std::mutex> lock(core.mutex);
    ++core.backups;
}

void FlickrCoreLeave(char* error) {
    std::lock_guard<std::mutex> lock(core.mutex);
    --core.backups;
    destroyUnlessInUse(error);
}

int FlickrCoreIsBusy(void) {
    std::lock_guard<std::mutex> lock(core.mutex);
    return core.handle != nullptr || core.backups > 0;
}

void FlickrCoreDiscard(char* error) {
    std::lock_guard<std::mutex> lock(core.mutex);
    destroyUnlessInUse(error);
}

int FlickrCoreGetText(FlickrCoreText which, char* out, char* error) {
    using Getter = int (*)(void*, char*, char*);
    // In the order of FlickrCoreText.
    static constexpr Getter getters[] = {flickr::getName,
                                         flickr::getVersion,
                                         flickr::getId,
                                         flickr::getTargetHostVersion,
                                         flickr::getAutheticationMechanism,
                                         flickr::getServiceCEK,
                                         flickr::getLegend,
                                         flickr::getApiKey,
                                         flickr::getApiSecret,
                                         flickr::getSupportedDataTypes};
    static_assert(sizeof getters / sizeof *getters == FlickrCoreSupportedDataTypes + 1, "one for each text");

    std::lock_guard<std::mutex> lock(core.mutex);
    if (core.handle == nullptr)
        return fail(flickr::kRunFailed, "The plug-in has not been initialised.", error);
    return getters[which](core.handle, out, error);
}

int FlickrCoreGetProgress(double* count, double* size, char* error) {
    // Destroying the core releases the totals too.
    std::lock_guard<std::mutex> lock(core.mutex);
    return flickr::getProgress(*count, *size, error);
}

int FlickrCoreStop(char* error) {
    std::lock_guard<std::mutex> lock(core.mutex);
    if (core.handle == nullptr) return FlickrCoreSuccess;
    return flickr::stopBackup(core.handle, error);
}

int FlickrCoreBackup(const FlickrBackupArguments* arguments) {
    const FlickrBackupArguments& a = *arguments;
    void* handle;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        handle = core.handle;
    }
    if (handle == nullptr) return fail(flickr::kRunFailed, "The plug-in has not been initialised.", a.error);
    // The core is not locked meanwhile: stop requests come from other threads.
    return flickr::backup(handle, text(a.connection), text(a.authToken), text(a.backupFrom), text(a.apiKey),
                          text(a.apiSecret), text(a.dataTypes), a.videoList, text(a.serviceFolder),
                          text(a.cek), text(a.mountPoint), a.isPrimaryMode != 0, text(a.culture), a.error);
}
