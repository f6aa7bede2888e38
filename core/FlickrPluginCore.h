// The plug-in's entry functions, its one core object and the driver of a backup run.
//
// The host drives the plug-in through the free functions below. Each takes the opaque handle that
// createObject() returned. Text goes out through character buffers that the caller owns; every one of them
// holds at least 2,048 bytes, but for backup()'s video list, which holds 1,000. Nothing is written past
// those bounds, the NUL included. Unless said otherwise the result is a status: 1 is success.

#ifndef CORE_FLICKRPLUGINCORE_H
#define CORE_FLICKRPLUGINCORE_H

#include <Poco/DateTime.h>

#include <cstddef>
#include <map>
#include <string>
#include <utility>

#include "core/Photo.h"
#include "hostapi/PluginCore.h"

namespace Norvale_Plugin_Flickr {

/// Status of a run that failed where no other status says more.
constexpr int kRunFailed = 511;

/// Room, in bytes, in the caller's buffer for the video list of backup().
constexpr std::size_t kVideoListCapacity = 1000;
/// Room, in bytes, in every other buffer that crosses the entry functions.
constexpr std::size_t kTextCapacity = 2048;

/// Holds the credentials and choices of a run between the entry functions. At most one exists at a time,
/// from createObject() to deleteObject().
class FlickrPluginCore : public Norvale_Plugin_Core::PluginCore {
public:
    /// Reads the configuration from configDirectory + "Flickr_plugin_config.xml" and logs to logDirectory +
    /// "/NVHLDevLog.log". No separator is put behind configDirectory, which has to end in one.
    FlickrPluginCore(std::string logDirectory, std::string configDirectory);
    ~FlickrPluginCore() override;

    /// Does nothing; a place for set-up that needs the whole object.
    void initialize();

    void setAuthToken(std::string authToken) { authToken_ = std::move(authToken); }
    void setApiKey(std::string apiKey) { apiKey_ = std::move(apiKey); }
    void setApiSecret(std::string apiSecret) { apiSecret_ = std::move(apiSecret); }
    void setDBConnectionString(std::string path) { dbConnectionString_ = std::move(path); }
    /// "all", "photo", "video" or the empty text.
    void setMediaToBackup(std::string media) { mediaToBackup_ = std::move(media); }
    /// The videos that the last run met, by the time of their last update.
    void setVideoMap(std::multimap<Poco::DateTime, Photo> videos) { videoMap_ = std::move(videos); }

    std::string getAuthToken() const { return authToken_; }
    std::string getApiKey() const { return apiKey_; }
    std::string getApiSecret() const { return apiSecret_; }
    std::string getMediaToBackup() const { return mediaToBackup_; }
    std::string getDBConnectionString() const { return dbConnectionString_; }

    /// The NUL-terminated text; empty for a null pointer.
    static std::string ToString(char* text);

private:
    std::string dbConnectionString_;
    std::string authToken_;
    std::string apiKey_;
    std::string apiSecret_;
    std::string mediaToBackup_;
    std::multimap<Poco::DateTime, Photo> videoMap_;
};

/// Makes the core object; the result is the handle for the other functions and the caller's to delete. See
/// FlickrPluginCore for the two directories. error is not written.
void* createObject(char* logDirectory, char* configDirectory, char* error);

/// Releases the host's usage parameters, then the core. A null core is allowed.
int deleteObject(void* core, char* error);

// The plug-in's identity and settings, from its configuration. On failure the status is not 1 and error says
// why.
int getName(void* core, char* out, char* error);
int getId(void* core, char* out, char* error);
int getSupportedDataTypes(void* core, char* out, char* error);
int getAutheticationMechanism(void* core, char* out, char* error);
int getVersion(void* core, char* out, char* error);
int getTargetHostVersion(void* core, char* out, char* error);
int getServiceCEK(void* core, char* out, char* error);
int getLegend(void* core, char* out, char* error);
/// API key and secret as they are configured: enciphered, in base64.
int getApiKey(void* core, char* out, char* error);
int getApiSecret(void* core, char* out, char* error);

/// The keys of the words that the host translates for a run, each followed by "||".
void getKeywords(char* out);

/// Items and bytes that the current run has put on the device. Needs no core.
int getProgress(double& totalCount, double& totalSize, char* error);

/// Signing in and the bookkeeping of videos are the host's business: these do nothing and answer 1.
int authenticate(void* core, char* a, char* b, char* c);
int saveVideoBackupMetadata(void* core, char* a, bool b, char* c);

/// Asks the current run to stop. Returns at once; the run winds down at its next checkpoint.
int stopBackup(void* core, char* error);

/// Performs one whole backup run on the calling thread.
///
/// dbConnectionString: path of the metadata database. authToken, apiKey, apiSecret: the user's token and the
/// plug-in's key and secret, in plain text. backupFrom: month/day/year; items updated after it are
/// candidates. dataTypes: "Images" and "Videos", each followed by ";". videoListOut (1,000 bytes): the videos
/// met, as "image path|set title|photo title.mp4|photo id;", written only when there is one; what does not
/// fit is left out in whole entries. The set title is the one that the video has, which a run leaves
/// empty, and the photo title there ends in ".mp4" already: "http://…/a.mp4||a.mp4.mp4|1_2;". serviceFolder:
/// the service's folder on the device. cek: content encryption key text or empty. mountPoint: the device's
/// mount point. modeFlag: the device's mode is 0. culture: the host's culture text. errorOut (2,048 bytes):
/// the error's text.
///
/// Returns 1 after a stop by the user without an error, 511 after one with, 511 when the list of photo sets
/// could not be had, the configuration's status when a setting is missing, the host's exception code after an
/// exception, and otherwise the code that the host keeps for the run, 1 for a run without an error.
///
/// Exceptions that are no Poco::Exception pass to the caller.
int backup(void* core, char* dbConnectionString, char* authToken, char* backupFrom, char* apiKey,
           char* apiSecret, char* dataTypes, char* videoListOut, char* serviceFolder, char* cek,
           char* mountPoint, bool modeFlag, char* culture, char* errorOut);

}  // namespace Norvale_Plugin_Flickr

#endif
