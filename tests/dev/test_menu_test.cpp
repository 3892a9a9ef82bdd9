#include "dev/test_menu.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "dev/file_system.h"
#include "ide_fixture.h"
#include "support/await.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/emulator.h"
#include "support/private_world.h"
#include "support/simulated_drive.h"

namespace {

std::string g_system;    // the command of the last call of system
int g_systemStatus = 0;  // and its result
uint32_t g_fsType = 0;   // of every file system

}  // namespace

// On 32 bits statfs is called statfs64.
extern "C" {
int __wrap_system(const char *command);
int __wrap_statfs(const char *path, struct statfs *found);
int __wrap_statfs64(const char *path, struct statfs *found);
}
int __wrap_system(const char *command) {
    g_system = command;
    return g_systemStatus;
}
int __wrap_statfs(const char * /*path*/, struct statfs *found) {
    *found = {};
    found->f_type = static_cast<decltype(found->f_type)>(g_fsType);
    found->f_bsize = 1024;
    found->f_blocks = 10;
    return 0;
}
int __wrap_statfs64(const char *path, struct statfs *found) {
    return __wrap_statfs(path, found);
}

namespace {

using namespace talvek::test;

tDevTestMenu Menu() {
    return {"/dev/sg1", "/dev/sdb", "/dev/sda", 8, 17};
}

// The fixed text of the menu with these selections.
std::string MenuText(const std::string &sg, const std::string &sd, const std::string &dev,
                     const std::string &majorNumber, const std::string &minorNumber) {
    return "\n\t0) Reload\n"
           "\t1) Modify SG Name : \"" +
           sg +
           "\"\n"
           "\t2) Modify SD Name : \"" +
           sd +
           "\"\n"
           "\t3) Modify DEV Name : \"" +
           dev +
           "\"\n"
           "\t4) Rescan SCSI Bus\n"
           "\t5) Query All Devices\n"
           "\t6) Get DEV MPT (Dev_GetMPT(" +
           dev +
           ", pMPT))\n"
           "\t7) Get DEV MPT (Dev_nGetMPT(" +
           dev +
           ", pMPT, 8))\n"
           "\t8) Convert SG to SD\n"
           "\t9) Convert SD to SG\n"
           "\t10) Get DEV(" +
           dev +
           ") Disc Info\n"
           "\t11) Test Dev_Mount() nfs mount\n"
           "\t12) Dev_CheckPartition(" +
           dev +
           ")\n"
           "\t13) Modify major number : \"" +
           majorNumber +
           "\"\n"
           "\t14) Modify minor number : \"" +
           minorNumber +
           "\"\n"
           "\t15) Convert (major, minor) = (" +
           majorNumber + ", " + minorNumber +
           ") to device name\n"
           "\t16) Get [" +
           dev +
           "] smart value [0xC2 - Temperature]\n"
           "\t17) Exit\n\n";
}

std::string MenuText(const tDevTestMenu &menu) {
    return MenuText(menu.sgName, menu.sdName, menu.devName, std::to_string(menu.major),
                    std::to_string(menu.minor));
}

// A stream over an input of any bytes.
class Input {
  public:
    explicit Input(const std::string &content) {
        const int fd = memfd_create("menu input", MFD_CLOEXEC);
        EXPECT_EQ(ssize_t(content.size()), write(fd, content.data(), content.size()));
        lseek(fd, 0, SEEK_SET);
        stream_ = fdopen(fd, "r");
        EXPECT_NE(nullptr, stream_);
    }
    ~Input() { EXPECT_EQ(0, fclose(stream_)) << "the stream stays open"; }
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;

    [[nodiscard]] FILE *stream() const { return stream_; }

