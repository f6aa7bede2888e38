#include "standin/app/ProgressLine.h"

#include <algorithm>

#include "standin/app/Format.h"

namespace flickr_app {

void ProgressLine::show(double elapsed, double items, double bytes, const std::string& note) {
    const double span = elapsed - lastElapsed_;
    const double rate = span > 0 ? std::max(0.0, bytes - lastBytes_) / span : 0;
    lastElapsed_ = elapsed;
    lastBytes_ = bytes;

    const std::string line = formatCount(static_cast<long>(items), "item") + ", " + formatBytes(bytes) +
                             ", " + formatBytes(rate) + "/s, " + formatDuration(elapsed) +
                             (note.empty() ? "" : ", " + note);
    if (inPlace_) {
        out_ << "\r\033[K" << line << std::flush;
        standing_ = true;
    } else {
        out_ << line << std::endl;
    }
}

void ProgressLine::end() {
    if (standing_) out_ << std::endl;
    standing_ = false;
}

void ProgressLine::message(const std::string& text) {
    end();
    out_ << text << std::endl;
}

}  // namespace flickr_app
