// Kills and failing calls, spread over the calls that change a device: the plug-in backs up a small account
// from a simulated service, the account changes, and it is backed up again by a process that is killed, or
// whose calls fail, from the n-th call on. Each run has a process of its own, the service in it as well, so
// that this program has one thread whenever it makes one.
//
// The calls are counted by functions of this program that stand in front of the C library's.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeParser.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "core/FlickrPluginCore.h"
#include "hostapi/HostServiceClientMac.h"
#include "hostapi/HostServiceUsageParams.h"
#include "sim/FlickrSim.h"
#include "standin/framework/base/Localisation.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Sqlite.h"
#include "standin/framework/device/Description.h"
#include "standin/framework/device/Device.h"
#include "standin/framework/device/Versions.h"
#include "standin/framework/run/RunError.h"
#include "standin/framework/run/Upkeep.h"
#include "standin/framework/store/BackupDatabase.h"
#include "tests/TestFolder.h"

namespace fs = std::filesystem;
using namespace Norvale_Plugin_Core;
using namespace Norvale_Plugin_Flickr;
using namespace flickr_standin;

namespace {

std::atomic<long> callsLeft{-1};  // calls that still succeed; -1 for all
int failure = 0;                  // error number of the calls after them; 0 to be killed

/// What a run tells from its process.
struct Told {
    std::atomic<int> status{0};  ///< what backup() answered
    std::atomic<bool> haveFailed{false};
    /// How often the ledger was written before the folders below were flushed.
    std::atomic<long> writtenTooEarly{0};
    /// How often backup.db was written before folders in which names were given were flushed.
    std::atomic<long> recordedTooEarly{0};
};
Told& told =
    *new (::mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Told;

// Under a sanitizer each run takes its time: fewer moments are tried.
#if defined(UNDER_SANITIZERS)
constexpr long kStep = 7;
#else
constexpr long kStep = 1;
#endif

/// Held while a database is copied: no kill of another thread's cuts that short.
std::mutex copying;

bool fails() {
    for (long left = callsLeft; left != 0;) {
        if (left < 0 || callsLeft.compare_exchange_weak(left, left - 1)) return false;
    }
    if (failure == 0) {
        const std::lock_guard<std::mutex> lock(copying);
        ::kill(::getpid(), SIGKILL);
    }
    told.haveFailed = true;
    errno = failure;
    return true;
}

/// True for a file system that finds a name in whatever case it is given.
bool foldsCase = false;

/// As in user space (FUSE): each other spelling that was looked at has a number of its own, and is there for
/// the kernel even when the file has gone.
std::map<std::pair<ino_t, std::string>, struct stat> rememberedSpellings;

/// The name as it stands in the folder.
std::string standing(int folder, const char* name) {
    if (!foldsCase) return name;
    const std::string path = "/proc/self/fd/" + std::to_string(folder);
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(path, error)) {
        const std::string found = entry.path().filename().string();
        if (::strcasecmp(found.c_str(), name) == 0) return found;
    }
    return name;
}

/// Folders in which a file of the file service's own got its name back, or a folder was removed, and that
/// were not flushed since. A ledger that is written before they are speaks of what a power cut undoes.
std::set<ino_t> unflushedFolders;
/// Folders in which a new file took its name, or that hold a folder with a new one, and that were not flushed
/// since. A row that is written before they are may outlive the name.
std::set<ino_t> unflushedNames;
bool isRunning = false;  // the test itself removes folders as well

ino_t inodeOf(int file) {
    struct stat status = {};
    return ::fstat(file, &status) == 0 ? status.st_ino : 0;
}

bool remembers(int folder, const char* name) {
    const std::lock_guard<std::mutex> lock(copying);
    return rememberedSpellings.count({inodeOf(folder), name}) != 0;
}

void forget(int folder, const char* name) {
    const std::lock_guard<std::mutex> lock(copying);
    rememberedSpellings.erase({inodeOf(folder), name});
}

void noteGivenUp(int folder, bool isDone) {
    const std::lock_guard<std::mutex> lock(copying);
    if (isDone && isRunning) unflushedFolders.insert(inodeOf(folder));
}

/// The folder's own record may follow its row.
void noteNamed(const char* name, int to, const char* newName) {
    struct stat status = {};
    const bool isFolder =
        ::syscall(SYS_newfstatat, to, newName, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
    const bool isMedium = std::strncmp(name, ".part-", 6) == 0 && std::strstr(newName, ".xml") == nullptr;
    const std::lock_guard<std::mutex> lock(copying);
    if (isRunning && (isFolder || isMedium)) unflushedNames.insert(inodeOf(to));
}

void noteWritten(int file) {
    const std::lock_guard<std::mutex> lock(copying);
    if (unflushedFolders.empty() && unflushedNames.empty()) return;
    char path[4096] = {};
    if (::readlink(("/proc/self/fd/" + std::to_string(file)).c_str(), path, sizeof path - 1) < 0) return;
    const bool isLedger = std::strstr(path, ".ledger.db-wal") != nullptr;
    if (isLedger && !unflushedFolders.empty()) ++told.writtenTooEarly;
    // A flush that fails ends the run.
    const bool isRow = std::strstr(path, "backup.db-wal") != nullptr && !told.haveFailed;
    if (isRow && !unflushedNames.empty()) ++told.recordedTooEarly;
}

/// Where copies of the databases as they are on the disk are kept, for power cuts; empty for none.
fs::path onDisk;

/// Keeps the database that the file belongs to as it stands: it was flushed.
int flushed(int file, int result) {
    {
        const std::lock_guard<std::mutex> lock(copying);
        if (result == 0) {
            for (std::set<ino_t>* folders : {&unflushedFolders, &unflushedNames})
                if (!folders->empty()) folders->erase(inodeOf(file));
        }
    }
    if (onDisk.empty() || result != 0) return result;
    const std::lock_guard<std::mutex> lock(copying);
    std::string path(4096, '\0');
    const ssize_t length =
        ::readlink(("/proc/self/fd/" + std::to_string(file)).c_str(), path.data(), path.size());
    path.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    for (const std::string name : {".ledger.db", "backup.db"}) {
        const std::string::size_type at = path.rfind("/" + name);
        if (at == std::string::npos) continue;
        path.resize(at + 1 + name.size());
        for (const char* part : {"", "-wal"}) {
            const fs::path copy = onDisk / (name + part);
            fs::remove(copy);
            if (fs::exists(path + part)) fs::copy_file(path + part, copy);
        }
    }
    return result;
}

}  // namespace

extern "C" {
// SQLite's own name for it, whatever this program calls it.
ssize_t narrowPwrite(int file, const void* data, size_t size, off_t at) asm("pwrite");
ssize_t narrowPwrite(int file, const void* data, size_t size, off_t at) {
    noteWritten(file);
    return fails() ? -1 : ::syscall(SYS_pwrite64, file, data, size, at);
}
ssize_t write(int file, const void* data, size_t size) {
    const bool isLog = (::fcntl(file, F_GETFL) & O_APPEND) != 0;  // which is not on the device
    return file > 2 && !isLog && fails() ? -1 : ::syscall(SYS_write, file, data, size);
}
ssize_t pwrite64(int file, const void* data, size_t size, off64_t at) {
    noteWritten(file);
    return fails() ? -1 : ::syscall(SYS_pwrite64, file, data, size, at);
}
int fsync(int file) {
    return fails() ? -1 : flushed(file, static_cast<int>(::syscall(SYS_fsync, file)));
}
int fdatasync(int file) {
    return fails() ? -1 : flushed(file, static_cast<int>(::syscall(SYS_fdatasync, file)));
}
int mkdirat(int folder, const char* name, mode_t mode) {
    return fails() ? -1
                   : static_cast<int>(::syscall(SYS_mkdirat, folder, standing(folder, name).c_str(), mode));
}
int unlinkat(int folder, const char* name, int flags) {
    if (fails()) return -1;
    const long result = ::syscall(SYS_unlinkat, folder, standing(folder, name).c_str(), flags);
    forget(folder, name);
    noteGivenUp(folder, result == 0 && flags == AT_REMOVEDIR && std::strcmp(name, ".records") != 0);
    return static_cast<int>(result);
}
int fstatat(int folder, const char* name, struct stat* status, int flags) noexcept {
    const std::string found = standing(folder, name);
    const bool isThere = ::syscall(SYS_newfstatat, folder, found.c_str(), status, flags) == 0;
    if (!foldsCase) return isThere ? 0 : -1;
    if (isThere && found == name) return 0;
    const std::lock_guard<std::mutex> lock(copying);
    const auto spelling = std::pair(inodeOf(folder), std::string(name));
    if (isThere) {
        ++status->st_ino;
        rememberedSpellings[spelling] = *status;
        return 0;
    }
    const auto remembered = rememberedSpellings.find(spelling);
    if (remembered == rememberedSpellings.end()) return -1;
    *status = remembered->second;
    return 0;
}
int renameat(int from, const char* name, int to, const char* newName) {
    if (fails()) return -1;
    const std::string source = standing(from, name), target = standing(to, newName);
    const bool same = source == target;
    const long result = ::syscall(SYS_renameat, from, source.c_str(), to, same ? newName : target.c_str());
    for (const auto& [folder, moved] : {std::pair(from, name), std::pair(to, newName)}) forget(folder, moved);
    if (result == 0) noteNamed(name, to, newName);
    noteGivenUp(from, result == 0 && std::strncmp(name, ".kept-", 6) == 0 && inodeOf(from) == inodeOf(to));
    return static_cast<int>(result);
}
int renameat2(int from, const char* name, int to, const char* newName, unsigned flags) {
    if (fails()) return -1;
    const bool isInTheWay = (flags & RENAME_NOREPLACE) && remembers(to, newName);
    if (isInTheWay) errno = EEXIST;
    const long result = isInTheWay ? -1
                                   : ::syscall(SYS_renameat2, from, standing(from, name).c_str(), to,
                                               standing(to, newName).c_str(), flags);
    if (result == 0) {
        forget(from, name);
        noteNamed(name, to, newName);
    }
    noteGivenUp(from, result == 0 && std::strncmp(name, ".kept-", 6) == 0 && inodeOf(from) == inodeOf(to));
    return static_cast<int>(result);
}
int openat(int folder, const char* name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = va_arg(arguments, int);
    va_end(arguments);
    return (flags & O_CREAT) && fails()
               ? -1
               : static_cast<int>(::syscall(SYS_openat, folder, standing(folder, name).c_str(), flags, mode));
}
/// The kernel's own way along a path is not there for names in another case. All six arguments are read, as
/// the C library does, however many the caller gave.
__attribute__((no_sanitize_address)) long syscall(long number, ...) noexcept {
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments) argument = va_arg(list, long);
    va_end(list);
    if (number == SYS_openat2 && foldsCase) {
        errno = ENOSYS;
        return -1;
    }
    static const auto real = reinterpret_cast<long (*)(long, ...)>(::dlsym(RTLD_NEXT, "syscall"));
    return real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}
}

