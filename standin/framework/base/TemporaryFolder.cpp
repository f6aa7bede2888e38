#include "standin/framework/base/TemporaryFolder.h"

#include <Poco/Exception.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace flickr_standin {

namespace fs = std::filesystem;

TemporaryFolder::TemporaryFolder() {
    std::error_code error;
    const fs::path parent = fs::temp_directory_path(error);
    const fs::path real = error ? parent : fs::canonical(parent, error);
    if (error) {
        throw Poco::FileException("There is no folder for temporary files (" + error.message() +
                                  "): name one in TMPDIR");
    }
    path_ = (real / "flickr-backup-XXXXXX").string();
    if (!::mkdtemp(path_.data())) {
        throw Poco::FileException("No temporary folder can be made in " + real.string() + ": " +
                                  std::strerror(errno) + "; name another in TMPDIR");
    }
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

}  // namespace flickr_standin
