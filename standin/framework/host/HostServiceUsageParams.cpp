#include "hostapi/HostServiceUsageParams.h"

#include <Poco/NumberParser.h>

#include <algorithm>

#include "standin/framework/base/Localisation.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/run/RunDevice.h"
#include "standin/framework/run/RunJournal.h"
#include "standin/framework/run/RunProgress.h"
#include "standin/framework/run/RunState.h"

namespace Norvale_Plugin_Core {

HostServiceUsageParams* HostServiceUsageParams::getInstance() {
    static HostServiceUsageParams& instance = *new HostServiceUsageParams;
    return &instance;
}

void HostServiceUsageParams::release() {
    flickr_standin::closeRunDevice();
    flickr_standin::resetRunState();
}

void HostServiceUsageParams::setBackupState(bool stopped) {
    if (stopped) {
        flickr_standin::stopRun();
        return;
    }
    flickr_standin::closeRunDevice();
    flickr_standin::beginRun();
    flickr_standin::RunJournal::instance().begin();
    flickr_standin::RunProgress::instance().begin();
}

bool HostServiceUsageParams::isBackupStopped() {
    return flickr_standin::isRunStopped();
}

bool HostServiceUsageParams::isManuallyStopped() {
    return flickr_standin::isStoppedByUser();
}

void HostServiceUsageParams::setKeywords(std::string keywords) {
    flickr_standin::setWords(flickr_standin::readKeywords(keywords));
}

void HostServiceUsageParams::setCulture(std::string culture) {
    setKeywords(std::move(culture));
}

void HostServiceUsageParams::setParams(std::string serviceFolder, std::string, bool, int,
                                       std::string mountPoint) {
    flickr_standin::setServiceFolder(std::move(serviceFolder), std::move(mountPoint));
}

void HostServiceUsageParams::setRetryAttempts(std::string attempts) {
    int number = 0;
    if (!Poco::NumberParser::tryParse(flickr_standin::trimmed(std::move(attempts)), number)) number = 0;
    flickr_standin::setRetryAttempts(number);
}

int HostServiceUsageParams::getRetryAttempts() {
    // What is refused in a dry run is refused at every attempt.
    const bool once =
        flickr_standin::isDryRun() && !flickr_standin::RunJournal::instance().currentItem().empty();
    return once ? std::min(1, flickr_standin::retryAttempts()) : flickr_standin::retryAttempts();
}

std::string HostServiceUsageParams::getValue(std::string key) {
    return flickr_standin::wordOf(key);
}

std::string HostServiceUsageParams::getPluginRoot() {
    return flickr_standin::currentServiceFolder();
}

void HostServiceUsageParams::getErrorDetails(int& code, std::string& text) {
    const flickr_standin::RecordedError error = flickr_standin::recordedError();
    code = error.code;
    text = error.text;
    if (code == 0 && !isManuallyStopped()) code = 1;
}

double HostServiceUsageParams::getTotalCount() {
    return static_cast<double>(flickr_standin::finishedItems());
}

double HostServiceUsageParams::getTotalSize() {
    return static_cast<double>(flickr_standin::writtenBytes());
}

}  // namespace Norvale_Plugin_Core