namespace {

struct Item {
    std::string id, title, updated;
    std::string thumbnailExtension = "jpg";
};
struct Set {
    std::string id, title;
    std::vector<Item> items;
};
using Account = std::vector<Set>;

std::string contentOf(const Item& item) {
    std::string content = item.id + " ";
    while (content.size() < 30) content += item.id[0];
    return content + item.updated;
}

/// The account as the service has it: an item's content is contentOf(), its thumbnail has the format that
/// thumbnailExtension says.
void fill(flickr_sim::Account& service, const Account& account) {
    for (const Set& set : account) {
        const bool inNoSet = set.id == kNoSetId;
        if (!inNoSet) service.addSet(set.title, "", set.id);
        for (const Item& item : set.items) {
            const fs::path name = item.title;
            int zone = 0;
            flickr_sim::Item made = flickr_sim::photo(
                name.stem().string(), flickr_sim::Content::bytes(contentOf(item)),
                Poco::DateTimeParser::parse("%Y-%m-%d %H:%M:%S", item.updated, zone).timestamp().epochTime());
            made.id = item.id.substr(0, item.id.find('_'));
            made.isVideo = name.extension() == ".mp4";
            made.renditions.resize(2);
            made.renditions[0].label = "Thumbnail";
            made.renditions[0].content = flickr_sim::Content::bytes(
                (item.thumbnailExtension == "png" ? "\x89PNG\r\n\x1a\n" : "") + contentOf(item) + " small");
            made.renditions[1].label = made.isVideo ? "Video Original" : "Original";
            service.addItem(inNoSet ? "" : set.id, made);
        }
    }
}

const Account kBefore = {
    {"72", "Trip", {{"1_72", "a.jpg", "2020-01-01 00:00:00"}, {"2_72", "b.jpg", "2020-01-02 00:00:00"}}},
    {"Anonymous", "Anonymous", {{"3_Anonymous", "clip.mp4", "2020-01-03 00:00:00"}}}};

/// A renamed set, edited items (one with a new title, one whose thumbnail has another format), and new ones.
/// When a run is cut off the service's titles, and with them the times, may be other ones by the next run.
Account changed(const std::string& title) {
    const std::string year = title == "c" ? "2021" : "2022";
    return {{"72",
             "Voyage",
             {{"1_72", "a.jpg", "2021-01-01 00:00:00", "png"},
              {"2_72", title + ".jpg", year + "-01-02 00:00:00"},
              {"4_72", "new " + title + ".jpg", year + "-01-04 00:00:00"}}},
            {"73", "Set " + title, {{"5_73", "a.jpg", "2021-01-05 00:00:00"}}},
            {"Anonymous",
             "Anonymous",
             {{"3_Anonymous", "clip.mp4", "2021-01-03 00:00:00"},
              {"6_Anonymous", "d.jpg", "2021-01-06 00:00:00"}}}};
}

class RecoveryTest : public testing::Test {
protected:
    RecoveryTest() { failure = 0; }
    ~RecoveryTest() override {
        EXPECT_EQ(told.writtenTooEarly, 0) << "the ledger speaks of names that the disk does not know";
        EXPECT_EQ(told.recordedTooEarly, 0) << "a row speaks of names that the disk does not know";
        told.writtenTooEarly = told.recordedTooEarly = 0;
        params_->release();
    }

