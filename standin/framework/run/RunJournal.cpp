#include "standin/framework/run/RunJournal.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "core/RunLines.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/run/RunState.h"
#include "standin/framework/run/Secrets.h"

namespace flickr_standin {

using namespace Norvale_Plugin_Flickr;  // the lines

namespace {

constexpr const char* kIdRefused =
    "Its id holds characters that the service's ids never hold, so it was not asked for";

}  // namespace

const std::string_view kStatusReason = kStatusRefused.start;
const std::string_view kAddressReason = kAddressRefused.start;
const std::string_view kRenditionsReason = "The service's list of its renditions is of no use: ";
const std::string_view kNoFileReason = "It offers no file to download";
const std::string_view kNoListReason = kNoList;

RunJournal& RunJournal::instance() {
    static RunJournal& journal = *new RunJournal;
    return journal;
}

void RunJournal::begin() {
    const std::lock_guard<std::mutex> lock(mutex_);
    summary_ = RunSummary();
    setItems_ = 0;
    triedItems_ = 0;
    setsListed_ = false;
    sets_ = 0;
    listedSets_ = 0;
    beginSet("");
}

RunSummary RunJournal::summary() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    RunSummary summary = summary_;
    summary.untriedItems += setItems_ - triedItems_;
    summary.untriedSets = std::max(0L, sets_ - listedSets_);
    summary.bytes = static_cast<double>(writtenBytes());
    if (!setsListed_ && summary.errors.empty() && !isRunStopped()) {
        summary.errors.emplace_back("The list of photo sets was not fetched");
    }
    return summary;
}

void RunJournal::logLine(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!followItem(line)) followLists(line);
}

bool RunJournal::followItem(const std::string& line) {
    if (const auto item = kItemBegins.read(line)) {
        beginItem(item->id, item->text);
    } else if (kItemEnds.read(line)) {
        endItem();
    } else if (kPhotoUnchanged.read(line) || kVideoUnchanged.read(line)) {
        ++summary_.unchangedItems;
        ++triedItems_;
    } else if (kStatusRefused.read(line) || kAddressRefused.read(line)) {
        if (line.find(kRedirecting) == std::string::npos) reason_ = maskSecrets(line);
    } else if (kCutShort.read(line)) {
        reason_ = "The transfer ended early: fewer bytes came than were announced";
    } else {
        return false;
    }
    return true;
}

void RunJournal::followLists(const std::string& line) {
    if (kItemListed.read(line)) {
        lookupFailure_.clear();
    } else if (const auto item = kItemLeftOut.read(line)) {
        if (!isRunStopped()) leaveOutItem(item->id, item->text);
    } else if (kServiceRefuses.read(line)) {
        addRefusal(line);
    } else if (const auto refused = kItemRefused.read(line)) {
        addFailureOnce(*refused, set_, kIdRefused);
    } else if (const auto refusedSet = kSetRefused.read(line)) {
        addFailureOnce("", *refusedSet, kIdRefused);
    } else if (const auto counts = kFewerListed.read(line)) {
        ++summary_.shortLists;
        summary_.warnings.push_back("The service listed " + *counts +
                                    " items that it announced for the photo set \"" + set_ + "\"");
    } else if (const auto title = kSetBegins.read(line)) {
        beginSet(*title);
    } else if (kListAttempt.read(line)) {
        // Each attempt lists all items again: what an earlier one left out may be there now.
        if (listAttempts_++ > 0) {
            summary_.failures.erase(summary_.failures.begin() + static_cast<std::ptrdiff_t>(leftOutFrom_),
                                    summary_.failures.end());
        }
    } else if (const auto items = kListEnds.read(line)) {
        endListing(wholeNumber(*items));
    } else if (const auto sets = kSetsListed.read(line)) {
        setsListed_ = true;
        if (!isRunStopped()) sets_ = wholeNumber(*sets);
    }
}

void RunJournal::beginSet(const std::string& title) {
    summary_.untriedItems += setItems_ - triedItems_;
    setItems_ = 0;
    triedItems_ = 0;
    set_ = title;
    beginItem("", "");
    descriptionFailed_ = false;
    listAttempts_ = 0;
    leftOutFrom_ = summary_.failures.size();
}

void RunJournal::beginItem(const std::string& id, const std::string& title) {
    itemId_ = id;
    title_ = title;
    file_.clear();
    recordedAs_ = Recorded::Not;
    rowBefore_.clear();
    wasPutAside_ = false;
    if (id.empty()) reason_.clear();
}

void RunJournal::endListing(long items) {
    if (isRunStopped()) return;
    ++listedSets_;
    setItems_ = items;
    if (listAttempts_ == 0) {
        addFailure("", "The list of its items was not fetched: the number of attempts is 0");
    }
}

void RunJournal::keepSettled(bool keep) {
    const std::lock_guard<std::mutex> lock(mutex_);
    keepsSettled_ = keep;
    settled_.clear();
}

std::vector<SettledItem> RunJournal::takeSettled() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(settled_, {});
}

void RunJournal::settle(SettledItem::Outcome outcome, const std::string& reason) {
    if (keepsSettled_) settled_.push_back({outcome, itemId_, title_, set_, reason});
}

