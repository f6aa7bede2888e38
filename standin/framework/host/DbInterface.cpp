#include "hostapi/DbInterface.h"

#include <Poco/Data/SQLite/Connector.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>

#include <cctype>
#include <cstdio>
#include <functional>
#include <mutex>
#include <optional>
#include <string_view>

#include "hostapi/Conventions.h"
#include "standin/framework/base/Localisation.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/run/RunDevice.h"
#include "standin/framework/run/RunJournal.h"
#include "standin/framework/run/RunState.h"
#include "standin/framework/store/BackupDatabase.h"

namespace Norvale_Plugin_Core {

using namespace flickr_standin;

namespace {

// Rows hold the plug-in's id of the set for items in no set; the rooms below know it by a name of their own.
static_assert(std::string_view(kNoSetId) == kAnonymousSet);

constexpr const char* kSource = "Flickr";

/// Exactly count numbers with separators between them; each of one to four digits.
bool readNumbers(const std::string& text, const std::string& separators, int* numbers) {
    std::size_t at = 0;
    for (std::size_t i = 0; i <= separators.size(); ++i) {
        int value = 0, digits = 0;
        for (; at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])); ++at, ++digits) {
            if (digits == 4) return false;
            value = value * 10 + (text[at] - '0');
        }
        if (digits == 0) return false;
        numbers[i] = value;
        if (i < separators.size() && (at >= text.size() || text[at++] != separators[i])) return false;
    }
    return at == text.size();
}

/// A name that is free: the first of candidate(1), candidate(2), ... that is. Numbers are tried in growing
/// steps and the gap is then halved, so that the thousandth item of one title costs no thousand questions.
std::string freeName(const std::function<std::string(long)>& candidate,
                     const std::function<bool(const std::string&)>& isFree) {
    long taken = 0, free = 1;
    while (!isFree(candidate(free))) {
        taken = free;
        free *= 2;
    }
    while (free - taken > 1) {
        const long middle = taken + (free - taken) / 2;
        (isFree(candidate(middle)) ? free : taken) = middle;
    }
    return candidate(free);
}

/// Whether name is candidate(1), or candidate(n) with the number that it ends in.
bool fits(const std::string& name, const std::function<std::string(long)>& candidate) {
    if (name == candidate(1)) return true;
    const std::string::size_type open = name.rfind(" (");
    if (open == std::string::npos) return false;
    long number = 0;
    std::size_t at = open + 2;
    for (; at < name.size() && std::isdigit(static_cast<unsigned char>(name[at])) && number < 100000000;
         ++at) {
        number = number * 10 + (name[at] - '0');
    }
    return number > 1 && name == candidate(number);
}

/// The known name when it may stay, otherwise one that is free.
std::string keptOrFree(const std::string& known, const std::function<std::string(long)>& candidate,
                       const std::function<bool(const std::string&)>& isFree) {
    const bool keeps = !known.empty() && fits(known, candidate) && isFree(known);
    return keeps ? known : freeName(candidate, isFree);
}

/// Does work over the database; a failure goes to the handler and ends it.
template <typename Work>
void guarded(ExceptionHandlerMac& handler, const std::string& path, const char* operation, Work work) {
    try {
        const UsedDatabase database(path);
        work(*database);
    } catch (Poco::Exception& exception) {
        recordIfDeviceFailure(exception);
        handler.handleException(
            exception, std::string("Exception occurred in ") + operation + "() : " + exception.displayText(),
            retryAttempts());
    }
}

/// The item's row, if it has one.
std::optional<ItemRow> recorded(const std::string& path, const std::string& item) {
    if (item.empty()) return std::nullopt;
    try {
        return UsedDatabase(path)->item(item);
    } catch (Poco::Exception&) {
        return std::nullopt;  // the plug-in's own statement meets it as well, and says so
    }
}

/// The update time that the row of the item in hand holds; empty when there is none.
std::string recordedUpdate(const std::string& path) {
    const auto row = recorded(path, RunJournal::instance().currentItem());
    return row ? row->updated : std::string();
}

/// The new files take their names, on the disk: the row of the details' item is about to be written. Throws
/// the DeviceException of the first that cannot; a failure of the device is recorded.
void placeNewFiles(const ItemDetails& details) {
    const std::shared_ptr<RunDevice> device = deviceInUse();
    if (!device) return;
    try {
        device->staged().place(details);
    } catch (DeviceException& exception) {
        recordIfDeviceFailure(exception);
        RunJournal::instance().fileServiceFailed(exception.message());
        throw;
    }
}

/// What has passed through here of the item in hand: a title when its name was made, the date taken when its
/// description was. For several threads.
class ItemInHand {
public:
    void begin(const std::string& item, const std::string& title) {
        const std::lock_guard<std::mutex> lock(mutex_);
        details_ = {};
        details_.item = item;
        details_.title = withoutMediaExtension(title);
    }
    void setTaken(const Poco::DateTime& date) {
        const std::lock_guard<std::mutex> lock(mutex_);
        details_.taken = date;
    }
    ItemDetails details() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return details_;
    }

private:
    std::mutex mutex_;
    ItemDetails details_;
};

ItemInHand& itemInHand() {
    static ItemInHand item;
    return item;
}

}  // namespace

DbInterface::DbInterface() : exceptionHandler_(kSource) {}
DbInterface::~DbInterface() = default;

void DbInterface::setConnectionString(std::string connectionString) {
    connectionString_ = std::move(connectionString);
}

// Also what comes before the statements with which an item's row is changed: its new files are on the disk by
// then.
void DbInterface::initialize() {
    ItemDetails details = itemInHand().details();
    if (const auto row = recorded(connectionString_, details.item)) {
        details.uploaded = convertToDateTime(row->created);
    }
    placeNewFiles(details);
    RunJournal::instance().rowMayChange(recordedUpdate(connectionString_));
    Poco::Data::SQLite::Connector::registerConnector();
}

