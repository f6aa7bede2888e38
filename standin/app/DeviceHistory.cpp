#include "standin/app/DeviceHistory.h"

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/DateTimeParser.h>
#include <Poco/DigestEngine.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/SHA1Engine.h>
#include <Poco/Timestamp.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

#include "standin/app/PrivateFile.h"
#include "standin/framework/base/Text.h"

namespace flickr_app {
namespace {

constexpr std::pair<const char*, std::string PastRun::*> kTexts[] = {
    {"began", &PastRun::began}, {"ended", &PastRun::ended}, {"result", &PastRun::result}};
constexpr std::pair<const char*, std::int64_t PastRun::*> kNumbers[] = {
    {"new", &PastRun::newItems},
    {"edited", &PastRun::editedItems},
    {"unchanged", &PastRun::unchangedItems},
    {"failures", &PastRun::failures},
    {"untried", &PastRun::untriedItems},
    {"untriedSets", &PastRun::untriedSets},
    {"bytes", &PastRun::bytes}};

std::string now() {
    return Poco::DateTimeFormatter::format(Poco::Timestamp(), Poco::DateTimeFormat::ISO8601_FORMAT);
}

std::string fileOf(const std::string& device) {
    const std::string state = userStateFolder();
    if (state.empty()) return state;
    Poco::SHA1Engine sha1;
    sha1.update(device);
    return state + "/devices/" + Poco::DigestEngine::digestToHex(sha1.digest()).substr(0, 16) + ".json";
}

}  // namespace

Poco::JSON::Array jsonRuns(const std::vector<PastRun>& runs) {
    Poco::JSON::Array list;
    for (const PastRun& run : runs) {
        Poco::JSON::Object entry(Poco::JSON_PRESERVE_KEY_ORDER);
        for (const auto& [name, member] : kTexts) {
            if (!(run.*member).empty()) entry.set(name, run.*member);
        }
        for (const auto& [name, member] : kNumbers) {
            if (!run.ended.empty()) entry.set(name, run.*member);
        }
        list.add(entry);
    }
    return list;
}

DeviceHistory::DeviceHistory(const std::string& device) : device_(device), file_(fileOf(device)) {
    std::ifstream stream(file_);
    if (!stream) return;
    const std::string text(std::istreambuf_iterator<char>(stream), {});
    try {
        const auto object = Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
        const auto list = object->getArray("runs");
        for (std::size_t i = 0; !list.isNull() && i < list->size(); ++i) {
            const auto entry = list->getObject(static_cast<unsigned>(i));
            PastRun run;
            for (const auto& [name, member] : kTexts) run.*member = entry->optValue<std::string>(name, "");
            for (const auto& [name, member] : kNumbers) run.*member = entry->optValue<std::int64_t>(name, 0);
            int zone = 0;
            Poco::DateTime began;
            // A file that somebody changed: what is no run is none.
            if (!Poco::DateTimeParser::tryParse(Poco::DateTimeFormat::ISO8601_FORMAT, run.began, began, zone))
                continue;
            runs_.push_back(std::move(run));
        }
        isKnown_ = true;
    } catch (Poco::Exception&) {
        runs_.clear();
    }
}

std::string DeviceHistory::begin() {
    PastRun run;
    run.began = now();
    runs_.push_back(std::move(run));
    if (runs_.size() > kMostPastRuns) runs_.erase(runs_.begin());
    isKnown_ = true;
    return save();
}

std::string DeviceHistory::end(PastRun run) {
    run.began = runs_.empty() ? now() : runs_.back().began;
    run.ended = now();
    if (!runs_.empty()) runs_.pop_back();
    runs_.push_back(std::move(run));
    return save();
}

std::string DeviceHistory::save() const {
    if (file_.empty()) return "";
    Poco::JSON::Object object(Poco::JSON_PRESERVE_KEY_ORDER);
    object.set("device", flickr_standin::validUtf8(device_));
    object.set("runs", jsonRuns(runs_));
    std::ostringstream text;
    object.stringify(text);
    makePrivateFolder(file_.substr(0, file_.rfind('/')));
    const std::string reason = replacePrivateFile(file_, text.str() + "\n");
    return reason.empty() ? "" : "What runs did cannot be kept in " + file_ + ": " + reason;
}

}  // namespace flickr_app
