// A folder for one test.
#pragma once

#include <gtest/gtest.h>
#include <linux/fs.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include "tests/Support/InodeFlags.hpp"

namespace halvo::testing {

// A new, empty folder in ::testing::TempDir(). The destructor removes it with its contents,
// including items with the immutable or append-only flag. Its path is canonical.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string pattern = ::testing::TempDir() + "halvo-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("no temporary folder: " + pattern);
        }
        path_ = std::filesystem::canonical(pattern);
    }

    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    ~TemporaryFolder() {
        namespace fs = std::filesystem;
        clearFlags(path_);
        std::error_code error;
        for (fs::recursive_directory_iterator item(path_, error), end; !error && item != end;
             item.increment(error)) {
            if (item->is_directory(error) || item->is_regular_file(error)) {
                clearFlags(item->path());
            }
        }
        fs::remove_all(path_, error);
    }

    [[nodiscard]] const std::string& path() const { return path_; }

    // The path of the member `name`, which need not exist.
    [[nodiscard]] std::string operator/(std::string_view name) const {
        return path_ + "/" + std::string(name);
    }

  private:
    // An immutable item could not be removed, not even by root.
    static void clearFlags(const std::string& path) {
        constexpr int locks = FS_IMMUTABLE_FL | FS_APPEND_FL;
        const auto flags = inodeFlags(path);
        if (flags && (*flags & locks) != 0) {
            setInodeFlags(path, *flags & ~locks);
        }
    }

    std::string path_;
};

// Replaces the file at `path` with a new one of `bytes`; fails the test when it cannot.
inline void writeTestFile(const std::string& path, std::string_view bytes) {
    // Removed first: some file systems flush a file that is truncated and rewritten at close(2).
    std::filesystem::remove(path);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    ASSERT_TRUE(file.good()) << "cannot write " << path;
}

// The contents of the file at `path`; empty when there is none.
inline std::string readTestFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace halvo::testing
