// The plug-in's entry functions for Objective-C, and the one core that the process has.
//
// The core's entry functions are C++ in a namespace and take a handle. Objective-C files of the plug-in are
// not Objective-C++, so that exceptions of both languages pass through them and are caught where they should
// be; these functions with C linkage stand between. They also keep the handle, which several threads need:
// the run's thread makes and destroys the core while others ask it to stop. No call can reach a core that is
// being destroyed.
//
// C++ exceptions pass through to the caller. All functions may be called from any thread.

#ifndef HOST_COREBRIDGE_H
#define HOST_COREBRIDGE_H

#ifdef __cplusplus
extern "C" {
#endif

/// Status of a success.
enum { FlickrCoreSuccess = 1 };

/// Room in bytes in the video list of FlickrCoreBackup(), and in every other buffer.
enum { FlickrVideoListCapacity = 1000, FlickrTextCapacity = 2048 };

/// Makes the core from the directories of its log and its configuration. Returns 1; 0 when there is one
/// already, which stays. error is not written.
int FlickrCoreCreate(const char* logDirectory, const char* configDirectory, char* error);

/// Whether there is a core.
int FlickrCoreExists(void);

/// A backup begins: the core that is there, or is made, stays until FlickrCoreLeave(). A backup that was
/// paused begins again inside the first one, and the next one can begin before the last has left.
void FlickrCoreEnter(void);

/// That backup has ended; the last one to leave destroys the core and forgets it.
void FlickrCoreLeave(char* error);

/// Whether there is a core, or a backup that is about to make one.
int FlickrCoreIsBusy(void);

/// Destroys and forgets the core unless a backup works with it, which does so at its own end.
void FlickrCoreDiscard(char* error);

/// What a core can say about the plug-in.
typedef enum {
    FlickrCoreName,
    FlickrCoreVersion,
    FlickrCoreId,
    FlickrCoreTargetHostVersion,
    FlickrCoreAutheticationMechanism,
    FlickrCoreServiceCEK,
    FlickrCoreLegend,
    FlickrCoreApiKey,
    FlickrCoreApiSecret,
    FlickrCoreSupportedDataTypes
} FlickrCoreText;

/// Copies that text into out. Returns FlickrCoreSuccess; otherwise error says what is wrong.
int FlickrCoreGetText(FlickrCoreText which, char* out, char* error);

/// Items and bytes of the current run. Needs no core.
int FlickrCoreGetProgress(double* count, double* size, char* error);

/// Asks the current run to stop; returns at once. Without a core there is nothing to stop.
int FlickrCoreStop(char* error);

/// What a backup works with. No text is null.
typedef struct {
    const char* connection;  ///< path of the metadata database
    const char* authToken;
    const char* backupFrom;  ///< month/day/year
    const char* apiKey;
    const char* apiSecret;
    const char* dataTypes;  ///< each followed by ";"
    char* videoList;        ///< FlickrVideoListCapacity bytes, written when there are videos
    const char* serviceFolder;
    const char* cek;
    const char* mountPoint;
    int isPrimaryMode;  ///< the device's mode is 0
    const char* culture;
    char* error;  ///< FlickrTextCapacity bytes
} FlickrBackupArguments;

/// Performs one run on the calling thread and returns its status. Without a core it is that of a failed run.
/// To be called between FlickrCoreEnter() and FlickrCoreLeave().
int FlickrCoreBackup(const FlickrBackupArguments* arguments);

#ifdef __cplusplus
}
#endif

#endif
