#include "host/CoreBridge.h"

#include <cstring>
#include <mutex>

#include "core/FlickrPluginCore.h"

namespace flickr = Norvale_Plugin_Flickr;

namespace {

constexpr int kSuccess = 1;
constexpr int kFailed = 511;

static_assert(FlickrVideoListCapacity == flickr::kVideoListCapacity, "the core writes as much");
static_assert(FlickrTextCapacity == flickr::kTextCapacity, "the core writes as much");

struct {
    std::mutex mutex;
    void* handle = nullptr;
    FlickrCoreNumber number = 0;  // of the core made last
    int backups = 0;              // that work with the core now
} core;

// The entry functions take writable texts and only read them.
char* text(const char* constant) {
    return const_cast<char*>(constant);
}

int fail(int status, const char* reason, char* error) {
    if (error != nullptr) std::strcpy(error, reason);
    return status;
}

/// Counts a backup for as long as it lives, so that its core stays.
class BackupInProgress {
public:
    BackupInProgress() {
        std::lock_guard<std::mutex> lock(core.mutex);
        handle_ = core.handle;
        ++core.backups;
    }
    ~BackupInProgress() {
        std::lock_guard<std::mutex> lock(core.mutex);
        --core.backups;
    }
    BackupInProgress(const BackupInProgress&) = delete;
    BackupInProgress& operator=(const BackupInProgress&) = delete;
    void* handle() const { return handle_; }

private:
    void* handle_;
};

}  // namespace

FlickrCoreNumber FlickrCoreCreate(const char* logDirectory, const char* configDirectory, char* error) {
    std::lock_guard<std::mutex> lock(core.mutex);
    if (core.handle == nullptr) {
        core.handle = flickr::createObject(text(logDirectory), text(configDirectory), error);
        ++core.number;
    }
    return core.number;
}

FlickrCoreNumber FlickrCoreCurrent(void) {
    std::lock_guard<std::mutex> lock(core.mutex);
    return core.handle != nullptr ? core.number : 0;
}

void FlickrCoreDestroy(FlickrCoreNumber number, char* error) {
    std::lock_guard<std::mutex> lock(core.mutex);
    if (core.handle == nullptr || core.number != number || core.backups > 0) return;
    void* handle = core.handle;
    core.handle = nullptr;
    flickr::deleteObject(handle, error);
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
    if (core.handle == nullptr) return fail(kFailed, "The plug-in has not been initialised.", error);
    return getters[which](core.handle, out, error);
}

int FlickrCoreGetProgress(double* count, double* size, char* error) {
    // Destroying the core releases the totals too.
    std::lock_guard<std::mutex> lock(core.mutex);
    return flickr::getProgress(*count, *size, error);
}

int FlickrCoreStop(char* error) {
    std::lock_guard<std::mutex> lock(core.mutex);
    if (core.handle == nullptr) return kSuccess;
    return flickr::stopBackup(core.handle, error);
}

int FlickrCoreBackup(const FlickrBackupArguments* arguments) {
    const FlickrBackupArguments& a = *arguments;
    // The core is not locked meanwhile: stop requests come from other threads.
    const BackupInProgress backup;
    if (backup.handle() == nullptr) return fail(kFailed, "The plug-in has not been initialised.", a.error);
    return flickr::backup(backup.handle(), text(a.connection), text(a.authToken), text(a.backupFrom),
                          text(a.apiKey), text(a.apiSecret), text(a.dataTypes), a.videoList,
                          text(a.serviceFolder), text(a.cek), text(a.mountPoint), a.isPrimaryMode != 0,
                          text(a.culture), a.error);
}