  private:
    FILE *stream_;
};

// The output of the loop; each menu, whatever its selections, as "<menu>".
std::string Talk(tDevTestMenu &menu, const std::string &input) {
    const Input in{input};
    std::string output = Capture([&] { EXPECT_EQ(0, Dev_RunTestMenu(&menu, in.stream())); });
    const std::string first = "\n\t0) Reload\n";
    const std::string last = "\t17) Exit\n\n";
    for (size_t at = 0; (at = output.find(first, at)) != std::string::npos;) {
        const size_t end = output.find(last, at);
        if (end == std::string::npos) {
            ADD_FAILURE() << "half a menu";
            break;
        }
        output.replace(at, end + last.size() - at, "<menu>");
    }
    return output;
}

// The output of one item, in lines without line numbers. The item must not change the selections.
Lines LinesOfItem(const tDevTestMenu &before, const std::string &input) {
    tDevTestMenu menu = before;
    std::string output = Talk(menu, input + "\n17\n");
    EXPECT_EQ(0, memcmp(&before, &menu, sizeof menu)) << "selections";
    const std::string begin = "<menu>Item : ";
    const std::string end = "Item : ";
    EXPECT_EQ(0u, output.find(begin)) << output;
    EXPECT_EQ(output.size() - end.size(), output.rfind(end)) << output;
    return LogLines(output.substr(begin.size(), output.size() - begin.size() - end.size()));
}

Lines LinesOfItem(int item, const char *pDevName = "/dev/sda") {
    tDevTestMenu menu = Menu();
    strcpy(menu.devName, pDevName);
    return LinesOfItem(menu, std::to_string(item));
}

TEST(PrintTestMenu, PrintsTheEighteenItems) {
    const tDevTestMenu menu = Menu();
    EXPECT_EQ(MenuText("/dev/sg1", "/dev/sdb", "/dev/sda", "8", "17"),
              Capture([&] { Dev_PrintTestMenu(&menu); }));
}

TEST(PrintTestMenu, PrintsSelectionsOfAnySize) {
    tDevTestMenu menu = {"/dev/sg1234", "/dev/nosst4", "", INT_MIN, INT_MAX};
    memset(menu.devName, 'd', sizeof menu.devName - 1);
    EXPECT_EQ(
        MenuText("/dev/sg1234", "/dev/nosst4", std::string(63, 'd'), "-2147483648", "2147483647"),
        Capture([&] { Dev_PrintTestMenu(&menu); }));
    const tDevTestMenu none = {};
    EXPECT_EQ(MenuText("", "", "", "0", "0"), Capture([&] { Dev_PrintTestMenu(&none); }));
}

TEST(PrintTestMenu, PrintsNothingForNull) {
    EXPECT_EQ("", Capture([] { Dev_PrintTestMenu(nullptr); }));
}

TEST(RunTestMenu, RefusesMissingArguments) {
    const Input in{"0\n"};
    tDevTestMenu menu = Menu();
    EXPECT_EQ("", Capture([&] {
                  EXPECT_EQ(-1, Dev_RunTestMenu(nullptr, in.stream()));
                  EXPECT_EQ(-1, Dev_RunTestMenu(&menu, nullptr));
                  EXPECT_EQ(-1, Dev_RunTestMenu(nullptr, nullptr));
              }));
    EXPECT_EQ('0', getc(in.stream()));
}

TEST(RunTestMenu, BeginsWithTheMenu) {
    tDevTestMenu menu = Menu();
    const Input in{"17\n"};
    EXPECT_EQ(MenuText(menu) + "Item : ",
              Capture([&] { EXPECT_EQ(0, Dev_RunTestMenu(&menu, in.stream())); }));
}

TEST(RunTestMenu, EndsWithItem17AndReadsNoFurther) {
    tDevTestMenu menu = Menu();
    const Input in{"17\n0\n"};
    Capture([&] { EXPECT_EQ(0, Dev_RunTestMenu(&menu, in.stream())); });
    EXPECT_EQ('0', getc(in.stream()));
}

// A newline follows the question, so that further output begins a line.
TEST(RunTestMenu, EndsAtTheEndOfInput) {
    tDevTestMenu menu = Menu();
    EXPECT_EQ("<menu>Item : \n", Talk(menu, ""));
    EXPECT_EQ("<menu>Item : <menu>Item : \n", Talk(menu, "0\n"));
    EXPECT_EQ("<menu>Item : ", Talk(menu, "17"));  // a last line without its end
    EXPECT_EQ("<menu>Item : \n", Talk(menu, "  \t"));
    // An item's question is cancelled too, and the selection is unchanged.
    EXPECT_EQ("<menu>Item : SG name [/dev/sg1] : \n", Talk(menu, "1\n"));
    EXPECT_EQ("<menu>Item : Major number [8] : \n", Talk(menu, "13\n"));
    EXPECT_EQ("<menu>Item : NFS export (host:/path) : \n", Talk(menu, "11\n"));
    EXPECT_EQ("<menu>Item : NFS export (host:/path) : Mount point : \n", Talk(menu, "11\nh:/p\n"));
    const tDevTestMenu same = Menu();
    EXPECT_EQ(0, memcmp(&same, &menu, sizeof menu));
}

TEST(RunTestMenu, EndsWhenTheInputCannotBeRead) {
    tDevTestMenu menu = Menu();
    FILE *directory = fopen("/", "re");
    ASSERT_NE(nullptr, directory);
    EXPECT_EQ(MenuText(menu) + "Item : \n",
              Capture([&] { EXPECT_EQ(0, Dev_RunTestMenu(&menu, directory)); }));
    fclose(directory);
}

TEST(RunTestMenu, ReloadsTheMenu) {
    tDevTestMenu menu = Menu();
    EXPECT_EQ("<menu>Item : <menu>Item : <menu>Item : ", Talk(menu, "0\n0\n17\n"));
}

TEST(RunTestMenu, ReportsWrongInputAndRepeatsTheQuestion) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"18", "There is no item 18; 0 shows the menu.\n"},
        {"-1", "There is no item -1; 0 shows the menu.\n"},
        {"2147483647", "There is no item 2147483647; 0 shows the menu.\n"},
        {"-2147483648", "There is no item -2147483648; 0 shows the menu.\n"},
        {"2147483648", "2147483648 is out of range.\n"},
        {"-2147483649", "-2147483649 is out of range.\n"},
        {"99999999999999999999", "99999999999999999999 is out of range.\n"},
        {"x", "\"x\" is not a number.\n"},
        {"1x", "\"1x\" is not a number.\n"},
        {"1 7", "\"1 7\" is not a number.\n"},
        {"0x11", "\"0x11\" is not a number.\n"},
        {"-", "\"-\" is not a number.\n"},
        {"%s%n", "\"%s%n\" is not a number.\n"},
        {"", ""},
        {" \t\r", ""},
    };
    for (const auto &[input, report] : cases) {
        tDevTestMenu menu = Menu();
        EXPECT_EQ("<menu>Item : " + report + "Item : ", Talk(menu, input + "\n17\n"));
        const tDevTestMenu same = Menu();
        EXPECT_EQ(0, memcmp(&same, &menu, sizeof menu));
    }
}

