#include "standin/app/Summary.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <utility>
#include <vector>

#include "standin/app/Format.h"
#include "standin/app/Refusal.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/store/BackupDatabase.h"

namespace flickr_app {
namespace {

constexpr int kPluginSuccess = 1;

/// A failed run's errors: those of the journal, or what the plug-in or the host says.
std::vector<std::string> errorsOf(const RunReport& report) {
    std::vector<std::string> errors = report.done.errors;
    if (report.outcome.status == kPluginSuccess || report.outcome.stopped) return errors;
    const std::string& text = report.outcome.errorText;
    if (!text.empty()) {
        const auto tells = [&](const std::string& error) { return error.compare(0, text.size(), text) == 0; };
        if (std::none_of(errors.begin(), errors.end(), tells)) errors.push_back(text);
    } else if (report.outcome.detail == "110") {
        errors.push_back("The user is not signed in with OAuth, or the token is empty");
    } else if (report.outcome.detail == "500") {
        errors.push_back("No kind of media is chosen, or the host failed");
    } else if (errors.empty() && report.done.failures.empty()) {
        errors.push_back("The plug-in ended with status " + std::to_string(report.outcome.status));
    }
    return errors;
}

std::string nameOf(const flickr_standin::Failure& failure) {
    const std::string set =
        failure.set == flickr_standin::kNoSetId ? "items in no set" : "\"" + printable(failure.set) + "\"";
    if (failure.name.empty()) return set;
    const std::string id = failure.id.empty() ? "" : " (" + printable(failure.id) + ")";
    return "\"" + printable(failure.name) + "\"" + id + " in " + set;
}

/// How many of the failures left an earlier version on the device.
long keptItems(const flickr_standin::RunSummary& done) {
    return std::count_if(done.failures.begin(), done.failures.end(),
                         [](const auto& failure) { return failure.onDevice; });
}

}  // namespace

int exitStatus(const RunReport& report) {
    const flickr_standin::RunSummary& done = report.done;
    if (report.outcome.stopped) return ExitStopped;
    if (report.outcome.status == kPluginSuccess && done.complete()) return ExitSuccess;
    const bool sawItems = done.newItems + done.editedItems + done.unchangedItems + done.interruptedItems +
                              done.untriedItems + done.untriedSets >
                          0;
    return sawItems || !done.failures.empty() ? ExitFailure : ExitCannotBegin;
}

const char* resultName(const RunReport& report) {
    const int status = exitStatus(report);
    return status == ExitSuccess ? "success" : status == ExitStopped ? "stopped" : "failed";
}

std::string summaryText(const RunReport& report) {
    const flickr_standin::RunSummary& done = report.done;
    const int status = exitStatus(report);
    std::ostringstream text;
    text << (status == ExitSuccess       ? "Backup complete"
             : status == ExitStopped     ? "Backup stopped; the next run goes on from here"
             : status == ExitCannotBegin ? "Backup could NOT begin, and ended"
                                         : "Backup NOT complete")
         << " after " << formatDuration(report.seconds) << ".\n";
    text << "  new        " << formatCount(done.newItems, "item") << "\n"
         << "  edited     " << formatCount(done.editedItems, "item") << "\n"
         << "  unchanged  " << formatCount(done.unchangedItems, "item") << "\n";
    const long kept = keptItems(done), lost = static_cast<long>(done.failures.size()) - kept;
    if (kept) {
        text << "  kept       " << formatCount(kept, "item") << " as an earlier run backed "
             << (kept == 1 ? "it" : "them") << " up\n";
    }
    if (done.untriedItems || done.untriedSets) {
        text << "  not tried  ";
        if (done.untriedItems) text << formatCount(done.untriedItems, "item");
        if (done.untriedItems && done.untriedSets) text << ", and ";
        if (done.untriedSets) text << "all of " << formatCount(done.untriedSets, "further set");
        text << "\n";
    }
    if (done.interruptedItems) text << "  cut off    " << formatCount(done.interruptedItems, "item") << "\n";
    text << "  written    " << formatBytes(done.bytes) << "\n"
         << "  files      " << printable(report.serviceFolder) << "\n";

    const auto listFailures = [&](const char* title, long count, bool onDevice) {
        if (count > 0) text << title << " (" << count << "):\n";
        for (const auto& failure : done.failures) {
            if (failure.onDevice != onDevice) continue;
            text << "  " << nameOf(failure) << ": " << printable(failure.reason) << "\n";
        }
    };
    listFailures("Not backed up", lost, false);
    listFailures("On the device from an earlier run, and perhaps not as it is now", kept, true);
    const auto list = [&](const char* title, const std::vector<std::string>& lines) {
        if (lines.empty()) return;
        text << title << "\n";
        for (const std::string& line : lines) text << "  " << printable(line) << "\n";
    };
    list("Errors:", errorsOf(report));
    list("To be looked at:", done.warnings);
    if (status != ExitSuccess && status != ExitStopped)
        text << "Details are in " << printable(report.log) << "\n";
    return text.str();
}

std::string summaryJson(const RunReport& report) {
    using flickr_standin::validUtf8;
    const flickr_standin::RunSummary& done = report.done;
    const auto array = [](const std::vector<std::string>& lines) {
        Poco::JSON::Array values;
        for (const std::string& line : lines) values.add(validUtf8(line));
        return values;
    };
    Poco::JSON::Array failures;
    for (const auto& failure : done.failures) {
        Poco::JSON::Object entry(Poco::JSON_PRESERVE_KEY_ORDER);
        entry.set("id", validUtf8(failure.id));
        entry.set("name", validUtf8(failure.name));
        entry.set("set", validUtf8(failure.set));
        entry.set("reason", validUtf8(failure.reason));
        entry.set("onDevice", failure.onDevice);
        failures.add(entry);
    }
    Poco::JSON::Object object(Poco::JSON_PRESERVE_KEY_ORDER);
    object.set("result", resultName(report));
    object.set("status", report.outcome.status);
    object.set("detail", report.outcome.detail);
    object.set("new", std::int64_t{done.newItems});
    object.set("edited", std::int64_t{done.editedItems});
    object.set("unchanged", std::int64_t{done.unchangedItems});
    object.set("interrupted", std::int64_t{done.interruptedItems});
    object.set("kept", std::int64_t{keptItems(done)});
    object.set("untried", std::int64_t{done.untriedItems});
    object.set("untriedSets", std::int64_t{done.untriedSets});
    object.set("bytes", static_cast<std::int64_t>(done.bytes));
    object.set("seconds", report.seconds);
    object.set("failures", failures);
    object.set("errors", array(errorsOf(report)));
    object.set("warnings", array(done.warnings));
    object.set("folder", validUtf8(report.serviceFolder));
    object.set("database", validUtf8(report.database));
    object.set("log", validUtf8(report.log));
    std::ostringstream text;
    object.stringify(text);
    text << "\n";
    return text.str();
}

}  // namespace flickr_app