void DbInterface::uninitialize() {
    Poco::Data::SQLite::Connector::unregisterConnector();
    RunJournal::instance().rowMayHaveChanged(recordedUpdate(connectionString_));
}

Poco::DateTime DbInterface::convertToDateTime(std::string text) {
    int part[6] = {};
    if (readNumbers(text, "-- ::", part)) {
        if (Poco::DateTime::isValid(part[0], part[1], part[2], part[3], part[4], part[5])) {
            return Poco::DateTime(part[0], part[1], part[2], part[3], part[4], part[5]);
        }
    } else if (readNumbers(text, "//", part) && Poco::DateTime::isValid(part[2], part[0], part[1])) {
        return Poco::DateTime(part[2], part[0], part[1]);
    }
    return Poco::DateTime(1970, 1, 1);
}

std::string DbInterface::convertToString(Poco::DateTime date) {
    return Poco::DateTimeFormatter::format(date, kUpdatedFormat);
}

std::string DbInterface::createFormattedDate(Poco::DateTime date) {
    itemInHand().setTaken(date);
    static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    char number[32];
    std::string text = wordOf(kDays[date.dayOfWeek()]) + ", " + std::to_string(date.day()) + " " +
                       wordOf(kMonthKeys[date.month() - 1]) + " " + std::to_string(date.year()) + " ";
    std::snprintf(number, sizeof number, "%d:%02d:%02d ", date.hourAMPM(), date.minute(), date.second());
    return text + number + wordOf(date.isAM() ? "AM" : "PM");
}

std::string DbInterface::createLatestUpdatedItemDate(Poco::DateTime date) {
    return Poco::DateTimeFormatter::format(date, "%Y-%m-%dT%H:%M:%SZ");
}

std::string DbInterface::generateFileName(std::string title, std::string containerName,
                                          std::string containerId, std::string itemId) {
    itemInHand().begin(itemId, title);
    const bool atRoot = containerId == kNoSetId;
    const NameKeys reserved = systemWords(wordOf(kThumbnailKey));
    const auto candidate = [&](long number) { return itemName(title, itemId, number, reserved); };
    std::string name = candidate(1);
    guarded(exceptionHandler_, connectionString_, "generateFileName", [&](BackupDatabase& database) {
        const std::shared_ptr<RunDevice> device = runDeviceIfThere();
        const auto isFree = [&](const std::string& wanted) {
            if (database.nameTaken(atRoot ? "" : containerId, nameKey(wanted), itemId)) return false;
            // What a killed run left of this very item may be replaced; anything else may not.
            const std::string path = joinPath(atRoot ? "" : containerName, wanted);
            return !device || !device->isTaken(path, itemId);
        };
        name = keptOrFree(database.derivedName(itemId), candidate, isFree);
    });
    return name;
}

std::string DbInterface::generateFolderName(std::string title, std::string id) {
    const NameKeys reserved = systemWords(wordOf(kThumbnailKey));
    const auto candidate = [&](long number) { return folderName(title, number, reserved); };
    std::string name = candidate(1);
    guarded(exceptionHandler_, connectionString_, "generateFolderName", [&](BackupDatabase& database) {
        const std::shared_ptr<RunDevice> device = runDeviceIfThere();
        const std::string known = database.derivedName(id);
        const auto isFree = [&](const std::string& wanted) {
            if (database.nameTaken("", nameKey(wanted), id)) return false;
            return !device || device->isFolderFree(wanted, known, id);
        };
        name = keptOrFree(known, candidate, isFree);
    });
    return name;
}

std::string DbInterface::getDerivedItemNamebyID(std::string id) {
    std::string name;
    guarded(exceptionHandler_, connectionString_, "getDerivedItemNamebyID",
            [&](BackupDatabase& database) { name = database.derivedName(id); });
    return name;
}

std::string DbInterface::getImageExtensionByID(std::string id) {
    std::string extension;
    guarded(exceptionHandler_, connectionString_, "getImageExtensionByID",
            [&](BackupDatabase& database) { extension = database.imageExtension(id); });
    return extension;
}

int DbInterface::getTotalCountInContainer(std::string containerName) {
    int count = 0;
    guarded(exceptionHandler_, connectionString_, "getTotalCountInContainer",
            [&](BackupDatabase& database) { count = database.itemsInFolder(containerName); });
    return count;
}

int DbInterface::createEntry(std::string itemId, std::string itemName, std::string itemContainerName,
                             std::string derivedItemName, std::string derivedContainerName,
                             std::string originalItemId, std::string originalContainerId,
                             Poco::DateTime createdOn, Poco::DateTime updatedOn, std::string itemType,
                             std::string imageExtension, std::string reserved1, std::string reserved2,
                             std::string reserved3) {
    int status = 0;
    guarded(exceptionHandler_, connectionString_, "createEntry", [&](BackupDatabase& database) {
        ItemDetails details = itemInHand().details();
        details.uploaded = createdOn;
        placeNewFiles(details);
        database.put({itemId, itemName, itemContainerName, derivedItemName, derivedContainerName,
                      originalItemId, originalContainerId, createdOn, updatedOn, itemType, imageExtension,
                      reserved1, reserved2, reserved3});
        status = kSuccess;
    });
    if (status != kSuccess) return status;
    if (itemType == kFolderType) {
        noteFolder(itemId, derivedItemName);
    } else {
        noteRecorded(itemId);
        RunJournal::instance().rowCreated(itemId);
    }
    return status;
}

}  // namespace Norvale_Plugin_Core
