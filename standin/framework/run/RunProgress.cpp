#include "standin/framework/run/RunProgress.h"

#include <algorithm>
#include <functional>

#include "core/RunLines.h"
#include "standin/framework/base/Text.h"

namespace flickr_standin {

namespace {

using namespace Norvale_Plugin_Flickr;  // the lines' names

}  // namespace

RunProgress& RunProgress::instance() {
    static RunProgress& progress = *new RunProgress;
    return progress;
}

void RunProgress::begin() {
    const std::lock_guard<std::mutex> lock(mutex_);
    moment_ = RunMoment();
    leftOut_ = LeftOut();
    listed_.clear();
    itemBegun_ = false;
}

void RunProgress::settleItem() {
    if (itemBegun_) ++moment_.done;
    itemBegun_ = false;
    moment_.item.clear();
}

void RunProgress::logLine(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (const auto named = kItemNamed.read(line)) {
        ++moment_.listed;
        listed_.insert(std::hash<std::string>()(named->id));
    } else if (kPhotoUnchanged.read(line) || kVideoUnchanged.read(line)) {
        ++moment_.done;
    } else if (const auto item = kItemBegins.read(line)) {
        settleItem();  // one that an exception ended
        itemBegun_ = true;
        moment_.item = item->text;
    } else if (kItemEnds.read(line)) {
        settleItem();
    } else if (const auto ofAll = kItemsAnnounced.read(line)) {
        moment_.toDo = wholeNumber(*ofAll);
    } else if (const auto title = kSetBegins.read(line)) {
        settleItem();
        moment_.phase = RunMoment::Phase::Listing;
        moment_.set = *title;
        moment_.listed = 0;
        moment_.announced = 0;
    } else if (const auto ofSet = kSetAnnounced.read(line)) {
        moment_.announced = wholeNumber(*ofSet);
    } else if (kListAttempt.read(line)) {
        moment_.listed = 0;
    } else if (const auto early = kLeftOutByDate.read(line)) {
        leftOut_.byDate += wholeNumber(*early);
    } else if (const auto other = kLeftOutByKind.read(line)) {
        leftOut_.byKind += wholeNumber(*other);
    } else if (const auto items = kListEnds.read(line)) {
        // What was announced and is not chosen, or was not listed, is no work.
        moment_.phase = RunMoment::Phase::Items;
        moment_.toDo = std::max(moment_.done, moment_.toDo + wholeNumber(*items) - moment_.announced);
    }
}

RunMoment RunProgress::moment() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return moment_;
}

LeftOut RunProgress::leftOut() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return leftOut_;
}

bool RunProgress::wasListed(const std::string& id) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return listed_.count(std::hash<std::string>()(id)) > 0;
}

}  // namespace flickr_standin