    std::string service() const { return (folder_ / "device/service").string(); }
    std::string databasePath() const { return (folder_ / "device/backup.db").string(); }

    void newDevice() {
        params_->release();
        fs::remove_all(folder_ / "device");
        fs::create_directory(folder_ / "device");
    }

    /// For what a test does with the file service itself.
    void useDevice() {
        params_->setBackupState(false);
        params_->setParams(service(), "", true, 1, (folder_ / "device").string());
    }

    /// Whose calls are limited.
    enum class Limited { Backup, Recovery };

    /// One run in a process of its own: recovery, the backup, recovery. Returns whether it was killed.
    bool isKilled(const Account& account, long calls, Limited limited = Limited::Backup) {
        const pid_t child = ::fork();
        if (child == 0) {
            backUp(account, calls, limited);
            ::_exit(0);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status) || status == 0) << status;
        return WIFSIGNALED(status);
    }
    void run(const Account& account, long calls = -1) { EXPECT_FALSE(isKilled(account, calls)); }

    void backUp(const Account& account, long calls, Limited limited) {
        flickr_sim::Account served;
        fill(served, account);
        flickr_sim::FlickrSim service(served);
        if (failThumbnails_) {
            service.faults().add(flickr_sim::thumbnail(), flickr_sim::always(),
                                 flickr_sim::fault::status(500));
        }
        const std::string settings = folder_.string() + "/";
        std::ofstream(settings + "Flickr_plugin_config.xml")
            << "<config><plugin><retryAttempts>1</retryAttempts><dataUrl>" << service.dataUrl()
            << "</dataUrl></plugin></config>";
        const auto text = [](const std::string& value) { return const_cast<char*>(value.c_str()); };
        const flickr_sim::Credentials credentials;
        std::string error(kTextCapacity, '\0'), videos(kVideoListCapacity, '\0');

        useDevice();
        params_->setCulture(culture_);
        BackupDatabase database(databasePath());
        const std::string word = params_->getValue(kThumbnailKey);
        isRunning = true;
        if (limited == Limited::Recovery) callsLeft = calls;
        recoverBackup(database, this->service(), word);
        void* core = createObject(text(settings), text(settings), error.data());
        callsLeft = limited == Limited::Recovery ? -1 : calls;
        told.status = backup(core, text(databasePath()), text("demo-token-1"), text("1/1/2001"),
                             text(credentials.apiKey), text(credentials.apiSecret), text("Images;Videos;"),
                             videos.data(), text(this->service()), text(""),
                             text((folder_ / "device").string()), true, text(culture_), error.data());
        callsLeft = -1;
        deleteObject(core, error.data());
        recoverBackup(database, this->service(), word);
    }

