// Feeds bytes to the readers of everything that comes from outside: the service's answers, the framing of its
// bodies, titles and paths made of them, the configuration and the keyword text, and the rows of the two
// databases on a device.
//
// Built with libFuzzer, the environment's FUZZ_TARGET names the target. Built without it, the program runs
// inputs once: fuzz TARGET FILE-OR-DIRECTORY... Each target fails on a crash, on a finding of the sanitizers,
// and where one of its conditions does not hold.

#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/String.h>
#include <Poco/StringTokenizer.h>
#include <Poco/TemporaryFile.h>
#include <Poco/URI.h>
#include <Poco/UTF8Encoding.h>
#include <Poco/UTF8String.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/ChunkedBody.h"
#include "core/MediaSession.h"
#include "core/PhotoInformationSaxHandler.h"
#include "core/PhotoListSaxHandler.h"
#include "core/PhotosetSaxHandler.h"
#include "core/RunSupport.h"
#include "gateway/Failure.h"
#include "gateway/PluginXml.h"
#include "gateway/Rendition.h"
#include "gateway/ServiceAnswer.h"
#include "hostapi/DbInterface.h"
#include "hostapi/HostServiceClientMac.h"
#include "hostapi/HostServiceUsageParams.h"
#include "hostapi/PluginCore.h"
#include "hostapi/Utils.h"
#include "standin/framework/base/Sqlite.h"
#include "standin/framework/device/Ledger.h"
#include "standin/framework/run/Upkeep.h"
#include "standin/framework/store/BackupDatabase.h"

