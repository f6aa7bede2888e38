// The state of the current run, which the host shares with the plug-in. Every operation may be called from
// any thread.

#ifndef STANDIN_FRAMEWORK_RUN_RUNSTATE_H
#define STANDIN_FRAMEWORK_RUN_RUNSTATE_H

#include <cstdint>
#include <map>
#include <string>

#include "standin/framework/base/Names.h"
#include "standin/framework/run/RunError.h"

namespace flickr_standin {

/// Everything reads as at the start of the program.
void resetRunState();

/// Begins a run: clears an earlier stop, the recorded error and the totals.
void beginRun();

/// Asks the run to stop, on the user's behalf.
void stopRun();

/// True after stopRun() and after a catastrophe.
bool isRunStopped();
/// True after stopRun() only.
bool isStoppedByUser();

/// The host's words by their keys, see Localisation.h.
void setWords(std::map<std::string, std::string> words);
/// A word by its key; empty for one that is not known.
std::string wordOf(const std::string& key);

/// Where the run's backup goes: the service folder and the device's mount point, both without "/" at the end.
void setServiceFolder(std::string folder, std::string mountPoint);
std::string currentServiceFolder();
std::string currentMountPoint();

/// A dry run looks at lists and rows and goes no further: nothing is fetched, and the file service does
/// nothing and says that it has.
void setDryRun(bool isDry);
bool isDryRun();

/// How often every request and download is tried, at least 0.
void setRetryAttempts(int attempts);
int retryAttempts();

/// Records the run's error, with secrets masked; one that is recorded already stays.
void recordRunError(RunError code, const std::string& text);
/// The same for an error after which the run cannot go on: it also stops the run.
void recordCatastrophe(RunError code, const std::string& text);

struct RecordedError {
    int code = 0;  ///< 0: none is recorded
    std::string text;
};
RecordedError recordedError();

void addWrittenBytes(std::uint64_t count);
void addFinishedItem();
std::uint64_t writtenBytes();
std::uint64_t finishedItems();

}  // namespace flickr_standin

#endif
