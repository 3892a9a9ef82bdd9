#ifndef TALVEK_TESTS_COMMON_EVERY_CALL_H
#define TALVEK_TESTS_COMMON_EVERY_CALL_H

// One call of every entry of COMMON.h that can block, for tests of what they have in common.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "base/unique_fd.h"
#include "common/COMMON.h"
#include "support/child_process.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace talvek::test {

// What the calls work on, made again for each call. The calls themselves must not reach a
// cancellation point outside the library.
struct Objects {
    Objects() {
        WriteFile(file, "text\n");
        WriteFile(tree + "/a/b/file", "x");
        fd = UniqueFd{open(file.c_str(), O_RDONLY | O_CLOEXEC)};
        int ends[2] = {-1, -1};
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        sock = UniqueFd{ends[0]};
        peer = UniqueFd{ends[1]};
        EXPECT_EQ(0, grantpt(master.get()));
        EXPECT_EQ(0, unlockpt(master.get()));
        EXPECT_EQ(0, ptsname_r(master.get(), terminal, sizeof terminal));
    }

    TempDir dir;
    const std::string file = dir / "file";    // one line of text
    const std::string other = dir / "other";  // does not exist
    const std::string below = dir / "new/dir/file";
    const std::string tree = dir / "tree";  // a/b/file
    UniqueFd fd;                            // of the file
    UniqueFd sock;
    UniqueFd peer;
    UniqueFd master{posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)};
    char terminal[COM_TERM_PATH_SIZE] = "";
    // Another program that makes these calls at the same time has a sleeper of its own.
    const std::string name = "talvek-call-" + std::to_string(getpid()) + ".";
    ChildProcess sleeper{"/bin/sleep", Sleeper(name)};
};

struct Call {
    const char *name;
    void (*make)(const Objects &at);
};

inline void UseTerminal(const Objects &at) {
    tTermDevInfo device = {};
    device.direction = COM_TERM_READ_WRITE;
    device.speed = B9600;
    EXPECT_EQ(0, COM_OpenTermDevice(at.terminal, &device));
    EXPECT_LE(0, COM_DumpTermios("title", &device.current));
    EXPECT_EQ(0, COM_CloseTermDevice(&device));
}

inline void WatchThreads(const Objects & /*at*/) {
    EXPECT_LT(0, COM_LogThread("call"));
    EXPECT_EQ(0, COM_LogThreadMemUsage(1));
    COM_ShowThread();
    EXPECT_EQ(0, COM_CreateThreadWatchdog(1));
    EXPECT_EQ(0, COM_DestroyThreadWatchdog());
}

