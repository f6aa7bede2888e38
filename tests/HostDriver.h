// A host for tests: works a plug-in object from C++, each step by itself, and can misbehave.

#ifndef TESTS_HOSTDRIVER_H
#define TESTS_HOSTDRIVER_H

#ifdef __cplusplus
extern "C" {
#endif

/// What the host hears. Functions that return an int raise an NSException in the plug-in when it is not 0.
typedef struct {
    void* context;
    /// didBackupFinish: the event, its detail ("" for none) and whether it carries both settings.
    int (*finished)(void* context, int status, const char* detail, int serviceStatus, int hasSettings);
    /// didBackupStateUpdate:
    int (*ticked)(void* context, double items, double bytes, int isMainThread);
    /// monitorBandwidth, which every begin of a backup sends.
    int (*begins)(void* context);
    /// baseAKEKey, which only the resume of a pause asks for, before it begins again, and what it answers.
    /// May be null.
    void (*resumes)(void* context, const char* key);
    /// deviceCulture, which a backup asks for between the start of its timer and its core's work. May be
    /// null.
    void (*cultureAsked)(void* context);
    /// A backup has wound down for a pause; on its thread. May be null.
    void (*rests)(void* context);
    /// Calls work(argument), and is where C++ exceptions that leave beginBackup… arrive.
    void (*guard)(void* context, void (*work)(void*), void* argument);
} HostCallbacks;

typedef struct Host Host;

/// Loads the plug-in's bundle, for programs that are not linked to the plug-in. Returns whether it could.
int HostLoadBundle(const char* path);

/// A plug-in object, not initialised, with settings of a service and a device. One at a time.
Host* HostNew(const HostCallbacks* callbacks);
/// Waits for the run's end first. Returns how many plug-in objects are still there.
int HostFree(Host* host);

/// value may be null. Settings of the service: "dataTypes" (each followed by ";"), "serviceOAuthToken",
/// "authMechanism", "serviceAPIKey", "serviceAPISecret", "cEK", and of the device: "mountPoint",
/// "deviceCulture", "mode".
void HostSet(Host* host, const char* key, const char* value);
void HostSetBackupFrom(Host* host, int year, int month, int day);
/// As a text object whose class is called NSCFString; null for no date.
void HostSetBackupFromText(Host* host, const char* text);
/// Takes the settings that the plug-in offers.
void HostTakePluginSettings(Host* host);

/// Sends the plug-in "initialize", "stopBackup", "pauseBackup" or "unholdWaitingCondition"; "resume" and
/// "end" for the release with YES and NO; "low" and "recovered" to its bandwidth monitor; "begin"; "process"
/// for processBackup: without beginBackup; "tick" of a timer of the host's own. From any thread.
void HostSend(Host* host, const char* message);

/// Begins a backup on a thread of its own. message: "begin", or "process" as above.
void HostStart(Host* host, const char* message);
/// Runs the main run loop until done(context) or, with null, until the run's thread has ended; at most so
/// many seconds. Returns whether that came.
int HostRunLoop(Host* host, double seconds, int (*done)(void* context), void* context);

/// Whether a backup waits for bandwidth, how often the last one has laid its thread to rest for that, and
/// whether one that was started here is going on.
int HostIsWaiting(Host* host);
int HostRests(Host* host);
int HostIsRunning(Host* host);

/// A property of the plug-in by its name, or "settings KEY" or "settingsV2 KEY" for the settings that it
/// offers, as text; arrays as "[a|b]", "nil" for nil. The text is valid until the next call.
const char* HostGet(Host* host, const char* key);

/// Seconds between two ticks of the progress timer; 0 when there is none.
double HostTimerInterval(Host* host);

/// What the plug-in logged last; "" for nothing.
const char* HostLastMessage(void);

/// Raises an NSException.
void HostRaise(const char* reason);

#ifdef __cplusplus
}
#endif

#endif
