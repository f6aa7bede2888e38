// The Objective-C half of the host application: it loads the plug-in's bundle and talks to the plug-in
// object. C linkage, for the C++ half.

#ifndef STANDIN_APP_PLUGINHOST_H
#define STANDIN_APP_PLUGINHOST_H

#ifdef __cplusplus
extern "C" {
#endif

/// One backup. No text is null. The functions are called with context, all but guard on the main thread, and
/// let no exception out.
typedef struct {
    const char* device;        ///< the mount point
    const char* databaseName;  ///< relative to it
    const char* authToken;
    const char* const* dataTypes;  ///< ends with a null
    int fromYear;
    int fromMonth;
    int fromDay;
    const char* culture;

    void* context;
    void (*progress)(void* context, double items, double bytes);  ///< pauses left out, all passes together
    int (*stopRequested)(void* context);
    int (*pauseRequested)(void* context);
    void (*paused)(void* context, int isPaused);
    /// Calls work(argument) and keeps the C++ exception that comes out of it, if any. On the run's thread.
    void (*guard)(void* context, void (*work)(void*), void* argument);
} PluginHostRun;

/// How it ended. Texts are UTF-8 and the caller's to free().
typedef struct {
    int backupStatus;  ///< of the plug-in's event; 0 when there was none
    char* detail;      ///< of the event; empty for a success
    char* message;     ///< what the plug-in logged last; empty for none
    double items;      ///< put on the device, all passes together
    double bytes;
} PluginHostOutcome;

/// Backs up; returns when the run has ended. To be called on the main thread, whose run loop it runs. Returns
/// null, or a sentence that says why the plug-in cannot be loaded, which is the caller's to free().
char* PluginHostBackUp(const PluginHostRun* run, PluginHostOutcome* outcome);

/// Calls line for everything that the plug-in says about itself, in the order in which a person wants to read
/// it; keys and tokens are masked. Returns as PluginHostBackUp() does.
char* PluginHostDescribe(void (*line)(void* context, const char* label, const char* value), void* context);

/// Sends what Foundation and the plug-in write with NSLog to the system's log, off the program's output.
void PluginHostQuietSystemLog(void);

#ifdef __cplusplus
}
#endif

#endif
