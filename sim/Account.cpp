#include "sim/Account.h"

#include <Poco/Exception.h>
#include <Poco/Hash.h>

#include <algorithm>
#include <mutex>
#include <utility>

namespace flickr_sim {

namespace {

enum class Shape { Whole, Square };
enum class Offered { Always, TodayOnly };

/// A form that the service makes of an original: its label and longer side.
struct Step {
    const char* label;
    int longestSide;
    Shape shape = Shape::Whole;
    Offered offered = Offered::Always;
};

constexpr Step kSteps[] = {
    {"Square", 75, Shape::Square},
    {"Large Square", 150, Shape::Square},
    {"Thumbnail", 100},
    {"Small", 240},
    {"Small 320", 320},
    {"Small 400", 400, Shape::Whole, Offered::TodayOnly},
    {"Medium", 500},
    {"Medium 640", 640},
    {"Medium 800", 800},
    {"Large", 1024},
    {"Large 1600", 1600, Shape::Whole, Offered::TodayOnly},
    {"Large 2048", 2048, Shape::Whole, Offered::TodayOnly},
    {"X-Large 3K", 3072, Shape::Whole, Offered::TodayOnly},
    {"X-Large 4K", 4096, Shape::Whole, Offered::TodayOnly},
    {"X-Large 5K", 5120, Shape::Whole, Offered::TodayOnly},
    {"X-Large 6K", 6144, Shape::Whole, Offered::TodayOnly},
};

/// A form that the service makes of a video: its label and height, 0 for the video's own.
struct Film {
    const char* label;
    int height = 0;
    Offered offered = Offered::TodayOnly;
};

constexpr Film kFilms[] = {
    {"Video Player", 0, Offered::Always},
    {"Site MP4", 0, Offered::Always},
    {"Mobile MP4", 0, Offered::Always},
    {"Video Original", 0, Offered::Always},
    {"100", 100},
    {"288p", 288},
    {"300", 300},
    {"360p", 360},
    {"iphone_wifi", 360},
    {"appletv", 480},
    {"700", 480},
    {"720p", 720},
    {"HD MP4", 720},
    {"1080p", 1080},
    {"orig"},
};

Rendition rendition(std::string label, int width, int height) {
    Rendition made;
    made.label = std::move(label);
    made.width = width;
    made.height = height;
    return made;
}

unsigned designOf(const Item& item) {
    return static_cast<unsigned>(Poco::hash(item.id));
}

[[noreturn]] void throwMissing(const char* what, const std::string& id) {
    throw Poco::NotFoundException(std::string("no ") + what + " has this id", id);
}

}  // namespace

Item photo(std::string title, std::time_t updated) {
    Content content =
        Content::picture(static_cast<unsigned>(Poco::hash(title)), 64, 48, title + std::to_string(updated));
    return photo(std::move(title), std::move(content), updated);
}

Item video(std::string title, std::time_t updated) {
    Content content = Content::video(5000, Poco::hash(title) + static_cast<std::uint64_t>(updated));
    return video(std::move(title), std::move(content), updated);
}

Item photo(std::string title, Content content, std::time_t updated) {
    Item item;
    item.title = std::move(title);
    item.updated = updated;
    item.content = std::move(content);
    return item;
}

Item video(std::string title, Content content, std::time_t updated) {
    Item item = photo(std::move(title), std::move(content), updated);
    item.isVideo = true;
    item.extension = "mp4";
    return item;
}

std::vector<Rendition> renditionsOf(const Item& item, Labels labels) {
    if (!item.renditions.empty()) return item.renditions;
    std::vector<Rendition> made;
    made.reserve(std::size(kSteps) + std::size(kFilms));
    const int longest = std::max({item.width, item.height, 1});
    for (const Step& step : kSteps) {
        if (step.offered == Offered::TodayOnly && labels == Labels::Former) continue;
        if (step.shape == Shape::Square) {
            made.push_back(rendition(step.label, step.longestSide, step.longestSide));
        } else if (longest > step.longestSide || std::string(step.label) == "Thumbnail") {
            const int side = std::min(step.longestSide, longest);
            made.push_back(rendition(step.label,
                                     std::max(1, static_cast<int>(1LL * item.width * side / longest)),
                                     std::max(1, static_cast<int>(1LL * item.height * side / longest))));
        }
    }
    if (item.isVideo) {
        for (const Film& film : kFilms) {
            if ((film.offered == Offered::TodayOnly && labels == Labels::Former) || film.height > item.height)
                continue;
            const int height = film.height > 0 ? film.height : item.height;
            made.push_back(rendition(
                film.label, static_cast<int>(1LL * item.width * height / std::max(item.height, 1)), height));
        }
    } else {
        made.push_back(rendition("Original", item.width, item.height));
    }
    return made;
}

bool isVideoLabel(const std::string& label) {
    return std::any_of(std::begin(kFilms), std::end(kFilms), [&](const Film& f) { return label == f.label; });
}

Content contentOf(const Item& item, const std::string& label) {
    const std::vector<Rendition> all = renditionsOf(item, Labels::Today);
    const auto found = std::find_if(all.begin(), all.end(), [&](const auto& r) { return r.label == label; });
    if (found == all.end()) return Content();
    if (found->content) return found->content;

    const bool isStill =
        std::any_of(std::begin(kSteps), std::end(kSteps), [&](const Step& s) { return label == s.label; });
    if (!isStill) return item.content;
    if (Content reduced = item.content.reducedPicture(std::max(found->width, found->height))) return reduced;
    return Content::picture(designOf(item), found->width, found->height,
                            item.id + ' ' + label + ' ' + std::to_string(item.updated));
}

std::string Account::addSet(std::string title, std::string description, std::string id) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    if (id.empty()) id = std::to_string(nextSet_++);
    if (albumsById_.count(id)) throw Poco::ExistsException("a set has this id already", id);
    auto album = std::make_unique<Album>();
    album->set.id = id;
    album->set.title = std::move(title);
    album->set.description = std::move(description);
    albumsById_[id] = album.get();
    albums_.push_back(std::move(album));
    return id;
}