TEST(RunTestMenu, IgnoresBlanksCarriageReturnsAndNulBytes) {
    for (const std::string &seventeen :
         {std::string{"  17"}, std::string{"17 \t"}, std::string{"17\r"}, std::string{"+17"},
          std::string{"017"}, std::string{"\0001\0007\0", 5}}) {
        tDevTestMenu menu = Menu();
        EXPECT_EQ("<menu>Item : ", Talk(menu, seventeen + "\n0\n"));
    }
}

TEST(RunTestMenu, AcceptsLinesOf255Characters) {
    tDevTestMenu menu = Menu();
    const std::string longest(DEV_MENU_LINE_MAX, '1');
    EXPECT_EQ("<menu>Item : " + longest + " is out of range.\nItem : ",
              Talk(menu, longest + "\n17\n"));
    for (const size_t length : {256u, 257u, 512u, 100000u}) {
        EXPECT_EQ("<menu>Item : The line is too long.\nItem : ",
                  Talk(menu, std::string(length, '1') + "\n17\n"));
    }
    EXPECT_EQ("<menu>Item : The line is too long.\nItem : \n", Talk(menu, std::string(256, '1')));
}

TEST(RunTestMenu, ChangesTheNames) {
    tDevTestMenu menu = Menu();
    EXPECT_EQ(
        "<menu>Item : SG name [/dev/sg1] : <menu>Item : SD name [/dev/sdb] : <menu>"
        "Item : DEV name [/dev/sda] : <menu>Item : DEV name [/dev/disk/by-label/two words] : "
        "<menu>Item : ",
        Talk(menu, "1\n/dev/sg31\n2\n /dev/sr0 \r\n3\n/dev/disk/by-label/two words\n3\nhda\n17\n"));
    EXPECT_STREQ("/dev/sg31", menu.sgName);
    EXPECT_STREQ("/dev/sr0", menu.sdName);
    EXPECT_STREQ("hda", menu.devName);
    EXPECT_EQ(8, menu.major);
    EXPECT_EQ(17, menu.minor);
}

