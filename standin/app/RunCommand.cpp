#include <Poco/DateTime.h>
#include <Poco/NumberParser.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gateway/SizeOption.h"
#include "standin/app/Commands.h"
#include "standin/app/Configuration.h"
#include "standin/app/Credentials.h"
#include "standin/app/DeviceHistory.h"
#include "standin/app/DeviceLayout.h"
#include "standin/app/Format.h"
#include "standin/app/GatewayRun.h"
#include "standin/app/Json.h"
#include "standin/app/PerformRun.h"
#include "standin/app/Profile.h"
#include "standin/app/Reason.h"
#include "standin/app/Refusal.h"
#include "standin/app/RunDisplay.h"
#include "standin/app/Signals.h"
#include "standin/app/Summary.h"
#include "standin/framework/base/Cipher.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/device/BackupReading.h"
#include "standin/framework/device/DeviceFiles.h"
#include "standin/framework/device/DeviceLock.h"
#include "standin/framework/device/VersionDays.h"
#include "standin/framework/device/Versions.h"
#include "standin/framework/run/Log.h"
#include "standin/framework/run/RunJournal.h"
#include "standin/framework/run/RunProgress.h"
#include "standin/framework/run/RunState.h"
#include "standin/framework/run/Secrets.h"
#include "standin/framework/run/Upkeep.h"
#include "standin/framework/store/BackupDatabase.h"
#include "standin/gallery/Gallery.h"

