// Every call of the C library fails in turn while devices are enumerated and named.

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <functional>

#include "dev/enumeration.h"
#include "dev/file_system.h"
#include "dev/naming.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/private_world.h"
#include "support/simulated_drive.h"

namespace {

using namespace talvek::test;

void WithDevices(const std::function<void()> &body) {
    RunInPrivateWorld(
        kMounts,
        [&] {
            MountTmpfs("/var");
            ReplaceDir("/dev");
            SimulatedDrive disk{{"/dev/sda", "/dev/sg0"}};
            SimulatedDrive drive{{"/dev/sr0", "/dev/sg1"}};
            drive.host = 1;
            body();
        },
        true);
}

TEST(EnumerationFault, SurvivesEveryFailure) {
    WithDevices([] {
        Capture([] {
            Dev_InitFsArray();
            EXPECT_GT(EveryCallFails(EIO,
                                     [] {
                                         tDevInfo devs[DEV_MAX_DEVICES] = {};
                                         const int count = Dev_Get(devs);
                                         EXPECT_GE(count, 0);
                                         EXPECT_LE(count, 2);
                                         if (!Fault::Tripped()) {
                                             EXPECT_EQ(2, count);
                                         }
                                     }),
                      20);
        });
    });
}

TEST(EnumerationFault, NamingSurvivesEveryFailure) {
    WithDevices([] {
        Capture([] {
            EveryCallFails(EIO, [] {
                char name[DEV_NODE_NAME_SIZE];
                Dev_SgToSd("/dev/sg1", name, sizeof name);
                Dev_SdToSg("/dev/sr0", name, sizeof name);
                Dev_ConvertMajorMinor(9, 0, name, sizeof name);
            });
        });
    });
}

}  // namespace