namespace {

using namespace Norvale_Plugin_Flickr;
using namespace Norvale_Plugin_Core;
using namespace flickr_standin;
namespace fs = std::filesystem;

void require(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

/// A folder of the process's own, in memory where there is room for it, removed at its end.
const fs::path& workFolder() {
    static const Poco::TemporaryFile folder(fs::exists("/dev/shm") ? "/dev/shm" : "/tmp");
    static const fs::path path = (Poco::File(folder).createDirectories(), folder.path());
    return path;
}

std::vector<std::string> lines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> result;
    for (std::string line; std::getline(stream, line);) result.push_back(line);
    return result;
}

template <typename Reader>
void parse(Reader& reader, const std::string& text) {
    try {
        reader.read(text);
    } catch (Poco::Exception&) {  // The way in which an unreadable answer is refused.
    }
}

void photoSets(const std::string& text) {
    PhotosetSaxHandler reader;
    parse(reader, text);
    for (const auto& [id, set] : reader.getPhotosetList()) {
        require(id == set.getPhotoSetID(), "a set stands under its id");
        require(isId(id) && (set.getCoverImageID().empty() || isId(set.getCoverImageID())),
                "an id carries no parameters");
        require(set.getTitle().find('/') == std::string::npos, "a set's title is no path");
    }
}

void photos(const std::string& text) {
    PhotoListSaxHandler reader;
    PhotoSet set;
    set.setPhotoSetID("7");
    reader.setData("secret", "key", "token", set, {}, "http://127.0.0.1:1/");  // Nothing answers there.
    parse(reader, text);
    Photo photo;
    photo.setMediaType("photo");
    std::istringstream sizes(text);
    try {
        reader.parsePhotoInformationV2(sizes, photo);
    } catch (Poco::Exception&) {
    }
    reader.sanetizeString(text);
}

void sizes(const std::string& text) {
    for (const char* type : {"photo", "video"}) {
        PhotoInformationSaxHandler reader;
        Photo photo;
        photo.setMediaType(type);
        reader.setPhoto(photo);
        parse(reader, text);
    }
}

/// Each line is the address of a media file, with "\\r" and "\\n" for line ends.
void requests(const std::string& text) {
    for (std::string url : lines(text)) {
        Poco::replaceInPlace(url, "\\r", "\r");
        Poco::replaceInPlace(url, "\\n", "\n");
        std::ostringstream sent;
        try {
            const Poco::URI address(url);
            if (!MediaSession::supports(address)) continue;
            MediaSession(address, url).request().write(sent);
        } catch (Poco::Exception&) {  // The way in which an address is refused.
            continue;
        }
        const std::string request = sent.str();
        const std::string line = request.substr(0, request.find('\r'));
        require(std::count(line.begin(), line.end(), ' ') == 2 &&
                    line.compare(line.size() - 9, 9, " HTTP/1.1") == 0,
                "a request line has three parts");
        require(std::count(request.begin(), request.end(), '\r') == 4 &&
                    std::count(request.begin(), request.end(), '\n') == 4,
                "a request has its own two headers only");
    }
}

/// The body is read in pieces of as many bytes as its first byte says.
void chunks(const std::string& text) {
    class Bytes : public RawBytes {
    public:
        Bytes(const std::string& text, std::size_t piece) : text_(text), piece_(piece) {}
        int nextByte() override { return at_ < text_.size() ? static_cast<unsigned char>(text_[at_++]) : -1; }
        int readBytes(char* buffer, std::streamsize count) override {
            const std::size_t size = std::min({text_.size() - at_, piece_, static_cast<std::size_t>(count)});
            std::memcpy(buffer, text_.data() + at_, size);
            at_ += size;
            return static_cast<int>(size);
        }

    private:
        const std::string& text_;
        const std::size_t piece_;
        std::size_t at_ = 1;
    };
    if (text.empty()) return;
    Bytes bytes(text, 1u + static_cast<unsigned char>(text[0]));
    ChunkedBody chunked(bytes);
    std::istream body(&chunked);
    char block[kBlockSize];
    std::size_t total = 0;
    while (const std::streamsize count = readBlock(body, block)) total += static_cast<std::size_t>(count);
    require(total < text.size(), "chunks hold no more than was sent");
    // A proper end is a line of zeros: no body without one may pass for whole.
    require(body.bad() || text.find('0', 1) != std::string::npos, "a body without its end is not whole");
}

/// Today's service: whatever the gateway reads it can hand on, and reads the same from what it hands on.
void serviceAnswer(const std::string& text) {
    namespace gateway = flickr_gateway;
    gateway::ServiceAnswer answer;
    try {
        answer = gateway::readAnswer(text);
    } catch (gateway::Failure&) {  // The way in which an unreadable answer is refused.
        return;
    }
    gateway::bestVideo(answer.sizes);
    const gateway::Rendition* best = gateway::bestPicture(answer.sizes);
    require(best == nullptr || !best->source.empty(), "the best rendition has an address");
    for (const bool inSet : {true, false}) {
        const gateway::ServiceAnswer page = gateway::readAnswer(gateway::pageXml(answer.items, inSet));
        require(page.items.size() == answer.items.size(), "every item is handed on");
        for (std::size_t i = 0; i < page.items.size(); ++i) {
            require(page.items[i].id == answer.items[i].id && page.items[i].title == answer.items[i].title &&
                        page.items[i].description == answer.items[i].description,
                    "items are handed on as they are");
        }
    }
    const gateway::ServiceAnswer sets = gateway::readAnswer(gateway::setListXml(answer.sets));
    require(sets.sets.size() == answer.sets.size(), "every set is handed on");
    require(gateway::readAnswer(gateway::failureXml(answer.code, answer.message)).message == answer.message,
            "the service's words are handed on");
}

void configuration(const std::string& text) {
    const std::string path = workFolder() / "plugin.xml";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    PluginCore core(path, workFolder() / "log");
    // On the heap and as small as it may be, for the sanitizer to watch over.
    const std::unique_ptr<char[]> value(new char[2048]), error(new char[2048]);
    for (const char* key :
         {"plugin.dataUrl", "plugin.retryAttempts", "plugin.apiKey", "plugin.CEK", "", ".."}) {
        core.getValueString(key, value.get(), error.get());
    }
    core.getName(value.get(), error.get());
    core.getSupportedDataTypes(value.get(), error.get());
    std::error_code ignored;
    fs::resize_file(workFolder() / "log", 0, ignored);
}

void keywords(const std::string& text) {
    HostServiceUsageParams* params = HostServiceUsageParams::getInstance();
    params->setKeywords(text);
    params->setCulture(text);
    params->setRetryAttempts(text);
    require(params->getRetryAttempts() >= 0, "the number of attempts is no negative one");
    for (const char* key : {"ThumbnailKey", "FlickrKey", ""}) {
        const std::string word = params->getValue(key);
        require(word.find('/') == std::string::npos && word != "..", "a keyword is no path");
    }
    require(!params->getValue("ThumbnailKey").empty(), "thumbnails have a folder");
}

void requireSafe(const std::string& name) {
    require(!name.empty() && name.size() <= 255, "a name has 1 to 255 bytes");
    require(name != "." && name != ".." && name.back() != '.' && name.back() != ' ',
            "a name does not end so");
    const Poco::UTF8Encoding utf8;
    for (std::size_t i = 0; i < name.size();) {
        const auto* at = reinterpret_cast<const unsigned char*>(name.data() + i);
        const int left = static_cast<int>(name.size() - i);
        int length = 1;
        while (length < std::min(left, 4) && utf8.queryConvert(at, length) < -1) ++length;
        const int character = utf8.queryConvert(at, length);
        require(character >= 0x20 && character != 0x7f, "a name is UTF-8 without control characters");
        require(character > 0x7f || !std::strchr("<>:\"/\\|?*", character), "a name is safe everywhere");
        i += static_cast<std::size_t>(length);
    }
}

/// Each line is the title of one item of a set; the folder is named by the whole text.
void names(const std::string& text) {
    Utils utils;
    const std::string normal = utils.NormalizeString(text);
    requireSafe(normal);
    require(utils.NormalizeString(normal) == normal, "a safe name stays as it is");
    utils.trimString(text);
    utils.getFileNameWithoutExtension(text);
    Poco::Buffer<char> bytes(text.size());
    std::copy(text.begin(), text.end(), bytes.begin());
    utils.getImageExtension(bytes);

    const std::string path = workFolder() / "names.db";
    fs::remove(path);
    fs::remove(path + "-wal");
    fs::remove(path + "-shm");
    BackupDatabase database(path);
    DbInterface interface;
    interface.setConnectionString(path);
    interface.convertToString(interface.convertToDateTime(text));
    requireSafe(interface.generateFolderName(text, "7"));

    std::map<std::string, std::string> taken;
    int id = 0;
    for (const std::string& title : lines(text)) {
        if (id == 8) break;
        const std::string itemId = std::to_string(++id) + "_7";
        const std::string name = interface.generateFileName(title, "Trip", "7", itemId);
        requireSafe(name);
        const std::string base = utils.getFileNameWithoutExtension(name);
        const bool aside = base.size() >= 4 && base.compare(base.size() - 4, 4, "_Old") == 0;
        require(!aside && Poco::UTF8::icompare(name, "Thumbnail") != 0,
                "no item takes a name the system needs");
        requireSafe(base + "_" + itemId + "_Old.jpg");
        require(taken.emplace(Poco::UTF8::toLower(name), title).second, "no two items have one name");
        const Poco::DateTime now;
        require(interface.createEntry(itemId, title, "Trip", name, "Trip", std::to_string(id), "7", now, now,
                                      "FlickrPhoto", "jpg", "", "", "") == 1,
                "an item is recorded");
        require(interface.getDerivedItemNamebyID(itemId) == name, "a recorded name comes back");
        require(interface.generateFileName(title, "Trip", "7", itemId) == name, "an item keeps its name");
    }
}

/// A service folder with a file and two links out of it, to what must not change.
struct Witness {
    Witness() {
        fs::remove_all(outside);
        fs::create_directories(service / "Trip");
        fs::create_directories(outside / "victim");
        std::ofstream(outside / "victim" / "a.jpg") << "precious";
        fs::create_directory_symlink("../victim", service / "link");
        fs::create_symlink("../victim/a.jpg", service / "Trip" / "b.jpg");
        HostServiceUsageParams::getInstance()->setParams(service, "", false, 1, outside);
    }
    void requireUnchanged() const {
        std::ifstream victim(outside / "victim" / "a.jpg");
        const std::string kept{std::istreambuf_iterator<char>(victim), {}};
        const auto entries = std::distance(fs::recursive_directory_iterator(outside / "victim"), {});
        const fs::directory_iterator all(outside);
        const auto beside = std::count_if(begin(all), end(all), [](const fs::directory_entry& entry) {
            return entry.path().filename().string().compare(0, 9, "backup.db") != 0;
        });
        require(kept == "precious" && entries == 1 && beside == 2,
                "nothing outside the service's folder changes");
    }

