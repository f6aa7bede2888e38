#include "standin/gallery/Gallery.h"

#include <Poco/Dynamic/Var.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Parser.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/device/Catalogue.h"
#include "standin/framework/device/Device.h"
#include "standin/framework/device/DeviceFiles.h"
#include "standin/framework/run/Upkeep.h"
#include "standin/framework/store/BackupDatabase.h"
#include "standin/gallery/ImageShape.h"
#include "standin/gallery/Page.h"

namespace flickr_gallery {

using namespace flickr_standin;

namespace {

// By this an index.html is known as ours; it stands in page/index.html.
constexpr const char* kMarker = "<meta name=\"generator\" content=\"flickr-backup gallery 1\">";

// A chunk ends with the month in which it reaches the first number of items, or at the second.
constexpr std::size_t kFullChunk = 250;
constexpr std::size_t kLargestChunk = 1000;

// So many files are flushed at once.
constexpr std::size_t kMostStaged = 32;

constexpr const char* kSetsPrefix = "sets-";
constexpr const char* kSearchPrefix = "search-";
constexpr std::size_t kHashLength = 16;

// Items whose texts share a search file, about: few files are quickly read, small ones quickly written again.
constexpr std::size_t kSearchFileItems = 4096;
// Part of a search file's name: another number for another way of making texts.
constexpr const char* kSearchForm = "2";

constexpr const char* kListBegin = "[\n";
constexpr const char* kListEnd = "\n]);\n";

/// An item's line, with what it is sorted by.
struct Line {
    std::string taken;
    std::string id;
    std::string text;
    bool isAgain = false;
};

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (std::string::size_type at = 0; at < text.size();) {
        const std::string::size_type end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

/// The lists of the sets and of a chunk: what is between the brackets.
std::string listOf(const std::string& script) {
    const std::string::size_type begin = script.find(kListBegin);
    const std::string::size_type end = script.rfind(kListEnd);
    if (begin == std::string::npos || end == std::string::npos || end < begin + 2) return {};
    return script.substr(begin + 2, end - begin - 2);
}

std::string listText(const std::string& call, const std::vector<std::string>& lines) {
    std::string text = call + kListBegin;
    for (std::size_t i = 0; i < lines.size(); ++i) text += (i ? ",\n" : "") + lines[i];
    return text + kListEnd;
}

/// The character that begins at text[at], of a string as scriptString() writes it; at is then behind it.
/// White space of any kind comes as a blank.
char unescaped(const std::string& text, std::string::size_type& at) {
    if (text[at] != '\\') return text[at++];
    const bool isCode = text.compare(at + 1, 1, "u") == 0;
    const std::string::size_type begin = at + 1;
    at = std::min(begin + (isCode ? 5 : 1), text.size());
    if (!isCode) return begin < text.size() ? text[begin] : ' ';
    const long code = std::strtol(text.substr(begin + 1, 4).c_str(), nullptr, 16);
    return code > ' ' && code < 0x7f ? static_cast<char>(code) : ' ';
}

/// The strings in an item's line, at most so many, and none behind its tags.
std::vector<std::string> stringsOf(const std::string& line, std::size_t limit) {
    std::vector<std::string> strings;
    for (std::string::size_type at = 0; at < line.size() && line[at] != ']' && strings.size() < limit;) {
        if (line[at++] != '"') continue;
        std::string& text = strings.emplace_back();
        while (at < line.size() && line[at] != '"') text += unescaped(line, at);
        ++at;
    }
    return strings;
}

/// What is searched of an item: the words of its texts in one line, each once, without what a search
/// overlooks.
std::string searchedText(const std::string& line) {
    std::vector<std::string> strings = stringsOf(line, line.size());
    if (strings.size() < 9) return {};
    const std::string &taken = strings[2], &title = strings[3], &file = strings[4];
    std::string text = startsWith(file, title) ? file : title + " " + file;
    text += " " + taken.substr(0, 10);
    for (std::size_t i = 8; i < strings.size(); ++i) text += " " + strings[i];
    const std::string key = searchKey(text);
    std::string searched;
    std::set<std::string_view> words;
    for (std::string::size_type at = 0; at < key.size();) {
        const std::string::size_type end = std::min(key.find(' ', at), key.size());
        const std::string_view word = std::string_view(key).substr(at, end - at);
        if (!word.empty() && words.insert(word).second) (searched += searched.empty() ? "" : " ") += word;
        at = end + 1;
    }
    return searched;
}

/// Of the item's thumbnail, whose name is taken away when it cannot be read.
ImageShape shapeOfThumbnail(Device& device, const Set& set, Item& item) {
    try {
        const std::string path = joinPath(set.folder, item.thumbnail);
        Device::checkPath(path);
        const Descriptor folder = device.openFolder(folderOf(path));
        Descriptor file = openRegular(folder.get(), nameOf(path));
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(
            file.isOpen() ? ::fdopen(file.get(), "rb") : nullptr, &std::fclose);
        if (stream) {
            file.release();
            return imageShape(stream.get());
        }
    } catch (DeviceException&) {
        // The same as a thumbnail that is not there.
    }
    item.thumbnail.clear();
    return {};
}

std::string scriptArray(const std::vector<std::string>& texts) {
    std::string list;
    for (const std::string& text : texts) list += (list.empty() ? "" : ",") + scriptString(text);
    return "[" + list + "]";
}

std::string itemLine(const Item& item, const ImageShape& shape) {
    std::string line = "[";
    for (const std::string* text : {&item.id, &item.stamp, &item.taken}) line += scriptString(*text) + ",";
    line += std::to_string(shape.width) + "," + std::to_string(shape.height) + ",";
    for (const std::string* text :
         {&item.title, &item.file, &item.thumbnail, &item.uploaded, &item.updated}) {
        line += scriptString(*text) + ",";
    }
    line += (item.isVideo ? "1," : "0,") + scriptString(item.description) + "," + scriptArray(item.tags);
    if (!item.versions.empty()) line += "," + scriptArray(item.versions);
    return line + "]";
}

std::string chunkScript(const std::string& lines) {
    return "gallery.chunk(\"" + hashOf(lines) + "\", " + kListBegin + lines + kListEnd;
}

/// The page's folder of data.
class DataFolder {
public:
    explicit DataFolder(Device& device) : device_(device), root_(device.openFolder("")) {
        // Who may read the folder in which it stands may read it.
        struct stat status = {};
        const bool known = ::fstat(root_.get(), &status) == 0;
        if (::mkdirat(root_.get(), kGalleryFolder, known ? status.st_mode & 0777 : 0700) != 0 &&
            errno != EEXIST) {
            device_.fail("make the folder", kGalleryFolder, errno);
        }
        folder_ = device_.openFolder(kGalleryFolder);
        device_.listFolder(kGalleryFolder, [&](const std::string& name) { present_.insert(name); });
    }

    bool has(const std::string& name) const { return present_.count(name) != 0; }

    std::string read(const std::string& name) {
        const auto staged = std::find_if(staged_.begin(), staged_.end(),
                                         [&](const Staged& file) { return file.name == name; });
        if (!has(name)) return {};
        return readFile(folder_, staged == staged_.end() ? name : staged->part);
    }
    std::string readPage() { return readFile(root_, kGalleryPage); }

    /// Writes the file unless it is there, and keeps it.
    void put(const std::string& name, const std::string& content) {
        put(name, [&] { return content; });
    }
    /// The same, the content made when it is needed.
    void put(const std::string& name, const std::function<std::string()>& content) {
        keep(name);
        if (has(name)) return;
        stage(content(), name);
        present_.insert(name);
        if (staged_.size() == kMostStaged) place();
    }
    void keep(const std::string& name) { kept_.insert(name); }

    /// Replaces the page, unless it is that already, when all files that it names are on the disk.
    void putPage(const std::string& content) {
        if (readPage() == content) return place();
        stage(content, kGalleryPage);
        place();
        if (::fsync(root_.get()) != 0) device_.fail("write", kGalleryPage, errno);
    }

    /// Removes what a gallery wrote and the page does not name.
    void removeOthers() {
        for (const std::string& name : present_) {
            if (kept_.count(name) == 0 && isOurs(name)) ::unlinkat(folder_.get(), name.c_str(), 0);
        }
    }

    long written() const { return written_; }

private:
    static bool isOurs(const std::string& name) {
        if (startsWith(name, kPartPrefix)) return true;
        const NameParts parts = splitName(name);
        const bool script = parts.extension == ".js" || parts.extension == ".css";
        if (!script || parts.base.size() < kHashLength) return false;
        const std::string hash = parts.base.substr(parts.base.size() - kHashLength);
        return hash.find_first_not_of("0123456789abcdef") == std::string::npos;
    }

    static std::string readFile(const Descriptor& folder, const std::string& name) {
        const Descriptor file(
            ::openat(folder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        std::string text;
        if (!file.isOpen() || readAll(file, text) != 0) return {};
        return text;
    }

    /// A file with all its bytes under a temporary name, which goes with it until it is placed.
    struct Staged {
        Staged(const Descriptor& in, const std::string& finalName)
            : folder(in), name(finalName), part(kPartPrefix + finalName) {
            ::unlinkat(folder.get(), part.c_str(), 0);  // what a killed one left
            file = makeFile(folder.get(), part);
        }
        ~Staged() {
            if (!isPlaced) ::unlinkat(folder.get(), part.c_str(), 0);
        }
        Staged(const Staged&) = delete;
        Staged& operator=(const Staged&) = delete;

        const Descriptor& folder;
        const std::string name, part;
        Descriptor file;
        bool isPlaced = false;
    };

    void stage(const std::string& content, const std::string& name) {
        const Staged& staged = staged_.emplace_back(folder_, name);
        const int error =
            staged.file.isOpen() ? writeAll(staged.file, content.data(), content.size()) : errno;
        if (error != 0) device_.fail("write", name, error);
    }

    /// Gives the staged files their names, which are on the disk then; the page gets its own behind the
    /// others.
    void place() {
        if (staged_.empty()) return;
        std::vector<Flush> flushes;
        for (const Staged& staged : staged_) flushes.push_back(flushOf(staged.file, staged.name));
        device_.waitForDisk(flushes);
        for (Staged& staged : staged_) {
            if (staged.name != kGalleryPage) takeName(staged, folder_);
        }
        if (::fsync(folder_.get()) != 0) device_.fail("write", kGalleryFolder, errno);
        if (staged_.back().name == kGalleryPage) takeName(staged_.back(), root_);
        staged_.clear();
    }

    void takeName(Staged& staged, const Descriptor& folder) {
        if (::renameat(folder_.get(), staged.part.c_str(), folder.get(), staged.name.c_str()) != 0) {
            device_.fail("write", staged.name, errno);
        }
        staged.isPlaced = true;
        ++written_;
    }

    Device& device_;
    Descriptor root_;
    Descriptor folder_;
    std::set<std::string> present_;
    std::set<std::string> kept_;
    std::list<Staged> staged_;
    long written_ = 0;
};

class Gallery {
public:
    Gallery(Device& device, BackupDatabase* database)
        : device_(device), catalogue_(device, database), data_(device) {}

    GalleryReport write(Reading reading) {
        const std::string page = data_.readPage();
        if (!page.empty() && page.find(kMarker) == std::string::npos) {
            throw Poco::FileExistsException(
                std::string("A file ") + kGalleryPage +
                " that is not the gallery's stands in the backup's folder; move it away to have a gallery");
        }
        readEarlier(page);
        GalleryReport report;
        std::vector<std::string> lines;
        std::vector<std::pair<std::string, std::vector<std::string>>> chunks;  // by set
        for (Set& set : catalogue_.sets()) {
            const auto isElsewhere = [](const Item& item) { return !item.isPlaced; };
            set.items.erase(std::remove_if(set.items.begin(), set.items.end(), isElsewhere), set.items.end());
            report.items += static_cast<long>(set.items.size());
            report.sets += set.id != kNoSetId;
            if (set.id == kNoSetId && set.items.empty()) continue;
            const auto earlier = earlier_.find(set.id);
            const Earlier* before = earlier == earlier_.end() ? nullptr : &earlier->second;
            const bool same = before && reading == Reading::Changes && before->digest == set.digest &&
                              std::all_of(before->chunks.begin(), before->chunks.end(),
                                          [&](const std::string& chunk) { return data_.has(chunk + ".js"); });
            if (same) {
                for (const std::string& chunk : before->chunks) data_.keep(chunk + ".js");
                lines.push_back(before->line);
                chunks.emplace_back(set.id, before->chunks);
            } else {
                chunks.emplace_back(set.id, std::vector<std::string>());
                lines.push_back(writeSet(set, before && reading == Reading::Changes ? before : nullptr,
                                         chunks.back().second));
            }
        }
        data_.putPage(pageText(lines, writeSearchFiles(chunks, report.items)));
        data_.removeOthers();
        report.written = data_.written();
        return report;
    }

private:
    /// A set as the gallery that is there has it.
    struct Earlier {
        std::string digest;
        std::string line;
        std::vector<std::string> chunks;
    };

    /// A gallery that is damaged, or of another version, counts as none.
    void readEarlier(const std::string& page) {
        const std::string prefix = std::string(kGalleryFolder) + "/" + kSetsPrefix;
        const std::string::size_type at = page.find(prefix);
        if (at == std::string::npos) return;
        const std::string script = data_.read(nameOf(page.substr(at, page.find('"', at) - at)));
        if (page.find(prefix + hashOf(script)) == std::string::npos) return;
        for (std::string line : linesOf(listOf(script))) {
            if (!line.empty() && line.back() == ',') line.pop_back();
            const auto set = Poco::JSON::Parser().parse(line).extract<Poco::JSON::Array::Ptr>();
            Earlier earlier;
            earlier.digest = set->getElement<std::string>(1);
            const Poco::JSON::Array::Ptr chunks = set->getArray(7);
            for (std::size_t i = 0; i < chunks->size(); ++i) {
                earlier.chunks.push_back(
                    chunks->getArray(static_cast<unsigned>(i))->getElement<std::string>(0));
            }
            earlier.line = std::move(line);
            earlier_[set->getElement<std::string>(0)] = std::move(earlier);
        }
    }

    /// The items' lines in a chunk; none when it is damaged.
    std::vector<std::string> linesOfChunk(const std::string& chunk) {
        const std::string list = listOf(data_.read(chunk + ".js"));
        if (hashOf(list) != chunk) return {};
        std::vector<std::string> lines = linesOf(list);
        for (std::string& line : lines) {
            if (!line.empty() && line.back() == ',') line.pop_back();
        }
        return lines;
    }

    /// The lines of the items that the gallery has already, by id and stamp.
    std::map<std::pair<std::string, std::string>, Line> knownLines(const Earlier& earlier) {
        std::map<std::pair<std::string, std::string>, Line> known;
        for (const std::string& chunk : earlier.chunks) {
            for (std::string& line : linesOfChunk(chunk)) {
                const std::vector<std::string> strings = stringsOf(line, 3);
                if (strings.size() < 3) continue;
                known[{strings[0], strings[1]}] = {strings[2], strings[0], std::move(line)};
            }
        }
        return known;
    }

    /// Writes the set's chunks, adds their names to names and gives its line.
    std::string writeSet(Set& set, const Earlier* earlier, std::vector<std::string>& names) {
        const auto known = earlier ? knownLines(*earlier) : decltype(knownLines(*earlier))();
        std::vector<Line> items;
        for (Item& item : set.items) {
            const auto line = known.find({item.id, item.stamp});
            if (line != known.end()) {
                items.push_back(line->second);
            } else {
                catalogue_.complete(set, item);
                const ImageShape shape = shapeOfThumbnail(device_, set, item);
                items.push_back({item.taken, item.id, itemLine(item, shape)});
            }
            items.back().isAgain = item.isAgain;
        }
        std::sort(items.begin(), items.end(), [](const Line& a, const Line& b) {
            return std::tie(a.taken, a.id) < std::tie(b.taken, b.id);
        });

        std::string line = "[";
        for (const std::string* text :
             {&set.id, &set.digest, &set.title, &set.folder, &set.cover, &set.coverFile}) {
            line += scriptString(*text) + ",";
        }
        line += std::to_string(items.size()) + ",[";
        for (std::size_t begin = 0; begin < items.size();) {
            const std::size_t end = chunkEnd(items, begin);
            names.push_back(writeChunk(items, begin, end));
            line += (begin ? ",[\"" : "[\"") + names.back() + "\",[" + monthsText(items, begin, end) + "]]";
            begin = end;
        }
        return line + "]]";
    }

    static std::string monthOf(const Line& item) { return item.taken.substr(0, 7); }

    static std::size_t chunkEnd(const std::vector<Line>& items, std::size_t begin) {
        std::size_t end = begin + 1;
        while (end < items.size() && end - begin < kLargestChunk &&
               (end - begin < kFullChunk || monthOf(items[end]) == monthOf(items[end - 1]))) {
            ++end;
        }
        return end;
    }

    /// Writes a chunk and gives its name.
    std::string writeChunk(const std::vector<Line>& items, std::size_t begin, std::size_t end) {
        std::string lines;
        for (std::size_t i = begin; i < end; ++i) lines += (i == begin ? "" : ",\n") + items[i].text;
        const std::string name = hashOf(lines);
        data_.put(name + ".js", chunkScript(lines));
        return name;
    }

    /// The months of a chunk, with the number of items of each, and of those that are there again.
    static std::string monthsText(const std::vector<Line>& items, std::size_t begin, std::size_t end) {
        struct Counts {
            long items = 0, again = 0;
        };
        std::map<std::string, Counts> months;
        for (std::size_t i = begin; i < end; ++i) {
            Counts& counts = months[monthOf(items[i])];
            ++counts.items;
            counts.again += items[i].isAgain;
        }
        std::string text;
        for (const auto& [month, counts] : months) {
            text += (text.empty() ? "[" : ",[") + scriptString(month) + "," + std::to_string(counts.items);
            if (counts.again != 0) text += "," + std::to_string(counts.again);
            text += "]";
        }
        return text;
    }

    /// Writes the search files of the sets' chunks and gives their names. A chunk keeps its file while the
    /// number of files stays the same, and so a change of one set leaves most of them as they are.
    std::vector<std::string> writeSearchFiles(
        const std::vector<std::pair<std::string, std::vector<std::string>>>& sets, long items) {
        std::size_t count = 1;
        while (count * kSearchFileItems < static_cast<std::size_t>(items)) count *= 2;
        std::vector<std::set<std::string>> files(count);
        for (const auto& [set, chunks] : sets) {
            for (std::size_t i = 0; i < chunks.size(); ++i) {
                const std::string place = hashOf(set + "/" + std::to_string(i));
                files[std::stoull(place, nullptr, 16) % count].insert(chunks[i]);
            }
        }
        std::vector<std::string> names;
        for (const std::set<std::string>& chunks : files) {
            if (chunks.empty()) continue;
            std::string made = kSearchForm;
            for (const std::string& chunk : chunks) made += "/" + chunk;
            names.push_back(kSearchPrefix + hashOf(made));
            data_.put(names.back() + ".js", [&] { return searchScript(chunks); });
        }
        return names;
    }

    std::string searchScript(const std::set<std::string>& chunks) {
        std::vector<std::string> entries;
        for (const std::string& chunk : chunks) {
            std::string photos, texts;
            const char* between = "";
            for (const std::string& line : linesOfChunk(chunk)) {
                // A chunk that was on the device may hold anything; its lines keep their places.
                const std::vector<std::string> strings = stringsOf(line, 1);
                const std::string id = strings.empty() ? std::string() : strings[0];
                photos += (*between ? " " : "") + id.substr(0, id.find('_'));
                texts += between + searchedText(line);
                between = "\n";
            }
            entries.push_back(scriptArray({chunk, photos, texts}));
        }
        return listText("gallery.texts(", entries);
    }

    /// Writes what the page begins with and gives the page.
    std::string pageText(const std::vector<std::string>& lines, const std::vector<std::string>& searchFiles) {
        std::string page = kPageHtml;
        const auto put = [&](const char* place, const std::string& prefix, const char* extension,
                             const std::string& content) {
            const std::string name = prefix + hashOf(content) + extension;
            data_.put(name, content);
            page.replace(page.find(place), std::char_traits<char>::length(place),
                         std::string(kGalleryFolder) + "/" + name);
        };
        put("{style}", "style-", ".css", kPageStyle);
        put("{texts}", "texts-", ".js", kPageTexts);
        put("{script}", "script-", ".js", kPageScript);
        put("{sets}", kSetsPrefix, ".js", listText("gallery.sets(" + scriptArray(searchFiles) + ", ", lines));
        return page;
    }

    Device& device_;
    Catalogue catalogue_;
    DataFolder data_;
    std::map<std::string, Earlier> earlier_;
};

}  // namespace

std::string scriptString(const std::string& text) {
    std::string result = "\"";
    const std::string valid = validUtf8(text);
    for (std::size_t i = 0; i < valid.size(); ++i) {
        const auto c = static_cast<unsigned char>(valid[i]);
        const bool lineEnd =
            c == 0xe2 && (valid.compare(i, 3, "\u2028") == 0 || valid.compare(i, 3, "\u2029") == 0);
        if (c == '"' || c == '\\') {
            result += {'\\', valid[i]};
        } else if (c < 0x20 || c == 0x7f || c == '<' || c == '>' || c == '&') {
            char escape[7];
            std::snprintf(escape, sizeof escape, "\\u%04x", c);
            result += escape;
        } else if (lineEnd) {
            result += valid[i + 2] == '\xa8' ? "\\u2028" : "\\u2029";
            i += 2;
        } else {
            result += valid[i];
        }
    }
    return result + "\"";
}

GalleryReport writeGallery(const std::string& serviceFolder, const std::string& thumbnailWord,
                           BackupDatabase* database, Reading reading) {
    GalleryReport report;
    withDevice(serviceFolder, thumbnailWord,
               [&](Device& device) { report = Gallery(device, database).write(reading); });
    report.page = serviceFolder + "/" + kGalleryPage;
    return report;
}

}  // namespace flickr_gallery
