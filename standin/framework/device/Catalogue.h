// What there is in a backup, and what is known of it: its sets and items.
//
// The backup database tells which there are, their titles and when they were uploaded; the descriptions
// beside the media tell the rest. Without a database the descriptions tell it all. Either way
// the sets are listed cheaply first, and what costs the reading of files is read for those items only that
// are asked for.

#ifndef STANDIN_FRAMEWORK_DEVICE_CATALOGUE_H
#define STANDIN_FRAMEWORK_DEVICE_CATALOGUE_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace flickr_standin {

class BackupDatabase;
class Device;

/// A hash of the text, 16 hexadecimal digits (XXH3). It tells versions apart and protects against nobody.
std::string hashOf(const std::string& text);

/// An item of a set.
struct Item {
    std::string id;     ///< photo id, "_", set id
    std::string stamp;  ///< hash of what is listed of the item: changes when anything of it may have changed
    std::string title;
    std::string file;       ///< in the set's folder
    std::string thumbnail;  ///< relative to the set's folder; empty when there is none
    std::string taken;      ///< "YYYY-MM-DD hh:mm:ss" as the camera says; empty when it is not known
    std::string uploaded;   ///< the same form, UTC
    std::string updated;
    bool isVideo = false;
    bool isPlaced = true;  ///< false: a rename of the set is not settled, and may not have reached the item
    bool isAgain = false;  ///< the same photo stands in a set before this one
    std::string description;
    std::vector<std::string> tags;
    std::vector<std::string> versions;  ///< older ones, relative to the set's folder, the newest first
};

/// A set with its items; their paths are those of its folder.
struct Set {
    std::string id;  ///< "Anonymous" for the items in no set
    std::string title;
    std::string folder;       ///< relative to the service folder; "" for the items in no set
    std::string cover;        ///< a thumbnail, relative to the service folder; empty when there is none
    std::string coverFile;    ///< the picture that cover is made from, where it is known
    std::string digest;       ///< changes when anything of the set or of one of its items may have changed
    std::vector<Item> items;  ///< by id, listed and not completed
};

class Catalogue {
public:
    /// database: none to take everything from the descriptions. Both have to live as long as this.
    Catalogue(Device& device, BackupDatabase* database) : device_(device), database_(database) {}

    /// All sets by title, the items in no set last; their items have id, stamp, title, files, older versions,
    /// dates of the service and kind, and isAgain. Throws Poco::Exception when database or device cannot be
    /// read.
    std::vector<Set> sets();

    /// Fills in what the item's description tells. What is missing or damaged stays as it is.
    void complete(const Set& set, Item& item);

private:
    std::vector<Set> setsOfDatabase();
    std::vector<Set> setsOfDescriptions();
    void listDescriptions(Set& set);
    void finish(Set& set, const std::string& folderDescription);
    bool holds(const std::string& path);
    void addVersions(Set& set);

    Device& device_;
    BackupDatabase* database_;
    std::optional<std::map<std::string, std::vector<std::string>>>
        versions_;  // paths by item, when they are known
};

}  // namespace flickr_standin

#endif
