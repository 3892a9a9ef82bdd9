#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include "common/system_info.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

// EveryCallFails counts the descriptors in /proc/self/fd, so /proc stays and one directory of it
// is replaced.
void WithPciDevices(const std::string &content, const std::function<void()> &body) {
    RunInPrivateWorld(kMounts, [&] {
        talvek::test::ReplaceDir("/proc/bus");
        WriteFile("/proc/bus/pci/devices", content);
        WriteFile("/proc/bus/table", "lo: 1\neth0: 2\nwlan0: 3\n");
        body();
    });
}

TEST(SystemInfoFault, EveryCallFails) {
    WithPciDevices("0 8086abcd ehci\n1 80861234 ehci\n", [] {
        EXPECT_LT(20, EveryCallFails(EIO, [] {
                      int32_t values[4] = {-1, -1, -1, -1};
                      const int memory = COM_GetMemAndSwap(values);
                      EXPECT_TRUE((memory == 0 && values[0] > 0) || memory == -1);
                      uint32_t ids[2] = {};
                      const int count = COM_GetPciDeviceId("EHCI", ids, 2);
                      EXPECT_TRUE(count >= -1 && count <= 2);
                      EXPECT_TRUE(count < 1 || ids[0] == 0x8086abcd);
                      EXPECT_TRUE(count < 2 || ids[1] == 0x80861234);
                      const int lines = COM_GetPciDevice("EHCI");
                      EXPECT_TRUE(lines >= -1 && lines <= 2);
                      char release[256] = "";
                      const int version = COM_GetKernelVersion(release, nullptr);
                      EXPECT_EQ(version == 0, release[0] != '\0');
                  }));
    });
}

TEST(GetDeviceFromProcFault, EveryCallFails) {
    WithPciDevices("", [] {
        EXPECT_LT(8, EveryCallFails(ENOMEM, [] {
                      tDeviceName *pList = nullptr;
                      const int count = COM_GetDeviceFromProc(&pList, "/proc/bus/table");
                      EXPECT_TRUE(count >= -1 && count <= 3);
                      EXPECT_EQ(count < 1, pList == nullptr);
                      EXPECT_TRUE(count < 3 || strcmp(pList[2], "wlan0") == 0);
                      free(pList);
                  }));
    });
}

TEST(GetDeviceFromProcFault, LeavesOutANameForWhichThereIsNoMemory) {
    WithPciDevices("", [] {
        for (int nth = 0; nth < 3; ++nth) {
            tDeviceName *pList = nullptr;
            EXPECT_EQ(Lines{"COMMON:COM_GetDeviceFromProc(): REALLOC() failed : Cannot allocate "
                            "memory"},
                      CaptureLog([&] {
                          const Fault fault{"realloc", nth, ENOMEM};
                          EXPECT_EQ(2, COM_GetDeviceFromProc(&pList, "/proc/bus/table"));
                      }));
            EXPECT_STREQ(nth == 0 ? "eth0" : "lo", pList[0]);
            EXPECT_STREQ(nth == 2 ? "eth0" : "wlan0", pList[1]);
            free(pList);
        }
    });
}

TEST(TimeFault, ReportsATimeThatCannotBeConverted) {
    char buf[39] = "old";
    struct tm calendar = {};
    for (int call = 0; call < 4; ++call) {
        EXPECT_EQ(Lines{}, CaptureLog([&] {
                      const Fault fault{"gmtime_r", 0, EOVERFLOW};
                      switch (call) {
                          case 0:
                              EXPECT_EQ(-1, COM_TimeToStr(buf, 0));
                              break;
                          case 1:
                              EXPECT_EQ(-1, COM_TimevalToStr(buf, 0, 0));
                              break;
                          case 2:
                              EXPECT_EQ(-1, COM_PrintTime("x", 1, 0));
                              break;
                          default:
                              EXPECT_EQ(nullptr, COM_GmTime(&calendar, 0));
                              break;
                      }
                      EXPECT_TRUE(Fault::Tripped());
                  }));
        EXPECT_STREQ("old", buf);
    }
}

}  // namespace
