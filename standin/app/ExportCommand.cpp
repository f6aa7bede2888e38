#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "standin/app/BackupOptions.h"
#include "standin/app/Commands.h"
#include "standin/app/DeviceLayout.h"
#include "standin/app/Format.h"
#include "standin/app/Json.h"
#include "standin/app/Listing.h"
#include "standin/app/PrivateFile.h"
#include "standin/app/Refusal.h"
#include "standin/app/Signals.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/base/Text.h"

namespace flickr_app {
namespace {

using flickr_standin::BackupReading;
using flickr_standin::Item;
using flickr_standin::LedgerFile;
using flickr_standin::Set;

namespace fs = std::filesystem;

struct Options : BackupOptions {
    bool csv = true;
    std::string output;
};

/// Tags with ";" between them; a backslash stands before one that is a tag's own, and before a backslash.
std::string joinedTags(const std::vector<std::string>& tags) {
    std::string text;
    for (std::size_t i = 0; i < tags.size(); ++i) {
        if (i > 0) text += ';';
        for (const char c : tags[i]) text += c == ';' || c == '\\' ? std::string{'\\', c} : std::string(1, c);
    }
    return text;
}

/// What a line is made from.
struct Entry {
    const Set& set;
    const Item& item;
    const LedgerFile& file;
    bool isThere;
};

using Column = std::pair<const char*, std::function<std::string(const Entry&)>>;

const std::vector<Column>& columns() {
    static const std::vector<Column> kColumns = {
        {"id", [](const Entry& e) { return e.item.id; }},
        {"photo_id", [](const Entry& e) { return photoIdOf(e.set, e.item); }},
        {"set_id", [](const Entry& e) { return e.set.id; }},
        {"set", [](const Entry& e) { return titleOf(e.set); }},
        {"title", [](const Entry& e) { return e.item.title; }},
        {"kind", [](const Entry& e) { return std::string(e.item.isVideo ? "video" : "photo"); }},
        {"taken", [](const Entry& e) { return e.item.taken; }},
        {"uploaded", [](const Entry& e) { return e.item.uploaded; }},
        {"updated", [](const Entry& e) { return e.item.updated; }},
        {"description", [](const Entry& e) { return e.item.description; }},
        {"tags", [](const Entry& e) { return joinedTags(e.item.tags); }},
        {"file", [](const Entry& e) { return pathOf(e.set, e.item); }},
        {"on_device", [](const Entry& e) { return std::string(e.isThere ? "yes" : "no"); }},
        {"thumbnail",
         [](const Entry& e) {
             return e.item.thumbnail.empty() ? std::string()
                                             : flickr_standin::joinPath(e.set.folder, e.item.thumbnail);
         }},
        {"size",
         [](const Entry& e) { return e.file.path.empty() ? std::string() : std::to_string(e.file.size); }},
        {"xxh3_128", [](const Entry& e) { return e.file.checksum; }},
    };
    return kColumns;
}

/// A field as RFC 4180 has it.
std::string field(const std::string& text) {
    const std::string valid = flickr_standin::validUtf8(text);
    if (valid.find_first_of(",\"\r\n") == std::string::npos) return valid;
    std::string quoted = "\"";
    for (const char c : valid) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

void writeLine(std::ostream& out, const std::function<std::string(const Column&)>& textOf) {
    const char* separator = "";
    for (const Column& column : columns()) {
        out << separator << field(textOf(column));
        separator = ",";
    }
    out << "\r\n";
}

/// How many items.
long writeItems(std::ostream& out, BackupReading& reading) {
    long items = 0;
    writeLine(out, [](const Column& column) { return std::string(column.first); });
    forEachItem(reading, [&](const Set& set, const Item& item) {
        ++items;
        const auto file = reading.device().ledger().file(pathOf(set, item));
        const Entry entry{set, item, file.value_or(LedgerFile()), reading.device().isFile(pathOf(set, item))};
        writeLine(out, [&](const Column& column) { return column.second(entry); });
    });
    return items;
}

void refuseOtherThanFile(const std::string& path) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (!fs::exists(status) || fs::is_regular_file(status)) return;
    throw UsageError("\"" + path + "\" is no file; give --output another name, or leave it out.");
}

int exportItems(const Options& options, bool json) {
    if (json && options.output.empty()) {
        throw UsageError("With --json the table needs a file of its own; name it with --output.");
    }
    if (!options.output.empty()) refuseOtherThanFile(options.output);
    const DeviceLayout layout = backupToShow(options.device, options.database);
    const Signals signals;
    BackupReading reading = beforehand([&] { return BackupReading(layout.place()); });
    if (options.output.empty()) {
        reading.read([&] { writeItems(std::cout, reading); });
        std::cout << std::flush;
        return ExitSuccess;
    }
    std::ostringstream text;
    const long items = reading.read([&] { return writeItems(text, reading); });
    const std::string path = fs::absolute(options.output).string();
    const std::string problem = replacePrivateFile(path, text.str());
    if (!problem.empty()) throw CannotBegin("The file " + path + " cannot be written: " + problem + ".");
    if (json) {
        Poco::JSON::Object object = jsonReport("export", "success");
        object.set("items", std::int64_t{items});
        object.set("file", flickr_standin::validUtf8(path));
        printJson(std::cout, object);
    } else {
        std::cout << formatCount(items, "item") << " written to " << printable(path) << "\n" << std::flush;
    }
    return ExitSuccess;
}

}  // namespace

void addExportCommand(CLI::App& program, CommandContext& context) {
    auto options = std::make_shared<Options>();
    CLI::App* command =
        program.add_subcommand("export", "Print what is known of each item of a backup as a table");
    addBackupOptions(*command, *options);
    command->add_flag("--csv", options->csv,
                      "As comma-separated values (RFC 4180, UTF-8); the only form yet");
    command->add_option("--output", options->output, "Write to this file instead of the standard output")
        ->type_name("FILE");
    addJsonOption(*command, context);
    command->footer(
        std::string(
            "A line for each item, with a line of names above them. Dates are as in \"find\": taken as the\n"
            "camera says, the others UTC. Tags stand with \";\" between them. Needs no right to write.\n") +
        kExitStatuses +
        "\n"
        "Example:\n"
        "  flickr-backup export --device /media/usb --csv --output pictures.csv");
    command->callback([options, &context] { context.status = exportItems(*options, context.json); });
}

}  // namespace flickr_app