TEST(RunTestMenu, ShowsAChangedSelectionInTheNextMenu) {
    tDevTestMenu menu = Menu();
    const Input in{"3\n/dev/hda\n14\n-5\n17\n"};
    const std::string output = Capture([&] { EXPECT_EQ(0, Dev_RunTestMenu(&menu, in.stream())); });
    EXPECT_EQ(MenuText("/dev/sg1", "/dev/sdb", "/dev/sda", "8", "17") +
                  "Item : DEV name [/dev/sda] : " +
                  MenuText("/dev/sg1", "/dev/sdb", "/dev/hda", "8", "17") +
                  "Item : Minor number [17] : " +
                  MenuText("/dev/sg1", "/dev/sdb", "/dev/hda", "8", "-5") + "Item : ",
              output);
}

static_assert(DEV_MENU_NODE_SIZE == 12 && DEV_MENU_DEVICE_SIZE == 64 && DEV_MENU_LINE_MAX == 255);

TEST(RunTestMenu, RefusesNamesThatDoNotFit) {
    struct Field {
        const char *item;
        const char *question;
        size_t size;
        char *(*pName)(tDevTestMenu &);
    };
    const Field fields[] = {
        {"1", "SG name [/dev/sg1] : ", DEV_MENU_NODE_SIZE,
         [](tDevTestMenu &menu) { return menu.sgName; }},
        {"2", "SD name [/dev/sdb] : ", DEV_MENU_NODE_SIZE,
         [](tDevTestMenu &menu) { return menu.sdName; }},
        {"3", "DEV name [/dev/sda] : ", DEV_MENU_DEVICE_SIZE,
         [](tDevTestMenu &menu) { return menu.devName; }},
    };
    for (const Field &field : fields) {
        for (const size_t length : {field.size - 2, field.size - 1}) {
            tDevTestMenu menu = Menu();
            const std::string name(length, 'n');
            EXPECT_EQ(std::string{"<menu>Item : "} + field.question + "<menu>Item : ",
                      Talk(menu, field.item + ("\n" + name) + "\n17\n"));
            EXPECT_EQ(name, field.pName(menu));
        }
        for (const size_t length : {field.size, field.size + 1, size_t{255}}) {
            tDevTestMenu menu = Menu();
            const std::string report =
                "At most " + std::to_string(field.size - 1) + " characters are possible.\n";
            EXPECT_EQ(std::string{"<menu>Item : "} + field.question + report + field.question +
                          "<menu>Item : ",
                      Talk(menu, field.item + ("\n" + std::string(length, 'n')) + "\nnew\n17\n"));
            EXPECT_STREQ("new", field.pName(menu));
        }
    }
}

TEST(RunTestMenu, KeepsASelectionForAnEmptyLine) {
    for (const char *pItem : {"1", "2", "3", "13", "14"}) {
        const Lines lines = LinesOfItem(Menu(), std::string{pItem} + "\n");
        ASSERT_EQ(1u, lines.size()) << pItem;
        EXPECT_EQ(" : ", lines[0].substr(lines[0].size() - 3));
    }
    // After wrong input too.
    tDevTestMenu menu = Menu();
    EXPECT_EQ(
        "<menu>Item : Major number [8] : \"eight\" is not a number.\nMajor number [8] : Item : ",
        Talk(menu, "13\neight\n\n17\n"));
    EXPECT_EQ(8, menu.major);
}

TEST(RunTestMenu, ChangesTheNumbers) {
    tDevTestMenu menu = Menu();
    EXPECT_EQ(
        "<menu>Item : Major number [8] : <menu>Item : Minor number [17] : \"1.5\" is not a "
        "number.\nMinor number [17] : 4294967296 is out of range.\nMinor number [17] : "
        "<menu>Item : ",
        Talk(menu, "13\n 11 \n14\n1.5\n4294967296\n-2147483648\n17\n"));
    EXPECT_EQ(11, menu.major);
    EXPECT_EQ(INT_MIN, menu.minor);
    EXPECT_STREQ("/dev/sg1", menu.sgName);
    EXPECT_STREQ("/dev/sdb", menu.sdName);
    EXPECT_STREQ("/dev/sda", menu.devName);
}