    /// Takes from the databases what a power cut takes: everything since they were flushed last.
    void cutPower() {
        for (const auto& [name, folder] :
             {std::pair(".ledger.db", "service/.records"), std::pair("backup.db", "")}) {
            for (const char* part : {"", "-wal", "-shm"}) {
                const fs::path path = folder_ / "device" / folder / (std::string(name) + part);
                const fs::path kept = onDisk / path.filename();
                fs::remove(path);
                if (fs::exists(kept)) fs::copy_file(kept, path);
            }
        }
    }

    /// Everything on the device, without what only the stand-in's ledger holds and without older versions,
    /// and the rows without the times of runs.
    std::map<std::string, std::string> state() {
        std::map<std::string, std::string> state;
        for (const auto& entry : fs::recursive_directory_iterator(service())) {
            const std::string name = entry.path().lexically_relative(service()).string();
            if (name.find(".ledger.db") != std::string::npos) continue;
            if (name.find(kVersionFolder) != std::string::npos) continue;
            state[name] = entry.is_directory() ? "folder" : readFile(entry.path());
        }
        SqliteFile database(databasePath(), SqliteFile::Open::Existing);
        const auto rows = database.prepare(
            "SELECT ItemId, ItemName, ItemContainerName, DerivedItemName, DerivedContainerName, "
            "ImageExtension, "
            "CASE ItemType WHEN 'FlickrFolder' THEN '' ELSE ItemUpdatedOn END FROM backupmetadata");
        while (rows->step()) {
            std::string row;
            for (int column = 1; column < 7; ++column) row += rows->text(column) + "|";
            state["row " + rows->text(0)] = row;
        }
        return state;
    }

    /// What the account held and holds no more is kept, once, with its description.
    void expectVersions(const Account& before, const Account& after, const std::string& moment) {
        std::multiset<std::string> kept, expected;
        for (const auto& entry : fs::recursive_directory_iterator(service())) {
            const fs::path path = entry.path();
            if (!entry.is_regular_file() || path.parent_path().filename() != kVersionFolder) continue;
            const std::string content = readFile(path);
            kept.insert(content);
            const std::string description =
                readFile(path.parent_path() / ".records" / (path.filename().string() + ".xml"));
            EXPECT_EQ(descriptionField(description, "ID"), content.substr(0, content.find(' '))) << moment;
            std::string date = descriptionField(description, "DateUpdated");
            date = date.substr(0, 10) + " " + date.substr(11, 8);  // without "T" and "Z"
            EXPECT_NE(content.find(date), std::string::npos) << moment << date;
        }
        for (const Set& set : before) {
            for (const Item& item : set.items) expected.insert(contentOf(item));
        }
        for (const Set& set : after) {
            for (const Item& item : set.items) expected.erase(contentOf(item));
        }
        for (const std::string& content : expected) EXPECT_EQ(kept.count(content), 1u) << moment << content;
    }

    /// Compares what is on the device; names what differs.
    static void expectEqual(std::map<std::string, std::string> found,
                            const std::map<std::string, std::string>& expected, const std::string& moment) {
        for (const auto& [name, content] : expected) {
            EXPECT_EQ(found[name], content) << moment << name;
            found.erase(name);
        }
        for (const auto& [name, content] : found) ADD_FAILURE() << moment << "left over: " << name;
    }

    /// The database is sound, and every file that it names is there, whole, as some version of its item.
    void expectSound(const std::string& moment) {
        BackupDatabase database(databasePath());
        EXPECT_EQ(database.integrityProblem(), "") << moment;
        recoverBackup(database, service(), "Thumbnail");
        const BackupReport report = verifyBackup(database, service(), "Thumbnail");
        EXPECT_TRUE(report.agrees()) << moment << testing::PrintToString(report.missing) << " "
                                     << testing::PrintToString(report.altered) << " "
                                     << testing::PrintToString(report.unrecorded);
        EXPECT_EQ(report.withoutChecksum, 0) << moment;
        database.forEachItem([&](const ItemRow& row) {
            const std::string content = readFile(fs::path(service()) / row.mediaPath);
            EXPECT_EQ(content.substr(0, 30), contentOf({row.id, "", ""})) << moment;
            EXPECT_EQ(content.size(), 49u) << moment << row.mediaPath;
        });
    }

