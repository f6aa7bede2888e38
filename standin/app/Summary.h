// What a run did, as text for a person and as JSON for a program.

#ifndef STANDIN_APP_SUMMARY_H
#define STANDIN_APP_SUMMARY_H

#include <Poco/JSON/Object.h>

#include <string>
#include <vector>

#include "standin/app/PerformRun.h"
#include "standin/app/RunDisplay.h"
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
    long leftOutByDate = 0;  ///< listed, and not updated since --from
    long leftOutByKind = 0;  ///< listed, and of a kind that --media does not name
    long goneItems = 0;      ///< backed up, and no longer at the service
    bool isDry = false;      ///< nothing was done: what is told is what a run would do
    std::vector<flickr_standin::SettledItem> items;  ///< of a dry run, those that a run would fetch or try to
};

/// Success only when the plug-in says so and nothing failed for good; see ExitStatus.
int exitStatus(const RunReport& report);

/// "success", "failed" or "stopped".
const char* resultName(const RunReport& report);

/// Whether the text belongs on standard output: of a complete run only on a terminal, or when asked for, and
/// never when there is nothing but success to tell to one who wants failures only. A dry run's always does.
bool isWorthTelling(const RunReport& report, Talk talk, bool onTerminal);

/// Several lines, each ended.
std::string summaryText(const RunReport& report);

/// The members are described in docs/output.schema.json. asEvent: as the last of a run's events.
Poco::JSON::Object summaryJson(const RunReport& report, bool asEvent = false);

}  // namespace flickr_app

#endif
