#include "standin/app/BackupText.h"

#include <string>
#include <vector>

#include "standin/app/Format.h"
#include "standin/app/Json.h"

namespace flickr_app {

void printDisagreements(std::ostream& out, const flickr_standin::BackupReport& report) {
    if (report.agrees()) {
        out << "Database and device agree.\n";
        return;
    }
    const auto list = [&](const char* title, const std::vector<std::string>& paths) {
        if (paths.empty()) return;
        out << title << " (" << paths.size() << "):\n";
        for (const std::string& path : paths) out << "  " << printable(path) << "\n";
    };
    list("Recorded, but missing on the device", report.missing);
    list("Altered since it was backed up", report.altered);
    list("On the device, but not recorded", report.unrecorded);
    list("Marked to be fetched again by the next run", report.toFetchAgain);
    list("Descriptions that are missing or cannot be read", report.descriptions);
}

void addDisagreements(Poco::JSON::Object& object, const flickr_standin::BackupReport& report) {
    object.set("missing", jsonArray(report.missing));
    object.set("altered", jsonArray(report.altered));
    object.set("unrecorded", jsonArray(report.unrecorded));
    object.set("descriptions", jsonArray(report.descriptions));
    object.set("toFetchAgain", jsonArray(report.toFetchAgain));
}

}  // namespace flickr_app
