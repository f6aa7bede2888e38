// What one backup run did, item by item, as a person wants to be told afterwards.
//
// The plug-in reports through one status and its log; neither names an item that failed for good. The journal
// puts together what passes through the framework anyway:
//
//   file service   which file comes, what was refused and why, folders that could not be made or renamed
//   database       an item's row was written: it is new; its row has another update time: it was edited
//   exceptions     why a list, a look-up or an attempt failed
//   log            which set and which item it is about, and what was left out: the lines of core/RunLines.h

#ifndef STANDIN_FRAMEWORK_RUN_RUNJOURNAL_H
#define STANDIN_FRAMEWORK_RUN_RUNJOURNAL_H

#include <Poco/Exception.h>

#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace flickr_standin {

/// Something that was to be backed up and is not, or not as it is now.
struct Failure {
    std::string name;       ///< the item's file name or title, the folder's name; empty for a set's list
    std::string set;        ///< title of the photo set; "Anonymous" for items in no set
    std::string reason;     ///< one sentence or the error's own text
    std::string id;         ///< the item's PhotoID, as in its row; empty for a folder or list
    bool onDevice = false;  ///< an earlier version is; the journal itself does not know
};

/// What reasons begin with or are, for who words them for people: behind the first three stand the status of
/// an answer, what is wrong with an address, and why an item's renditions are of no use.
extern const std::string_view kStatusReason;
extern const std::string_view kAddressReason;
extern const std::string_view kRenditionsReason;
/// No rendition has a file; the service did not give a list.
extern const std::string_view kNoFileReason;
extern const std::string_view kNoListReason;

/// An item that was begun and has ended.
struct SettledItem {
    enum class Outcome { New, Edited, Failed, CutOff };
    Outcome outcome;
    std::string id;  ///< the item's PhotoID, as in its row
    std::string title;
    std::string set;
    std::string reason;  ///< of a failure
};

struct RunSummary {
    long newItems = 0;
    long editedItems = 0;
    long unchangedItems = 0;
    long interruptedItems = 0;  ///< begun, and cut off by a stop
    long untriedItems = 0;      ///< listed, and the run ended before their turn came
    long untriedSets = 0;       ///< the run ended before all of their items were listed
    long shortLists = 0;        ///< lists that held fewer items than the service announced
    double bytes = 0;           ///< written to the device
    std::vector<Failure> failures;
    std::vector<std::pair<std::string, std::string>> renamedFolders;  ///< from, to
    std::vector<std::string>
        errors;  ///< what failed for no single item or set: the list of sets, the database
    std::vector<std::string> warnings;  ///< what may be in order and should be looked at
    bool complete() const { return failures.empty() && errors.empty(); }
};

/// The journal of the current run. Every operation may be called from any thread. Its memory grows with the
/// failures, not with the items.
class RunJournal {
public:
    static RunJournal& instance();

    /// Begins a run with an empty journal.
    void begin();

    /// The run as it stands, at its end or before.
    RunSummary summary() const;

    /// Whether items are remembered as they are settled, for takeSettled(), which gives each once.
    void keepSettled(bool keep);
    std::vector<SettledItem> takeSettled();

    // What the framework's parts report.
    void logLine(const std::string& message);
    /// Whether a failure is news to the journal, or the file service has told it already in its own words.
    enum class Told { Now, Already };
    /// What is done about what failed.
    enum class Next { AnotherAttempt, Nothing };
    Told exception(const std::string& message, Next next);
    void fileOpened(const std::string& path);
    void fileServiceFailed(const std::string& explanation);
    /// In a dry run, instead of the old files' steps aside and of the new one's opening.
    void wouldPutAside();
    void wouldFetch();
    /// A set's folder was renamed.
    void folderRenamed(const std::string& from, const std::string& to);
    /// A set's folder could not be made or renamed.
    void folderFailed(const std::string& name, const std::string& explanation);
    /// A folder's description could not be placed.
    void folderDescriptionFailed(const std::string& folder, const std::string& explanation);

    /// Id of the item whose transfer is going on; empty for none.
    std::string currentItem() const;
    /// The item's row was written.
    void rowCreated(const std::string& itemId);
    /// Around a statement of the plug-in that may change the current item's row: the update time that the row
    /// holds, empty when there is none.
    void rowMayChange(const std::string& updated);
    void rowMayHaveChanged(const std::string& updated);

private:
    RunJournal() = default;

    bool followItem(const std::string& line);
    void followLists(const std::string& line);
    void beginSet(const std::string& title);
    void beginItem(const std::string& id, const std::string& title);
    void endItem();
    void settle(SettledItem::Outcome outcome, const std::string& reason = "");
    void endListing(long items);
    void leaveOutItem(const std::string& id, const std::string& title);
    void addRefusal(const std::string& line);
    void addFailureOnce(const std::string& name, const std::string& set, const std::string& reason);
    void addFailure(std::string name, std::string reason, std::string id = "");
    void addError(const std::string& text);
    std::string takeReason();

    mutable std::mutex mutex_;
    bool keepsSettled_ = false;
    std::vector<SettledItem> settled_;
    RunSummary summary_;
    std::string set_;
    std::string itemId_;  // of the current item
    std::string title_;
    std::string file_;           // name of the file opened first for the current item
    std::string reason_;         // the last one seen since the previous item ended
    std::string lookupFailure_;  // of the item that is being listed
    enum class Recorded { Not, New, Edited } recordedAs_ = Recorded::Not;
    std::string rowBefore_;           // the update time in the current item's row
    bool wasPutAside_ = false;        // the current item, in a dry run
    bool descriptionFailed_ = false;  // of the current set's folder
    bool setsListed_ = false;
    long sets_ = 0;
    long listedSets_ = 0;          // to their end
    long setItems_ = 0;            // of the current set
    long triedItems_ = 0;          // of these
    int listAttempts_ = 0;         // for the current set
    std::size_t leftOutFrom_ = 0;  // the first failure that the current attempt may have added
};

}  // namespace flickr_standin

#endif
