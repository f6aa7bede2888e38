// The account that the simulated service holds: sets, and the photos and videos in them or in none.

#ifndef SIM_ACCOUNT_H
#define SIM_ACCOUNT_H

#include <cstddef>
#include <ctime>
#include <functional>
#include <memory>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "sim/Content.h"

namespace flickr_sim {

/// One "size" element of an item: a form in which the service offers it.
struct Rendition {
    std::string label;      ///< "Thumbnail", "Large", "Original", "Site MP4" and so on
    int width = 0;          ///< pixels, as listed
    int height = 0;         ///< pixels, as listed
    bool hasSource = true;  ///< false: listed with an empty "source"
    Content content;        ///< none: made from the item
};

/// One photo or video. Texts are UTF-8 and are sent as they are, escaped for XML.
struct Item {
    std::string id;  ///< empty: the account gives one
    std::string title;
    std::string description;
    std::vector<std::string> tags;
    bool isVideo = false;
    std::time_t uploaded = 1700000000;          ///< seconds since 1970, UTC
    std::time_t updated = 1700000000;           ///< "lastupdate": by which clients see that it was edited
    std::string taken = "2023-11-14 22:13:20";  ///< "datetaken", as listed
    int width = 1600;                           ///< of the original, as listed
    int height = 1200;
    std::string extension = "jpg";  ///< of the original, in its address
    Content content;                ///< the original; none: a small picture or video of its own
    /// What flickr.photos.getSizes lists, in this order; empty: what the service offers for an original of
    /// that size.
    std::vector<Rendition> renditions;
};

/// A photo (or video) with a small content of its own, which differs from every other title's.
Item photo(std::string title, std::time_t updated = 1700000000);
Item video(std::string title, std::time_t updated = 1700000000);
/// With a given content.
Item photo(std::string title, Content content, std::time_t updated = 1700000000);
Item video(std::string title, Content content, std::time_t updated = 1700000000);

/// Which labels the service gives to what it makes of an item.
enum class Labels {
    Former,  ///< up to "Large", and four of videos
    Today    ///< up to "X-Large 6K", and many of videos
};

/// What flickr.photos.getSizes lists for an item: its own renditions or the service's usual ones, small to
/// large.
std::vector<Rendition> renditionsOf(const Item& item, Labels labels = Labels::Former);

/// Whether a label is that of a video, not of a still picture.
bool isVideoLabel(const std::string& label);

/// The bytes that the service has for one label of an item; none when the label is not offered.
Content contentOf(const Item& item, const std::string& label);

/// Sets and items, changeable while they are served: every operation is atomic and can be called from any
/// thread. Operations on ids that do not exist throw Poco::NotFoundException.
class Account {
public:
    using ItemPtr = std::shared_ptr<const Item>;

    /// One set without its items.
    struct Set {
        std::string id;
        std::string title;
        std::string description;
        std::string cover;  ///< id of the "primary" item; empty in an empty set
        std::size_t photos = 0;
        std::size_t videos = 0;
        std::time_t created = 1700000000;
        std::time_t updated = 1700000000;
    };

    /// A part of a list of items, with the whole list's length.
    struct Page {
        Set set;
        std::vector<ItemPtr> items;
        std::size_t total = 0;
    };

    /// Adds a set behind the others; an empty id is replaced by a new one. Returns the id.
    std::string addSet(std::string title, std::string description = "", std::string id = "");
    /// Adds an item at the end of a set, or to the items in no set when setId is empty. The first item of a
    /// set becomes its cover. Returns the item's id.
    std::string addItem(const std::string& setId, Item item);
    /// Puts an item that is there into a further set. An item that was in none leaves those in no set.
    void addToSet(const std::string& setId, const std::string& itemId);
    /// Replaces an item's content and says when. The item stays where it is.
    void edit(const std::string& itemId, Content content, std::time_t updated);
    /// Changes anything else of an item but its id and whether it is a video.
    void change(const std::string& itemId, const std::function<void(Item&)>& edit);
    void retitle(const std::string& itemId, std::string title, std::time_t updated);
    void renameSet(const std::string& setId, std::string title);
    void setCover(const std::string& setId, const std::string& itemId);
    /// Takes an item out of every set and of the account.
    void deleteItem(const std::string& itemId);
    /// Removes a set; items that are in no other set stay, in no set.
    void deleteSet(const std::string& setId);

    std::vector<Set> sets() const;
    Set set(const std::string& setId) const;
    ItemPtr item(const std::string& itemId) const;
    /// Items first to first + count - 1 (from 0) of a set in its order, or of those in no set.
    Page page(const std::string& setId, std::size_t first, std::size_t count) const;
    /// All items of a set, or of those in no set when setId is empty.
    std::vector<ItemPtr> items(const std::string& setId) const;

private:
    struct Album {
        Set set;
        std::vector<std::string> items;  // ids
    };
    struct Entry {
        ItemPtr item;
        unsigned sets = 0;  // in how many sets it is; 0: it is among those in no set
    };

    Album& album(const std::string& setId);
    const Album& album(const std::string& setId) const;
    Entry& entry(const std::string& itemId);
    const Entry& entry(const std::string& itemId) const;
    static void append(Album& album, const Item& item);
    static void remove(Album& album, const Item& item);

    mutable std::shared_mutex mutex_;
    std::vector<std::unique_ptr<Album>> albums_;  // in the order of the list
    std::unordered_map<std::string, Album*> albumsById_;
    Album loose_;  // the items in no set
    std::unordered_map<std::string, Entry> items_;
    std::uint64_t nextItem_ = 53000000001;
    std::uint64_t nextSet_ = 72157700000000001;
};

}  // namespace flickr_sim

#endif
