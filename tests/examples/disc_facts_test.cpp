// The example disc_facts with a simulated drive: its source is compiled into this program, where
// ioctl is caught.

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/await.h"
#include "support/capture.h"
#include "support/simulated_drive.h"

extern "C" int DiscFactsMain(int argc, char *argv[]);

namespace {

using namespace talvek::test;

struct Shown {
    int status;
    std::string output;  // standard output
};

Shown DiscFacts(std::vector<std::string> arguments) {
    Shown run{-1, ""};
    run.output = Capture([&] {
        const pid_t pid = fork();
        if (pid == 0) {
            char name[] = "disc_facts";
            std::vector<char *> words{name};
            for (std::string &word : arguments) {
                words.push_back(word.data());
            }
            words.push_back(nullptr);
            _exit(DiscFactsMain(static_cast<int>(words.size()) - 1, words.data()));
        }
        run.status = WEXITSTATUS(WaitFor(pid));
    });
    return run;
}

class DiscFactsTest : public ::testing::Test {
  protected:
    DiscFactsTest() { drive_.Load("drive.hex"); }
    SimulatedDrive drive_{{"/dev/sr0", "/dev/sg0"}};
};

// The figures are those of the fixtures (dev/disc_table.h).
TEST_F(DiscFactsTest, ShowsADvd) {
    drive_.Load("dvd_minus_r_open.hex");
    for (const char *pNode : {"/dev/sr0", "/dev/sg0"}) {
        const Shown run = DiscFacts({"-p", pNode});
        EXPECT_EQ(0, run.status) << pNode;
        EXPECT_EQ(
            "drive /dev/sr0\nclass DVD-R/RW\nmedia write-once\nstate appendable\n"
            "last_track 2\ntotal 4595776\nused 998976\n",
            run.output)
            << pNode;
    }
}

TEST_F(DiscFactsTest, ShowsACd) {
    drive_.Load("cd_r_open.hex");
    const Shown run = DiscFacts({"-j", "/dev/sr0"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ(
        "{\"drive\": \"/dev/sr0\", \"class\": \"CD\", \"media\": \"write-once\", "
        "\"state\": \"appendable\", \"last_track\": 5, \"sessions\": 3, \"total\": 719998, "
        "\"used\": 376560}\n",
        run.output);
}

TEST_F(DiscFactsTest, ShowsNoStateOfADvdRom) {
    drive_.Load("dvd_rom.hex");
    EXPECT_EQ("drive /dev/sr0\nclass DVD-ROM\nmedia read-only\ntotal 0\nused 0\n",
              DiscFacts({"-p", "/dev/sr0"}).output);
}

TEST_F(DiscFactsTest, ReportsAnOpenTray) {
    drive_.Always(0x00, SgAnswer::Check(0x02, 0x3A, 0x02));
    const Shown run = DiscFacts({"/dev/sr0"});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ("", run.output);
}

TEST_F(DiscFactsTest, ReportsAMissingDrive) {
    EXPECT_EQ(1, DiscFacts({"/dev/sr1"}).status);
    EXPECT_EQ(1, DiscFacts({"/dev/sg2"}).status);
    EXPECT_EQ(2, DiscFacts({"/dev/a-long-name"}).status);
}

}  // namespace
