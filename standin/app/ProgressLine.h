// The line that says how far a run has come.

#ifndef STANDIN_APP_PROGRESSLINE_H
#define STANDIN_APP_PROGRESSLINE_H

#include <ostream>
#include <string>

namespace flickr_app {

/// Writes progress lines: each in the place of the one before on a terminal, one below the other elsewhere.
class ProgressLine {
public:
    ProgressLine(std::ostream& out, bool inPlace) : out_(out), inPlace_(inPlace) {}
    /// Ends the line that stands.
    ~ProgressLine() { end(); }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    /// elapsed: seconds since the run began. The rate shown is that since the line before. note is put to the
    /// end when it is not empty.
    void show(double elapsed, double items, double bytes, const std::string& note = "");

    /// Something else follows.
    void end();

    /// A message on a line of its own.
    void message(const std::string& text);

private:
    std::ostream& out_;
    const bool inPlace_;
    bool standing_ = false;
    double lastElapsed_ = 0;
    double lastBytes_ = 0;
};

}  // namespace flickr_app

#endif
