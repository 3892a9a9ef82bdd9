// Every call of the C library fails in turn while a disc is identified.

#include <errno.h>
#include <gtest/gtest.h>

#include <string>

#include "dev/DEV.h"
#include "disc_fixture.h"
#include "iso_mount.h"
#include "support/faults.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

tDevInfo Drive() {
    tDevInfo dev = {};
    strcpy(dev.devPath, kNode);
    strcpy(dev.sgPath, "/dev/sg1");
    dev.isOptical = 1;
    return dev;
}

class DiscFault : public DiscTest {};

TEST_F(DiscFault, NeedsMemoryForInquiryAndConfiguration) {
    const long blocks = HeldBlocks();
    char model[DEV_MODEL_SIZE] = "before";
    const Lines inquiry = CaptureLog([&] {
        const Fault fault{"calloc", 0, ENOMEM};
        EXPECT_EQ(DEV_QUERY_FAILED, Dev_Inquiry(kNode, fd_, model));
    });
    EXPECT_EQ(Lines{"DEV:Dev_Inquiry(): reply_buf = NULL"}, inquiry);
    EXPECT_STREQ("before", model);
    const Lines configuration = CaptureLog([&] {
        const Fault fault{"calloc", 0, ENOMEM};
        EXPECT_EQ(DEV_QUERY_FAILED, Dev_GetConfiguration(kNode, fd_, &info_));
    });
    EXPECT_EQ(Lines{"DEV:Dev_GetConfiguration(): reply_buf = NULL"}, configuration);
    EXPECT_TRUE(tDiscInfo{} == info_) << "the buffer is allocated before the preset";
    EXPECT_TRUE(drive_.requests.empty());
    EXPECT_EQ(blocks, HeldBlocks());
}

TEST_F(DiscFault, IdentifiesWithoutInquiry) {
    drive_.Load("dvd_rom.hex");
    tDevInfo dev = Drive();
    Capture([&] {
        const Fault fault{"calloc", 0, ENOMEM};  // the buffer of INQUIRY
        EXPECT_EQ(DEV_DISC_INFO_OK, Dev_GetDiscInfo(&dev));
        EXPECT_TRUE(Fault::Tripped());
    });
}

TEST(RewritableCapacityFault, UnmountsWhenTheFileSystemCannotBeMeasured) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        tDevInfo dev = Drive();
        dev.u.disc.usedKB = 7;
        const Lines lines = CaptureLog([&] {
            const Fault fault{"statfs", 0, EIO};
            EXPECT_EQ(DEV_QUERY_FAILED, Dev_GetBDReInfo(&dev));
        });
        EXPECT_EQ(Lines{"DEV:Dev_GetBDReInfo(): statfs(/dev/sr0,/var/bd_re) error : "
                        "Input/output error"},
                  lines);
        EXPECT_EQ(7U, dev.u.disc.usedKB);
        EXPECT_EQ(std::string::npos, ReadFile("/proc/self/mounts").find(" /var/bd_re "));
        EXPECT_EQ(std::vector<double>{1.0}, TakePauses());
    });
}

// The longest sequences of commands.
TEST(DiscFaultSweep, ReleasesEverythingAfterEveryFailure) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/var");
        for (const char *fixture :
             {"cd_r_open.hex", "dvd_minus_rw_overwrite.hex", "dvd_plus_r_open.hex"}) {
            SimulatedDrive drive{{"/dev/sg1"}};
            drive.Load("drive.hex");
            drive.Load(fixture);
            for (const int error : {EIO, ENOMEM}) {
                std::string output;
                int calls = 0;
                output = Capture([&] {
                    calls = EveryCallFails(error, [] {
                        tDevInfo dev = Drive();
                        const int result = Dev_GetDiscInfo(&dev);
                        EXPECT_TRUE(result == DEV_DISC_INFO_OK ||
                                    result == DEV_DISC_INFO_OPEN_FAILED ||
                                    result == DEV_DISC_INFO_UNSUPPORTED)
                            << result;
                    });
                });
                EXPECT_FALSE(::testing::Test::HasFailure()) << output;
                EXPECT_GT(calls, 15) << fixture;
            }
        }
    });
}

}  // namespace
