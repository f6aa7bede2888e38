// The one way in which the command reaches the plug-in.

#ifndef STANDIN_APP_PERFORMRUN_H
#define STANDIN_APP_PERFORMRUN_H

#include <string>
#include <utility>
#include <vector>

namespace flickr_app {

/// What is to be backed up, and where to.
struct RunRequest {
    std::string device;        ///< absolute path of the mount point
    std::string databaseName;  ///< of the metadata database, directly under the mount point
    std::string authToken;
    std::vector<std::string> dataTypes;  ///< "Images", "Videos"
    int fromYear = 2001;                 ///< items that were updated after this day begins
    int fromMonth = 1;
    int fromDay = 1;
    std::string culture;  ///< "en"
};

/// How the run ended, in the plug-in's and the host's terms.
struct RunOutcome {
    int status = 0;      ///< the plug-in's: 1 is success
    std::string detail;  ///< the host's: "500" nothing chosen, "110" not signed in, "501" stopped, a status
    std::string errorText;
    bool stopped = false;  ///< the listener asked for a stop, and the run ended by it
    double items = 0;      ///< put on the device, pauses or not
    double bytes = 0;
};

/// Follows and steers a run. Everything is called on the thread that called performRun().
class RunListener {
public:
    virtual ~RunListener() = default;
    /// About once a second, and at the end: items and bytes put on the device so far.
    virtual void progress(double items, double bytes) = 0;
    /// Asked several times a second. Once true the run winds down.
    virtual bool stopRequested() = 0;
    /// Asked several times a second. Once true the run winds down, and rests until it is false.
    virtual bool pauseRequested() = 0;
    /// true: the run has come to rest. false: it is about to begin again. In between, both calls included,
    /// it does not touch the device.
    virtual void paused(bool isPaused) = 0;
};

/// Loads the plug-in's bundle, backs up once and returns when the run has ended. To be called on the
/// program's main thread, whose run loop it runs; the run itself has a thread of its own. The service's
/// folder is made when it is missing. API key and secret are the configured ones.
///
/// Throws Poco::Exception when the plug-in cannot be reached at all or does not say how the run ended, and,
/// when the run has ended, what the listener or the run has thrown.
RunOutcome performRun(const RunRequest& request, RunListener& listener);

/// What the plug-in says about itself and its settings, as labels and values; keys and tokens are masked.
/// Throws as performRun().
std::vector<std::pair<std::string, std::string>> describePlugin();

}  // namespace flickr_app

#endif
