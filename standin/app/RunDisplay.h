// What a run tells while it lasts, and how the user steers it.

#ifndef STANDIN_APP_RUNDISPLAY_H
#define STANDIN_APP_RUNDISPLAY_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "standin/app/PerformRun.h"
#include "standin/app/ProgressLine.h"
#include "standin/framework/run/RunJournal.h"

namespace flickr_app {

/// How much is told.
enum class Talk {
    Quiet,   ///< failures
    Normal,  ///< and on a terminal how far the run is, and its summary
    Verbose  ///< and each item, and the summary wherever it goes
};

/// What the display is made with.
struct DisplaySettings {
    Talk talk = Talk::Normal;
    bool events = false;                    ///< each as one line of JSON, to standard output
    bool keepsItems = false;                ///< for takeItems()
    std::string pauseWhen;                  ///< while that file is there the run pauses; empty for none
    std::function<void()> beforeResume;     ///< called while a run that paused is still at rest
    std::function<std::string()> waitText;  ///< what the run waits for, empty for nothing
    std::function<void()> eachSecond;       ///< called about once a second
};

/// Shows a run's progress on standard error, and passes on the wishes to pause and to stop.
class RunDisplay : public RunListener {
public:
    explicit RunDisplay(DisplaySettings settings);

    void progress(double items, double bytes) override;
    bool stopRequested() override;
    bool pauseRequested() override;
    void paused(bool isPaused) override;

    /// Tells of the items that were settled since the last time.
    void tellItems();
    /// Those that were told so far.
    std::vector<flickr_standin::SettledItem> takeItems() { return std::move(items_); }

private:
    void show(const std::string& note);
    void message(const std::string& text);
    double elapsed() const;

    const DisplaySettings settings_;
    ProgressLine line_;
    Pace pace_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    int stopsSeen_ = 0;
    double bytes_ = 0;
    std::vector<flickr_standin::SettledItem> items_;
};

}  // namespace flickr_app

#endif
