#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "common/digest.h"
#include "support/canary.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

std::string Data() {
    std::string data(100000, '\0');
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(i * i / 7);
    }
    return data;
}

std::string Md5(const std::string &data) {
    char hex[COM_MD5_HEX_SIZE];
    COM_MakeBufMD5(hex, data.data(), data.size());
    return {hex, sizeof hex};
}

std::string Sha1(const std::string &data) {
    uint8_t digest[COM_SHA1_SIZE];
    COM_MakeBufSHA1(digest, data.data(), data.size());
    char hex[COM_SHA1_HEX_SIZE];
    COM_Sha1DigestToHex(hex, digest);
    return {hex, sizeof hex};
}

class DigestFault : public ::testing::Test {
  protected:
    void SetUp() override {
        WriteFile(path_, data_);
        WriteFile(path_ + ".md5", Md5(data_) + "  file\n");
    }

    const TempDir dir_;
    const std::string path_ = dir_ / "file";
    const std::string data_ = Data();
};

// The length of the beginning of the data that has this digest, in steps of 256 bytes; the length
// of all data if none has it.
size_t PartOf(const std::string &data, const std::string &hex,
              std::string (*digest)(const std::string &)) {
    size_t size = 0;
    while (size < data.size() && digest(data.substr(0, size)) != hex) {
        size += 256;
    }
    return std::min(size, data.size());
}

TEST_F(DigestFault, EndsTheFileAtAFailedRead) {
    size_t md5Before = 0;
    size_t sha1Before = 0;
    for (int nth = 0; nth < 3; ++nth) {
        const CanaryBuf hex{COM_MD5_HEX_SIZE};
        {
            const Fault fault{"read", nth, EIO};
            EXPECT_EQ(0, COM_MakeFileMD5(hex.text(), path_.c_str()));
            EXPECT_TRUE(Fault::Tripped());
        }
        const size_t md5 = PartOf(data_, {hex.text(), hex.size()}, Md5);
        EXPECT_GT(data_.size(), md5);
        EXPECT_EQ(nth == 0, md5 == 0);
        EXPECT_TRUE(nth == 0 || md5 > md5Before);
        md5Before = md5;

        uint8_t digest[COM_SHA1_SIZE];
        Lines log;
        {
            log = CaptureLog([&] {
                const Fault fault{"read", nth, EIO};
                EXPECT_EQ(0, COM_MakeFileSHA1(digest, path_.c_str()));
                EXPECT_TRUE(Fault::Tripped());
            });
        }
        char text[COM_SHA1_HEX_SIZE + 1] = {};
        COM_Sha1DigestToHex(text, digest);
        EXPECT_EQ((Lines{std::string{"COMMON:COM_MakeFileSHA1(): Digest = ["} + text + "]"}), log);
        const size_t sha1 = PartOf(data_, text, Sha1);
        EXPECT_GT(data_.size(), sha1);
        EXPECT_EQ(nth == 0, sha1 == 0);
        EXPECT_TRUE(nth == 0 || sha1 > sha1Before);
        sha1Before = sha1;
    }
}

TEST_F(DigestFault, ReturnsTheResultOfClosingTheFile) {
    const int fds = HeldFds();
    char hex[COM_MD5_HEX_SIZE];
    {
        const Fault fault{"close", 0, EIO};
        EXPECT_EQ(-1, COM_MakeFileMD5(hex, path_.c_str()));
    }
    EXPECT_EQ(Md5(data_), std::string(hex, sizeof hex));
    uint8_t digest[COM_SHA1_SIZE];
    EXPECT_EQ((Lines{"COMMON:COM_MakeFileSHA1(): Digest = [" + Sha1(data_) + "]"}), CaptureLog([&] {
                  const Fault fault{"close", 0, EIO};
                  EXPECT_EQ(-1, COM_MakeFileSHA1(digest, path_.c_str()));
              }));
    EXPECT_EQ(fds, HeldFds());
}

TEST_F(DigestFault, EveryCallOfTheFileDigestsFails) {
    EXPECT_LT(10, EveryCallFails(EIO, [&] {
                  char hex[COM_MD5_HEX_SIZE];
                  uint8_t digest[COM_SHA1_SIZE];
                  const int md5 = COM_MakeFileMD5(hex, path_.c_str());
                  const int sha1 = COM_MakeFileSHA1(digest, path_.c_str());
                  EXPECT_LE(-1, md5);
                  EXPECT_LE(-1, sha1);
              }));
}

// A failed close changes nothing; neither does a failed read at the end of a file, or a log line
// without memory.
TEST_F(DigestFault, EveryCallOfTheCheckFails) {
    EXPECT_LT(8, EveryCallFails(EIO, [&] {
                  const int result = COM_CheckFileMD5(path_.c_str(), nullptr);
                  const std::string which = Fault::Which();
                  if (which == "calloc" || which == "open") {
                      EXPECT_EQ(-1, result) << which;
                  } else if (which == "read") {
                      EXPECT_TRUE(result == 0 || result == -1) << result;
                  } else {
                      EXPECT_EQ(0, result) << which;
                  }
              }));
}

TEST_F(DigestFault, LogsThatThereIsNoMemoryForTheSideFilesName) {
    const long blocks = HeldBlocks();
    const size_t size = path_.size() + strlen(".md5") + 1;
    EXPECT_EQ((Lines{"COMMON:COM_CheckFileMD5(): CALLOC(" + std::to_string(size) +
                     ") fail : Cannot allocate memory"}),
              CaptureLog([&] {
                  const Fault fault{"calloc", 0, ENOMEM};
                  EXPECT_EQ(-1, COM_CheckFileMD5(path_.c_str(), nullptr));
              }));
    EXPECT_EQ(blocks, HeldBlocks());
}

// The side file is opened first, the file last.
TEST_F(DigestFault, LogsWhichFileCannotBeOpened) {
    EXPECT_EQ(
        (Lines{"COMMON:COM_GetFileContent(): open(" + path_ + ".md5) error : Too many open files",
               "COMMON:COM_CheckFileMD5(): Can't read md5 in [" + path_ + ".md5]"}),
        CaptureLog([&] {
            const Fault fault{"open", 0, EMFILE};
            EXPECT_EQ(-1, COM_CheckFileMD5(path_.c_str(), nullptr));
        }));
    EXPECT_EQ((Lines{"COMMON:COM_MakeFileMD5(): open(" + path_ + ") fail : Too many open files",
                     "COM_CheckFileMD5(" + path_ + ") failed", "  => [] vs [" + Md5(data_) + "]"}),
              CaptureLog([&] {
                  const Fault fault{"open", 2, EMFILE};
                  EXPECT_EQ(-1, COM_CheckFileMD5(path_.c_str(), nullptr));
              }));
}

}  // namespace
