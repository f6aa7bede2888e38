// How long older versions of files are kept, by every device that the process uses.

#ifndef STANDIN_FRAMEWORK_DEVICE_VERSIONDAYS_H
#define STANDIN_FRAMEWORK_DEVICE_VERSIONDAYS_H

namespace flickr_standin {

constexpr int kUsualVersionDays = 30;

/// days: from the replacement on; 0 for not at all. Without it they are kept for the usual time.
void keepVersions(int days);
int daysOfVersions();

}  // namespace flickr_standin

#endif
