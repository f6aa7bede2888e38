#include "core/FlickrPluginCore.h"

#include <Poco/Exception.h>
#include <Poco/ThreadPool.h>

#include <algorithm>
#include <cstring>

#include "core/DownloadPhotoSetListActivity.h"
#include "core/FlickrDbInterface.h"
#include "core/PhotoSetProcessor.h"
#include "core/RunSupport.h"
#include "core/StopWatcher.h"
#include "hostapi/Conventions.h"
#include "hostapi/HostServiceClientMac.h"
#include "hostapi/HostServiceUsageParams.h"

namespace Norvale_Plugin_Flickr {

using Norvale_Plugin_Core::HostServiceUsageParams;
using Norvale_Plugin_Core::kSuccess;

namespace {

constexpr const char* kAsteriskRow = "******************************************************";
constexpr const char* kKeywords =
    "HarbourlineKey||FlickrKey||ThumbnailKey||Sun||Mon||Tue||Wed||Thu||Fri||Sat||Jan||Feb||Mar||Apr||May||"
    "Jun||Jul||Aug||Sep||Oct||Nov||Dec||AM||PM||";
constexpr int kDeviceParameter = 1;

FlickrPluginCore& coreOf(void* core) {
    return *static_cast<FlickrPluginCore*>(core);
}

/// Copies as many whole characters of the text as fit with its NUL.
void copyText(const std::string& text, char* out, std::size_t capacity) {
    if (out == nullptr) return;
    const std::string whole = wholeCharacters(text, capacity - 1);
    std::memcpy(out, whole.c_str(), whole.size() + 1);
}

/// What the user selected, "Images;Videos;", as the media choice of the activities. An entry counts only with
/// the ";" behind it.
std::string mediaChoice(std::string dataTypes) {
    if (dataTypes.empty()) return "";
    const auto entries = std::count(dataTypes.begin(), dataTypes.end(), ';');
    logInfo("User Selected Data Types - " + dataTypes);

    bool images = false;
    bool videos = false;
    for (auto i = entries; i > 0; --i) {
        const std::string::size_type end = dataTypes.find(';');
        const std::string entry = dataTypes.substr(0, end);
        images = images || entry == "Images";
        videos = videos || entry == "Videos";
        dataTypes.erase(0, end + 1);
    }
    if (images && videos) return "all";
    if (images) return "photo";
    return videos ? "video" : "";
}

/// Reports the videos as far as whole entries fit the caller's buffer, which stays as it is when there are
/// none.
void reportVideos(const std::multimap<Poco::DateTime, Photo>& videos, char* out) {
    std::string list;
    std::size_t leftOut = 0;
    for (const auto& [updated, video] : videos) {
        const std::string entry = video.getImagePath() + "|" + video.getPhotoSet().getTitle() + "|" +
                                  video.getPhotoTitle() + ".mp4" + "|" + video.getPhotoID() + ";";
        if (leftOut == 0 && list.size() + entry.size() < kVideoListCapacity) {
            list += entry;
        } else {
            ++leftOut;
        }
    }
    if (!list.empty()) copyText(list, out, kVideoListCapacity);
    if (leftOut > 0) {
        logFailure("The video list is full, entries left out: " + std::to_string(leftOut));
    }
}

/// Hands on the host's culture text. It also carries its keywords, so both setters get it.
void setCulture(const std::string& culture) {
    HostServiceUsageParams::getInstance()->setKeywords(culture);
    HostServiceUsageParams::getInstance()->setCulture(culture);
    logInfo("Flickr KeyWords Received - " + culture);
}

/// Reads a setting that no run can do without. Returns the configuration's status.
int readSetting(FlickrPluginCore& plugin, const char* key, std::string& value, char* errorOut) {
    char text[kTextCapacity] = "";
    const int status = plugin.getValueString(key, text, errorOut);
    value = text;
    return status;
}

/// Has the photo sets listed. False when they could not be had; the run is closed in the log then.
bool listSets(const FlickrPluginCore& plugin, const std::string& dataUrl, const Poco::DateTime& since,
              DownloadPhotoSetListActivity& list) {
    list.setData(dataUrl, plugin.getAuthToken(), plugin.getApiKey(), plugin.getApiSecret(), since,
                 plugin.getMediaToBackup());
    list.start();
    Poco::ThreadPool::defaultPool().joinAll();
    list.stop();
    if (list.getDataTypeBackupStatus()) return true;
    logInfo("Photos/Videos is not Backedup Successfully.");
    logInfo("Flickr Backup Finished.");
    logInfo(kAsteriskRow);
    return false;
}

/// Backs the sets up. Returns the videos met.
std::multimap<Poco::DateTime, Photo> backUpSets(FlickrPluginCore& plugin, const std::string& dataUrl,
                                                const Poco::DateTime& since,
                                                std::multimap<std::string, PhotoSet> sets) {
    std::string name;
    PhotoSetProcessor processor(name);
    processor.initialize(plugin.getDBConnectionString(), plugin.getAuthToken(), plugin.getApiKey(),
                         plugin.getApiSecret(), dataUrl, plugin.getMediaToBackup());
    std::multimap<Poco::DateTime, Photo> videos = processor.processPhotoSet(std::move(sets), since);
    plugin.setVideoMap(videos);
    return videos;
}

/// The end of a run that got as far as its photo sets: its status, by what the host recorded for it.
int closeRun(char* errorOut) {
    HostServiceUsageParams* params = HostServiceUsageParams::getInstance();
    std::string text;
    if (params->isManuallyStopped()) {
        logInfo("Flickr Backup Finished.");
        logInfo(kAsteriskRow);
        int code = kSuccess;
        params->getErrorDetails(code, text);
        return code < kSuccess ? kSuccess : kRunFailed;
    }
    // Also the way of a run that ended well: the host's code tells the two apart.
    int code = kSuccess;
    params->getErrorDetails(code, text);
    copyText(text, errorOut, kTextCapacity);
    logInfo("Backup stopped due to catastrophic exception. Error Info - " + text + "Error code - " +
            std::to_string(code));
    logInfo(kAsteriskRow);
    return code;
}

/// The end of a run that an exception ended: its status.
int closeAfter(Poco::Exception& exception, FlickrPluginCore& plugin, char* errorOut) {
    plugin.handleException(kServiceName, exception,
                           "Exception occurred in Backup() : " + exception.displayText());
    copyText(plugin.getExceptionDetails(), errorOut, kTextCapacity);
    logInfo(kAsteriskRow);
    return plugin.getExceptionCode();
}

}  // namespace

FlickrPluginCore::FlickrPluginCore(std::string logDirectory, std::string configDirectory)
    : PluginCore(configDirectory + "Flickr_plugin_config.xml", logDirectory + "/" + "NVHLDevLog.log") {
    setAuthToken("");
    initialize();
}

FlickrPluginCore::~FlickrPluginCore() {
    for (std::string* secret : {&authToken_, &apiKey_, &apiSecret_}) wipe(*secret);
}

void FlickrPluginCore::initialize() {}

std::string FlickrPluginCore::ToString(char* text) {
    return text == nullptr ? std::string() : text;
}

void* createObject(char* logDirectory, char* configDirectory, char* /*error*/) {
    auto* core = new FlickrPluginCore(FlickrPluginCore::ToString(logDirectory),
                                      FlickrPluginCore::ToString(configDirectory));
    logInfo(kAsteriskRow);
    logInfo("Flickr plugin loaded Successfully.");
    return core;
}

int deleteObject(void* core, char* /*error*/) {
    HostServiceUsageParams::getInstance()->release();
    delete static_cast<FlickrPluginCore*>(core);
    return kSuccess;
}

int getName(void* core, char* out, char* error) {
    return coreOf(core).getName(out, error);
}

int getId(void* core, char* out, char* error) {
    return coreOf(core).getId(out, error);
}

int getSupportedDataTypes(void* core, char* out, char* error) {
    return coreOf(core).getSupportedDataTypes(out, error);
}

int getAutheticationMechanism(void* core, char* out, char* error) {
    return coreOf(core).getAutheticationMechanism(out, error);
}

int getVersion(void* core, char* out, char* error) {
    const int status = coreOf(core).getVersion(out, error);
    logInfo("Plugin Version: " + FlickrPluginCore::ToString(out));
    logInfo(kAsteriskRow);
    return status;
}

int getTargetHostVersion(void* core, char* out, char* error) {
    const int status = coreOf(core).getTargetHostVersion(out, error);
    logInfo("Plugin Target Host Version: " + FlickrPluginCore::ToString(out));
    return status;
}

int getServiceCEK(void* core, char* out, char* error) {
    return coreOf(core).getValueString("plugin.CEK", out, error);
}

int getLegend(void* core, char* out, char* error) {
    return coreOf(core).getValueString("plugin.legend", out, error);
}

int getApiKey(void* core, char* out, char* error) {
    return coreOf(core).getValueString("plugin.apiKey", out, error);
}

int getApiSecret(void* core, char* out, char* error) {
    return coreOf(core).getValueString("plugin.apiSecret", out, error);
}

void getKeywords(char* out) {
    copyText(kKeywords, out, kTextCapacity);
    logInfo(std::string("Flickr KeyWords Sent - ") + kKeywords);
}

int getProgress(double& totalCount, double& totalSize, char* /*error*/) {
    totalCount = HostServiceUsageParams::getInstance()->getTotalCount();
    totalSize = HostServiceUsageParams::getInstance()->getTotalSize();
    return kSuccess;
}

int authenticate(void* /*core*/, char* /*a*/, char* /*b*/, char* /*c*/) {
    return kSuccess;
}

int saveVideoBackupMetadata(void* /*core*/, char* /*a*/, bool /*b*/, char* /*c*/) {
    return kSuccess;
}

int stopBackup(void* /*core*/, char* /*error*/) {
    logInfo("Stop backup called Plugin core: ");
    HostServiceUsageParams::getInstance()->setBackupState(true);
    return kSuccess;
}

int backup(void* core, char* dbConnectionString, char* authToken, char* backupFrom, char* apiKey,
           char* apiSecret, char* dataTypes, char* videoListOut, char* serviceFolder, char* cek,
           char* mountPoint, bool modeFlag, char* culture, char* errorOut) {
    const auto text = &FlickrPluginCore::ToString;
    FlickrPluginCore& plugin = coreOf(core);
    HostServiceUsageParams* params = HostServiceUsageParams::getInstance();
    Norvale_Plugin_Core::HostServiceClientMac client;
    client.disConnect();

    try {
        logInfo(kAsteriskRow);
        logInfo("Flickr Backup Started.");
        params->setBackupState(false);
        const StopWatcher watcher;

        setCulture(text(culture));
        params->setParams(text(serviceFolder), text(cek), modeFlag, kDeviceParameter, text(mountPoint));
        std::string attempts;
        int status = readSetting(plugin, "plugin.retryAttempts", attempts, errorOut);
        if (status != kSuccess) return status;
        params->setRetryAttempts(attempts);
        plugin.setAuthToken(text(authToken));
        plugin.setApiKey(text(apiKey));
        plugin.setApiSecret(text(apiSecret));
        plugin.setDBConnectionString(text(dbConnectionString));
        plugin.setMediaToBackup(mediaChoice(text(dataTypes)));

        // In this order: they go in the reverse one.
        FlickrDbInterface database;
        DownloadPhotoSetListActivity list;
        const Poco::DateTime since = database.convertToDateTime(text(backupFrom));
        std::string dataUrl;
        status = readSetting(plugin, "plugin.dataUrl", dataUrl, errorOut);
        if (status != kSuccess) return status;

        if (!listSets(plugin, dataUrl, since, list)) return kRunFailed;
        if (!params->isBackupStopped()) {
            reportVideos(backUpSets(plugin, dataUrl, since, std::move(list).getPhotoSets()), videoListOut);
        }
        return closeRun(errorOut);
    } catch (Poco::Exception& exception) {
        return closeAfter(exception, plugin, errorOut);
    }
}

}  // namespace Norvale_Plugin_Flickr
