#include "standin/app/ProgressLine.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string_view>
#include <utility>
#include <vector>

#include "standin/app/Format.h"
#include "standin/framework/base/Names.h"

namespace flickr_app {
namespace {

using flickr_standin::RunMoment;

constexpr double kPaceSeconds = 60;
constexpr double kLeastPaceSeconds = 5;
constexpr std::size_t kNarrow = 60;           // columns below which numbers are written short
constexpr std::size_t kLeastNameColumns = 8;  // of a name that is cut
constexpr std::size_t kUsualColumns = 80;

std::string setName(const RunMoment& moment) {
    return moment.set == flickr_standin::kNoSetId ? "items in no set" : printable(moment.set);
}

/// What the run is at. cut: room for a name in it.
std::string activity(const RunMoment& moment, std::size_t room) {
    if (moment.phase == RunMoment::Phase::Sets) return cutColumns("Listing the photo sets", room);
    if (moment.phase == RunMoment::Phase::Items) {
        const std::string item = moment.item.empty() ? "" : ": " + printable(moment.item);
        return cutColumns(setName(moment) + item, room);
    }
    std::string count = ": " + std::to_string(moment.listed);
    if (moment.announced > 0) count += " of " + std::to_string(moment.announced);
    const std::string start = "Listing ";
    const std::size_t fixed = start.size() + count.size();
    return start + cutColumns(setName(moment), room > fixed ? room - fixed : 1) + count;
}

std::string roughly(double seconds) {
    if (seconds < 59.5) return std::to_string(std::max(1L, std::lround(seconds))) + " s";
    const long minutes = std::lround(seconds / 60);
    if (minutes < 60) return std::to_string(minutes) + " min";
    if (minutes < 48 * 60)
        return std::to_string(minutes / 60) + " h " + std::to_string(minutes % 60) + " min";
    return std::to_string(minutes / 1440) + " days";
}

}  // namespace

std::string progressText(const ProgressState& state, std::size_t columns) {
    const RunMoment& moment = state.moment;
    const bool narrow = columns < kNarrow;
    std::string items;
    if (moment.toDo > 0 || moment.done > 0) {
        items = narrow ? formatNumber(moment.done) + "/" + formatNumber(moment.toDo)
                       : formatNumber(moment.done) + " of " + formatCount(moment.toDo, "item");
    }
    // In the order in which they stand, each with its rank: the highest goes first.
    std::vector<std::pair<int, std::string>> parts = {
        {1, items},
        {5, state.bytes > 0 ? formatBytes(state.bytes) : ""},
        {4, state.rate >= 0 && state.bytes > 0 ? formatBytes(state.rate) + "/s" : ""},
        {3, state.secondsLeft >= 0 ? roughly(state.secondsLeft) + " left" : ""},
    };
    if (state.note.empty()) {
        const std::size_t whole = columnsIn(activity(moment, columns));
        const bool isListing = moment.phase == RunMoment::Phase::Listing;
        const std::size_t least =
            isListing || whole < kLeastNameColumns ? std::min(whole, columns) : kLeastNameColumns;
        parts.push_back({isListing ? 0 : 2, std::string(least, ' ')});  // its room
    } else {
        parts.push_back({0, cutColumns(state.note, columns)});
    }
    const auto join = [&] {
        std::string line;
        for (const auto& [rank, part] : parts) {
            if (!part.empty()) line += (line.empty() ? "" : ", ") + part;
        }
        return line;
    };
    while (columnsIn(join()) > columns) {
        const auto shown =
            std::count_if(parts.begin(), parts.end(), [](const auto& part) { return !part.second.empty(); });
        auto last = parts.end();
        for (auto part = parts.begin(); part != parts.end(); ++part) {
            if (!part->second.empty() && (last == parts.end() || part->first > last->first)) last = part;
        }
        if (shown <= 1 || last->first == 0) break;
        last->second.clear();
    }
    if (state.note.empty() && !parts.back().second.empty()) {
        const std::size_t others = columnsIn(join()) - parts.back().second.size();
        parts.back().second = activity(moment, columns > others ? columns - others : 1);
    }
    return cutColumns(join(), columns);
}

void Pace::add(double elapsed, double bytes, long done) {
    samples_.push_back({elapsed, bytes, done});
    while (samples_.size() > 2 && elapsed - samples_.front().elapsed > kPaceSeconds) samples_.pop_front();
}

double Pace::rate() const {
    if (samples_.size() < 2) return -1;
    // Of the last seconds: a minute's would look like a run that goes on when nothing comes any more.
    const Sample& last = samples_.back();
    const Sample& first = samples_[samples_.size() > 5 ? samples_.size() - 5 : 0];
    const double span = last.elapsed - first.elapsed;
    return span > 0 ? std::max(0.0, last.bytes - first.bytes) / span : 0;
}

double Pace::secondsFor(long items) const {
    if (samples_.size() < 2) return -1;
    const double span = samples_.back().elapsed - samples_.front().elapsed;
    const long done = samples_.back().done - samples_.front().done;
    if (span < kLeastPaceSeconds || done <= 0) return -1;
    return static_cast<double>(std::max(0L, items)) * span / static_cast<double>(done);
}

ProgressStyle styleOf(int descriptor) {
    if (!::isatty(descriptor)) return ProgressStyle::None;
    const char* const terminal = std::getenv("TERM");
    const char* const plain = std::getenv("NO_COLOR");
    const bool isDumb = terminal == nullptr || *terminal == '\0' || std::string_view(terminal) == "dumb";
    return isDumb || (plain != nullptr && *plain != '\0') ? ProgressStyle::Lines : ProgressStyle::InPlace;
}

std::size_t columnsOf(int descriptor) {
    winsize size = {};
    if (::ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUsualColumns;
    return size.ws_col;
}

void ProgressLine::show(double elapsed, const ProgressState& state, std::size_t columns) {
    // A terminal breaks a line that fills its last column.
    if (style_ != ProgressStyle::None)
        show(elapsed, progressText(state, std::max<std::size_t>(columns, 2) - 1), columns);
}

void ProgressLine::show(double elapsed, const std::string& text, std::size_t columns) {
    if (style_ == ProgressStyle::None) return;
    const std::string line = cutColumns(text, std::max<std::size_t>(columns, 2) - 1);
    if (style_ == ProgressStyle::InPlace) {
        out_ << "\r\033[K" << line << std::flush;
        standing_ = true;
    } else if (elapsed >= next_) {
        out_ << line << std::endl;
        next_ = elapsed + secondsBetween_;
    }
}

void ProgressLine::message(const std::string& text) {
    clear();
    out_ << text << std::endl;
}

void ProgressLine::clear() {
    if (standing_) out_ << "\r\033[K" << std::flush;
    standing_ = false;
}

}  // namespace flickr_app
