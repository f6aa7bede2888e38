#include "standin/app/RunDisplay.h"

#include <Poco/JSON/Object.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <system_error>
#include <utility>

#include "standin/app/Format.h"
#include "standin/app/Reason.h"
#include "standin/app/Signals.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/run/RunProgress.h"

namespace flickr_app {
namespace {

using flickr_standin::RunJournal;
using flickr_standin::RunMoment;
using flickr_standin::RunProgress;
using flickr_standin::SettledItem;
using flickr_standin::validUtf8;

constexpr double kReportSeconds = 300;

const char* outcomeName(SettledItem::Outcome outcome) {
    switch (outcome) {
        case SettledItem::Outcome::New:
            return "new";
        case SettledItem::Outcome::Edited:
            return "edited";
        case SettledItem::Outcome::CutOff:
            return "interrupted";
        case SettledItem::Outcome::Failed:
            break;
    }
    return "failed";
}

const char* phaseName(RunMoment::Phase phase) {
    return phase == RunMoment::Phase::Sets      ? "sets"
           : phase == RunMoment::Phase::Listing ? "listing"
                                                : "items";
}

/// One event, a line of standard output.
void writeEvent(const Poco::JSON::Object& event) {
    event.stringify(std::cout);
    std::cout << std::endl;
}

Poco::JSON::Object eventOf(const char* name) {
    Poco::JSON::Object event(Poco::JSON_PRESERVE_KEY_ORDER);
    event.set("event", name);
    return event;
}

ProgressStyle styleFor(Talk talk) {
    if (talk == Talk::Quiet) return ProgressStyle::None;
    const ProgressStyle style = styleOf(STDERR_FILENO);
    return style == ProgressStyle::None && talk == Talk::Verbose ? ProgressStyle::Lines : style;
}

}  // namespace

RunDisplay::RunDisplay(DisplaySettings settings)
    : settings_(std::move(settings)),
      line_(std::cerr, styleFor(settings_.talk), ::isatty(STDERR_FILENO) ? 10 : kReportSeconds) {
    RunJournal::instance().keepSettled(settings_.events || settings_.keepsItems ||
                                       settings_.talk == Talk::Verbose);
}

double RunDisplay::elapsed() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void RunDisplay::progress(double, double bytes) {
    bytes_ = bytes;
    settings_.eachSecond();
    pace_.add(elapsed(), bytes, RunProgress::instance().moment().done);
    show(stopsSeen_ ? "stopping" : settings_.waitText());
}

bool RunDisplay::stopRequested() {
    tellItems();
    const int signals = Signals::stops();
    if (signals != stopsSeen_) {
        message(stopsSeen_ == 0 ? "Stopping: an item that is being transferred is discarded."
                                : "Stopping already; please wait.");
        stopsSeen_ = signals;
    }
    return signals > 0;
}

bool RunDisplay::pauseRequested() {
    std::error_code ignored;
    return Signals::isPauseWanted() ||
           (!settings_.pauseWhen.empty() && std::filesystem::exists(settings_.pauseWhen, ignored));
}

void RunDisplay::paused(bool isPaused) {
    if (!isPaused) settings_.beforeResume();
    message(isPaused ? "Paused." : "Resuming.");
}

void RunDisplay::show(const std::string& note) {
    ProgressState state;
    state.moment = RunProgress::instance().moment();
    state.bytes = bytes_;
    state.rate = pace_.rate();
    state.secondsLeft = pace_.secondsFor(state.moment.toDo - state.moment.done);
    state.note = note;
    line_.show(elapsed(), state, columnsOf(STDERR_FILENO));
    if (!settings_.events) return;
    Poco::JSON::Object event = eventOf("progress");
    event.set("phase", phaseName(state.moment.phase));
    event.set("set", validUtf8(state.moment.set));
    event.set("listed", std::int64_t{state.moment.listed});
    event.set("announced", std::int64_t{state.moment.announced});
    event.set("done", std::int64_t{state.moment.done});
    event.set("toDo", std::int64_t{state.moment.toDo});
    event.set("item", validUtf8(state.moment.item));
    event.set("bytes", static_cast<std::int64_t>(state.bytes));
    event.set("rate", static_cast<std::int64_t>(std::max(0.0, state.rate)));
    if (state.secondsLeft >= 0) event.set("secondsLeft", static_cast<std::int64_t>(state.secondsLeft));
    if (!note.empty()) event.set("note", note);
    writeEvent(event);
}

void RunDisplay::message(const std::string& text) {
    if (settings_.talk != Talk::Quiet) line_.message(text);
    if (!settings_.events) return;
    Poco::JSON::Object event = eventOf("message");
    event.set("text", text);
    writeEvent(event);
}

void RunDisplay::tellItems() {
    for (SettledItem& item : RunJournal::instance().takeSettled()) {
        const char* const outcome = outcomeName(item.outcome);
        if (settings_.keepsItems) items_.push_back(item);
        if (settings_.talk == Talk::Verbose && !settings_.keepsItems) {
            const bool inNoSet = item.set == flickr_standin::kNoSetId;
            line_.message(std::string(outcome) + ": " + (inNoSet ? "" : printable(item.set) + "/") +
                          printable(item.title) +
                          (item.reason.empty() ? "" : ": " + printable(plainReason(item.reason))));
        }
        if (!settings_.events) continue;
        Poco::JSON::Object event = eventOf("item");
        event.set("outcome", outcome);
        event.set("id", validUtf8(item.id));
        event.set("name", validUtf8(item.title));
        event.set("set", validUtf8(item.set));
        if (!item.reason.empty()) event.set("reason", validUtf8(plainReason(item.reason)));
        writeEvent(event);
    }
}

}  // namespace flickr_app