    const fs::path outside = workFolder() / "outside", service = outside / "service";
};

/// Each line is a request to the file service: a letter and a path, or two with a tab between them.
void paths(const std::string& text) {
    const Witness witness;
    {
        HostServiceClientMac client;
        std::string command, result, error;
        long handle = 0;
        for (const std::string& line : lines(text)) {
            if (line.empty()) continue;
            const std::string path = line.substr(1);
            const std::string from = path.substr(0, path.find('\t'));
            const std::string to =
                path.find('\t') == std::string::npos ? "x" : path.substr(path.find('\t') + 1);
            std::string data = to;
            switch (line[0]) {
                case 'o':
                    client.openFile(from, ++handle, command, result, error);
                    client.writeFileV2(static_cast<int>(handle), data.data(), static_cast<int>(data.size()),
                                       command, result, error);
                    break;
                case 'c':
                    client.closeFile(handle, data.data(), static_cast<int>(data.size()), command, result,
                                     error);
                    break;
                case 'd':
                    client.deleteFile(from, command, result, error);
                    break;
                case 'r':
                    client.renameFile(from, to, command, result, error);
                    break;
                case 'm':
                    client.createDirectory(from, command, result, error);
                    break;
                case 'n':
                    client.renameDirectory(from, to, command, result, error);
                    break;
                case 'x':
                    client.deleteDirectory(from, command, result, error);
                    break;
                case 'f':
                    client.writeFolderDataXML(from, to, "");
                    break;
                default:
                    break;
            }
        }
    }
    witness.requireUnchanged();
}

/// Each line is a row: "b" for backup.db, "d" and "f" for the ledger's folders and files, and its columns
/// with tabs between them. A run's recovery and check then work over them.
void databases(const std::string& text) {
    const Witness witness;
    const std::string path = witness.outside / "backup.db",
                      ledger = witness.service / ".records" / ".ledger.db";
    fs::create_directories(witness.service / ".records");
    fs::create_directories(witness.service / "Trip" / "Thumbnail");
    for (const char* name : {"Trip/a.jpg", "Trip/a_Old.jpg", "Trip/Thumbnail/a_1_72.jpg", "c.jpg"}) {
        std::ofstream(witness.service / name) << "item";
    }
    { const BackupDatabase made(path); }
    { const Ledger made(ledger); }
    {
        SqliteFile rows(path, SqliteFile::Open::Existing), list(ledger, SqliteFile::Open::Existing);
        const std::map<char, std::unique_ptr<Statement>> inserts = [&] {
            std::map<char, std::unique_ptr<Statement>> all;
            all['b'] = rows.prepare(
                "INSERT OR REPLACE INTO backupmetadata (ItemId, DerivedItemName, DerivedContainerName, "
                "OriginalContainerId, ItemType, ImageExtension) VALUES (?, ?, ?, ?, ?, ?)");
            all['d'] = list.prepare(
                "INSERT OR REPLACE INTO folders (id, parent, name, was, pending, made) VALUES (?, ?, ?, ?, "
                "?, "
                "?)");
            all['f'] = list.prepare(
                "INSERT OR REPLACE INTO files (folder, name, item, was, pending, size, checksum) VALUES (?, "
                "?, "
                "?, ?, ?, ?, '')");
            return all;
        }();
        for (const std::string& line : lines(text)) {
            const auto insert = inserts.find(line.empty() ? '-' : line[0]);
            if (insert == inserts.end()) continue;
            std::istringstream columns(line.substr(1));
            std::string column;
            try {
                StatementUse use(*insert->second);
                for (int i = 1; i <= 6; ++i, column.clear()) {
                    std::getline(columns, column, '\t');
                    use->bind(i, column);
                }
                use.run();
            } catch (Poco::Exception&) {  // a column that wants a number
            }
        }
    }
    try {
        BackupDatabase database(path);
        recoverBackup(database, witness.service, "Thumbnail");
        verifyBackup(database, witness.service, "Thumbnail");
    } catch (Poco::Exception&) {  // refused, or in the way
    }
    HostServiceUsageParams::getInstance()->release();
    witness.requireUnchanged();
}

const std::map<std::string, void (*)(const std::string&)> kTargets = {
    {"photosets", photoSets},  {"photos", photos},     {"sizes", sizes},          {"chunks", chunks},
    {"config", configuration}, {"keywords", keywords}, {"names", names},          {"paths", paths},
    {"databases", databases},  {"requests", requests}, {"service", serviceAnswer}};

void runTarget(const std::string& target, const std::string& input) {
    HostServiceUsageParams::getInstance()->release();
    HostServiceUsageParams::getInstance()->setRetryAttempts("1");
    const auto found = kTargets.find(target);
    if (found == kTargets.end()) {
        std::fprintf(stderr, "no such target: \"%s\"\n", target.c_str());
        std::exit(2);
    }
    found->second(input);
}

}  // namespace

#ifdef FUZZ_STANDALONE
int main(int count, char** arguments) {
    int inputs = 0;
    for (int i = 2; i < count; ++i) {
        std::vector<fs::path> files{arguments[i]};
        if (fs::is_directory(arguments[i])) files.assign(fs::directory_iterator(arguments[i]), {});
        for (const fs::path& path : files) {
            std::fprintf(stderr, "%s\n", path.c_str());
            std::ifstream file(path, std::ios::binary);
            runTarget(arguments[1], {std::istreambuf_iterator<char>(file), {}});
            ++inputs;
        }
    }
    std::printf("%d inputs\n", inputs);
    return inputs == 0 ? 2 : 0;
}
#else
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const char* target = std::getenv("FUZZ_TARGET");
    runTarget(target ? target : "", {reinterpret_cast<const char*>(data), size});
    return 0;
}
#endif