    /// After recovery every item of the account has its file and its thumbnail under the recorded names, in
    /// the account's version or at least in some.
    void expectItems(const Account& account, bool thisVersion, const std::string& moment) {
        params_->setParams(service(), "", true, 1, (folder_ / "device").string());
        BackupDatabase database(databasePath());
        recoverBackup(database, service(), "Thumbnail");
        const BackupReport report = verifyBackup(database, service(), "Thumbnail");
        EXPECT_TRUE(report.missing.empty()) << moment << testing::PrintToString(report.missing);
        EXPECT_TRUE(report.altered.empty()) << moment << testing::PrintToString(report.altered);
        unrecorded_ = report.unrecorded;
        for (const Set& set : account) {
            for (const Item& item : set.items) {
                const auto row = database.item(item.id);
                ASSERT_TRUE(row) << moment << item.id;
                const std::string content = readFile(fs::path(service()) / row->mediaPath);
                const std::size_t size = thisVersion ? std::string::npos : 30;
                EXPECT_EQ(content.substr(0, size), contentOf(item).substr(0, size))
                    << moment << row->mediaPath;
            }
        }
    }

    // In memory where that can be had: thousands of files are flushed.
    const TestFolder temporary_{::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : fs::temp_directory_path()};
    const fs::path folder_ = temporary_.path();
    HostServiceUsageParams* params_ = HostServiceUsageParams::getInstance();
    bool failThumbnails_ = false;
    std::string culture_ = "en";
    std::vector<std::string> unrecorded_;
};

TEST_F(RecoveryTest, AKilledRunLosesNothingAndTheNextOneCompletes) {
    std::map<std::string, std::map<std::string, std::string>> undisturbed;
    for (const std::string title : {"c", "other"}) {
        newDevice();
        run(kBefore);
        run(changed(title));
        expectSound("undisturbed");
        undisturbed[title] = state();
        expectVersions(kBefore, changed(title), "undisturbed ");
    }
    params_->release();
    newDevice();
    run(kBefore);
    params_->release();
    fs::copy(folder_ / "device", folder_ / "before", fs::copy_options::recursive);

    long killedAt = 0;
    for (bool killed = true; killed; killedAt += 9 * kStep) {
        const std::string moment = "killed at call " + std::to_string(killedAt) + " ";
        newDevice();
        fs::copy(folder_ / "before", folder_ / "device", fs::copy_options::recursive);
        killed = isKilled(changed("c"), killedAt);
        // A recovery can be killed as well.
        if (killed) isKilled(changed("c"), killedAt % 23, Limited::Recovery);
        expectSound(moment);
        const std::string title = killedAt % 2 == 0 ? "c" : "other";
        run(changed(title));
        expectEqual(state(), undisturbed[title], moment);
        expectVersions(kBefore, changed(title), moment);
        if (HasFailure()) return;
        params_->release();
    }
    EXPECT_GT(killedAt, 150);
}

TEST_F(RecoveryTest, AFirstRunThatIsKilledCompletesLater) {
    newDevice();
    run(kBefore);
    const auto undisturbed = state();
    long killedAt = 0;
    for (bool killed = true; killed; killedAt += 3 * kStep) {
        newDevice();
        killed = isKilled(kBefore, killedAt);
        expectSound("killed at call " + std::to_string(killedAt));
        run(kBefore);
        expectEqual(state(), undisturbed, "killed at call " + std::to_string(killedAt) + " ");
        if (HasFailure()) return;
    }
    EXPECT_GT(killedAt, 60);
}

TEST_F(RecoveryTest, AFailingDeviceKeepsWhatItHasAndSaysWhatIsWrong) {
    newDevice();
    run(kBefore);
    params_->release();
    fs::copy(folder_ / "device", folder_ / "before", fs::copy_options::recursive);
    const std::map<int, int> expected = {{ENOSPC, RunErrorDeviceFull},
                                         {EROFS, RunErrorDeviceReadOnly},
                                         {EIO, RunErrorDeviceGone},
                                         {EACCES, 0}};
    for (const auto& [error, code] : expected) {
        failure = error;
        for (long calls = 0;; calls += kStep * (error == ENOSPC ? 7 : 29)) {
            const std::string moment = std::to_string(error) + " from call " + std::to_string(calls) + " on ";
            newDevice();
            fs::copy(folder_ / "before", folder_ / "device", fs::copy_options::recursive);
            told.haveFailed = false;
            run(changed("c"), calls);
            if (!told.haveFailed) break;
            EXPECT_TRUE(code == 0 || told.status >= 2) << moment << told.status;
            expectSound(moment);
            run(changed("c"));
            expectSound(moment + "and mended ");
            if (HasFailure()) return;
        }
    }
}