void RunJournal::endItem() {
    ++triedItems_;
    if (recordedAs_ != Recorded::Not) {
        ++(recordedAs_ == Recorded::New ? summary_.newItems : summary_.editedItems);
        settle(recordedAs_ == Recorded::New ? SettledItem::Outcome::New : SettledItem::Outcome::Edited);
    } else if (isStoppedByUser() || (isRunStopped() && reason_.empty())) {
        ++summary_.interruptedItems;
        settle(SettledItem::Outcome::CutOff);
    } else {
        const std::string reason = takeReason();
        settle(SettledItem::Outcome::Failed, reason);
        addFailure(file_.empty() ? title_ : file_, reason, itemId_);
    }
    beginItem("", "");
}

RunJournal::Told RunJournal::exception(const std::string& message, Next next) {
    const bool lastAttempt = next == Next::Nothing;
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::string text = maskSecrets(message);
    if (startsWith(message, kRenditionsFail)) {
        lookupFailure_ = text;
    } else if (startsWith(message, kListFails)) {
        // A stop that the user asked for hides no failure.
        if (lastAttempt && (!isRunStopped() || isStoppedByUser())) addFailure("", text);
    } else if (startsWith(message, kItemFails)) {
        reason_ = text;
        endItem();
    } else if (startsWith(message, kTransferFails)) {
        reason_ = text;
    } else if (!reason_.empty() && text.find(reason_) != std::string::npos) {
        // A row for which the file service could not put the files in place, and said why.
        return Told::Already;
    } else if (lastAttempt) {
        // The list of sets, the database, a refused authorisation.
        reason_ = text;
        addError(text);
    }
    return Told::Now;
}

void RunJournal::fileOpened(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (file_.empty()) file_ = path.substr(path.rfind('/') + 1);
}

void RunJournal::fileServiceFailed(const std::string& explanation) {
    const std::lock_guard<std::mutex> lock(mutex_);
    reason_ = explanation;
}

std::string RunJournal::currentItem() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return itemId_;
}

void RunJournal::rowCreated(const std::string& itemId) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (itemId == itemId_) recordedAs_ = Recorded::New;
}

void RunJournal::rowMayChange(const std::string& updated) {
    const std::lock_guard<std::mutex> lock(mutex_);
    rowBefore_ = updated;
}

void RunJournal::rowMayHaveChanged(const std::string& updated) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!rowBefore_.empty() && !updated.empty() && updated != rowBefore_) recordedAs_ = Recorded::Edited;
    rowBefore_.clear();
}

void RunJournal::wouldPutAside() {
    const std::lock_guard<std::mutex> lock(mutex_);
    wasPutAside_ = true;
}

void RunJournal::wouldFetch() {
    const std::lock_guard<std::mutex> lock(mutex_);
    recordedAs_ = wasPutAside_ ? Recorded::Edited : Recorded::New;
}

void RunJournal::folderRenamed(const std::string& from, const std::string& to) {
    const std::lock_guard<std::mutex> lock(mutex_);
    summary_.renamedFolders.emplace_back(from, to);
}

void RunJournal::folderFailed(const std::string& name, const std::string& explanation) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!isRunStopped()) addFailure(name, explanation);
}

void RunJournal::folderDescriptionFailed(const std::string& folder, const std::string& explanation) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (descriptionFailed_) return;
    descriptionFailed_ = true;
    addFailure(folder, "Its description could not be written: " + explanation);
}

void RunJournal::leaveOutItem(const std::string& id, const std::string& title) {
    // A page can come twice, as the last one of the items in no set does.
    const auto first = summary_.failures.begin() + static_cast<std::ptrdiff_t>(leftOutFrom_);
    const auto known = [&](const Failure& failure) { return failure.id == id; };
    if (std::any_of(first, summary_.failures.end(), known)) return;
    std::string reason(kRenditionsReason);
    reason += lookupFailure_.empty() ? kNoFileReason : lookupFailure_;
    addFailure(title, reason, id);
}

void RunJournal::addFailureOnce(const std::string& name, const std::string& set, const std::string& reason) {
    const auto first = summary_.failures.begin() + static_cast<std::ptrdiff_t>(leftOutFrom_);
    const auto known = [&](const Failure& failure) {
        return failure.name == name && failure.set == set && failure.reason == reason;
    };
    if (std::none_of(first, summary_.failures.end(), known))
        summary_.failures.push_back({name, set, reason, ""});
}

void RunJournal::addRefusal(const std::string& line) {
    for (std::string& error : summary_.errors) {
        if (error == kSignInRefused) error += ". " + maskSecrets(line);
    }
}

void RunJournal::addFailure(std::string name, std::string reason, std::string id) {
    summary_.failures.push_back({std::move(name), set_, std::move(reason), std::move(id)});
}

void RunJournal::addError(const std::string& text) {
    // A database that fails does so for every item: once is enough to know.
    constexpr std::size_t kMostErrors = 20;
    std::vector<std::string>& errors = summary_.errors;
    if (errors.size() >= kMostErrors || std::find(errors.begin(), errors.end(), text) != errors.end()) return;
    errors.push_back(text);
}

std::string RunJournal::takeReason() {
    std::string reason = std::move(reason_);
    reason_.clear();
    return reason.empty() ? "No attempt was made, or it gave no reason" : reason;
}

}  // namespace flickr_standin
