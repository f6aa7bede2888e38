// What one backup run did, item by item, as a person wants to be told afterwards.
//
// The plug-in reports through one status and its log; neither names an item that failed for good. The journal
// follows what the plug-in does anyway and puts that together: the file service's answers, the exceptions it
// hands over, and the fixed texts of its log lines:
//
//   "Processing Photo Set: S"                                     items belong to S from here on
//   "Getting Photo List Attempt - N"                              S is being listed
//   "No rendition to download for item - I T"                     the listing left item I out
//   "Refused for its id is item - T"                              the same, since no id of the service's is
//   so "Refused for its id is photo set - S"                         S is not backed up "Fewer items listed
//   than announced: N of M"                   for S "Photo - T already backed up no change, ..." ("Video - ")
//   T is unchanged "Photo - T is edited, Downloading again."    ("Video - ")     the next item is an edited
//   one "Item to transfer - I T"                                      item I, titled T, comes next "F
//   successfully downloaded."                                  F, the file opened last, is on the device
//   "Closed socket connection for activity to download photo -F"  the item has ended: without the line
//                                                                 before, it failed with the last reason
//                                                                 seen, or was cut off by a stop
//   "Available new/updated media to process: N"                   S is listed and has N items
//   "The service answers with error C: W"                         why it refuses the list of sets
//   "Unable to create thumbnail directory for - S", "Error occured while creating directory - S",
//   "Unable to rename photoSet - S to T"                          the folder failed
//
// Titles come from outside: each line is matched from its start and, where the title is in its middle, to its
// end as well, so that no title can pass for another line.

#ifndef STANDIN_FRAMEWORK_RUN_RUNJOURNAL_H
#define STANDIN_FRAMEWORK_RUN_RUNJOURNAL_H

#include <Poco/Exception.h>

#include <mutex>
#include <string>
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

struct RunSummary {
    long newItems = 0;
    long editedItems = 0;
    long unchangedItems = 0;
    long interruptedItems = 0;  ///< begun, and cut off by a stop
    long untriedItems = 0;      ///< listed, and the run ended before their turn came
    long untriedSets = 0;       ///< the run ended before all of their items were listed
    double bytes = 0;           ///< written to the device
    std::vector<Failure> failures;
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

    // What the framework's parts report.
    void logLine(const std::string& message);
    /// lastAttempt: nothing more is tried for what failed.
    void exception(const std::string& message, bool lastAttempt);
    void fileOpened(const std::string& path);
    void fileServiceFailed(const std::string& explanation);
    /// A folder's description record could not be placed.
    void folderDescriptionFailed(const std::string& folder, const std::string& explanation);

private:
    RunJournal() = default;

    bool followItem(const std::string& line);
    bool followFolder(const std::string& line);
    bool followLists(const std::string& line);
    void beginSet(const std::string& title);
    void beginItem(const std::string& id, const std::string& title);
    void endItem();
    void endListing(long items);
    void leaveOutItem(const std::string& id, const std::string& title);
    void addRefusal(const std::string& line);
    void addFailureOnce(const std::string& name, const std::string& set, const std::string& reason);
    void addFailure(std::string name, std::string reason, std::string id = "");
    void addError(const std::string& text);
    std::string takeReason();

    mutable std::mutex mutex_;
    RunSummary summary_;
    std::string set_;
    std::string itemId_;  // of the current item
    std::string title_;
    std::string file_;           // name of the file opened first for the current item
    std::string reason_;         // the last one seen since the previous item ended
    std::string lookupFailure_;  // of the item that is being listed
    bool edited_ = false;
    bool downloaded_ = false;
    bool descriptionFailed_ = false;  // of the current set's folder
    bool setsListed_ = false;
    long sets_ = 0;
    long listedSets_ = 0;          // to their end
    long setItems_ = 0;            // of the current set
    long triedItems_ = 0;          // of these
    int listAttempts_ = 0;         // for the current set
    long listedItems_ = 0;         // by the current attempt
    std::size_t leftOutFrom_ = 0;  // the first failure that the current attempt may have added
};

}  // namespace flickr_standin

#endif
