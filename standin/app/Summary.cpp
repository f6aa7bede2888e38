#include "standin/app/Summary.h"

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <utility>
#include <vector>

#include "standin/app/Format.h"
#include "standin/app/Json.h"
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
        const auto tells = [&](const std::string& error) { return flickr_standin::startsWith(error, text); };
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

/// What became of how many items, and where they are.
std::string countsText(const RunReport& report) {
    const flickr_standin::RunSummary& done = report.done;
    std::ostringstream text;
    text << "  new        " << formatCount(done.newItems, "item") << "\n"
         << "  edited     " << formatCount(done.editedItems, "item") << "\n"
         << "  unchanged  " << formatCount(done.unchangedItems, "item") << "\n";
    if (const long kept = keptItems(done); kept > 0) {
        text << "  kept       " << formatCount(kept, "item") << " as an earlier run backed "
             << (kept == 1 ? "it" : "them") << " up\n";
    }
    const auto both = [&](const std::string& one, const char* between, const std::string& other) {
        text << one << (!one.empty() && !other.empty() ? between : "") << other << "\n";
    };
    const auto orNothing = [](long count, const std::string& words) { return count > 0 ? words : ""; };
    if (report.leftOutByDate || report.leftOutByKind) {
        text << "  left out   ";
        both(orNothing(report.leftOutByDate, formatCount(report.leftOutByDate, "item") + " by --from"), ", ",
             orNothing(report.leftOutByKind, formatCount(report.leftOutByKind, "item") + " by --media"));
    }
    if (done.untriedItems || done.untriedSets) {
        text << "  not tried  ";
        both(orNothing(done.untriedItems, formatCount(done.untriedItems, "item")), ", and ",
             orNothing(done.untriedSets, "all of " + formatCount(done.untriedSets, "further set")));
    }
    if (done.interruptedItems) text << "  cut off    " << formatCount(done.interruptedItems, "item") << "\n";
    if (!done.renamedFolders.empty()) {
        text << "  renamed    " << formatCount(static_cast<long>(done.renamedFolders.size()), "set") << "\n";
    }
    if (!report.isDry) text << "  written    " << formatBytes(done.bytes) << "\n";
    text << "  files      " << printable(report.serviceFolder) << "\n";
    if (const long gone = report.goneItems; gone > 0) {
        text << formatCount(gone, "item") << (gone == 1 ? " is" : " are") << " no longer at the service; "
             << (gone == 1 ? "it stays" : "they stay") << " here\n";
    }
    return text.str();
}

using Outcome = flickr_standin::SettledItem::Outcome;

/// What a run would do, in full.
std::string planText(const RunReport& report) {
    std::ostringstream text;
    const auto listItems = [&](const char* title, long count, Outcome outcome) {
        if (count > 0) text << title << " (" << formatNumber(count) << "):\n";
        for (const auto& item : report.items) {
            if (item.outcome != outcome) continue;
            const bool inNoSet = item.set == flickr_standin::kNoSetId;
            text << "  " << (inNoSet ? "" : printable(item.set) + "/") << printable(item.title) << "\n";
        }
    };
    const auto& renamed = report.done.renamedFolders;
    if (!renamed.empty()) text << "Folders to be renamed (" << renamed.size() << "):\n";
    for (const auto& [from, to] : renamed) text << "  " << printable(from) << " to " << printable(to) << "\n";
    listItems("To be fetched", report.done.newItems, Outcome::New);
    listItems("To be fetched again, in the place of what is there", report.done.editedItems, Outcome::Edited);
    return text.str();
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

bool isWorthTelling(const RunReport& report, Talk talk, bool onTerminal) {
    const bool isComplete = exitStatus(report) == ExitSuccess;
    if (report.isDry) return true;
    if (talk == Talk::Quiet) return !isComplete;
    return !isComplete || talk == Talk::Verbose || onTerminal || !report.done.warnings.empty();
}

std::string summaryText(const RunReport& report) {
    const flickr_standin::RunSummary& done = report.done;
    const int status = exitStatus(report);
    std::ostringstream text;
    text << (report.isDry                ? "Dry run, with nothing fetched or changed, ended"
             : status == ExitSuccess     ? "Backup complete"
             : status == ExitStopped     ? "Backup stopped; the next run goes on from here"
             : status == ExitCannotBegin ? "Backup could NOT begin, and ended"
                                         : "Backup NOT complete")
         << " after " << formatDuration(report.seconds) << ".\n";
    if (status != ExitCannotBegin) text << countsText(report);
    if (report.isDry) text << planText(report);
    const long kept = keptItems(done), lost = static_cast<long>(done.failures.size()) - kept;

    enum class Item { Lost, Kept };
    const auto listFailures = [&](const char* title, long count, Item item) {
        if (count > 0) text << title << " (" << count << "):\n";
        for (const auto& failure : done.failures) {
            if (failure.onDevice != (item == Item::Kept)) continue;
            text << "  " << nameOf(failure) << ": " << printable(failure.reason) << "\n";
        }
    };
    listFailures("Not backed up", lost, Item::Lost);
    listFailures("On the device from an earlier run, and perhaps not as it is now", kept, Item::Kept);
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

Poco::JSON::Object summaryJson(const RunReport& report, bool asEvent) {
    using flickr_standin::validUtf8;
    const flickr_standin::RunSummary& done = report.done;
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
    Poco::JSON::Array renamed;
    for (const auto& [from, to] : done.renamedFolders) {
        Poco::JSON::Object entry(Poco::JSON_PRESERVE_KEY_ORDER);
        entry.set("from", validUtf8(from));
        entry.set("to", validUtf8(to));
        renamed.add(entry);
    }
    Poco::JSON::Array plan;
    for (const auto& item : report.items) {
        if (item.outcome != Outcome::New && item.outcome != Outcome::Edited) continue;
        Poco::JSON::Object entry(Poco::JSON_PRESERVE_KEY_ORDER);
        entry.set("id", validUtf8(item.id));
        entry.set("name", validUtf8(item.title));
        entry.set("set", validUtf8(item.set));
        entry.set("replaces", item.outcome == Outcome::Edited);
        plan.add(entry);
    }
    Poco::JSON::Object object = jsonReport("run", resultName(report));
    if (asEvent) object.set("event", "summary");
    object.set("exitStatus", exitStatus(report));
    object.set("status", report.outcome.status);
    object.set("detail", report.outcome.detail);
    const std::pair<const char*, long> numbers[] = {{"new", done.newItems},
                                                    {"edited", done.editedItems},
                                                    {"unchanged", done.unchangedItems},
                                                    {"interrupted", done.interruptedItems},
                                                    {"kept", keptItems(done)},
                                                    {"leftOutByDate", report.leftOutByDate},
                                                    {"leftOutByKind", report.leftOutByKind},
                                                    {"untried", done.untriedItems},
                                                    {"untriedSets", done.untriedSets},
                                                    {"gone", report.goneItems},
                                                    {"bytes", static_cast<long>(done.bytes)}};
    for (const auto& [name, number] : numbers) object.set(name, std::int64_t{number});
    object.set("seconds", report.seconds);
    object.set("dryRun", report.isDry);
    object.set("renamed", renamed);
    if (report.isDry) object.set("plan", plan);
    object.set("failures", failures);
    object.set("errors", jsonArray(errorsOf(report)));
    object.set("warnings", jsonArray(done.warnings));
    object.set("folder", validUtf8(report.serviceFolder));
    object.set("database", validUtf8(report.database));
    object.set("log", validUtf8(report.log));
    return object;
}

}  // namespace flickr_app