TEST(MenuItem, RescansTheScsiBus) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/sys");
        EXPECT_EQ((Lines{"DEV:Dev_RescanScsiBus(): opendir(/sys/class/scsi_host) error : No such "
                         "file or directory",
                         "No SCSI host scans for devices."}),
                  LinesOfItem(4));
        WriteFile("/sys/class/scsi_host/host0/scan", "");
        WriteFile("/sys/class/scsi_host/host1/scan", "");
        EXPECT_EQ(Lines{"2 SCSI host(s) scan for devices; new ones appear after some time."},
                  LinesOfItem(4));
        EXPECT_EQ("- - -", ReadFile("/sys/class/scsi_host/host1/scan"));
    });
}

TEST(MenuItem, QueriesAllDevices) {
    RunInPrivateWorld(
        kMounts,
        [] {
            MountTmpfs("/var");
            ReplaceDir("/proc");
            ReplaceDir("/dev");
            WriteFile("/proc/mounts", "");
            WriteFile("/proc/filesystems", "nodev\tproc\n");
            CaptureLog(Dev_InitFsArray);
            SimulatedDrive drive{{"/dev/sr0", "/dev/sg0"}};
            drive.Load("drive.hex");
            drive.hostText = "SCSI emulation for USB Mass Storage devices";
            const Lines lines = LinesOfItem(5);
            ASSERT_GE(lines.size(), 2u);
            EXPECT_EQ("DEV:Dev_Get(): Found 1 devices", lines[lines.size() - 2]);
            EXPECT_EQ(0u, lines.back().find("  pDev[0] : DRV WR24X B : /dev/sr0 : /dev/sg0 : "))
                << lines.back();
        },
        true);
}

// A stick that is mounted with each file system.
TEST(MenuItem, ShowsTheFileSystemOfEachDisk) {
    const struct {
        uint32_t type;
        const char *name;
    } cases[] = {
        {DEV_FS_TYPE_XFS, "xfs"},
        {DEV_FS_TYPE_EXT, "ext2, ext3 or ext4"},
        {DEV_FS_TYPE_FAT, "FAT"},
        {DEV_FS_TYPE_JFFS2, "jffs2"},
        {DEV_FS_TYPE_ISO9660, "ISO 9660"},
        {DEV_FS_TYPE_SMBFS, "smbfs"},
        {DEV_FS_TYPE_NFS, "nfs"},
        {DEV_FS_TYPE_TMPFS, "none that can be mounted; the sizes are those of a tmpfs"},
        {0x73717368, "unknown"},  // squashfs
    };
    RunInPrivateWorld(
        kMounts,
        [&cases] {
            ReplaceDir("/dev");
            ReplaceDir("/proc");
            WriteFile("/proc/mounts", "/dev/sdb1 /mnt vfat rw 0 0\n");
            const SimulatedDrive stick{{"/dev/sdb", "/dev/sg0"}};
            for (const auto &one : cases) {
                g_fsType = one.type;
                EXPECT_EQ(std::string{"[/dev/sdb] => file system : "} + one.name,
                          LinesOfItem(5).back());
            }
        },
        true);
}

TEST(MenuItem, ShowsWhereADeviceIsMounted) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        WriteFile("/proc/mounts",
                  "/dev/sda1 /mnt\\040one ext3 rw 0 0\n/dev/sda /whole ext3 rw 0 0\n"
                  "/dev/hdc12 /twelve ext3 rw 0 0\n");
        EXPECT_EQ(Lines{"[/dev/sda] => [/mnt one]"}, LinesOfItem(6));
        EXPECT_EQ(Lines{"[/dev/sdb] => not mounted"}, LinesOfItem(6, "/dev/sdb"));
        // With n = 8, "/dev/sda1" does not match "/dev/sda".
        EXPECT_EQ(Lines{"[/dev/sda] => [/whole]"}, LinesOfItem(7));
        EXPECT_EQ(Lines{"[/dev/hdc12] => not mounted"}, LinesOfItem(7, "/dev/hdc12"));
        EXPECT_EQ(Lines{"[/dev/hdc12] => [/twelve]"}, LinesOfItem(6, "/dev/hdc12"));
    });
}

