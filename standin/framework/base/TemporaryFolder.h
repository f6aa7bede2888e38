// A folder for what is needed only while the program does something.

#ifndef STANDIN_FRAMEWORK_BASE_TEMPORARYFOLDER_H
#define STANDIN_FRAMEWORK_BASE_TEMPORARYFOLDER_H

#include <string>

namespace flickr_standin {

/// A new folder in TMPDIR, or /tmp, for its owner only. It goes with the object, and what is in it.
class TemporaryFolder {
public:
    /// Throws Poco::Exception with a sentence for the user.
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// Its real path.
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace flickr_standin

#endif