namespace flickr_app {
namespace {

using flickr_standin::BackupDatabase;
using flickr_standin::BackupReading;
using flickr_standin::LogDetail;
using Clock = std::chrono::steady_clock;

struct Options {
    std::string device;
    std::string credentials;
    std::string ca;
    std::string from = "2001-01-01";
    std::vector<std::string> media = {"images", "videos"};
    std::string culture;
    std::string database = kDefaultDatabase;
    std::string pauseWhen;
    std::string logLevel = "normal";
    bool events = false;
    bool quiet = false;
    bool verbose = false;
    GatewayOptions gateway;
    int versionDays = flickr_standin::kUsualVersionDays;
    bool shared = false;
    bool noGallery = false;
    bool isNew = false;
    bool isDry = false;
};

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void readDate(const std::string& text, RunRequest& request) {
    int year = 0, month = 0, day = 0;
    const bool shaped = text.size() == 10 && text[4] == '-' && text[7] == '-' &&
                        text.find_first_not_of("0123456789-") == std::string::npos;
    if (!shaped || !Poco::NumberParser::tryParse(text.substr(0, 4), year) ||
        !Poco::NumberParser::tryParse(text.substr(5, 2), month) ||
        !Poco::NumberParser::tryParse(text.substr(8, 2), day) || !Poco::DateTime::isValid(year, month, day)) {
        throw UsageError("\"" + text + "\" is no date; give --from as YYYY-MM-DD, like 2001-01-01.");
    }
    request.fromYear = year;
    request.fromMonth = month;
    request.fromDay = day;
}

std::vector<std::string> dataTypesOf(const std::vector<std::string>& media) {
    bool images = false, videos = false;
    for (const std::string& kind : media) {
        if (kind != "images" && kind != "videos") {
            throw UsageError("\"" + kind + "\" cannot be backed up; give --media images, videos or both.");
        }
        (kind == "images" ? images : videos) = true;
    }
    std::vector<std::string> types;
    if (images) types.push_back("Images");
    if (videos) types.push_back("Videos");
    return types;
}

/// Without a sign-in of today key and secret are the configured ones, which have to be the file's.
Credentials credentialsFor(const Options& options, const Profile& profile) {
    const std::string file = credentialsFileFor(profile, options.credentials);
    Credentials credentials = readCredentials(file);
    if (!options.ca.empty()) credentials.ca = options.ca;
    if (credentials.isOfToday()) return credentials;
    const Configuration configured = readConfiguration(profile.configurationFile());
    if (configured.apiKey != credentials.apiKey || configured.apiSecret != credentials.apiSecret) {
        throw CannotBegin("The API key or secret in " + file +
                          " is not the configured one; run \"flickr-backup configure\" again.");
    }
    return credentials;
}

/// The run's secrets, which log and errors do not show while this lives; overwritten at the end.
class HiddenSecrets {
public:
    explicit HiddenSecrets(std::vector<std::string> secrets) {
        flickr_standin::setLogSecrets(std::move(secrets));
    }
    ~HiddenSecrets() { flickr_standin::setLogSecrets({}); }
    HiddenSecrets(const HiddenSecrets&) = delete;
    HiddenSecrets& operator=(const HiddenSecrets&) = delete;
};

/// The plug-in gets the path as a text.
void refuseUnnameable(const DeviceLayout& layout) {
    if (layout.device == flickr_standin::validUtf8(layout.device)) return;
    throw UsageError("The device " + layout.device +
                     " has a path that is not UTF-8; mount it under another name, or rename the folder.");
}

/// An empty directory where there was a backup is more often a device that is not mounted than a wish.
void refuseVanished(const DeviceLayout& layout) {
    std::error_code error;
    if (layout.holdsBackup || std::filesystem::exists(layout.databasePath, error)) return;
    if (!DeviceHistory(layout.device).isKnown()) return;
    throw CannotBegin("The backup that stood in " + layout.device +
                      " is not there any more; is the device mounted? If so, --new begins another one.");
}

/// A database that names files where there are none would make a run pass over them.
void refuseLostFiles(BackupDatabase& database, const DeviceLayout& layout) {
    long recorded = 0;
    for (const auto& folder : database.folders()) recorded += folder.items;
    if (recorded == 0 || layout.holdsBackup) return;
    throw CannotBegin("The database " + layout.databasePath + " records " + formatCount(recorded, "item") +
                      ", but there is nothing in " + layout.serviceFolder +
                      "; put the folder back, or move the database away to begin a new backup.");
}

/// Items that are recorded, so that no run fetches them, and whose files are not there as recorded.
void addDamage(BackupDatabase& database, const DeviceLayout& layout, flickr_standin::RunSummary& summary) {
    const auto report = flickr_standin::compareBackup(database, layout.serviceFolder, layout.thumbnailWord);
    for (const std::string& path : report.missing) {
        summary.errors.push_back("Backed up earlier and missing on the device now: " + path);
    }
    for (const std::string& path : report.altered) {
        summary.errors.push_back("Backed up earlier and of another size on the device now: " + path);
    }
    if (!report.damagedItems.empty()) {
        summary.warnings.push_back(
            "What is missing or of another size is fetched again after flickr-backup "
            "verify --repair --device " +
            layout.device);
    }
}

/// Tells the failures of which an earlier version is on the device.
void markKept(BackupDatabase& database, const DeviceLayout& layout, flickr_standin::RunSummary& summary) {
    for (flickr_standin::Failure& failure : summary.failures) {
        const auto row = failure.id.empty() ? std::nullopt : database.item(failure.id);
        std::error_code ignored;
        failure.onDevice =
            row && std::filesystem::is_regular_file(layout.serviceFolder + "/" + row->mediaPath, ignored);
    }
}

/// Older versions whose time has passed go before the run needs their room. What is wrong with that, or
/// nothing.
std::string removeOldVersions(const DeviceLayout& layout) {
    if (!std::filesystem::is_directory(layout.serviceFolder)) return {};
    try {
        flickr_standin::withDevice(layout.serviceFolder, layout.thumbnailWord,
                                   [](auto& device) { flickr_standin::pruneVersions(device); });
        return {};
    } catch (Poco::Exception& exception) {
        return "Older versions could not be removed: " + exception.message();
    }
}

/// What is on the device can be looked at after the run; a page that cannot be written is no failed backup.
void updateGallery(BackupDatabase& database, const DeviceLayout& layout,
                   flickr_standin::RunSummary& summary) {
    if (!std::filesystem::is_directory(layout.serviceFolder)) return;
    try {
        flickr_gallery::writeGallery(layout.serviceFolder, layout.thumbnailWord, &database);
    } catch (Poco::Exception& exception) {
        summary.warnings.push_back("The gallery is not up to date: " + exception.message());
    }
}

/// Adds to the journal of a resumed run what its earlier passes did. What failed in them was tried again, and
/// what they fetched is unchanged in the last one.
void addEarlierPasses(long newItems, long editedItems, flickr_standin::RunSummary& summary) {
    summary.newItems += newItems;
    summary.editedItems += editedItems;
    summary.unchangedItems = std::max(0L, summary.unchangedItems - newItems - editedItems);
}

/// Reasons as sentences. What failed for a set or item is no error of the whole run as well.
void makePlain(flickr_standin::RunSummary& summary) {
    const auto isToldOfItem = [&](const std::string& error) {
        return std::any_of(summary.failures.begin(), summary.failures.end(), [&](const auto& failure) {
            return failure.reason.find(error) != std::string::npos;
        });
    };
    std::vector<std::string>& errors = summary.errors;
    errors.erase(std::remove_if(errors.begin(), errors.end(), isToldOfItem), errors.end());
    for (std::string& error : errors) error = plainReason(error);
    for (auto& failure : summary.failures) failure.reason = plainReason(failure.reason);
}

/// Items that are recorded and that the service did not list; none when a list was not complete.
long goneItems(BackupDatabase& database, const RunReport& report) {
    const flickr_standin::RunSummary& done = report.done;
    const bool listsFailed = std::any_of(done.failures.begin(), done.failures.end(),
                                         [](const auto& failure) { return failure.id.empty(); });
    if (report.outcome.stopped || listsFailed || !done.errors.empty() || done.untriedSets > 0 ||
        done.shortLists > 0)
        return 0;
    long gone = 0;
    const auto& listed = flickr_standin::RunProgress::instance();
    database.forEachItem([&](const flickr_standin::ItemRow& item) {
        const std::string ofSet = "_" + item.setId;
        const std::size_t end = item.id.size() - std::min(item.id.size(), ofSet.size());
        if (item.id.compare(end, std::string::npos, ofSet) == 0 && !listed.wasListed(item.id.substr(0, end)))
            ++gone;
    });
    return gone;
}

PastRun pastRun(const RunReport& report) {
    PastRun run;
    run.result = resultName(report);
    run.newItems = report.done.newItems;
    run.editedItems = report.done.editedItems;
    run.unchangedItems = report.done.unchangedItems;
    run.failures = static_cast<std::int64_t>(report.done.failures.size());
    run.untriedItems = report.done.untriedItems;
    run.untriedSets = report.done.untriedSets;
    run.bytes = static_cast<std::int64_t>(report.done.bytes);
    return run;
}

/// What a run begins with.
struct Beginning {
    RunRequest request;
    Credentials credentials;
    DeviceLayout layout;
    Talk talk = Talk::Normal;
};

Beginning beginningOf(const Options& options, const Profile& profile) {
    Beginning beginning;
    RunRequest& request = beginning.request;
    beginning.talk = options.quiet ? Talk::Quiet : options.verbose ? Talk::Verbose : Talk::Normal;
    // The databases, and what the loaded object makes, are made with the process's mask.
    if (!options.shared) ::umask(077);
    flickr_standin::shareDevices(options.shared);
    flickr_standin::keepVersions(options.versionDays);
    readDate(options.from, request);
    request.dataTypes = dataTypesOf(options.media);
    flickr_standin::setLogDetail(options.logLevel == "all"        ? LogDetail::Everything
                                 : options.logLevel == "failures" ? LogDetail::Failures
                                                                  : LogDetail::Normal);
    profile.prepare();
    profile.use();
    beginning.credentials = credentialsFor(options, profile);
    beginning.layout = layoutOf(options.device, options.database, options.culture);
    refuseUnnameable(beginning.layout);
    if (!options.isNew) refuseVanished(beginning.layout);
    request.device = beginning.layout.device;
    request.databaseName = options.database;
    request.authToken = beginning.credentials.token;
    request.culture = beginning.layout.culture;
    return beginning;
}

/// The way to the service: through a gateway when the credentials are of today. The secrets of both are
/// hidden while it lives.
class WayToService {
public:
    WayToService(Beginning& beginning, const GatewayOptions& options, BackupDatabase& database) {
        const Credentials& credentials = beginning.credentials;
        std::vector<std::string> secrets = {credentials.token, credentials.apiKey, credentials.apiSecret};
        if (credentials.isOfToday()) {
            beforehand([&] { gateway_.emplace(credentials, options, database, beginning.request); });
            secrets.push_back(credentials.tokenSecret);
            for (std::string& secret : gateway_->secrets()) secrets.push_back(std::move(secret));
        }
        hidden_.emplace(std::move(secrets));
    }

