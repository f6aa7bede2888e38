// What a run did, as text for a person and as JSON for a program.

#ifndef STANDIN_APP_SUMMARY_H
#define STANDIN_APP_SUMMARY_H

#include <string>

#include "standin/app/PerformRun.h"
#include "standin/framework/run/RunJournal.h"

namespace flickr_app {

/// A run that has ended.
struct RunReport {
    RunOutcome outcome;
    flickr_standin::RunSummary done;
    double seconds = 0;
    std::string serviceFolder;  ///< where the files are
    std::string database;
    std::string log;
};

/// Success only when the plug-in says so and nothing failed for good; see ExitStatus.
int exitStatus(const RunReport& report);

/// "success", "failed" or "stopped".
const char* resultName(const RunReport& report);

/// Several lines, each ended.
std::string summaryText(const RunReport& report);

/// One JSON object in one line, ended. Its members:
///   result          "success", "failed" or "stopped"
///   status, detail  as the plug-in and the host give them
///   new, edited, unchanged, interrupted   numbers of items
///   kept            of the failures that left an item as an earlier run backed it up
///   untried, untriedSets   listed items, and sets not listed to their end, before whose turn the run ended
///   bytes, seconds
///   failures        [{"id", "name", "set", "reason", "onDevice"}]   what was to be backed up and is not, or
///                   not as it is now; id is that of the item's row, empty for a folder or list
///   errors, warnings   [text]
///   folder, database, log   paths
std::string summaryJson(const RunReport& report);

}  // namespace flickr_app

#endif
