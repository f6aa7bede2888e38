// The line that says how far a run has come.

#ifndef STANDIN_APP_PROGRESSLINE_H
#define STANDIN_APP_PROGRESSLINE_H

#include <cstddef>
#include <deque>
#include <ostream>
#include <string>

#include "standin/framework/run/RunProgress.h"

namespace flickr_app {

/// What the line shows.
struct ProgressState {
    flickr_standin::RunMoment moment;
    double bytes = 0;         ///< put on the device
    double rate = -1;         ///< bytes in a second; negative: it cannot be told
    double secondsLeft = -1;  ///< negative: it cannot be told
    std::string note;         ///< "paused" or what is waited for; empty for none
};

/// The line in no more than so many columns: what matters least is left out first.
std::string progressText(const ProgressState& state, std::size_t columns);

/// How fast a run was of late.
class Pace {
public:
    /// elapsed: seconds since the run began.
    void add(double elapsed, double bytes, long done);
    /// Bytes in a second; negative while too little is known.
    double rate() const;
    /// For so many items; negative while too little is known.
    double secondsFor(long items) const;

private:
    struct Sample {
        double elapsed;
        double bytes;
        long done;
    };
    std::deque<Sample> samples_;  // of the last minute
};

/// How progress is written.
enum class ProgressStyle {
    None,
    InPlace,  ///< each line in the place of the one before, on a terminal that can do so
    Lines     ///< a line from time to time
};

/// The style for a stream of this process: a terminal that knows control codes, another one, or none.
ProgressStyle styleOf(int descriptor);

/// The columns of the terminal behind a descriptor; 80 when it does not say.
std::size_t columnsOf(int descriptor);

/// Writes progress lines and messages between them.
class ProgressLine {
public:
    /// secondsBetween: of style Lines.
    ProgressLine(std::ostream& out, ProgressStyle style, double secondsBetween = 10)
        : out_(out), style_(style), secondsBetween_(secondsBetween) {}
    /// Removes the line that stands.
    ~ProgressLine() { clear(); }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void show(double elapsed, const ProgressState& state, std::size_t columns);
    void show(double elapsed, const std::string& text, std::size_t columns);

    /// A message on a line of its own.
    void message(const std::string& text);

    /// Something else follows.
    void clear();

private:
    std::ostream& out_;
    const ProgressStyle style_;
    const double secondsBetween_;
    bool standing_ = false;
    double next_ = 0;
};

}  // namespace flickr_app

#endif