std::string Account::addItem(const std::string& setId, Item item) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    Album& target = album(setId);
    if (item.id.empty()) item.id = std::to_string(nextItem_++);
    const std::string id = item.id;
    if (items_.count(id)) throw Poco::ExistsException("an item has this id already", id);
    if (!item.content) {
        const Item made = item.isVideo ? video(item.title, item.updated) : photo(item.title, item.updated);
        item.content = made.content;
    }
    Entry added{std::make_shared<const Item>(std::move(item)), setId.empty() ? 0u : 1u};
    append(target, *added.item);
    items_.emplace(id, std::move(added));
    return id;
}

void Account::addToSet(const std::string& setId, const std::string& itemId) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    Entry& known = entry(itemId);
    Album& target = album(setId);
    if (std::find(target.items.begin(), target.items.end(), itemId) != target.items.end()) return;
    if (known.sets == 0) remove(loose_, *known.item);
    append(target, *known.item);
    ++known.sets;
}

void Account::change(const std::string& itemId, const std::function<void(Item&)>& edit) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    Entry& known = entry(itemId);
    auto changed = std::make_shared<Item>(*known.item);
    edit(*changed);
    changed->id = itemId;
    if (changed->isVideo != known.item->isVideo) {
        throw Poco::InvalidArgumentException("a photo cannot become a video, nor a video a photo", itemId);
    }
    known.item = std::move(changed);
}

void Account::edit(const std::string& itemId, Content content, std::time_t updated) {
    change(itemId, [&](Item& item) {
        item.content = std::move(content);
        item.updated = updated;
    });
}

void Account::retitle(const std::string& itemId, std::string title, std::time_t updated) {
    change(itemId, [&](Item& item) {
        item.title = std::move(title);
        item.updated = updated;
    });
}

void Account::renameSet(const std::string& setId, std::string title) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    Set& set = album(setId).set;
    set.title = std::move(title);
    ++set.updated;
}

void Account::setCover(const std::string& setId, const std::string& itemId) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    album(setId).set.cover = itemId;
}

void Account::deleteItem(const std::string& itemId) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    const ItemPtr item = entry(itemId).item;
    remove(loose_, *item);
    for (const auto& album : albums_) remove(*album, *item);
    items_.erase(itemId);
}

void Account::deleteSet(const std::string& setId) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    if (setId.empty()) throwMissing("set", setId);
    for (const std::string& id : album(setId).items) {
        Entry& known = entry(id);
        if (--known.sets == 0) append(loose_, *known.item);
    }
    albumsById_.erase(setId);
    albums_.erase(std::find_if(albums_.begin(), albums_.end(),
                               [&](const auto& album) { return album->set.id == setId; }));
}

std::vector<Account::Set> Account::sets() const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    std::vector<Set> sets;
    sets.reserve(albums_.size());
    for (const auto& album : albums_) sets.push_back(album->set);
    return sets;
}

Account::Set Account::set(const std::string& setId) const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return album(setId).set;
}

Account::ItemPtr Account::item(const std::string& itemId) const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return entry(itemId).item;
}

Account::Page Account::page(const std::string& setId, std::size_t first, std::size_t count) const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    const Album& source = album(setId);
    Page page{source.set, {}, source.items.size()};
    const std::size_t start = std::min(first, page.total);
    const std::size_t end = start + std::min(count, page.total - start);
    page.items.reserve(end - start);
    for (std::size_t i = start; i < end; ++i) page.items.push_back(entry(source.items[i]).item);
    return page;
}

std::vector<Account::ItemPtr> Account::items(const std::string& setId) const {
    return page(setId, 0, SIZE_MAX).items;
}

Account::Album& Account::album(const std::string& setId) {
    return const_cast<Album&>(std::as_const(*this).album(setId));
}

const Account::Album& Account::album(const std::string& setId) const {
    if (setId.empty()) return loose_;
    const auto found = albumsById_.find(setId);
    if (found == albumsById_.end()) throwMissing("set", setId);
    return *found->second;
}

Account::Entry& Account::entry(const std::string& itemId) {
    return const_cast<Entry&>(std::as_const(*this).entry(itemId));
}

const Account::Entry& Account::entry(const std::string& itemId) const {
    const auto found = items_.find(itemId);
    if (found == items_.end()) throwMissing("item", itemId);
    return found->second;
}

void Account::append(Album& album, const Item& item) {
    album.items.push_back(item.id);
    ++(item.isVideo ? album.set.videos : album.set.photos);
    if (album.set.cover.empty()) album.set.cover = item.id;
}

void Account::remove(Album& album, const Item& item) {
    const auto found = std::find(album.items.begin(), album.items.end(), item.id);
    if (found == album.items.end()) return;
    album.items.erase(found);
    --(item.isVideo ? album.set.videos : album.set.photos);
    if (album.set.cover == item.id) album.set.cover = album.items.empty() ? "" : album.items.front();
}

}  // namespace flickr_sim
