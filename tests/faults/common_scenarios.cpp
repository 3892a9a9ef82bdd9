// Scenarios of common/.

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "common/COMMON.h"
#include "faults/harness.h"
#include "faults/wrappers.h"
#include "support/private_world.h"

namespace talvek::faults {
namespace {

using test::ReadFile;
using test::WriteFile;

char g_text[4096];
uint8_t g_bytes[64];
int32_t g_numbers[8];
int g_fd = -1;
int g_pair[2] = {-1, -1};
int g_pid = 0;
void *g_block = nullptr;
tTermDevInfo g_terminal;
tFileItem g_items[2];

constexpr const char *kFile = "/tmp/file";
constexpr const char *kOther = "/tmp/other";
constexpr const char *kHello = "hello\n";

bool Exists(const char *pPath) {
    struct stat st;
    return lstat(pPath, &st) == 0;
}

// Bytes that differ from place to place, more than a copy moves at once.
std::string Long() {
    std::string text;
    for (int i = 0; i < 30'000; ++i) {
        text += std::to_string(i) + "\n";
    }
    return text;
}

void MakeFile() {
    WriteFile(kFile, kHello);
}

void MakeLongFile() {
    WriteFile(kFile, Long());
}

void MakeTree() {
    WriteFile("/tmp/tree/file", "1");
    WriteFile("/tmp/tree/a/b/file", "2");
    symlink("/tmp/tree/a", "/tmp/tree/a/link");
    WriteFile("/tmp/tree/lost+found/kept", "3");
}

// A descriptor that no command may inherit.
void OpenFile() {
    g_fd = open("/etc/passwd", O_RDONLY | O_CLOEXEC);
}

void MakeSleeper() {
    g_pid = fork();
    if (g_pid == 0) {
        execl("/bin/sleep", "talvek-sleeper", "1000", nullptr);
        _exit(1);
    }
    // The name is there once the program is.
    while (ReadFile("/proc/" + std::to_string(g_pid) + "/cmdline").find("1000") ==
           std::string::npos) {
        usleep(1000);
    }
}

void EndSleeper(long /*result*/) {
    kill(g_pid, SIGKILL);
}

void MakeTerminal() {
    g_fd = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    grantpt(g_fd);
    unlockpt(g_fd);
    ptsname_r(g_fd, g_text, sizeof g_text);
    g_terminal = {};
    g_terminal.direction = COM_TERM_READ_WRITE;
    g_terminal.speed = B9600;
}

// A neighbour, an interface with an address and a route as /proc shows them.
void MakeNetwork() {
    test::ReplaceProc();
    WriteFile("/proc/net/arp",
              "IP address       HW type     Flags       HW address            Mask     Device\n"
              "127.0.0.9        0x1         0x2         00:11:22:aa:bb:cc     *        lo\n");
    WriteFile(
        "/proc/net/route",
        "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
        "lo\t00000000\t0100007F\t0003\t0\t0\t0\t00000000\t0\t0\t0\n");
    WriteFile("/proc/net/dev", "Inter-|\n lo: 1\neth0: 2\n");
    WriteFile("/proc/bus/pci/devices",
              "0000\t80862668\t0\tsnd_hda_intel\n0008\t10EC8139\t0\t8139too\n");
    WriteFile("/proc/tty/driver/usb-serial",
              "usbserinfo:1.0 driver:2.0\n0: name:\"x\" path:usb-0000:00:14.0-1.3\n");
    WriteFile("/proc/meminfo", "MemTotal: 10 kB\nMemFree: 5 kB\nSwapTotal: 4 kB\nSwapFree: 3 kB\n");
    WriteFile("/proc/version", "Linux version 2.6.35-rt1 (x)\n");
    WriteFile("/etc/resolv.conf", "nameserver 127.0.0.1\nnameserver 127.0.0.2\n");
    WriteFile("/etc/Model", "model\n");
    WriteFile("/etc/Proj", "project\n");
    WriteFile("/etc/hostname", "unit\n");
    WriteFile("/etc/Note", "note\n");
    WriteFile("/etc/Port", "8080\n");
}

// The copy is whole when the result says so.
template <const char *const &pPath>
void CheckCopy(long result) {
    CHECK(result != 0 || ReadFile(pPath) == ReadFile(kFile));
}

std::vector<Scenario> Commands() {
    return {
        {"COM_System",
         OpenFile,
         [] {
             int pid = -1;
             const long status = COM_System("/bin/sh -c exit", &pid);
             CHECK(pid == 0 || pid == -1);
             return status;
         },
         {0, -1, COM_NOT_EXECUTED << 8}},
        {"COM_System, no program",
         nullptr,
         [] { return long{COM_System("/no/such/program", nullptr)}; },
         {COM_NOT_EXECUTED << 8, -1}},
        {"COM_ParserCMD",
         nullptr,
         [] { return long{COM_ParserCMD("/no/such/program a b")}; },
         {-1}},
        {"COM_PopenRead",
         nullptr,
         [] {
             g_text[0] = '\0';
             return long{COM_PopenRead("echo one; echo two", nullptr, nullptr,
                                       [](const char *pLine, void *) {
                                           strcat(g_text, pLine != nullptr ? pLine : "end");
                                       })};
         },
         // A shell that nobody reads any more ends by SIGPIPE.
         {0, -1, SIGPIPE, (128 + SIGPIPE) << 8},
         [](long result) {
             CHECK(!Undisturbed() || strcmp(g_text, "one\ntwo\nend") == 0);
             CHECK(result != 0 || strstr(g_text, "end") != nullptr);
         }},
        {"COM_PopenRead, status",
         nullptr,
         [] { return long{COM_PopenRead("exit 1", nullptr, nullptr, nullptr)}; },
         {256, -1}},
        {"COM_SavePid", nullptr, [] { return long{COM_SavePid(kFile)}; }, {-1}, nullptr, {kFile}},
        {"COM_CloseFdExceptSTD",
         nullptr,
         [] {
             const pid_t child = fork();  // the descriptors are those of the harness
             if (child == 0) {
                 const int result = COM_CloseFdExceptSTD(getpid());
                 _exit(result == -1 ? 1 : result > 0 ? 2 : 0);
             }
             int status = 0;
             waitpid(child, &status, 0);
             return long{WEXITSTATUS(status)};
         },
         {1, 2, 0}},
        {"COM_KillDhcpProc",
         MakeSleeper,
         [] { return long{COM_KillDhcpProc("talvek", "-sleeper")}; },
         {0, -1},
         EndSleeper},
        {"COM_KillPid",
         MakeSleeper,
         [] { return long{COM_KillPid(g_pid, 1000)}; },
         {0, -1},
         EndSleeper},
        {"COM_KillProcess",
         MakeSleeper,
         [] { return long{COM_KillProcess("talvek-sleeper", 0, SIGTERM)}; },
         {0, -1},
         EndSleeper},
        {"COM_CheckProcExist",
         MakeSleeper,
         [] { return long{COM_CheckProcExist("talvek-sleeper")}; },
         {0, -1},
         EndSleeper},
        {"COM_CheckProcState",
         nullptr,
         [] {
             tProcState self = {getpid(), "old"};
             const long result = COM_CheckProcState(&self);
             CHECK(result == 0 || strcmp(self.state, "old") == 0);
             return result;
         },
         {0, -1}},
        {"COM_IfUp", nullptr, [] { return long{COM_IfUp("no-such-if") == 0 ? 1 : 0}; }, {0}},
        {"COM_SleepAtLeast",
         nullptr,
         [] {
             const timespec time = {2, 0};
             const long rounds = COM_SleepAtLeast(&time, 3);
             CHECK(rounds >= 0);
             return rounds == 0 ? 0L : 1L;
         },
         {0, 1}},
        {"COM_SleepTrace",
         nullptr,
         [] {
             return long{COM_SleepTrace(1, 0, nullptr, 0) + COM_SleepTrace(1, 0, "tag", 1) / 100};
         },
         {0, -1, -2}},
        {"COM_LogThread",
         nullptr,
         [] { return long{COM_LogThread("name")}; },
         {1, -1},
         [](long result) {
             g_blocks -= result > 0;  // the registry, the library's for the life of the process
         },
         {"/var/run/name.thread.pid"}},
        {"watchdog",
         nullptr,
         [] {
             const long entries = COM_LogThread("name");
             if (entries > 0) {
                 CHECK(COM_LogThreadMemUsage(1) == 0);
                 COM_ShowThread();
                 --g_blocks;  // the registry
             }
             const int started = COM_CreateThreadWatchdog(1);
             CHECK(started == 0 || started == EAGAIN || started == ENOMEM);
             const int ended = COM_DestroyThreadWatchdog();
             CHECK(ended == (started == 0 ? 0 : ESRCH));
             return long{started};
         },
         {0, EAGAIN, ENOMEM},
         nullptr,
         {"/var/run/name.thread.pid"}},
    };
}

std::vector<Scenario> Files() {
    return {
        {"COM_Mkdir",
         nullptr,
         [] { return long{COM_Mkdir("/tmp/a/b/c", 0755)}; },
         {0, -1},
         [](long result) { CHECK(result != 0 || Exists("/tmp/a/b/c")); },
         {"/tmp/a", "/tmp/a/b", "/tmp/a/b/c"}},
        {"COM_RemoveFileInDir",
         MakeTree,
         [] { return long{COM_RemoveFileInDir(COM_REMOVE_TREE, "/tmp/tree")}; },
         {-1, 0, 5},
         [](long /*result*/) { CHECK(Exists("/tmp/tree/lost+found/kept")); }},
        {"COM_RemoveFileInDir, all",
         [] { WriteFile("/tmp/tree/a/file", "1"); },
         [] { return long{COM_RemoveFileInDir(COM_REMOVE_TREE, "/tmp/tree")}; },
         {3, -1, 0, 1, 2},
         [](long result) {
             CHECK(!Exists("/tmp/tree") || !Undisturbed());
             CHECK(result != 3 || !Exists("/tmp/tree"));
         }},
        {"COM_RemoveRealFile",
         MakeFile,
         [] { return long{COM_RemoveRealFile(kFile)}; },
         {0, -1},
         [](long result) { CHECK((result == 0) == !Exists(kFile)); }},
        {"COM_RemoveRealFile, link",
         [] {
             MakeFile();
             symlink(kFile, kOther);
         },
         [] { return long{COM_RemoveRealFile(kOther)}; },
         {0, -1}},
        {"COM_CreateSymbolLink",
         MakeFile,
         [] { return long{COM_CreateSymbolLink(COM_LINK_REPLACE, "/tmp/target", kFile)}; },
         {0, -1},
         [](long result) {
             struct stat st;
             CHECK(result != 0 || (lstat(kFile, &st) == 0 && S_ISLNK(st.st_mode)));
         }},
        {"COM_CreateSymbolLink, existing target",
         MakeFile,
         [] {
             return long{COM_CreateSymbolLink(COM_LINK_REPLACE_IF_TARGET, kFile, kOther)} +
                    COM_CreateSymbolLink(COM_LINK_IF_TARGET, kFile, "/tmp/link");
         },
         {0, -1, -2},
         nullptr,
         {kOther, "/tmp/link"}},
        {"COM_GetFdInfo",
         OpenFile,
         [] { return long{COM_GetFdInfo(g_fd, g_text, 1)}; },
         {0, -1},
         [](long result) { CHECK(result != 0 || strcmp(g_text, "/etc/passwd") == 0); }},
        {"COM_RenameFile",
         MakeFile,
         [] { return long{COM_RenameFile(kFile, kOther)}; },
         {0, -1},
         [](long result) {
             // A read that ends early is not to be noticed.
             CHECK(result != 0 || ReadFile(kOther) == kHello || FailsWith(kEnd));
             CHECK(Exists(kFile) || result == 0);
         },
         {kOther}},
        {"COM_ReplaceItemsInFile",
         [] { WriteFile(kFile, "a=1\nb=2\nc=3\n"); },
         [] {
             g_items[0] = {2, "a=", "a=new"};
             g_items[1] = {2, "d=", "d=new"};
             tFileItemRequest request = {2, 0, 0, 1, g_items};
             return long{COM_ReplaceItemsInFile(kFile, &request)};
         },
         {2, -1},
         [](long result) {
             const std::string now = ReadFile(kFile);
             // A file that is said to be missing is made again.
             CHECK(result == 2 ? now == "a=new\nb=2\nc=3\nd=new\n" || FailsWith(ENOENT)
                               : now.empty() || now == "a=1\nb=2\nc=3\n");
         }},
        {"COM_ReplaceItemsInFile, search",
         [] { WriteFile(kFile, "a=1\nb=2\n"); },
         [] {
             g_items[0] = {2, "b=", ""};
             tFileItemRequest request = {1, 1, 0, 0, g_items};
             return long{COM_ReplaceItemsInFile(kFile, &request)};
         },
         {1, 0, -1},
         [](long /*result*/) { CHECK(ReadFile(kFile) == "a=1\nb=2\n" || FailsWith(ENOENT)); }},
        {"COM_ReplaceItemsInFile, new file",
         nullptr,
         [] {
             g_items[0] = {2, "a=", "a=1"};
             tFileItemRequest request = {1, 0, 0, 1, g_items};
             return long{COM_ReplaceItemsInFile(kFile, &request)};
         },
         {1, -1},
         [](long result) { CHECK(ReadFile(kFile) == (result == 1 ? "a=1\n" : "")); },
         {kFile}},
        {"COM_ReallocAndCopyBuf",
         nullptr,
         [] {
             g_block = nullptr;
             return long{COM_ReallocAndCopyBuf(100, &g_block, 0, "text", 5) != nullptr} +
                    (COM_ReallocAndCopyBuf(5000, &g_block, 5, "text", 5) != nullptr);
         },
         {2, 1, 0},
         [](long /*result*/) { Free(g_block); }},
        {"COM_CloseFd",
         nullptr,
         [] {
             int fd = dup(STDIN_FILENO);
             const long result = COM_CloseFd(&fd);
             CHECK(fd == -1);
             return result;
         },
         {0, -1}},
        {"COM_CopyFile",
         MakeLongFile,
         [] { return long{COM_CopyFile(kOther, kFile)}; },
         {0, -1},
         CheckCopy<kOther>,
         {kOther}},
        {"COM_CopyFile, directories",
         MakeFile,
         [] { return long{COM_CopyFile("/tmp/a/b/file", kFile)}; },
         {0, -1},
         [](long result) { CHECK(result != 0 || ReadFile("/tmp/a/b/file") == kHello); },
         {"/tmp/a", "/tmp/a/b", "/tmp/a/b/file"}},
        {"COM_CopyFile, from /proc",
         nullptr,
         [] { return long{COM_CopyFile(kOther, "/proc/version")}; },
         {0, -1},
         [](long result) {
             CHECK(result != 0 || ReadFile(kOther) == ReadFile("/proc/version") || FailsWith(kEnd));
         },
         {kOther}},
        {"COM_CopyAndLink",
         MakeLongFile,
         [] { return long{COM_CopyAndLink("/tmp/a/file", kFile)}; },
         {0, -1},
         [](long result) {
             // A source that is not there is none to copy.
             CHECK(result != 0 || ReadFile("/tmp/a/file") == Long() || FailsWith(ENOENT));
             CHECK(ReadFile(kFile) == Long() || ReadFile("/tmp/a/file") == Long() ||
                   FailsWith(ENOENT));
             CHECK(!std::filesystem::exists("/tmp/a/file") || ReadFile("/tmp/a/file") == Long() ||
                   FailsIn({"lstat", "unlink"}));
         },
         {"/tmp/a", "/tmp/a/file"}},
        {"COM_AppendFileToFile",
         MakeLongFile,
         [] { return long{COM_AppendFileToFile(kOther, kFile)}; },
         {static_cast<long>(Long().size()), -1, kPositive},
         [](long result) {
             CHECK(result < 0 || static_cast<long>(ReadFile(kOther).size()) == result);
         },
         {kOther}},
        {"COM_SetFileContent",
         nullptr,
         [] { return long{COM_SetFileContent(kFile, kHello)}; },
         {0, -1},
         [](long result) {
             CHECK(result != 0 || ReadFile(kFile) == kHello ||
                   LogSoFar().find("COM_SetFileContent") != std::string::npos);
         },
         {kFile}},
        {"COM_AppendFileContent",
         MakeFile,
         [] { return long{COM_AppendFileContent(kFile, kHello)}; },
         {0, -1}},
        {"COM_SaveDataIntoFile",
         nullptr,
         [] { return long{COM_SaveDataIntoFile(kFile, kHello, 6)}; },
         {COM_DATA_COMPLETE, COM_DATA_PARTIAL, -1},
         [](long result) { CHECK(result != COM_DATA_PARTIAL || ReadFile(kFile).size() < 6); },
         {kFile}},
        {"COM_SaveRingBufDataIntoFile",
         nullptr,
         [] { return long{COM_SaveRingBufDataIntoFile(kFile, "lo\nhel", 3, 6, 6)}; },
         {COM_DATA_COMPLETE, COM_DATA_PARTIAL, -1},
         [](long result) { CHECK(result != 0 || ReadFile(kFile) == kHello); },
         {kFile}},
        {"COM_SaveRingBufDataIntoFile, no wrap",
         nullptr,
         [] { return long{COM_SaveRingBufDataIntoFile(kFile, kHello, 0, 0, 6)}; },
         {COM_DATA_COMPLETE, COM_DATA_PARTIAL, -1},
         nullptr,
         {kFile}},
        {"COM_LoadDataFromFile",
         MakeFile,
         [] {
             g_text[0] = '\0';
             return long{COM_LoadDataFromFile(kFile, g_text, 6)};
         },
         {COM_DATA_COMPLETE, COM_DATA_PARTIAL, -1},
         [](long result) {
             // A file that seems to be empty is complete too.
             CHECK(result != COM_DATA_COMPLETE || memcmp(g_text, kHello, 6) == 0 ||
                   (g_text[0] == '\0' && FailsWith(kEnd)));
         }},
        {"COM_GetFileContent",
         MakeFile,
         [] {
             g_text[0] = '\0';
             return long{COM_GetFileContent(kFile, g_text, 100)};
         },
         {0, -1},
         [](long result) {
             CHECK(result == 0 ? strncmp(g_text, "hello", strlen(g_text)) == 0
                               : strcmp(g_text, "unknown") == 0);
         }},
        {"COM_MakeNode",
         nullptr,
         [] { return long{COM_MakeNode(kFile, S_IFREG | 0644, 0)}; },
         {0, -1},
         nullptr,
         {kFile}},
        {"COM_SetHostName",
         nullptr,
         [] { return long{COM_SetHostName("unit")}; },
         {0, -1},
         nullptr,
         {"/etc/hostname"}},
        {"COM_SetUnitInfo",
         nullptr,
         [] {
             const tUnitInfo info = {"model", "project", "unit", "note"};
             return long{COM_SetUnitInfo(&info)};
         },
         {0, -1, -2, -3, -4},
         nullptr,
         {"/etc/Model", "/etc/Proj", "/etc/hostname", "/etc/Note"}},
        {"COM_SetPort",
         nullptr,
         [] { return long{COM_SetPort(8080)}; },
         {0, -1},
         nullptr,
         {"/etc/Port"}},
        {"COM_GetPort",
         nullptr,
         [] {
             g_text[0] = '\0';
             return long{COM_GetPort(g_text, COM_PORT_SIZE)};
         },
         {-1},
         [](long /*result*/) { CHECK(strcmp(g_text, "80") == 0); }},
        {"COM_GetSvnRevision",
         [] { WriteFile("/etc/SVN", "Revision: 12\n"); },
         [] {
             strcpy(g_text, "old");
             return long{COM_GetSvnRevision(g_text)};
         },
         {0, -1},
         [](long result) { CHECK(result == 0 || strcmp(g_text, "old") == 0); }},
        {"COM_MakeFileMD5",
         MakeFile,
         [] { return long{COM_MakeFileMD5(g_text, kFile)}; },
         {0, -1, kPositive},
         [](long /*result*/) {
             CHECK(!Undisturbed() || strcmp(g_text, "b1946ac92492d2347c6235b4d2611184") == 0);
         }},
        {"COM_MakeFileSHA1",
         MakeFile,
         [] { return long{COM_MakeFileSHA1(g_bytes, kFile)}; },
         {0, -1, kPositive}},
        {"COM_CheckFileMD5",
         [] {
             MakeFile();
             WriteFile("/tmp/file.md5", "b1946ac92492d2347c6235b4d2611184  file\n");
         },
         [] { return long{COM_CheckFileMD5(kFile, nullptr)}; },
         {0, -1}},
        {"COM_ReadHexDataInStrFormat",
         [] {
             WriteFile(kFile, "00 11\n22 33\n");
             g_fd = open(kFile, O_RDONLY | O_CLOEXEC);
         },
         [] {
             g_block = COM_ReadHexDataInStrFormat(g_fd, nullptr);
             return long{g_block != nullptr};
         },
         {1, 0},
         [](long result) {
             const std::string text = result == 1 ? static_cast<char *>(g_block) : "";
             CHECK(std::string{"00112233"}.compare(0, text.size(), text) == 0);
             CHECK(!Undisturbed() || text == "00112233");
             Free(g_block);
         }},
    };
}

std::vector<Scenario> Texts() {
    return {
        {"COM_GetLineAfterKey",
         nullptr,
         [] {
             char *line = nullptr;
             const bool found = COM_GetLineAfterKey("a=1\nb=2\n", "b=", &line) != nullptr;
             CHECK(found == (line != nullptr));
             g_block = line;
             return long{found};
         },
         {1, 0},
         [](long /*result*/) { Free(g_block); }},
        {"COM_ReplaceStr",
         nullptr,
         [] {
             // The block is the library's from its first growth on.
             void *first = nullptr;
             const std::string text(500, 'a');
             while (COM_ReallocAndCopyBuf(501, &first, 0, text.c_str(), 501) == nullptr) {
             }
             g_block = COM_ReplaceStr(static_cast<char *>(first), "a", "bb");
             return long{g_block != nullptr};
         },
         {1},
         [](long /*result*/) {
             CHECK(std::string(1000, 'b') == static_cast<char *>(g_block));
             Free(g_block);
         },
         {},
         true},
        {"COM_ReplaceStr, short",
         nullptr,
         [] {
             void *first = nullptr;
             while (COM_ReallocAndCopyBuf(8, &first, 0, "a a a", 6) == nullptr) {
             }
             g_block = COM_ReplaceStr(static_cast<char *>(first), "a", "bb");
             return long{strcmp(static_cast<char *>(g_block), "bb bb bb")};
         },
         {0},
         [](long /*result*/) { Free(g_block); },
         {},
         true},
        {"COM_StripHtmlCode",
         nullptr,
         [] {
             std::string html = "<p>" + std::string(300, 'x');
             for (int line = 0; line < 1000; ++line) {
                 html += "<br>";
             }
             html += "text, more of it</p>";
             char *result = nullptr;
             const long size = COM_StripHtmlCode(html.data(), &result);
             g_block = result;
             CHECK(size == -1 || size == static_cast<long>(strlen(result)) + 1);
             return size;
         },
         {1317, -1, kPositive},
         [](long /*result*/) { Free(g_block); }},
        {"COM_ExtractHtmlTag",
         nullptr,
         [] {
             char *result = nullptr;
             const long size = COM_ExtractHtmlTag("p", "<p>one</p>", &result, COM_HTML_CONTENT);
             CHECK((size == -1) == (result == nullptr));
             g_block = result;
             return size;
         },
         {4, -1},
         [](long /*result*/) { Free(g_block); }},
        {"COM_Log",
         nullptr,
         [] {
             const std::string wide(2000, 'x');
             return long{COM_Log("TEST", 1, "Function", "%s\n", wide.c_str()) > 0 ? 1 : 0} +
                    (COM_LogColor("TEST", 1, nullptr, "%s\n", wide.c_str()) > 0 ? 1 : 0);
         },
         {2, 1, 0}},
        {"COM_PrintTimeStamp",
         nullptr,
         [] { return long{COM_PrintTimeStamp("TEST", 1)} + COM_PrintTimeStamp(nullptr, 1); },
         {0, -1, -2}},
        {"times",
         nullptr,
         [] {
             struct tm parts;
             return long{COM_TimeToStr(g_text, 0)} + COM_TimevalToStr(g_text, 0, 1) +
                    COM_PrintTime("prefix", 1, 0) - (COM_GmTime(&parts, 0) == nullptr);
         },
         {0, -1, -2, -3, -4}},
        {"printing entries",
         nullptr,
         [] {
             const tUnitNetInfo units[2] = {};
             termios setting = {};
             COM_ShowAllUnitInfo(2, units);
             COM_SortUnitInfoViaIP(&units[0], &units[1]);
             COM_GetMimeType("x.txt");
             COM_GetXMLData("<a>1</a>", "a", g_text, 2);
             COM_GetXMLData("<a>1", "a", g_text, 2);
             COM_GetStrBeforeEOL("a=12345\n", "a=", g_text, 2);
             COM_DumpTermios("title", &setting);
             COM_PrintTermFlags("label", ~0U, COM_TermInputFlags);
             COM_ShowThread();
             return 0L;
         },
         {0}},
    };
}

std::vector<Scenario> Devices() {
    return {
        {"terminal",
         MakeTerminal,
         [] {
             const long opened = COM_OpenTermDevice(g_text, &g_terminal);
             CHECK((opened == COM_TERM_NOT_OPENED) == (g_terminal.fd < 0));
             COM_DumpTermios("title", &g_terminal.current);
             COM_CloseTermDevice(&g_terminal);
             CHECK(g_terminal.fd < 0);
             return opened;
         },
         {0, COM_TERM_NOT_SET, COM_TERM_NOT_OPENED}},
        {"terminal, given flags",
         [] {
             MakeTerminal();
             g_terminal.use_given_flags = COM_TERM_GIVEN_FLAGS;
         },
         [] {
             const long opened = COM_OpenTermDevice(g_text, &g_terminal);
             COM_CloseTermDevice(&g_terminal);
             return opened;
         },
         {0, COM_TERM_NOT_SET, COM_TERM_NOT_OPENED}},
        {"COM_GetSerialPort",
         MakeNetwork,
         [] { return long{COM_GetSerialPort(COM_SERIAL_USB_2, g_text)}; },
         {0, -1}},
        {"COM_SendAll",
         [] { socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_pair); },
         [] { return long{COM_SendAll(g_pair[0], kHello, 6)}; },
         {0, 1, 2, 3, 4, 5, 6},
         [](long result) {
             CHECK(recv(g_pair[1], g_text, sizeof g_text, MSG_DONTWAIT) == 6 - result ||
                   result == 6);
         }},
        {"COM_SetSockTimeout",
         [] { socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_pair); },
         [] { return long{COM_SetSockTimeout(g_pair[0], 1)}; },
         {0, -1}},
        {"COM_GetMemAndSwap",
         nullptr,
         [] {
             memset(g_numbers, 0, sizeof g_numbers);
             return long{COM_GetMemAndSwap(g_numbers)};
         },
         {0, -1}},
        {"PCI",
         MakeNetwork,
         [] {
             uint32_t id = 0;
             const long found = COM_GetPciDeviceId("hda", &id, 1);
             CHECK(found <= 1);
             return long{COM_GetPciDevice("hda")} + found;
         },
         {2, 1, 0, -1, -2}},
        {"COM_GetDeviceFromProc",
         nullptr,
         [] {
             tDeviceName *list = nullptr;
             const long count = COM_GetDeviceFromProc(&list, "/proc/net/dev");
             CHECK(count <= 0 || list != nullptr);
             g_block = list;
             return std::min(count, 1L);
         },
         {1, 0, -1},
         [](long /*result*/) { Free(g_block); }},
        {"COM_GetKernelVersion",
         MakeNetwork,
         [] {
             char extra[COM_KERNEL_TEXT_SIZE];
             return long{COM_GetKernelVersion(g_text, extra)};
         },
         {0, -1}},
    };
}

