#include "tests/BundleHost.h"

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "hostapi/HostServiceUsageParams.h"
#include "standin/app/ApplicationFolder.h"
#include "standin/app/Configuration.h"
#include "standin/app/DeviceLayout.h"
#include "standin/app/Profile.h"
#include "standin/framework/base/Localisation.h"
#include "standin/framework/run/Upkeep.h"

namespace fs = std::filesystem;

namespace {

/// Runs the program from a new folder with the bundle in it; its exit status, as a shell tells it.
int runInNewFolder(const fs::path& program, char** argv) {
    const TestFolder folder;
    const fs::path app = folder.path() / (program.filename().string() + ".app");
    fs::create_directories(app / "Resources/Plugins");
    fs::create_directory_symlink(FLICKR_BUNDLE, app / "Resources/Plugins/FlickrPlugin.bundle");
    const std::string copy = app / program.filename();
    std::error_code otherFileSystem;
    fs::create_hard_link(program, copy, otherFileSystem);
    if (otherFileSystem) fs::copy_file(program, copy);
    const pid_t child = ::fork();
    if (child == 0) {
        ::execv(copy.c_str(), argv);
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

std::string inApplicationFolder(char** argv) {
    const fs::path program = fs::read_symlink("/proc/self/exe");
    if (program.parent_path().extension() == ".app") return program.parent_path();
    ::exit(runInNewFolder(program, argv));
}

BundleHost::BundleHost(const std::string& retries) : sim(account), retries_(retries) {
    configure(sim.dataUrl());
    database = std::make_unique<flickr_standin::BackupDatabase>(device_ + "/backup.db");
}

BundleHost::~BundleHost() {
    database.reset();
}

void BundleHost::configure(const std::string& dataUrl) {
    const flickr_sim::Credentials& accepted = sim.credentials();
    flickr_app::writeConfiguration(flickr_app::pluginsDirectory() + flickr_app::kConfigurationName,
                                   {dataUrl, std::stoi(retries_), accepted.apiKey, accepted.apiSecret});
}

std::string BundleHost::bundle() const {
    return flickr_app::pluginsDirectory() + "FlickrPlugin.bundle";
}

std::string BundleHost::serviceFolder(const std::string& culture) const {
    return flickr_app::serviceFolderOn(device_, culture);
}

void BundleHost::recover() {
    if (fs::is_directory(serviceFolder()))
        flickr_standin::recoverBackup(*database, serviceFolder(), "Thumbnail");
}

std::string BundleHost::backupProblem(const std::string& culture) {
    std::map<std::string, std::string> media;  // path by id in the database
    database->forEachItem([&](const flickr_standin::ItemRow& row) { media[row.id] = row.mediaPath; });

    std::ostringstream problems;
    std::size_t expected = 0;
    const auto check = [&](const std::string& setId, const flickr_sim::Item& item) {
        ++expected;
        const auto found = media.find(item.id + "_" + setId);
        const auto original = flickr_sim::contentOf(item, item.isVideo ? "Video Original" : "Original");
        if (found == media.end()) {
            problems << "not recorded: " << item.title << "\n";
        } else if (readFile(fs::path(serviceFolder(culture)) / found->second) != original.text()) {
            problems << "missing or altered: " << found->second << "\n";
        }
    };
    for (const auto& set : account.sets()) {
        for (const auto& item : account.items(set.id)) check(set.id, *item);
    }
    for (const auto& item : account.items("")) check(flickr_standin::kNoSetId, *item);
    if (media.size() != expected) problems << media.size() << " items recorded for " << expected << "\n";
    const auto report = flickr_standin::verifyBackup(
        *database, serviceFolder(culture),
        flickr_standin::localisedKeyword(culture, flickr_standin::kThumbnailKey));
    for (const auto& list : {report.missing, report.altered, report.unrecorded}) {
        for (const std::string& path : list) problems << "does not agree: " << path << "\n";
    }
    return problems.str();
}
