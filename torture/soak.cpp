// Backups in one process, through the bundle as the host loads it: soak DEVICE TOKEN. After each run it
// prints the run's status and what the process holds (resident KiB, threads, descriptors, locks), and makes
// the next one when a line comes in. To be started from an application folder with a configured plug-in.

#include <Poco/Exception.h>
#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "standin/app/DeviceLayout.h"
#include "standin/app/PerformRun.h"
#include "standin/framework/device/DeviceLock.h"
#include "standin/framework/run/RunJournal.h"
#include "standin/framework/run/Upkeep.h"
#include "standin/framework/store/BackupDatabase.h"

namespace {

using namespace flickr_standin;

class Silent : public flickr_app::RunListener {
public:
    void progress(double, double) override {}
    bool stopRequested() override { return false; }
    bool pauseRequested() override { return false; }
    void paused(bool) override {}
};

long entries(const char* folder) {
    long count = 0;
    DIR* directory = ::opendir(folder);
    while (directory && ::readdir(directory)) ++count;
    ::closedir(directory);
    return count;
}

long residentKiB() {
    long total = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * (::sysconf(_SC_PAGESIZE) / 1024);
}

long ownLocks() {
    std::ifstream file("/proc/locks");
    const std::string own = " " + std::to_string(::getpid()) + " ";
    long count = 0;
    for (std::string line; std::getline(file, line);) count += line.find(own) != std::string::npos;
    return count;
}

int backUp(const std::string& device, const std::string& token) {
    const auto layout = flickr_app::layoutOf(device, flickr_app::kDefaultDatabase, "");
    const DeviceLock lock(layout.device);
    BackupDatabase database(layout.databasePath);
    if (layout.holdsBackup) recoverBackup(database, layout.serviceFolder, layout.thumbnailWord);
    flickr_app::RunRequest request;
    request.device = layout.device;
    request.databaseName = flickr_app::kDefaultDatabase;
    request.authToken = token;
    request.dataTypes = {"Images", "Videos"};
    request.culture = layout.culture;
    RunJournal::instance().begin();
    Silent listener;
    const int status = flickr_app::performRun(request, listener).status;
    return RunJournal::instance().summary().complete() ? status : 0;
}

}  // namespace

int main(int, char** arguments) try {
    for (;;) {
        const int status = backUp(arguments[1], arguments[2]);
        std::printf("%d %ld %ld %ld %ld\n", status, residentKiB(), entries("/proc/self/task"),
                    entries("/proc/self/fd"), ownLocks());
        std::fflush(stdout);
        if (std::getchar() == EOF) break;  // whoever started it changes the account meanwhile
    }
    return 0;
} catch (const Poco::Exception& exception) {
    std::fprintf(stderr, "%s\n", exception.displayText().c_str());
    return 1;
}
