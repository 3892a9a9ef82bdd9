#ifndef TALVEK_TESTS_SUPPORT_TEMP_DIR_H
#define TALVEK_TESTS_SUPPORT_TEMP_DIR_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

namespace talvek::test {

// A directory of its own for one test, removed with all it holds.
class TempDir {
  public:
    TempDir() {
        char name[] = "/tmp/talvek-test-XXXXXX";
        EXPECT_NE(nullptr, mkdtemp(name));
        path_ = name;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    [[nodiscard]] const std::string &path() const { return path_; }
    [[nodiscard]] std::string operator/(const std::string &name) const {
        return path_ + "/" + name;
    }

  private:
    std::string path_;
};

}  // namespace talvek::test

#endif