// A folder's rename reaches the disk before the rows that speak of it, and another set has its name by then.
TEST_F(RecoveryTest, NothingIsLostWithTheLastRowsOrWithAnOlderDatabase) {
    const auto set = [](const std::string& id, const std::string& title) {
        return Set{id,
                   title,
                   {{id.substr(1) + "1_" + id, "a.jpg", "2020-01-01 00:00:00"},
                    {id.substr(1) + "2_" + id, "only " + id + ".jpg", "2020-01-02 00:00:00"}}};
    };
    const std::vector<std::pair<Account, Account>> walks = {
        {kBefore, changed("c")},
        {{set("72", "Trip")}, {set("72", "Trip 2019"), set("73", "Trip")}},
        {{set("72", "Trip"), set("73", "Voyage")}, {set("72", "Voyage"), set("73", "Trip")}},
        {{set("72", "A"), set("73", "B"), set("74", "C")}, {set("72", "B"), set("73", "C"), set("74", "A")}}};
    for (const auto& [before, after] : walks) {
        newDevice();
        run(before);
        params_->release();
        fs::remove_all(folder_ / "before");
        fs::copy(folder_ / "device", folder_ / "before", fs::copy_options::recursive);
        for (const bool older : {false, true}) {
            bool killed = true;
            for (long killedAt = 0; killed; killedAt += (older ? 17 : 11) * kStep) {
                const std::string moment = std::string(older ? "older database" : "power cut") + " at call " +
                                           std::to_string(killedAt) + " of " + after[0].title + " ";
                newDevice();
                fs::copy(folder_ / "before", folder_ / "device", fs::copy_options::recursive);
                onDisk = folder_ / "disk";
                fs::remove_all(onDisk);
                fs::create_directory(onDisk);
                fs::copy_file(folder_ / "before/backup.db", onDisk / "backup.db");
                fs::copy_file(folder_ / "before/service/.records/.ledger.db", onDisk / ".ledger.db");
                killed = isKilled(after, killedAt);
                // An item's new name is looked for after a killed run only.
                if (!killed && after.back().id == kNoSetId) break;
                if (older) {
                    for (const char* part : {"", "-wal", "-shm"}) fs::remove(databasePath() + part);
                    fs::copy_file(folder_ / "before/backup.db", databasePath());
                } else if (killed) {
                    cutPower();
                }
                onDisk.clear();
                expectItems(before, false, moment);
                run(after);
                expectItems(after, true, moment + "and completed ");
                EXPECT_TRUE(unrecorded_.empty()) << moment << testing::PrintToString(unrecorded_);
                if (HasFailure()) return;
            }
        }
    }
}

TEST_F(RecoveryTest, ARestoreThatIsKilledOrFailsLosesNeitherVersion) {
    newDevice();
    run(kBefore);
    run(changed("c"));
    params_->release();
    fs::copy(folder_ / "device", folder_ / "before", fs::copy_options::recursive);
    const auto restore = [&](long calls) {
        params_->setParams(service(), "", true, 1, (folder_ / "device").string());
        BackupDatabase database(databasePath());
        withDevice(service(), "Thumbnail", [&](Device& device) {
            const std::vector<Version> versions = versionsOn(device);
            ASSERT_EQ(versions.size(), 3u);
            callsLeft = calls;
            try {
                restoreVersion(database, device, versions[1].path);
            } catch (Poco::Exception&) {
                EXPECT_TRUE(told.haveFailed);
            }
            callsLeft = -1;
        });
    };
    for (failure = 0; failure == 0 || failure == ENOSPC; failure += ENOSPC) {
        long calls = 0;
        for (bool stopped = true; stopped; calls += kStep) {
            const std::string moment = "at call " + std::to_string(calls) + " ";
            newDevice();
            fs::copy(folder_ / "before", folder_ / "device", fs::copy_options::recursive);
            told.haveFailed = false;
            const pid_t child = ::fork();
            if (child == 0) {
                restore(calls);
                ::_exit(told.haveFailed ? 1 : HasFailure() ? 2 : 0);
            }
            int status = 0;
            ::waitpid(child, &status, 0);
            stopped = WIFSIGNALED(status) || WEXITSTATUS(status) == 1;
            EXPECT_TRUE(stopped || status == 0) << moment;
            expectSound(moment);
            std::multiset<std::string> held;
            for (const auto& entry : fs::recursive_directory_iterator(service())) {
                if (entry.path().extension() != ".jpg") continue;
                held.insert(readFile(entry.path()));
            }
            for (const Account& account : {kBefore, changed("c")}) {
                for (const Item& item : account[0].items)
                    EXPECT_EQ(held.count(contentOf(item)), 1u) << moment << item.id;
            }
            if (HasFailure()) return;
        }
        EXPECT_GT(calls, 10);
    }
}

TEST_F(RecoveryTest, ADeviceThatIsGoneIsNotReplacedByAFolder) {
    newDevice();
    run(kBefore);
    useDevice();
    std::string command, result, error;
    HostServiceClientMac client;
    client.createDirectory("New", command, result, error);
    ASSERT_EQ(result, "SUC") << error;
    fs::rename(folder_ / "device", folder_ / "unplugged");
    for (int i = 0; i < 2; ++i) {
        // In the middle of the run, and when the next one begins.
        client.createDirectory("More", command, result, error);
        EXPECT_NE(result, "SUC");
        EXPECT_TRUE(params_->isBackupStopped());
        EXPECT_FALSE(params_->isManuallyStopped());
        int code = 0;
        params_->getErrorDetails(code, error);
        EXPECT_EQ(code, RunErrorDeviceGone) << error;
        EXPECT_FALSE(fs::exists(folder_ / "device"));
        params_->setBackupState(false);
    }
    BackupDatabase database((folder_ / "unplugged/backup.db").string());
    EXPECT_THROW(recoverBackup(database, service(), "Thumbnail"), Poco::Exception);
    EXPECT_FALSE(fs::exists(folder_ / "device"));
}

TEST_F(RecoveryTest, AnEditWithoutThumbnailLeavesTheOldVersion) {
    newDevice();
    run(kBefore);
    auto before = state();
    failThumbnails_ = true;
    run({{"72",
          "Trip",
          {{"1_72", "a.jpg", "2021-01-01 00:00:00"}, {"2_72", "c.jpg", "2021-01-02 00:00:00"}}}});
    auto after = state();
    for (auto* both : {&before, &after}) both->erase("Trip/.records/.folder.xml");  // names the latest title
    expectEqual(after, before, "");
    expectSound("");
}

