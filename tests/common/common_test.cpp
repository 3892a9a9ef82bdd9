// Tests of the rules in common/COMMON.h that hold for every entry and are not tested with the
// entry.

#include "common/COMMON.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "support/capture.h"
#include "support/stack_use.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

// The entries that need the most. The others call no more of the C library than one log line.
TEST(Common, CallsUseLessThan8KiBOfStack) {
    SKIP_UNLESS_STACK_IS_MEASURED();
    const TempDir dir;
    const std::string file = dir / "file";
    const std::string other = dir / "other";
    const std::string tree = dir / "tree";
    const struct {
        const char *name;
        std::function<void()> call;
    } rows[] = {
        {"COM_Log", [] { COM_Log("COMMON", 1, "function", "%s\n", strerror(ENOENT)); }},
        {"COM_PrintTimeStamp", [] { COM_PrintTimeStamp("COMMON", 1); }},
        {"COM_SetFileContent", [&] { COM_SetFileContent(file.c_str(), "a=1\n"); }},
        {"COM_ReplaceItemsInFile",
         [&] {
             tFileItem item = {2, "a=", "a=2"};
             tFileItemRequest request = {1, 0, 0, 1, &item};
             COM_ReplaceItemsInFile(file.c_str(), &request);
         }},
        {"COM_CopyFile", [&] { COM_CopyFile(other.c_str(), file.c_str()); }},
        {"COM_AppendFileToFile", [&] { COM_AppendFileToFile(other.c_str(), file.c_str()); }},
        {"COM_RenameFile", [&] { COM_RenameFile(other.c_str(), file.c_str()); }},
        {"COM_Mkdir", [&] { COM_Mkdir((tree + "/1/2/3/4/5").c_str(), 0755); }},
        {"COM_RemoveFileInDir", [&] { COM_RemoveFileInDir(COM_REMOVE_TREE, tree.c_str()); }},
        {"COM_RemoveRealFile", [&] { COM_RemoveRealFile(file.c_str()); }},
        {"COM_MakeFileMD5",
         [] {
             char hex[COM_MD5_HEX_SIZE];
             COM_MakeFileMD5(hex, "/proc/self/exe");
         }},
        {"COM_MakeFileSHA1",
         [] {
             uint8_t digest[COM_SHA1_SIZE];
             COM_MakeFileSHA1(digest, "/proc/self/exe");
         }},
        {"COM_System", [] { COM_System("/bin/true", nullptr); }},
        {"COM_PopenRead", [] { COM_PopenRead("echo", nullptr, nullptr, nullptr); }},
        {"COM_CheckProcExist", [] { COM_CheckProcExist("no process has this in its name"); }},
        {"COM_LogThread", [] { COM_LogThread("common_test"); }},
        {"COM_ShowThread", [] { COM_ShowThread(); }},
        {"COM_GetUnitNetInfo",
         [] {
             tUnitNetInfo unit;
             COM_GetUnitNetInfo(&unit, nullptr);
             COM_ShowAllUnitInfo(1, &unit);
         }},
        {"COM_SendUdpBroadcast", [] { COM_SendUdpBroadcast("no-such-if", 1, 2, "x", 1); }},
        {"COM_GetDeviceFromProc",
         [] {
             tDeviceName *pList = nullptr;
             COM_GetDeviceFromProc(&pList, "/proc/devices");
             free(pList);
         }},
    };
    CaptureLog([&] {
        for (const auto &row : rows) {
            EXPECT_GT(8192U, StackUse(row.call)) << row.name;
        }
    });
}

}  // namespace
