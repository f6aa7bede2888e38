#include "tests/BackupFixture.h"

#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/FlickrPluginCore.h"
#include "standin/framework/run/Log.h"

namespace fs = std::filesystem;
using namespace Norvale_Plugin_Flickr;

BackupFixture::BackupFixture() {
    service_ = folder_ + "/device/Brightkettle/My Flickr Items";
    plugins_ = folder_ + "/Plugins/";
    fs::create_directories(service_);
    fs::create_directories(plugins_);
    database_ = std::make_unique<flickr_standin::BackupDatabase>(folder_ + "/device/backup.db");
}

void BackupFixture::serve(flickr_sim::SimOptions options, const std::string& retries) {
    sim_ = std::make_unique<flickr_sim::FlickrSim>(account_, std::move(options));
    configure(sim_->dataUrl(), retries);
}

void BackupFixture::configure(const std::string& dataUrl, const std::string& retries) {
    std::ofstream(plugins_ + "Flickr_plugin_config.xml")
        << "<config><plugin>" << (retries.empty() ? "" : "<retryAttempts>" + retries + "</retryAttempts>")
        << (dataUrl.empty() ? "" : "<dataUrl>" + dataUrl + "</dataUrl>") << "</plugin></config>";
}

RunResult BackupFixture::run(const RunOptions& options) {
    constexpr char kGuard = '\x5a';
    std::string videos(kVideoListCapacity + 64, kGuard);
    std::string error(kTextCapacity + 64, kGuard);
    videos[0] = error[0] = '\0';
    auto text = [](const std::string& value) { return const_cast<char*>(value.c_str()); };

    void* core = createObject(text(folder_ + "/Plugins"), text(plugins_), error.data());
    RunResult result;
    result.status = backup(core, text(folder_ + "/device/backup.db"), text(options.token), text(options.from),
                           text(options.apiKey), text(options.apiSecret), text(options.dataTypes),
                           videos.data(), text(service_), text(""), text(folder_ + "/device"), true,
                           text(options.culture), error.data());
    deleteObject(core, error.data());

    EXPECT_EQ(videos.substr(kVideoListCapacity), std::string(64, kGuard)) << "written past the video list";
    EXPECT_EQ(error.substr(kTextCapacity), std::string(64, kGuard)) << "written past the error text";
    result.videos = videos.c_str();
    result.error = error.c_str();
    return result;
}

std::map<std::string, std::string> BackupFixture::device() const {
    std::map<std::string, std::string> files;
    for (auto entry = fs::recursive_directory_iterator(service_); entry != fs::recursive_directory_iterator();
         ++entry) {
        const std::string name = entry->path().lexically_relative(service_).string();
        if (entry->path().filename().string()[0] == '.' && entry->path().filename() != ".") {
            const bool partial = entry->is_regular_file();
            EXPECT_FALSE(partial && name.find(".part") != std::string::npos) << "left behind: " << name;
            if (entry->is_directory()) entry.disable_recursion_pending();
            continue;
        }
        if (entry->is_directory()) {
            files[name + "/"] = "";
        } else {
            files[name] = read(name);
        }
    }
    return files;
}

std::string BackupFixture::names() const {
    std::string list;
    for (const auto& [name, content] : device()) list += name + "\n";
    return list;
}

std::string BackupFixture::read(const std::string& path) const {
    return readFile(path[0] == '/' ? path : service_ + "/" + path);
}

std::vector<std::string> BackupFixture::rows(const std::string& query) const {
    std::vector<std::string> result;
    sqlite3* connection = nullptr;
    EXPECT_EQ(sqlite3_open((folder_ + "/device/backup.db").c_str(), &connection), SQLITE_OK);
    const auto collect = [](void* out, int count, char** values, char**) {
        std::string row;
        for (int i = 0; i < count; ++i) row += (i ? "|" : "") + std::string(values[i] ? values[i] : "");
        static_cast<std::vector<std::string>*>(out)->push_back(row);
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(connection, query.c_str(), collect, &result, nullptr), SQLITE_OK) << query;
    sqlite3_close(connection);
    return result;
}

std::string BackupFixture::log() const {
    flickr_standin::flushLogFile();
    return read(plugins_ + "NVHLDevLog.log");
}

void BackupFixture::expectComplete() {
    std::size_t expected = 0;
    const auto files = device();
    auto check = [&](const std::string& setId, const std::string& itemId, const flickr_sim::Item& item) {
        ++expected;
        const auto row = rows(
            "SELECT DerivedContainerName, DerivedItemName, ItemUpdatedOn FROM backupmetadata "
            "WHERE ItemId = '" +
            itemId + "_" + setId + "'");
        ASSERT_EQ(row.size(), 1u) << "not recorded: " << item.title;
        const std::size_t first = row[0].find('|'), second = row[0].find('|', first + 1);
        const std::string container = row[0].substr(0, first),
                          name = row[0].substr(first + 1, second - first - 1);
        const auto file = files.find(setId == "Anonymous" ? name : container + "/" + name);
        ASSERT_NE(file, files.end()) << row[0];
        const std::string label = item.isVideo ? "Video Original" : "Original";
        EXPECT_EQ(file->second, flickr_sim::contentOf(item, label).text()) << row[0];
    };
    for (const auto& set : account_.sets()) {
        for (const auto& item : account_.items(set.id)) check(set.id, item->id, *item);
    }
    for (const auto& item : account_.items("")) check("Anonymous", item->id, *item);

    std::size_t found = 0;
    for (const auto& [name, content] : files) found += name.back() != '/';
    EXPECT_EQ(found, 2 * expected) << "a media file and a thumbnail each:\n" << names();
    EXPECT_EQ(rows("SELECT count(*) FROM backupmetadata WHERE ItemType IN ('FlickrPhoto', 'FlickrVideo')")[0],
              std::to_string(expected));
}