std::vector<Scenario> Network() {
    return {
        {"COM_GetMAC",
         nullptr,
         [] { return long{COM_GetMAC(COM_NET_MAC_COLON, "lo", g_text)}; },
         {0, -1},
         [](long /*result*/) { CHECK(strcmp(g_text, "00:00:00:00:00:00") == 0); }},
        {"COM_GetArpMAC",
         MakeNetwork,
         [] { return long{COM_GetArpMAC(COM_NET_ARP_COLON, "127.0.0.9", g_text)}; },
         {-1},
         [](long /*result*/) {
             CHECK(strcmp(g_text, "00:00:00:00:00:00") == 0 ||
                   strcmp(g_text, "00:11:22:AA:BB:CC") == 0);
         }},
        {"COM_SubGetNetInfo",
         nullptr,
         [] { return long{COM_SubGetNetInfo(COM_NET_IP_TEXT, "lo", g_text)}; },
         {0, -1},
         [](long result) { CHECK(strcmp(g_text, result == 0 ? "127.0.0.1" : "0.0.0.0") == 0); }},
        {"COM_SubGetGateway",
         MakeNetwork,
         [] { return long{COM_SubGetGateway(COM_NET_GATEWAY_TEXT, "lo", g_text)}; },
         {0, -1},
         [](long result) { CHECK(strcmp(g_text, result == 0 ? "127.0.0.1" : "0.0.0.0") == 0); }},
        {"COM_GetDnsServer",
         MakeNetwork,
         [] { return long{COM_GetDnsServer(COM_NET_DNS2_TEXT, nullptr, g_text)}; },
         {0, -1},
         [](long result) { CHECK(strcmp(g_text, result == 0 ? "127.0.0.2" : "0.0.0.0") == 0); }},
        {"COM_GetDnsServer, own file",
         [] {
             MakeNetwork();
             WriteFile("/etc/resolv.conf.wan", "nameserver 127.0.0.3\n");
             test::WritableRoot();
             WriteFile("/mtd1/resolv.conf.wan", "");
         },
         [] { return long{COM_GetDnsServer(COM_NET_DNS1_TEXT, "eth0", g_text)}; },
         {0, -1}},
        {"COM_GetMTU",
         nullptr,
         [] { return long{COM_GetMTU(COM_NET_MTU, "lo", g_numbers)}; },
         {0, -1},
         [](long result) { CHECK((result == 0) == (g_numbers[0] != 0)); }},
        {"COM_GetDefaultRoute",
         MakeNetwork,
         [] {
             strcpy(g_text, "old");
             return long{COM_GetDefaultRoute(g_text)};
         },
         {0, -1},
         [](long result) { CHECK(strcmp(g_text, result == 0 ? "lo" : "old") == 0); }},
        {"COM_GetNetInfo",
         MakeNetwork,
         [] { return long{COM_GetNetInfo(COM_NET_MTU, "auto", g_numbers)}; },
         {0, -1}},
        {"COM_SendUdpBroadcast",
         nullptr,
         [] { return long{COM_SendUdpBroadcast("lo", 1, 2, "data", 4)}; },
         {0, -1}},
        {"COM_GetUnitNetInfo",
         MakeNetwork,
         [] {
             tUnitNetInfo unit = {};
             return long{COM_GetUnitNetInfo(&unit, "lo")};
         },
         {0, -1, -2, -3, -4, -5, -6, -7, -8, -9, -10}},
        {"COM_GetRxPackets", nullptr, [] { return long{COM_GetRxPackets("lo") < 0}; }, {0}},
    };
}

}  // namespace

std::vector<Scenario> CommonScenarios() {
    std::vector<Scenario> all;
    for (const auto &list : {Commands(), Files(), Texts(), Devices(), Network()}) {
        all.insert(all.end(), list.begin(), list.end());
    }
    return all;
}

}  // namespace talvek::faults
