// Every call of the C library fails in turn: no crash, no leak, and outputs unchanged.

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include "dev/ide.h"
#include "ide_fixture.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

void WithDisk(const std::function<void()> &body) {
    RunInPrivateWorld(kMounts, [&] {
        ReplaceProc();
        WriteFile("/proc/ide/hda/identify", KernelText(Identity("SERIAL", "FW", "MODEL")));
        Sector smart = {};
        PutAttribute(smart, 3, 0xC2, 40);
        WriteFile("/proc/ide/hda/smart_values", KernelText(smart));
        WriteFile("/proc/mounts", "/dev/hda1 /mnt ext3 rw 0 0\n");
        body();
    });
}

TEST(IdeFault, IdentityWritesNothingAfterAFailure) {
    WithDisk([] {
        Capture([] {
            EXPECT_EQ(4, EveryCallFails(EIO, [] {
                             // open, realloc, read, read; a failing close has no effect.
                             char model[DEV_IDE_MODEL_SIZE] = "same";
                             const int result = Dev_GetDevIdentify("hda", nullptr, nullptr, model);
                             const bool failed = Fault::Tripped() && Fault::Which() != "close";
                             EXPECT_EQ(failed ? -1 : 0, result) << Fault::Which();
                             EXPECT_EQ(failed, strcmp(model, "same") == 0);
                         }) - 1);
        });
    });
}

TEST(IdeFault, IdentityByMountSurvivesEveryFailure) {
    WithDisk([] {
        Capture([] {
            EXPECT_GT(EveryCallFails(EIO,
                                     [] {
                                         char model[DEV_IDE_MODEL_SIZE] = "same";
                                         const int result =
                                             Dev_GetIDViaMount("/mnt", nullptr, nullptr, model);
                                         EXPECT_EQ(result != 0, strcmp(model, "same") == 0);
                                         EXPECT_TRUE(Fault::Tripped() || result == 0);
                                     }),
                      6);
        });
    });
}

TEST(IdeFault, SmartValueWritesNothingAfterAFailure) {
    WithDisk([] {
        Capture([] {
            EXPECT_EQ(4, EveryCallFails(EIO, [] {
                             tSmartAttr attribute = {0xC2, 7};
                             const int result = Dev_GetSmartValue("hda", &attribute);
                             const bool failed = Fault::Tripped() && Fault::Which() != "close";
                             EXPECT_EQ(failed ? -1 : 0, result) << Fault::Which();
                             EXPECT_EQ(failed ? 7 : 40, attribute.value);
                         }) - 1);
        });
    });
}

TEST(IdeFault, SmartValueLogsWhyTheFileCannotBeOpened) {
    WithDisk([] {
        for (const int error : {EACCES, EMFILE, EIO}) {
            EXPECT_EQ(Lines{std::string{"DEV:Dev_GetSmartValue(): "
                                        "open(/proc/ide/hda/smart_values) error : "} +
                            strerror(error)},
                      CaptureLog([error] {
                          const Fault fault{"open", 0, error};
                          tSmartAttr attribute = {0xC2, 7};
                          EXPECT_EQ(-1, Dev_GetSmartValue("/dev/hda", &attribute));
                      }));
        }
        // For the identity nothing is logged.
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      const Fault fault{"open", 0, EACCES};
                      char model[DEV_IDE_MODEL_SIZE];
                      EXPECT_EQ(-1, Dev_GetDevIdentify("hda", nullptr, nullptr, model));
                  }));
    });
}

}  // namespace
