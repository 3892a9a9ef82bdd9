#include "dev/scsi_bus.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/capture.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

const std::string kHosts = "/sys/class/scsi_host/";

// Runs `body` with an empty /sys of its own.
void WithHosts(const std::function<void()> &body) {
    RunInPrivateWorld(kMounts, [&body] {
        ReplaceDir("/sys");
        body();
    });
}

TEST(RescanScsiBus, MakesEveryHostScanEverything) {
    WithHosts([] {
        for (const char *pHost : {"host0", "host1", "host12"}) {
            WriteFile(kHosts + pHost + "/scan", "");
        }
        // In /sys a host is a link into the tree of devices.
        WriteFile("/sys/devices/pci0000:00/host7/scsi_host/host7/scan", "");
        ASSERT_EQ(0, symlink("../../devices/pci0000:00/host7/scsi_host/host7",
                             (kHosts + "host7").c_str()));
        EXPECT_EQ(Lines{}, CaptureLog([] { EXPECT_EQ(4, Dev_RescanScsiBus()); }));
        for (const char *pHost : {"host0", "host1", "host12", "host7"}) {
            EXPECT_EQ("- - -", ReadFile(kHosts + pHost + "/scan")) << pHost;
        }
    });
}

TEST(RescanScsiBus, ContinuesAfterAHostThatFails) {
    WithHosts([] {
        WriteFile(kHosts + "host0/scan", "");
        WriteFile(kHosts + "host1/state", "running\n");
        WriteFile(kHosts + "host3/scan", "");
        std::filesystem::create_directories(kHosts + "host2");
        // Writing to this device fails.
        ASSERT_EQ(0, symlink("/dev/full", (kHosts + "host2/scan").c_str()));
        Lines lines = CaptureLog([] { EXPECT_EQ(2, Dev_RescanScsiBus()); });
        std::sort(lines.begin(), lines.end());
        EXPECT_EQ((Lines{"DEV:Dev_RescanScsiBus(): open(/sys/class/scsi_host/host1/scan) error : "
                         "No such file or directory",
                         "DEV:Dev_RescanScsiBus(): write(/sys/class/scsi_host/host2/scan) error : "
                         "No space left on device"}),
                  lines);
        EXPECT_EQ("- - -", ReadFile(kHosts + "host0/scan"));
        EXPECT_EQ("- - -", ReadFile(kHosts + "host3/scan"));
        EXPECT_FALSE(std::filesystem::exists(kHosts + "host1/scan"));
    });
}

TEST(RescanScsiBus, AcceptsAHostWithTheLongestName) {
    WithHosts([] {
        const std::string name(255, 'h');
        WriteFile(kHosts + name + "/scan", "");
        EXPECT_EQ(Lines{}, CaptureLog([] { EXPECT_EQ(1, Dev_RescanScsiBus()); }));
        EXPECT_EQ("- - -", ReadFile(kHosts + name + "/scan"));
    });
}

TEST(RescanScsiBus, FailsWithoutAListOfHostsAndReturns0ForAnEmptyOne) {
    WithHosts([] {
        EXPECT_EQ(Lines{"DEV:Dev_RescanScsiBus(): opendir(/sys/class/scsi_host) error : No such "
                        "file or directory"},
                  CaptureLog([] { EXPECT_EQ(-1, Dev_RescanScsiBus()); }));
        std::filesystem::create_directories(kHosts);
        WriteFile(kHosts + ".hidden/scan", "");
        EXPECT_EQ(Lines{}, CaptureLog([] { EXPECT_EQ(0, Dev_RescanScsiBus()); }));
        EXPECT_EQ("", ReadFile(kHosts + ".hidden/scan"));
    });
}

}  // namespace