    std::string waitText() const { return gateway_ ? gateway_->waitText() : std::string(); }

    /// Ends the gateway, and gives what it has to tell.
    std::vector<std::string> close() {
        std::vector<std::string> problems;
        if (gateway_) problems = gateway_->problems();
        gateway_.reset();
        return problems;
    }

private:
    std::optional<HiddenSecrets> hidden_;
    std::optional<GatewayRun> gateway_;
};

/// Has the plug-in do the run, which may pause and resume. recover puts the device in order before it
/// resumes.
RunReport perform(Beginning& beginning, const Options& options, WayToService& service,
                  const std::function<void()>& recover) {
    RunReport report;
    report.isDry = options.isDry;
    report.serviceFolder = beginning.layout.serviceFolder;
    report.database = beginning.layout.databasePath;
    flickr_standin::RunJournal::instance().begin();
    long newItems = 0, editedItems = 0;  // of the passes before a pause
    {
        DisplaySettings settings;
        settings.talk = beginning.talk;
        settings.events = options.events;
        settings.keepsItems = options.isDry;
        settings.pauseWhen = options.pauseWhen;
        settings.beforeResume = [&] {
            const auto pass = flickr_standin::RunJournal::instance().summary();
            newItems += pass.newItems;
            editedItems += pass.editedItems;
            recover();
        };
        settings.waitText = [&] { return service.waitText(); };
        // A first run that is killed leaves files of this account, in a folder that only the run has made.
        settings.eachSecond = [&, tied = options.isDry]() mutable {
            tied = tied || tieToAccount(beginning.layout, beginning.credentials);
        };
        RunDisplay display(std::move(settings));
        report.outcome = performRun(beginning.request, display);
        display.tellItems();
        report.items = display.takeItems();
        flickr_standin::wipe(beginning.request.authToken);
    }
    report.done = flickr_standin::RunJournal::instance().summary();
    report.done.bytes = report.outcome.bytes;
    addEarlierPasses(newItems, editedItems, report.done);
    for (std::string& problem : service.close()) report.done.warnings.push_back(std::move(problem));
    return report;
}

int tell(RunReport& report, const Options& options, const CommandContext& context, Talk talk) {
    report.log = context.profile.logFile();
    const auto progress = flickr_standin::RunProgress::instance().leftOut();
    report.leftOutByDate = progress.byDate;
    report.leftOutByKind = progress.byKind;
    if (context.json || options.events) {
        printJson(std::cout, summaryJson(report, options.events));
    } else if (isWorthTelling(report, talk, ::isatty(STDOUT_FILENO))) {
        std::cout << summaryText(report) << std::flush;
    }
    return exitStatus(report);
}

/// A dry run: the plug-in works on a copy of the database, in a folder that it takes for the device.
int rehearse(const Options& options, const CommandContext& context) {
    flickr_standin::setDryRun(true);
    Beginning beginning = beginningOf(options, context.profile);
    const DeviceLayout& layout = beginning.layout;
    refuseOtherAccount(layout, beginning.credentials);
    flickr_standin::BackupPlace place = layout.place();
    std::error_code error;
    if (!std::filesystem::exists(place.database, error)) place.database.clear();

    const Signals signals;
    const BackupReading reading = beforehand([&] { return BackupReading(place); });
    if (reading.isInUse()) {
        throw CannotBegin("A backup to " + layout.device +
                          " is going on; wait until it has finished, or stop it.");
    }
    beginning.request.device = reading.folder();
    BackupDatabase database =
        beforehand([&] { return BackupDatabase(reading.folder() + "/" + options.database); });
    refuseLostFiles(database, layout);
    WayToService service(beginning, options.gateway, database);
    const Clock::time_point start = Clock::now();
    RunReport report = perform(beginning, options, service, [] {});
    report.goneItems = goneItems(database, report);
    markKept(database, layout, report.done);
    report.seconds = secondsSince(start);
    makePlain(report.done);
    return tell(report, options, context, beginning.talk);
}

int run(const Options& options, const CommandContext& context) {
    Beginning beginning = beginningOf(options, context.profile);
    const DeviceLayout& layout = beginning.layout;
    const Signals signals;
    const auto lock = beforehand([&] { return flickr_standin::DeviceLock(layout.device); });
    BackupDatabase database = beforehand([&] { return BackupDatabase(layout.databasePath); });
    refuseLostFiles(database, layout);
    std::vector<std::string> leftAside;
    const auto recover = [&] {
        if (!std::filesystem::is_directory(layout.serviceFolder)) return;
        leftAside =
            flickr_standin::recoverBackup(database, layout.serviceFolder, layout.thumbnailWord).leftAside;
    };
    beforehand([&] {
        recover();
        tieToAccount(layout, beginning.credentials);
    });
    WayToService service(beginning, options.gateway, database);
    DeviceHistory history(layout.device);
    std::vector<std::string> notes = {context.profile.logProblem(), history.begin(),
                                      removeOldVersions(layout)};

    const Clock::time_point start = Clock::now();
    RunReport report = perform(beginning, options, service, recover);
    tieToAccount(layout, beginning.credentials);
    try {
        recover();
        for (const std::string& path : leftAside) {
            report.done.warnings.push_back("An older version cannot be moved to " +
                                           std::string(flickr_standin::kVersionFolder) + " and stays as \"" +
                                           path + "\"");
        }
        report.goneItems = goneItems(database, report);
        markKept(database, layout, report.done);
        // A stop that comes only now ends what follows.
        if (!Signals::isStopWanted()) addDamage(database, layout, report.done);
    } catch (Poco::Exception& exception) {
        report.done.errors.push_back(exception.message());
    }
    if (!options.noGallery && !report.outcome.stopped && !Signals::isStopWanted()) {
        updateGallery(database, layout, report.done);
    }
    if (Signals::isStopWanted() && exitStatus(report) == ExitSuccess) report.outcome.stopped = true;
    report.seconds = secondsSince(start);
    makePlain(report.done);
    notes.push_back(history.end(pastRun(report)));
    for (std::string& note : notes) {
        if (!note.empty()) report.done.warnings.push_back(std::move(note));
    }
    return tell(report, options, context, beginning.talk);
}

/// What is backed up, and to where.
void addBackupOptions(CLI::App& command, Options& options) {
    command.add_option("--device", options.device, "Directory to which the backup goes")
        ->required()
        ->type_name("DIR");
    command
        .add_option("--credentials", options.credentials,
                    "File with api_key, api_secret and token; without it the configured one, or the sign-in")
        ->type_name("FILE");
    command
        .add_option("--ca", options.ca, "Authorities to trust instead of the system's and the file's \"ca\"")
        ->check(CLI::ExistingFile.description(""))
        ->type_name("FILE");
    command.add_option("--from", options.from, "Back up items updated after the start of this day")
        ->type_name("YYYY-MM-DD")
        ->capture_default_str();
    command.add_option("--media", options.media, "What to back up: images, videos or both")
        ->delimiter(',')
        ->type_name("KINDS")
        ->default_str("images,videos");
    command
        .add_option("--culture", options.culture,
                    "Language of folder names: de, en, fr or ja; without it that of the backup there, or en")
        ->type_name("TEXT");
    command.add_option("--database", options.database, "The metadata database's name under the device")
        ->type_name("NAME")
        ->capture_default_str();
    command.add_option("--pause-when", options.pauseWhen, "Pause while this file exists")->type_name("FILE");
}

/// How today's service is asked.
void addTransferOptions(CLI::App& command, Options& options) {
    command.add_option("--transfers", options.gateway.transfers, "Files fetched at a time")
        ->check(CLI::Range(1, 8))
        ->type_name("N")
        ->capture_default_str();
    auto* readAhead =
        command
            .add_option("--read-ahead", options.gateway.readAhead,
                        "What is fetched ahead may fill so much of temporary files, besides 64 MiB of memory")
            ->type_name("SIZE")
            ->default_str("256MiB");
    flickr_gateway::takeSize(*readAhead, 0);
    auto* rate = command
                     .add_option("--limit-rate", options.gateway.bytesPerSecond,
                                 "Fetch no more than so many bytes in a second, as in 2MiB")
                     ->type_name("RATE");
    flickr_gateway::takeSize(*rate, flickr_gateway::kLeastRate);
}

/// What is written besides, and under which conditions.
void addDeviceOptions(CLI::App& command, Options& options) {
    command
        .add_option("--log-level", options.logLevel,
                    "What the log gets: failures, normal (nothing for unchanged items) or all")
        ->check(CLI::IsMember({"failures", "normal", "all"}))
        ->type_name("LEVEL")
        ->capture_default_str();
    command
        .add_option("--keep-versions", options.versionDays,
                    "Keep what an edit replaces for so many days; 0 for not at all")
        ->check(CLI::Range(0, 36500))
        ->type_name("DAYS")
        ->capture_default_str();
    command.add_flag("--shared", options.shared,
                     "Let other users of the machine read what is written, as far as the umask allows it");
    command.add_flag("--no-gallery", options.noGallery, "Leave the page that shows the backup as it is");
    command.add_flag("--new", options.isNew,
                     "Begin a new backup where an earlier one stood that is not there any more");
    command.add_flag("--dry-run", options.isDry,
                     "Tell what would be fetched, replaced and renamed, and change nothing on the device");
}

}  // namespace

void addRunCommand(CLI::App& program, CommandContext& context) {
    auto options = std::make_shared<Options>();
    CLI::App* command = program.add_subcommand("run", "Back up what is new or changed");
    addBackupOptions(*command, *options);
    addTransferOptions(*command, *options);
    addDeviceOptions(*command, *options);
    addJsonOption(*command, context);
    command->add_flag("--json-progress", options->events,
                      "Print what happens as lines of JSON, the summary last");
    auto* verbose = command->add_flag("--verbose", options->verbose,
                                      "Tell each item, and how far the run is every five minutes");
    command->add_flag("--quiet", options->quiet, "Tell failures only")->excludes(verbose);
    context.profile.addOptions(*command);
    command->footer(
        std::string(
            "Progress goes to standard error, the summary to standard output. SIGINT (Ctrl-C), SIGTERM and\n"
            "SIGHUP stop the run; the next one goes on from there. SIGUSR1 pauses the run, SIGUSR2 resumes "
            "it.\n") +
        kExitStatuses +
        "\n"
        "Example:\n"
        "  flickr-backup run --device /media/usb --from 2015-06-01");
    command->callback([options, &context] {
        context.status = options->isDry ? rehearse(*options, context) : run(*options, context);
    });
}

}  // namespace flickr_app
