// The metadata database through FlickrDbInterface, which opens a session for every statement, against the
// same statements prepared once on one open connection: what the sessions cost.
//
// Usage: store DIRECTORY [Google Benchmark's options]. A database of a million items is made in DIRECTORY by
// the host's own class, which then, as in a run, keeps its connection open.

#include <Poco/DateTime.h>
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>

#include "core/FlickrDbInterface.h"
#include "standin/framework/base/Sqlite.h"
#include "standin/framework/store/BackupDatabase.h"

using flickr_standin::SqliteFile;
using flickr_standin::StatementUse;

namespace {

constexpr int kRows = 1000000;
constexpr int kLookUps = 100000;
constexpr int kUpdates = 10000;
constexpr int kStride = 7919;  // a prime: look-ups all over the table, each row once

constexpr const char* kFill =
    "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 999999)"
    "INSERT INTO backupmetadata (ItemId, ItemName, ItemContainerName, DerivedItemName, DerivedContainerName,"
    " OriginalItemId, OriginalContainerId, CreatedOn, ItemUpdatedOn, ItemType, ImageExtension, Reserved1,"
    " Reserved2, Reserved3, NameSpace, NameKey) "
    "SELECT (53000000000 + i) || '_721577', 'IMG_' || i || '.jpg', 'Trip', 'IMG_' || i || '.jpg', 'Trip',"
    " 53000000000 + i, '721577', '2023-11-14 22:13:20', '2023-11-14 22:13:20', 'FlickrPhoto', 'jpg', '', '', "
    "'',"
    " '721577', 'img_' || i || '.jpg' FROM n";

std::string path;
std::unique_ptr<flickr_standin::BackupDatabase> host;

std::string idOf(std::int64_t number) {
    return std::to_string(53000000000 + number * kStride % kRows) + "_721577";
}

std::string newName() {
    static std::int64_t number = 0;
    return "new " + std::to_string(number++) + ".jpg";
}

void makeDatabase() {
    std::remove(path.c_str());
    host = std::make_unique<flickr_standin::BackupDatabase>(path);
    SqliteFile file(path, SqliteFile::Open::Existing);
    flickr_standin::Transaction transaction(file);
    file.execute(kFill);
    transaction.commit();
    file.execute("PRAGMA wal_checkpoint(TRUNCATE)");
}

void lookUpOurs(benchmark::State& state) {
    Norvale_Plugin_Flickr::FlickrDbInterface database;
    database.setConnectionString(path);
    std::int64_t number = 0;
    for (auto _ : state) {
        if (database.getPhotoUpdatedById(idOf(number++)).empty()) std::abort();
    }
}

void lookUpPrepared(benchmark::State& state) {
    SqliteFile file(path, SqliteFile::Open::Existing);
    const auto statement = file.prepare("SELECT ItemUpdatedOn FROM backupmetadata WHERE ItemId = :photoId");
    std::int64_t number = 0;
    for (auto _ : state) {
        StatementUse use(*statement, idOf(number++));
        if (!use.step() || use->text(0).empty()) std::abort();
    }
}

void updateOurs(benchmark::State& state) {
    Norvale_Plugin_Flickr::FlickrDbInterface database;
    database.setConnectionString(path);
    std::int64_t number = 0;
    for (auto _ : state) {
        const std::string name = newName();
        if (!database.updateFileTitleV2(idOf(number++), name, name, "2024-01-01 00:00:00")) std::abort();
    }
}

void updatePrepared(benchmark::State& state) {
    SqliteFile file(path, SqliteFile::Open::Existing);
    file.execute("PRAGMA synchronous = NORMAL");  // as the host's connection
    const auto statement = file.prepare(
        "UPDATE backupmetadata SET ItemName = :orgItemName, DerivedItemName = :derivedItemName, "
        "ItemUpdatedOn = "
        ":newUpdatedTime WHERE ItemId = :itemId");
    std::int64_t number = 0;
    for (auto _ : state) {
        const std::string name = newName();
        StatementUse(*statement, name, name, std::string("2024-01-01 00:00:00"), idOf(number++)).run();
        if (file.changes() != 1) std::abort();
    }
}

BENCHMARK(lookUpOurs)->Name("100,000 look-ups/ours")->Iterations(kLookUps)->UseRealTime();
BENCHMARK(lookUpPrepared)->Name("100,000 look-ups/prepared")->Iterations(kLookUps)->UseRealTime();
BENCHMARK(updateOurs)->Name("10,000 updates/ours")->Iterations(kUpdates)->UseRealTime();
BENCHMARK(updatePrepared)->Name("10,000 updates/prepared")->Iterations(kUpdates)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (argc != 2) {
        std::fputs("usage: store DIRECTORY\n", stderr);
        return 2;
    }
    path = std::string(argv[1]) + "/backup.db";
    makeDatabase();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
