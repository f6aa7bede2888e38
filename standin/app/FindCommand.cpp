#include <algorithm>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "standin/app/BackupOptions.h"
#include "standin/app/Commands.h"
#include "standin/app/DeviceLayout.h"
#include "standin/app/Format.h"
#include "standin/app/Json.h"
#include "standin/app/Listing.h"
#include "standin/app/Refusal.h"
#include "standin/app/Signals.h"
#include "standin/framework/base/Text.h"

namespace flickr_app {
namespace {

using flickr_standin::BackupReading;
using flickr_standin::Item;
using flickr_standin::searchKey;
using flickr_standin::Set;
using flickr_standin::validUtf8;

struct Options : BackupOptions {
    std::vector<std::string> texts;
    std::string taken;
    bool nullEnded = false;
};

/// Days on which pictures were taken, both ends with their months or years as far as they are given.
class DateRange {
public:
    /// "2017", "2017-07", "2017-07-13", "2017-07..2018", "2017.." or "..2017-07-13"; empty for all.
    explicit DateRange(const std::string& text) : isSet_(!text.empty()) {
        const std::size_t dots = text.find("..");
        from_ = text.substr(0, dots);
        to_ = dots == std::string::npos ? text : text.substr(dots + 2);
        const bool isBackwards = !to_.empty() && from_.substr(0, to_.size()) > to_;
        if (isSet_ && (!isDate(from_) || !isDate(to_) || from_.size() + to_.size() == 0 || isBackwards)) {
            throw UsageError("\"" + text +
                             "\" is no range of dates; give --taken as 2017, 2017-07, 2017-07-13, or two of "
                             "them with \"..\" between, like 2016..2017-07.");
        }
    }

    /// taken: as the catalogue has it.
    bool holds(const std::string& taken) const {
        if (!isSet_) return true;
        return !taken.empty() && taken >= from_ && (to_.empty() || taken.substr(0, to_.size()) <= to_);
    }

private:
    static bool isDate(const std::string& text) {
        const std::string shape = "0000-00-00";
        if (text.empty()) return true;
        if (text.size() != 4 && text.size() != 7 && text.size() != 10) return false;
        const bool fits = std::equal(text.begin(), text.end(), shape.begin(), [](char c, char expected) {
            return expected == '-' ? c == '-' : c >= '0' && c <= '9';
        });
        if (!fits) return false;
        const auto part = [&](std::size_t at, std::size_t length) {
            return at < text.size() ? std::stoi(text.substr(at, length)) : 1;
        };
        return Poco::DateTime::isValid(part(0, 4), part(5, 2), part(8, 2));
    }

    const bool isSet_;
    std::string from_, to_;
};

/// What is looked for.
class Search {
public:
    explicit Search(const Options& options) : range_(options.taken) {
        for (const std::string& text : options.texts) words_.push_back({text, searchKey(text)});
    }

    bool matches(const Set& set, const Item& item) const {
        if (!range_.holds(item.taken)) return false;
        const std::string photoId = photoIdOf(set, item);
        std::string searched;
        return std::all_of(words_.begin(), words_.end(), [&](const Word& word) {
            if (word.text == item.id || word.text == photoId || word.text == set.id) return true;
            if (searched.empty()) searched = searchKey(textOf(set, item));
            return searched.find(word.key) != std::string::npos;
        });
    }

private:
    struct Word {
        std::string text;
        std::string key;
    };

    static std::string textOf(const Set& set, const Item& item) {
        std::string text =
            item.title + "\n" + item.description + "\n" + titleOf(set) + "\n" + item.file + "\n" + item.taken;
        for (const std::string& tag : item.tags) text += "\n" + tag;
        return text;
    }

    const DateRange range_;
    std::vector<Word> words_;
};

Poco::JSON::Object jsonItem(const Set& set, const Item& item, const std::string& path, bool isThere) {
    Poco::JSON::Object entry(Poco::JSON_PRESERVE_KEY_ORDER);
    entry.set("id", validUtf8(item.id));
    entry.set("photoId", validUtf8(photoIdOf(set, item)));
    entry.set("setId", validUtf8(set.id));
    entry.set("set", validUtf8(titleOf(set)));
    entry.set("title", validUtf8(item.title));
    entry.set("kind", item.isVideo ? "video" : "photo");
    entry.set("taken", validUtf8(item.taken));
    entry.set("uploaded", validUtf8(item.uploaded));
    entry.set("updated", validUtf8(item.updated));
    entry.set("description", validUtf8(item.description));
    entry.set("tags", jsonArray(item.tags));
    entry.set("path", validUtf8(path));
    entry.set("onDevice", isThere);
    return entry;
}

int find(const Options& options, bool json) {
    if (json && options.nullEnded)
        throw UsageError("--json and --null exclude each other; give one of them.");
    const Search search(options);
    const DeviceLayout layout = backupToShow(options.device, options.database);
    const Signals signals;
    BackupReading reading = beforehand([&] { return BackupReading(layout.place()); });
    Poco::JSON::Array items;
    long all = 0, found = 0, missing = 0;
    reading.read([&] {
        forEachItem(reading, [&](const Set& set, const Item& item) {
            ++all;
            if (!search.matches(set, item)) return;
            ++found;
            const bool isThere = reading.device().isFile(pathOf(set, item));
            missing += !isThere;
            const std::string path = layout.serviceFolder + "/" + pathOf(set, item);
            if (json) {
                items.add(jsonItem(set, item, path, isThere));
            } else if (options.nullEnded) {
                if (isThere) std::cout << path << '\0';
            } else {
                std::cout << (item.taken.empty() ? "    -     " : item.taken.substr(0, 10)) << "  "
                          << printable(path) << (isThere ? "" : " (missing on the device)")
                          << (item.title.empty() ? "" : "  " + printable(item.title)) << "\n";
            }
        });
    });
    if (json) {
        Poco::JSON::Object object = jsonReport("find", "success");
        object.set("searched", std::int64_t{all});
        object.set("items", items);
        printJson(std::cout, object);
    } else if (!options.nullEnded) {
        std::cout << formatNumber(found) << " of " << formatCount(all, "item") << "\n";
    } else if (missing > 0) {
        std::cerr << formatCount(missing, "item") << " found that " << (missing == 1 ? "is" : "are")
                  << " missing on the device.\n";
    }
    std::cout << std::flush;
    return ExitSuccess;
}

}  // namespace

void addFindCommand(CLI::App& program, CommandContext& context) {
    auto options = std::make_shared<Options>();
    CLI::App* command = program.add_subcommand("find", "Find items of a backup, and where their files are");
    command->add_option("TEXT", options->texts, "What the item has to hold, each of them");
    addBackupOptions(*command, *options);
    command
        ->add_option("--taken", options->taken,
                     "Only what was taken then: 2017, 2017-07, 2017-07-13, or FROM..TO of these")
        ->type_name("DATES");
    command->add_flag("--null", options->nullEnded,
                      "Print the paths of files only, each with a NUL behind it, for xargs -0");
    addJsonOption(*command, context);
    command->footer(
        std::string(
            "Searches titles, descriptions, tags, titles of sets, file names and dates for parts of texts,\n"
            "without regard to case and accents, and ids of photos, items and sets for the whole. Needs no\n"
            "right to write; without a database it reads the descriptions.\n") +
        kExitStatuses +
        "\n"
        "Example:\n"
        "  flickr-backup find --device /media/usb --taken 2016-06..2016-08 beach");
    command->callback([options, &context] { context.status = find(*options, context.json); });
}

}  // namespace flickr_app
