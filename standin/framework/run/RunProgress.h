// How far the current run has come, for whoever watches it. Followed from the plug-in's log lines as
// RunJournal does, which says what came of the run.

#ifndef STANDIN_FRAMEWORK_RUN_RUNPROGRESS_H
#define STANDIN_FRAMEWORK_RUN_RUNPROGRESS_H

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_set>

namespace flickr_standin {

/// A moment of a run.
struct RunMoment {
    enum class Phase {
        Sets,     ///< the list of sets is fetched
        Listing,  ///< the list of a set's items is fetched
        Items     ///< a set's items are compared and copied
    };
    Phase phase = Phase::Sets;
    std::string set;     ///< the current set's title; "Anonymous" for the items in no set
    long listed = 0;     ///< of the current set, so far
    long announced = 0;  ///< for the current set; 0 when the service does not say
    long done = 0;       ///< items that are settled, whatever came of them, over all sets
    long toDo = 0;       ///< items of all sets, as far as they are announced or listed
    std::string item;    ///< title of the one that is copied; empty between two
};

/// Items that were listed and not chosen.
struct LeftOut {
    long byDate = 0;
    long byKind = 0;
};

/// Follows the current run. Every operation may be called from any thread. Its memory grows by a few bytes
/// for each listed item.
class RunProgress {
public:
    static RunProgress& instance();

    /// A run, or a pass of one that was paused, begins.
    void begin();
    void logLine(const std::string& line);

    RunMoment moment() const;
    LeftOut leftOut() const;
    /// Whether the service listed the item, by its id without the set's, in any set.
    bool wasListed(const std::string& id) const;

private:
    RunProgress() = default;
    void settleItem();

    mutable std::mutex mutex_;
    RunMoment moment_;
    LeftOut leftOut_;
    std::unordered_set<std::size_t> listed_;  // hashes of ids
    bool itemBegun_ = false;
};

}  // namespace flickr_standin

#endif
