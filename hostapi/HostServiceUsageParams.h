// The run-wide settings and state that the host shares with the plug-in.

#ifndef HOSTAPI_HOSTSERVICEUSAGEPARAMS_H
#define HOSTAPI_HOSTSERVICEUSAGEPARAMS_H

#include <string>

namespace Norvale_Plugin_Core {

/// Process-wide settings, stop flag, recorded error and totals of the current run. Every operation may be
/// called from any thread.
class HostServiceUsageParams {
public:
    /// The one instance, made on first use. The object lives as long as the process, so that a thread that
    /// still holds the pointer after release() reads the state of a fresh instance and not freed memory.
    static HostServiceUsageParams* getInstance();

    /// Ends the life of the instance's contents: everything reads as after the first getInstance().
    void release();

    /// true requests a stop on the user's behalf. false begins a run: it clears an earlier stop, the
    /// recorded error and the totals.
    void setBackupState(bool stopped);

    /// True after a stop was requested or a catastrophic error was recorded.
    bool isBackupStopped();

    /// True only after setBackupState(true).
    bool isManuallyStopped();

    /// The text from which getValue answers: "key=value" pairs that each end in "||", or a culture's name
    /// ("en", "ja"), for which the host's own table is used.
    void setKeywords(std::string keywords);

    /// The culture of folder names and dates: a culture's name or, as with setKeywords, keyword pairs.
    void setCulture(std::string culture);

    /// The run's device parameters: the service's folder on the device, the content encryption key text
    /// (may be empty), the device's mode flag, a number that is stored only, and the device's mount point.
    void setParams(std::string serviceFolder, std::string cek, bool modeFlag, int value,
                   std::string mountPoint);

    /// The configured number of attempts, decimal text. Text that is no number counts as 0.
    void setRetryAttempts(std::string attempts);

    /// How often every request and download is tried, at least 0.
    int getRetryAttempts();

    /// The run-wide value of a key, for the keyword keys the localised word ("ThumbnailKey" names the
    /// thumbnail folders, "FlickrKey" the service's folder). Empty for a key that is not known.
    std::string getValue(std::string key);

    /// The root folder of the plug-in's data on the device, without a "/" at its end.
    std::string getPluginRoot();

    /// The error recorded for the run. With one recorded: its code, 2 or more, and its text. Without: code
    /// 0 after a manual stop, 1 otherwise, and an empty text.
    void getErrorDetails(int& code, std::string& text);

    /// Items that the run has put on the device so far.
    double getTotalCount();

    /// Bytes that the run has written to the device so far.
    double getTotalSize();

private:
    HostServiceUsageParams() = default;
    ~HostServiceUsageParams() = default;
    HostServiceUsageParams(const HostServiceUsageParams&) = delete;
    HostServiceUsageParams& operator=(const HostServiceUsageParams&) = delete;
};

}  // namespace Norvale_Plugin_Core

#endif