TEST(MenuItem, ConvertsBetweenNodes) {
    SimulatedDrive disk{{"/dev/sdb", "/dev/sg1"}};
    disk.host = 1;
    SimulatedDrive other{{"/dev/sda", "/dev/sg0"}};
    other.host = 2;
    EXPECT_EQ(Lines{"[/dev/sg1] => [/dev/sdb]"}, LinesOfItem(8));
    EXPECT_EQ(Lines{"[/dev/sdb] => [/dev/sg1]"}, LinesOfItem(9));
    tDevTestMenu menu = {"/dev/sg9", "/dev/sdz", "/dev/sda", 0, 0};
    EXPECT_EQ((Lines{"DEV:Dev_SgToSd(): open(/dev/sg9) error : No such file or directory",
                     "[/dev/sg9] => no such pair"}),
              LinesOfItem(menu, "8"));
    EXPECT_EQ((Lines{"DEV:Dev_SdToSg(): open(/dev/sdz) error : No such file or directory",
                     "[/dev/sdz] => no such pair"}),
              LinesOfItem(menu, "9"));
}

struct DiscCase {
    const char *fixture;
    Lines report;
};

// disc_table.h shows how the figures are computed.
TEST(MenuItem, ShowsTheDisc) {
    const DiscCase cases[] = {
        {"cd_r_empty.hex",
         {"[/dev/sr0] => CD, write-once, empty", "    used 0 KB of 719998 KB, sessions 1"}},
        {"cd_r_open.hex",
         {"[/dev/sr0] => CD, write-once, appendable",
          "    used 376560 KB of 719998 KB, sessions 3, last track 5"}},
        {"cd_r_closed.hex",
         {"[/dev/sr0] => CD, write-once, finalized",
          "    used 719998 KB of 719998 KB, sessions 1"}},
        {"dvd_rom.hex", {"[/dev/sr0] => DVD-ROM, read-only"}},
        {"dvd_minus_r_open.hex",
         {"[/dev/sr0] => DVD-R/-RW, write-once, appendable",
          "    used 998976 KB of 4595776 KB, last track 2"}},
        {"dvd_minus_r_dual_layer.hex",
         {"[/dev/sr0] => DVD-R/-RW, write-once, dual layer, finalized",
          "    used 8343424 KB of 8343424 KB, last track 1"}},
        {"dvd_ram.hex",
         {"[/dev/sr0] => a disc that is not supported, or a drive that does not answer"}},
    };
    for (const DiscCase &one : cases) {
        SimulatedDrive drive{{"/dev/sr0", "/dev/sg0"}};
        drive.Load("drive.hex");
        drive.Load(one.fixture);
        const Lines lines = LinesOfItem(10, "/dev/sr0");
        ASSERT_GE(lines.size(), one.report.size()) << one.fixture;
        EXPECT_EQ(one.report,
                  Lines(lines.end() - static_cast<std::ptrdiff_t>(one.report.size()), lines.end()))
            << one.fixture;
    }
}

TEST(MenuItem, ReportsWhyThereIsNoDisc) {
    SimulatedDrive drive{{"/dev/sr0", "/dev/sg0"}};
    drive.Always(0x00, SgAnswer::Check(0x02, 0x3A, 0x00));  // medium not present
    EXPECT_EQ("[/dev/sr0] => not ready (no disc, or the tray is open)",
              LinesOfItem(10, "/dev/sr0").back());
    EXPECT_EQ((Lines{"DEV:Dev_SdToSg(): open(/dev/sr1) error : No such file or directory",
                     "[/dev/sr1] => no SCSI generic node"}),
              LinesOfItem(10, "/dev/sr1"));
    EXPECT_EQ("[/dev/nosst9] => no SCSI generic node", LinesOfItem(10, "/dev/nosst9").back());
    EXPECT_EQ(Lines{"[/dev/nosst10] => not the name of an optical drive"},
              LinesOfItem(10, "/dev/nosst10"));
}

TEST(MenuItem, MountsAnExport) {
    g_systemStatus = 0;
    EXPECT_EQ(Lines{"NFS export (host:/path) : Mount point : [srv:/data] => [/mnt/nfs]"},
              LinesOfItem(Menu(), "11\nsrv:/data\n/mnt/nfs"));
    EXPECT_EQ(
        "/bin/mount -t nfs -o rw,rsize=1048576,wsize=1048576,soft,tcp,nolock srv:/data "
        "/mnt/nfs",
        g_system);
    g_systemStatus = 32 << 8;
    EXPECT_EQ(Lines{"NFS export (host:/path) : Mount point : [srv:/data] => not mounted"},
              LinesOfItem(Menu(), "11\nsrv:/data\n/mnt/nfs"));
    g_system = "";
    const Lines refused = LinesOfItem(Menu(), "11\n/dev/sda\n/mnt");
    ASSERT_EQ(2u, refused.size());
    EXPECT_NE(std::string::npos,
              refused[0].find("Try mount pSrc(/dev/sda) with wrong fs type(NFS)"))
        << refused[0];
    EXPECT_EQ("[/dev/sda] => not mounted", refused[1]);
    // An empty line cancels the item.
    EXPECT_EQ(Lines{"NFS export (host:/path) : "}, LinesOfItem(Menu(), "11\n"));
    EXPECT_EQ(Lines{"NFS export (host:/path) : Mount point : "},
              LinesOfItem(Menu(), "11\nsrv:/data\n"));
    EXPECT_EQ("", g_system);
}

