#include "sim/FolderAccount.h"

#include <Poco/Exception.h>
#include <Poco/String.h>
#include <Poco/TextIterator.h>
#include <Poco/UTF8Encoding.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <set>
#include <vector>

#include "sim/Picture.h"

namespace flickr_sim {

namespace {

namespace fs = std::filesystem;

const std::set<std::string> kPhotos = {"jpg", "jpeg", "png", "gif", "tif", "tiff", "webp", "heic"};
const std::set<std::string> kVideos = {"mp4", "mov",  "avi", "mkv",  "m4v", "3gp",
                                       "mpg", "mpeg", "wmv", "webm", "mts"};

/// A decimal id of the given number of digits for a path.
std::string idOf(const std::string& path, int digits) {
    std::uint64_t hash = 14695981039346656037ull;  // FNV-1a
    for (const char c : path) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    std::uint64_t least = 1;
    for (int i = 1; i < digits; ++i) least *= 10;
    return std::to_string(least + hash % (9 * least));
}

/// File names are any bytes; titles are UTF-8.
std::string toUtf8(const std::string& name) {
    Poco::UTF8Encoding utf8;
    std::string text;
    for (Poco::TextIterator it(name, utf8), end(name); it != end; ++it) {
        unsigned char bytes[6];
        const int code = *it;
        const int length = utf8.convert(code < 0 ? 0xFFFD : code, bytes, sizeof bytes);
        text.append(reinterpret_cast<char*>(bytes), static_cast<std::size_t>(length));
    }
    return text;
}

bool isHidden(const fs::path& path) {
    return path.filename().native().front() == '.';
}

void addFile(Account& account, const std::string& setId, const fs::path& root, const fs::path& path) {
    std::string extension = Poco::toLower(path.extension().string());
    if (!extension.empty()) extension.erase(0, 1);
    const bool isVideo = kVideos.count(extension) > 0;
    struct stat status {};
    if (isHidden(path) || (!isVideo && !kPhotos.count(extension)) || ::stat(path.c_str(), &status) != 0 ||
        !S_ISREG(status.st_mode)) {
        return;
    }
    Item item;
    item.id = idOf(path.lexically_relative(root).string(), 14);
    item.title = toUtf8(path.stem().string());
    item.isVideo = isVideo;
    item.extension = extension == "jpeg" ? "jpg" : extension;
    item.uploaded = item.updated = status.st_mtime;
    char taken[32];
    std::tm parts{};
    ::gmtime_r(&status.st_mtime, &parts);
    std::strftime(taken, sizeof taken, "%Y-%m-%d %H:%M:%S", &parts);
    item.taken = taken;
    measureJpeg(path.string(), item.width, item.height);
    item.content = Content::file(path.string());
    account.addItem(setId, std::move(item));
}

/// The files of a directory, in the order of their names.
template <typename Iterator>
std::vector<fs::path> sorted(const fs::path& directory) {
    std::vector<fs::path> paths;
    for (const fs::directory_entry& entry : Iterator(directory)) paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    return paths;
}

}  // namespace

void addFolder(Account& account, const std::string& folder) {
    try {
        const fs::path root = fs::canonical(folder);
        for (const fs::path& path : sorted<fs::directory_iterator>(root)) {
            if (!fs::is_directory(path)) {
                addFile(account, "", root, path);
            } else if (!isHidden(path)) {
                const std::string name = path.filename().string();
                const std::string id = account.addSet(toUtf8(name), "", idOf(name, 17));
                for (const fs::path& file : sorted<fs::recursive_directory_iterator>(path)) {
                    addFile(account, id, root, file);
                }
            }
        }
    } catch (fs::filesystem_error& error) {
        throw Poco::FileException("The folder " + folder + " cannot be read: " + error.code().message() +
                                  ".");
    }
}

}  // namespace flickr_sim
