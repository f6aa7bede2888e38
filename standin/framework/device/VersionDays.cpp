#include "standin/framework/device/VersionDays.h"

#include <atomic>

namespace flickr_standin {

namespace {

std::atomic<int> keptDays{kUsualVersionDays};

}  // namespace

void keepVersions(int days) {
    keptDays = days;
}

int daysOfVersions() {
    return keptDays;
}

}  // namespace flickr_standin