TEST(MenuItem, ChecksForAPartition) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        WriteFile("/proc/partitions", "major minor  #blocks  name\n\n   8        0  100 sda\n");
        EXPECT_EQ(Lines{"[/dev/sda] => is in /proc/partitions"}, LinesOfItem(12));
        EXPECT_EQ(Lines{"[/dev/sda1] => is not in /proc/partitions"}, LinesOfItem(12, "/dev/sda1"));
    });
}

TEST(MenuItem, ConvertsNumbersToAName) {
    tDevTestMenu menu = Menu();
    EXPECT_EQ(Lines{"(8, 17) => [/dev/sdb1]"}, LinesOfItem(menu, "15"));
    menu.major = 11;
    EXPECT_EQ(Lines{"(11, 17) => [/dev/sr17]"}, LinesOfItem(menu, "15"));
    menu.major = -8;
    EXPECT_EQ(Lines{"DEV:Dev_ConvertMajorMinor(): invalid (major, minor) = (-8, 17)"},
              LinesOfItem(menu, "15"));
}

std::string SmartText(uint8_t temperature) {
    Sector smart = {};
    PutAttribute(smart, 0, 1, 100);
    PutAttribute(smart, 1, 0xC2, temperature);
    return KernelText(smart);
}

TEST(MenuItem, ShowsTheTemperature) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        WriteFile("/proc/ide/hda/smart_values", SmartText(41));
        EXPECT_EQ(Lines{"[/dev/hda] => 41 degrees Celsius"}, LinesOfItem(16, "/dev/hda"));
        EXPECT_EQ(Lines{"[hda] => 41 degrees Celsius"}, LinesOfItem(16, "hda"));
        EXPECT_EQ(Lines{"[/dev/hdb] => no temperature"}, LinesOfItem(16, "/dev/hdb"));
        Sector other = {};
        PutAttribute(other, 0, 0xC3, 99);
        WriteFile("/proc/ide/hda/smart_values", KernelText(other));
        EXPECT_EQ(Lines{"[/dev/hda] => no temperature"}, LinesOfItem(16, "/dev/hda"));
    });
}