// A file of the user's at the name that the old version would step aside to, and others at names that only
// begin like the file service's own.
TEST_F(RecoveryTest, FilesOfTheUsersStayAndTheEditedItemKeepsItsOldVersion) {
    const Account edited = {{"72", "Trip", {{"1_72", "a.jpg", "2021-01-01 00:00:00"}}}};
    const std::vector<std::string> mine = {"Trip/a_Old.jpg", "Trip/.part-mine", "Trip/.part-1-2.jpg",
                                           "Trip/.records/.part-1-x", "Trip/Thumbnail/a_1_72_Old.txt"};
    for (const bool refused : {true, false}) {
        bool killed = true;
        for (long calls = 0; killed; calls += 7 * kStep) {
            const std::string moment = std::to_string(refused) + " at call " + std::to_string(calls) + " ";
            newDevice();
            failThumbnails_ = false;
            run(kBefore);
            for (const std::string& path : mine) std::ofstream(fs::path(service()) / path) << "mine";
            failThumbnails_ = refused;
            killed = isKilled(edited, calls);
            expectItems(kBefore, !killed && refused, moment);
            if (!killed && !refused) expectItems(edited, false, moment);
            auto after = state();
            for (const std::string& path : mine) EXPECT_EQ(after[path], "mine") << moment << path;
            EXPECT_EQ(after.count("Trip/Thumbnail/a_1_72.jpg"), 1u) << moment;
            EXPECT_EQ(descriptionField(after["Trip/.records/a.jpg.xml"], "ID"), "1_72") << moment;
            for (const auto& [name, content] : after) EXPECT_EQ(name.find(".kept-"), name.npos) << moment;
            if (HasFailure()) return;
        }
    }
}

// An edit that changes no byte of the file, and a power cut that leaves both descriptions: the row says which
// of them is right.
TEST_F(RecoveryTest, OfTwoDescriptionsOfOneFileTheOneWithTheRowsDateStays) {
    for (const char* recorded : {"2020-01-01 00:00:00", "2021-01-01 00:00:00"}) {
        newDevice();
        run({{"72", "Trip", {{"1_72", "a.jpg", "2021-01-01 00:00:00"}}}});
        params_->release();
        const std::string described = state()["Trip/.records/a.jpg.xml"];
        for (const auto& [name, date] : {std::pair("a_Old.jpg.xml", "2020-01-01T00:00:00Z"),
                                         std::pair("a.jpg.xml", "2021-01-01T00:00:00Z")}) {
            std::ofstream(fs::path(service()) / "Trip/.records" / name)
                << withDescriptionField(described, "DateUpdated", date);
        }
        SqliteFile((fs::path(service()) / ".records/.ledger.db").string(), SqliteFile::Open::Existing)
            .execute(
                "INSERT INTO files SELECT folder, 'a_Old.jpg', item, size, checksum, 'a.jpg', 1 FROM files "
                "WHERE name = 'a.jpg'; UPDATE files SET pending = 1 WHERE name = 'a.jpg'");
        SqliteFile(databasePath(), SqliteFile::Open::Existing)
            .execute((std::string("UPDATE backupmetadata SET ItemUpdatedOn = '") + recorded +
                      "' WHERE ItemId = '1_72'")
                         .c_str());
        expectSound(recorded);
        auto after = state();
        EXPECT_EQ(descriptionField(after["Trip/.records/a.jpg.xml"], "DateUpdated").substr(0, 4),
                  std::string(recorded).substr(0, 4));
        EXPECT_EQ(after.count("Trip/.records/a_Old.jpg.xml"), 0u) << recorded;
    }
}

TEST_F(RecoveryTest, AFolderThatNoRowKnowsKeepsNoSetFromItsNewTitle) {
    newDevice();
    run(kBefore);
    useDevice();
    std::string command, result, error;
    HostServiceClientMac client;
    client.createDirectory("Voyage", command, result, error);
    std::ofstream(fs::path(service()) / "Voyage/x") << "x";
    Account renamed = {kBefore[0]};
    renamed[0].title = "Voyage";
    run(renamed);
    EXPECT_EQ(state().count("Voyage (2)/a.jpg"), 1u);
    EXPECT_EQ(state().count("Trip"), 0u);
}

TEST_F(RecoveryTest, ASetAndAnItemRenamedInCaseOnlyKeepTheirPlaces) {
    foldsCase = true;
    Account renamed = {kBefore[0]};
    renamed[0].title = "TRIP";
    renamed[0].items[0] = {"1_72", "A.jpg", "2021-01-01 00:00:00"};
    bool killed = true;
    for (long calls = 0; killed; calls += 5 * kStep) {
        const std::string moment = "at call " + std::to_string(calls) + " ";
        newDevice();
        run(kBefore);
        params_->release();
        killed = isKilled(renamed, calls);
        expectItems({kBefore[0]}, false, moment);
        run(renamed);
        expectItems(renamed, true, moment + "and completed ");
        EXPECT_TRUE(unrecorded_.empty()) << moment << testing::PrintToString(unrecorded_);
        const auto after = state();
        EXPECT_EQ(after.count("TRIP/A.jpg"), 1u) << moment;
        EXPECT_EQ(after.count("TRIP/Thumbnail/A_1_72.jpg"), 1u) << moment;
        if (HasFailure()) break;
    }
    foldsCase = false;
}

