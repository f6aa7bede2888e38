// What the service has answered about the renditions of photos, kept from run to run.
//
// A database file in the user's state folder with one table:
//
//   rendition(id TEXT PRIMARY KEY, updated TEXT, thumbnail TEXT, label TEXT, source TEXT,
//             width INTEGER, height INTEGER)
//
// It only saves requests. A file that is damaged or of another form is begun anew.

#ifndef GATEWAY_RENDITIONSTORE_H
#define GATEWAY_RENDITIONSTORE_H

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "gateway/Rendition.h"

struct sqlite3;

namespace flickr_gateway {

/// The two renditions of an item that a backup takes.
struct ItemRenditions {
    Rendition thumbnail;
    Rendition best;
};

/// Can be used from several threads, the file by several processes. Nothing is thrown: what cannot be kept is
/// asked for again.
class RenditionStore {
public:
    /// file: empty for a store that keeps nothing.
    explicit RenditionStore(const std::string& file);
    ~RenditionStore();
    RenditionStore(const RenditionStore&) = delete;
    RenditionStore& operator=(const RenditionStore&) = delete;

    /// What was answered for the item while it was as it was updated then.
    std::optional<ItemRenditions> find(const std::string& id, const std::string& updated) const;
    void put(const std::string& id, const std::string& updated, const ItemRenditions& renditions);
    void forget(const std::string& id);

private:
    void open(const std::string& file);

    mutable std::mutex mutex_;
    sqlite3* database_ = nullptr;
};

}  // namespace flickr_gateway

#endif
