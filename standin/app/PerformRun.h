// The one step of the command that performs a backup run: everything that knows how the plug-in is reached.

#ifndef STANDIN_APP_PERFORMRUN_H
#define STANDIN_APP_PERFORMRUN_H

#include <string>
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
};

/// Follows and steers a run. Everything is called on the thread that called performRun().
class RunListener {
public:
    virtual ~RunListener() = default;
    /// About once a second: items and bytes put on the device so far.
    virtual void progress(double items, double bytes) = 0;
    /// Asked several times a second. Once true the run winds down.
    virtual bool stopRequested() = 0;
    /// Asked several times a second. While true the run waits.
    virtual bool pauseRequested() = 0;
    /// The run has come to rest, or goes on.
    virtual void paused(bool) = 0;
};

/// Backs up once and returns when the run has ended. To be called on the program's main thread, which it
/// keeps; the run itself has a thread of its own. The service's folder is made when it is missing. Throws
/// Poco::Exception when the plug-in cannot be reached at all.
RunOutcome performRun(const RunRequest& request, RunListener& listener);

}  // namespace flickr_app

#endif