// A device that somebody prepared: what its ledger's rows name would be removed, moved or renamed outside.
TEST_F(RecoveryTest, ALedgerThatLeadsOutOfTheServiceFolderIsRefused) {
    newDevice();
    run(kBefore);
    const fs::path witness = folder_ / "device/precious.txt",
                   ledger = fs::path(service()) / ".records/.ledger.db";
    std::ofstream(witness) << "precious";
    fs::copy_file(ledger, folder_ / "ledger");
    const std::string file = "INSERT INTO files VALUES (", folder = "INSERT INTO folders VALUES (",
                      version = "INSERT INTO versions VALUES (";
    for (const std::string& row :
         {file + "1, '../precious.txt', 'x', 8, '', '', 1)",
          file + "1, 'a.jpg', 'x', 8, '', '../precious.txt', 1)", file + "1, '..', 'x', 8, '', '', 1)",
          file + "1, CAST(x'610062' AS TEXT), 'x', 8, '', '', 1)", file + "1, '.records', 'x', 8, '', '', 1)",
          file + "99, 'precious.txt', 'x', 8, '', '', 1)", version + "1, '../precious.txt', 'x', 8, '', '')",
          version + "1, 'precious.txt', 'x', 8, '', '')",
          version + "1, '20200101T000000Z-a/../../../precious.txt', 'x', 8, '', '')",
          version + "1, '20200101T000000Z-a.jpg', 'x', 8, '', '../precious.txt')",
          version + "99, '20200101T000000Z-a.jpg', 'x', 8, '', '')",
          folder + "98, 1, '..', 1, '', 1);" + file + "98, 'precious.txt', 'x', 8, '', '', 1)",
          folder + "98, 1, '', 1, '', 1)", folder + "98, 1, 'New', 1, '../precious.txt', 1)",
          folder + "98, 1, 'New', 1, '/precious.txt', 1)",
          folder + "98, 99, 'a', 1, '', 1);" + folder + "99, 98, 'b', 1, '', 1)"}) {
        SqliteFile(ledger.string(), SqliteFile::Open::Existing).execute(row.c_str());
        BackupDatabase database(databasePath());
        EXPECT_THROW(recoverBackup(database, service(), "Thumbnail"), Poco::Exception) << row;
        EXPECT_THROW(verifyBackup(database, service(), "Thumbnail"), Poco::Exception) << row;
        EXPECT_TRUE(fs::is_regular_file(witness)) << row;
        for (const char* part : {"", "-wal", "-shm"}) fs::remove(ledger.string() + part);
        fs::copy_file(folder_ / "ledger", ledger);
    }
    expectSound("put back");
}

TEST_F(RecoveryTest, LinksAndPipesOnADeviceLeadNowhereAndKeepNobodyWaiting) {
    newDevice();
    run(kBefore);
    const fs::path device = folder_ / "device", outside = folder_ / "outside";
    fs::create_directory(outside);
    std::ofstream(outside / "own") << "own";
    fs::create_hard_link(outside / "own", device / "service/Trip/.records/.part-folder");
    for (const std::string name : {"Trip/.records/.folder.xml", "Trip/.records/b.jpg.xml"}) {
        fs::remove(device / "service" / name);
        ASSERT_EQ(::mkfifo((device / "service" / name).c_str(), 0600), 0);
    }
    fs::remove_all(device / "service/Thumbnail");
    fs::create_symlink(outside, device / "service/Thumbnail");
    run(changed("c"));
    EXPECT_EQ(std::distance(fs::directory_iterator(outside), {}), 1) << "the link was followed";
    EXPECT_EQ(readFile(outside / "own"), "own");
    EXPECT_EQ(state().count("Voyage/c.jpg"), 1u);
    for (const auto& entry : fs::recursive_directory_iterator(device / "service")) {
        if (entry.is_symlink() || entry.is_fifo() || entry.path().filename().string()[0] == '.') continue;
        EXPECT_EQ(entry.status().permissions() & (fs::perms::group_all | fs::perms::others_all),
                  fs::perms::none)
            << entry.path();
    }

    // The descriptions' folder is none when it is a link.
    newDevice();
    run(kBefore);
    fs::rename(device / "service/Trip/.records", outside / "records");
    fs::create_symlink(outside / "records", device / "service/Trip/.records");
    const auto described = [&] { return std::distance(fs::directory_iterator(outside / "records"), {}); };
    const auto before = described();
    const std::string record = readFile(outside / "records/b.jpg.xml");
    run(changed("c"));
    EXPECT_EQ(described(), before);
    EXPECT_EQ(readFile(outside / "records/b.jpg.xml"), record);

    params_->release();
    fs::rename(device / "service", outside / "service");
    fs::create_symlink(outside / "service", device / "service");
    params_->setParams(service(), "", true, 1, device.string());
    BackupDatabase database(databasePath());
    EXPECT_THROW(recoverBackup(database, service(), "Thumbnail"), Poco::Exception);
}

TEST_F(RecoveryTest, AnEditInAnotherLanguageLeavesOneThumbnail) {
    newDevice();
    run(kBefore);
    culture_ = "de";
    run({{"72", "Trip", {{"1_72", "a.jpg", "2021-01-01 00:00:00"}}}});
    expectSound("");
    const auto after = state();
    EXPECT_EQ(after.count("Trip/Miniaturbild/a_1_72.jpg"), 1u);
    EXPECT_EQ(after.count("Trip/Thumbnail/a_1_72.jpg"), 0u);
    EXPECT_EQ(after.count("Trip/Thumbnail/b_2_72.jpg"), 1u);
}

}  // namespace
