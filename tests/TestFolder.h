// A folder for a test, and the bytes of files.

#ifndef TESTS_TESTFOLDER_H
#define TESTS_TESTFOLDER_H

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

/// A new folder for its owner only. It goes with the object, and what is in it.
class TestFolder {
public:
    /// Throws std::system_error where none can be made.
    explicit TestFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
        std::string pattern = parent / "flickr-test-XXXXXX";
        if (!::mkdtemp(pattern.data())) throw std::system_error(errno, std::generic_category(), pattern);
        path_ = pattern;
    }
    ~TestFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

/// The whole file; empty where it cannot be read.
inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

#endif