constexpr Call kCalls[] = {
    // command.h, process.h
    {"COM_System", [](const Objects & /*at*/) { EXPECT_EQ(0, COM_System("/bin/true", nullptr)); }},
    {"COM_System, no program",
     [](const Objects & /*at*/) { COM_System("/no/such/program", nullptr); }},
    {"COM_ParserCMD",
     [](const Objects & /*at*/) { EXPECT_EQ(-1, COM_ParserCMD("/no/such/program")); }},
    {"COM_PopenRead",
     [](const Objects & /*at*/) {
         EXPECT_EQ(0, COM_PopenRead("echo 1", nullptr, nullptr, nullptr));
     }},
    {"COM_SavePid", [](const Objects &at) { COM_SavePid(at.other.c_str()); }},
    {"COM_CloseFdExceptSTD", [](const Objects & /*at*/) { COM_CloseFdExceptSTD(0); }},
    {"COM_KillDhcpProc",
     [](const Objects &at) { EXPECT_EQ(0, COM_KillDhcpProc("talvek", at.name.c_str())); }},
    {"COM_KillPid", [](const Objects &at) { EXPECT_EQ(0, COM_KillPid(at.sleeper.pid(), 1)); }},
    {"COM_KillProcess",
     [](const Objects & /*at*/) { EXPECT_EQ(-1, COM_KillProcess("/no/program", 0, 0)); }},
    {"COM_CheckProcState",
     [](const Objects & /*at*/) {
         tProcState self = {getpid(), ""};
         EXPECT_EQ(0, COM_CheckProcState(&self));
     }},
    {"COM_IfUp", [](const Objects & /*at*/) { COM_IfUp(nullptr); }},
    // thread.h
    {"COM_LogThread and kin", WatchThreads},
    // file.h, file_copy.h
    {"COM_Mkdir", [](const Objects &at) { EXPECT_EQ(0, COM_Mkdir(at.below.c_str(), 0755)); }},
    {"COM_RemoveFileInDir",
     [](const Objects &at) {
         EXPECT_EQ(4, COM_RemoveFileInDir(COM_REMOVE_TREE, at.tree.c_str()));
     }},
    {"COM_RemoveRealFile",
     [](const Objects &at) { EXPECT_EQ(0, COM_RemoveRealFile(at.file.c_str())); }},
    {"COM_CreateSymbolLink",
     [](const Objects &at) {
         EXPECT_EQ(0, COM_CreateSymbolLink(COM_LINK_REPLACE, "x", at.other.c_str()));
     }},
    {"COM_GetFdInfo",
     [](const Objects &at) {
         char path[COM_FD_PATH_SIZE];
         EXPECT_EQ(0, COM_GetFdInfo(at.fd.get(), path, 1));
     }},
    {"COM_RenameFile",
     [](const Objects &at) { EXPECT_EQ(0, COM_RenameFile(at.file.c_str(), at.other.c_str())); }},
    {"COM_ReplaceItemsInFile",
     [](const Objects &at) {
         tFileItem item = {2, "a=", "a=1"};
         tFileItemRequest request = {1, 0, 0, 1, &item};
         EXPECT_EQ(1, COM_ReplaceItemsInFile(at.file.c_str(), &request));
     }},
    {"COM_CloseFd",
     [](const Objects & /*at*/) {
         int fd = dup(STDIN_FILENO);
         EXPECT_EQ(0, COM_CloseFd(&fd));
     }},
    {"COM_CopyFile",
     [](const Objects &at) { EXPECT_EQ(0, COM_CopyFile(at.other.c_str(), at.file.c_str())); }},
    {"COM_CopyFile, with directories",
     [](const Objects &at) { EXPECT_EQ(0, COM_CopyFile(at.below.c_str(), "/proc/version")); }},
    {"COM_CopyAndLink",
     [](const Objects &at) { EXPECT_EQ(0, COM_CopyAndLink(at.below.c_str(), at.file.c_str())); }},
    {"COM_AppendFileToFile",
     [](const Objects &at) {
         EXPECT_EQ(5, COM_AppendFileToFile(at.other.c_str(), at.file.c_str()));
     }},
    // io.h, terminal.h, system_info.h
    {"COM_CheckProcExist",
     [](const Objects & /*at*/) { EXPECT_EQ(-1, COM_CheckProcExist("no such program")); }},
    {"COM_SendAll", [](const Objects &at) { EXPECT_EQ(0, COM_SendAll(at.sock.get(), "data", 4)); }},
    {"COM_SetSockTimeout",
     [](const Objects & /*at*/) { EXPECT_EQ(-1, COM_SetSockTimeout(-1, 1)); }},
    {"COM_SleepTrace",
     [](const Objects & /*at*/) {
         EXPECT_EQ(0, COM_SleepTrace(0, 1, nullptr, 0));
         EXPECT_LT(0, COM_SleepTrace(0, 1, "tag", 1));
     }},
    {"COM_OpenTermDevice, COM_DumpTermios, COM_CloseTermDevice", UseTerminal},
    {"COM_GetSerialPort",
     [](const Objects & /*at*/) {
         char path[COM_SERIAL_PATH_SIZE];
         COM_GetSerialPort(COM_SERIAL_USB_2, path);
     }},
    {"COM_GetMemAndSwap",
     [](const Objects & /*at*/) {
         int32_t values[COM_MEM_FIGURES] = {};
         EXPECT_EQ(0, COM_GetMemAndSwap(values));
     }},
    {"COM_GetPciDeviceId",
     [](const Objects & /*at*/) {
         uint32_t id = 0;
         COM_GetPciDeviceId("x", &id, 1);
     }},
    {"COM_GetPciDevice", [](const Objects & /*at*/) { COM_GetPciDevice("x"); }},
    {"COM_GetDeviceFromProc",
     [](const Objects & /*at*/) {
         tDeviceName *pList = nullptr;
         EXPECT_LT(0, COM_GetDeviceFromProc(&pList, "/proc/net/dev"));
         free(pList);
     }},
    {"COM_GetKernelVersion",
     [](const Objects & /*at*/) {
         char release[COM_KERNEL_TEXT_SIZE];
         char extra[COM_KERNEL_TEXT_SIZE];
         EXPECT_EQ(0, COM_GetKernelVersion(release, extra));
     }},
    {"COM_PrintTime", [](const Objects & /*at*/) { EXPECT_EQ(0, COM_PrintTime("prefix", 1, 0)); }},
    // log.h
    {"COM_Log", [](const Objects & /*at*/) { EXPECT_LT(0, COM_Log("TEST", 1, "Log", "text\n")); }},
    {"COM_LogColor",
     [](const Objects & /*at*/) { EXPECT_LT(0, COM_LogColor("TEST", 1, "Log", "text\n")); }},
    {"COM_PrintTimeStamp",
     [](const Objects & /*at*/) { EXPECT_EQ(0, COM_PrintTimeStamp("TEST", 1)); }},
    // net_info.h, udp_broadcast.h, unit_info.h
    {"COM_GetMAC",
     [](const Objects & /*at*/) {
         char out[COM_NET_MAC_COLON_SIZE];
         COM_GetMAC(COM_NET_MAC_HEX, "lo", out);
     }},
    {"COM_GetArpMAC",
     [](const Objects & /*at*/) {
         char out[COM_NET_MAC_COLON_SIZE];
         COM_GetArpMAC(COM_NET_ARP_HEX, "127.0.0.1", out);
     }},
    {"COM_SubGetNetInfo",
     [](const Objects & /*at*/) {
         char out[COM_NET_ADDRESS_TEXT_SIZE];
         COM_SubGetNetInfo(COM_NET_IP_TEXT, "lo", out);
     }},
    {"COM_SubGetGateway",
     [](const Objects & /*at*/) {
         char out[COM_NET_ADDRESS_TEXT_SIZE];
         COM_SubGetGateway(COM_NET_GATEWAY_TEXT, "lo", out);
     }},
    {"COM_GetDnsServer",
     [](const Objects & /*at*/) {
         char out[COM_NET_ADDRESS_TEXT_SIZE];
         COM_GetDnsServer(COM_NET_DNS1_TEXT, "lo", out);
     }},
    {"COM_GetMTU",
     [](const Objects & /*at*/) {
         int32_t mtu = 0;
         COM_GetMTU(COM_NET_MTU, "lo", &mtu);
     }},
    {"COM_GetDefaultRoute",
     [](const Objects & /*at*/) {
         char name[COM_NET_IF_NAME_SIZE];
         COM_GetDefaultRoute(name);
     }},
    {"COM_GetNetInfo",
     [](const Objects & /*at*/) {
         char out[COM_NET_MAC_COLON_SIZE];
         for (uint32_t flag = COM_NET_MAC_HEX; flag <= COM_NET_MTU; ++flag) {
             COM_GetNetInfo(flag, "auto", out);
         }
     }},
    {"COM_SendUdpBroadcast",
     [](const Objects & /*at*/) { COM_SendUdpBroadcast("lo", 1, 2, "x", 1); }},
    {"COM_GetUnitNetInfo",
     [](const Objects & /*at*/) {
         tUnitNetInfo unit = {};  // if_info_num is the caller's
         COM_GetUnitNetInfo(&unit, "lo");
         COM_ShowAllUnitInfo(1, &unit);
     }},
    {"COM_GetRxPackets", [](const Objects & /*at*/) { COM_GetRxPackets("lo"); }},
    // file_content.h, digest.h
    {"COM_SetFileContent",
     [](const Objects &at) { EXPECT_EQ(0, COM_SetFileContent(at.file.c_str(), "text")); }},
    {"COM_AppendFileContent",
     [](const Objects &at) { EXPECT_EQ(0, COM_AppendFileContent(at.file.c_str(), "text")); }},
    {"COM_SaveDataIntoFile",
     [](const Objects &at) { EXPECT_EQ(0, COM_SaveDataIntoFile(at.file.c_str(), "data", 4)); }},
    {"COM_SaveRingBufDataIntoFile",
     [](const Objects &at) {
         EXPECT_EQ(0, COM_SaveRingBufDataIntoFile(at.file.c_str(), "ring", 3, 4, 4));
     }},
    {"COM_GetFileContent",
     [](const Objects &at) {
         char text[8] = "";
         EXPECT_EQ(0, COM_GetFileContent(at.file.c_str(), text, sizeof text));
     }},
    {"COM_LoadDataFromFile",
     [](const Objects &at) {
         char data[4];
         EXPECT_EQ(0, COM_LoadDataFromFile(at.file.c_str(), data, sizeof data));
     }},
    {"COM_GetPort",
     [](const Objects & /*at*/) {
         char port[COM_PORT_SIZE] = "";
         COM_GetPort(port, sizeof port);
     }},
    {"COM_GetSvnRevision",
     [](const Objects & /*at*/) {
         char revision[COM_SVN_REVISION_SIZE];
         COM_GetSvnRevision(revision);
     }},
    {"COM_MakeNode",
     [](const Objects &at) { EXPECT_EQ(0, COM_MakeNode(at.file.c_str(), S_IFREG, 0)); }},
    {"COM_MakeFileMD5",
     [](const Objects &at) {
         char hex[COM_MD5_HEX_SIZE];
         EXPECT_EQ(0, COM_MakeFileMD5(hex, at.file.c_str()));
     }},
    {"COM_MakeFileSHA1",
     [](const Objects &at) {
         uint8_t digest[COM_SHA1_SIZE];
         EXPECT_EQ(0, COM_MakeFileSHA1(digest, at.file.c_str()));
     }},
    {"COM_CheckFileMD5",
     [](const Objects &at) { EXPECT_EQ(-1, COM_CheckFileMD5(at.file.c_str(), "")); }},
};

}  // namespace talvek::test

#endif