// The program at a terminal; it ends with this object.
class Terminal {
  public:
    explicit Terminal(const std::function<void()> &prepare = {}) {
        std::vector<std::string> words = Launcher();
        words.emplace_back(TALVEK_DEVMENU);
        std::vector<char *> argv;
        for (std::string &word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        fflush(nullptr);
        pid_ = forkpty(&master_, nullptr, nullptr, nullptr);
        if (pid_ == 0) {
            if (prepare) {
                prepare();
            }
            execvp(argv[0], argv.data());
            _exit(126);
        }
        EXPECT_GE(pid_, 0);
    }
    ~Terminal() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        HangUp();
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    void Type(const std::string &text) const {
        EXPECT_EQ(ssize_t(text.size()), write(master_, text.data(), text.size()));
    }

    // The output up to and including a text, without carriage returns.
    std::string Until(const std::string &text) {
        while (seen_.find(text) == std::string::npos) {
            if (!ReadMore()) {
                ADD_FAILURE() << "no \"" << text << "\" in \"" << seen_ << "\"";
                return "";
            }
        }
        const size_t end = seen_.find(text) + text.size();
        const std::string before = seen_.substr(0, end);
        seen_.erase(0, end);
        return before;
    }

    // The output until the program closes the terminal.
    std::string Rest() {
        while (ReadMore()) {
        }
        return seen_;
    }

    void HangUp() {
        if (master_ >= 0) {
            close(master_);
            master_ = -1;
        }
    }

    // The wait status of the program.
    int Wait() { return WaitFor(std::exchange(pid_, -1)); }

  private:
    bool ReadMore() {
        char block[4096];
        const ssize_t count = Readable(master_) ? read(master_, block, sizeof block) : -1;
        for (ssize_t i = 0; i < count; ++i) {
            if (block[i] != '\r') {
                seen_ += block[i];
            }
        }
        return count > 0;
    }

    int master_ = -1;
    pid_t pid_ = -1;
    std::string seen_;
};

// The menu with the first selections of the program.
const std::string kFirstMenu = MenuText("/dev/sg0", "/dev/sda", "/dev/sda", "8", "0");

TEST(DevMenu, ServesATechnicianAtATerminal) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceProc();
        WriteFile("/proc/ide/hda/smart_values", SmartText(38));
        WriteFile("/proc/mounts", "/dev/hda1 /record ext3 rw 0 0\n");
        // LeakSanitizer reads /proc/<pid>.
        Terminal terminal{[] {
            const std::string pid = std::to_string(getpid());
            EXPECT_EQ(0, symlink(("real/" + pid).c_str(), ("/proc/" + pid).c_str()));
        }};
        // The question appears before anything is typed.
        EXPECT_EQ(kFirstMenu + "Item : ", terminal.Until("Item : "));
        terminal.Type("3\n");
        EXPECT_EQ("3\nDEV name [/dev/sda] : ", terminal.Until("] : "));
        terminal.Type("/dev/hdx\177a\n");  // with a typing error, erased
        const std::string menu = terminal.Until("Item : ");
        EXPECT_NE(std::string::npos,
                  menu.find(MenuText("/dev/sg0", "/dev/sda", "/dev/hda", "8", "0")))
            << menu;
        terminal.Type("16\n");
        EXPECT_EQ("16\n[/dev/hda] => 38 degrees Celsius\nItem : ", terminal.Until("Item : "));
        terminal.Type("6\n");
        EXPECT_EQ("6\n[/dev/hda] => [/record]\nItem : ", terminal.Until("Item : "));
        terminal.Type("15\n");
        EXPECT_EQ("15\n(8, 0) => [/dev/sda]\nItem : ", terminal.Until("Item : "));
        terminal.Type("what?\n");
        EXPECT_EQ("what?\n\"what?\" is not a number.\nItem : ", terminal.Until("Item : "));
        terminal.Type("17\n");
        EXPECT_EQ("17\n", terminal.Rest());
        EXPECT_EQ(0, terminal.Wait());
    });
}

TEST(DevMenu, EndsAtTheEndOfInputOfATerminal) {
    for (const std::string typed : {"", "1\n"}) {
        Terminal terminal;
        terminal.Until("Item : ");
        terminal.Type(typed);
        if (!typed.empty()) {
            terminal.Until("SG name [/dev/sg0] : ");
        }
        terminal.Type("\4");  // control-D
        EXPECT_EQ("\n", terminal.Rest());
        EXPECT_EQ(0, terminal.Wait());
    }
}

// Without SIGHUP the program ends at the end of input.
TEST(DevMenu, EndsWithItsTerminal) {
    Terminal plain{[] { signal(SIGHUP, SIG_DFL); }};  // nohup gives the tests SIG_IGN
    plain.Until("Item : ");
    plain.HangUp();
    const int status = plain.Wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGHUP) << status;
    Terminal ignoring{[] { signal(SIGHUP, SIG_IGN); }};
    ignoring.Until("Item : ");
    ignoring.HangUp();
    EXPECT_EQ(0, ignoring.Wait());
}

TEST(DevMenu, RunsInPipes) {
    const std::string program = LauncherText() + TALVEK_DEVMENU;
    EXPECT_EQ(kFirstMenu + "Item : (8, 0) => [/dev/sda]\nItem : ",
              RunCommand("printf '15\\n17\\n' | " + program));
    std::string output = RunCommand(program + " < /dev/null");
    EXPECT_EQ(kFirstMenu + "Item : ", output);
    output = RunCommand(program + " <&-");
    EXPECT_EQ(kFirstMenu + "Item : ", output);
}

TEST(DevMenu, NeedsTheCLibraryAlone) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a program with sanitizers needs their libraries too";
#endif
    if (!HasCommand("readelf")) {
        GTEST_SKIP() << "readelf is not installed";
    }
    EXPECT_EQ(Lines{"libc.so.6"}, NeededLibraries(TALVEK_DEVMENU));
}

}  // namespace
