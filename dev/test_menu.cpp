// The technician's menu over the storage functions.

#include "dev/test_menu.h"

#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <span>

#include "base/cancel_guard.h"
#include "base/heap_buf.h"
#include "dev/device.h"
#include "dev/enumeration.h"
#include "dev/file_system.h"
#include "dev/ide.h"
#include "dev/mount.h"
#include "dev/mount_table.h"
#include "dev/naming.h"
#include "dev/optical_disc.h"
#include "dev/scsi_bus.h"

namespace {

enum Item {
    kReload,
    kModifySgName,
    kModifySdName,
    kModifyDevName,
    kRescanBus,
    kQueryAll,
    kGetMountPoint,
    kGetMountPointOf8,
    kSgToSd,
    kSdToSg,
    kDiscInfo,
    kNfsMount,
    kCheckPartition,
    kModifyMajor,
    kModifyMinor,
    kConvertNumbers,
    kSmartValue,
    kExit,
};

constexpr unsigned kDeviceNameLength = 8;
constexpr size_t kLineSize = DEV_MENU_LINE_MAX + 1;

constexpr const char *kClassNames[] = {"unknown disc", "CD",      "DVD-ROM", "DVD-R/-RW",
                                       "DVD+R/+RW",    "DVD-RAM", "DDCD",    "Blu-ray"};
constexpr const char *kMediaNames[] = {"unknown medium", "read-only", "write-once", "rewritable",
                                       "random access medium"};
constexpr const char *kRecordNames[] = {"?", "sequential", "restricted overwrite", "?",
                                        "?", "dual layer", "dual layer jump"};
constexpr const char *kStatusNames[] = {"empty", "appendable", "finalized", "random access"};

template <size_t N>
const char *NameIn(const char *const (&names)[N], uint32_t value) {
    return value < N ? names[value] : "?";
}

struct FsName {
    uint32_t type;
    const char *name;
};
constexpr FsName kFsNames[] = {
    {DEV_FS_TYPE_XFS, "xfs"},
    {DEV_FS_TYPE_EXT, "ext2, ext3 or ext4"},
    {DEV_FS_TYPE_FAT, "FAT"},
    {DEV_FS_TYPE_JFFS2, "jffs2"},
    {DEV_FS_TYPE_ISO9660, "ISO 9660"},
    {DEV_FS_TYPE_SMBFS, "smbfs"},
    {DEV_FS_TYPE_NFS, "nfs"},
    {DEV_FS_TYPE_TMPFS, "none that can be mounted; the sizes are those of a tmpfs"},
};

const char *FsNameOf(uint32_t type) {
    for (const FsName &known : kFsNames) {
        if (known.type == type) {
            return known.name;
        }
    }
    return "unknown";
}

const char *DiscFailure(int result) {
    switch (result) {
        case DEV_DISC_INFO_NOT_READY:
            return "not ready (no disc, or the tray is open)";
        case DEV_DISC_INFO_UNSUPPORTED:
            return "a disc that is not supported, or a drive that does not answer";
        default:
            return "the drive cannot be opened";
    }
}

enum class Line { kText, kEmpty, kTooLong, kEnd };

// The loop that asks for items and runs them.
class Menu {
  public:
    Menu(tDevTestMenu &state, FILE *pIn) : state_(state), in_(pIn) {}

    void Run();

  private:
    // Both repeat the question until the answer is usable. False when an empty line or the end of
    // input cancels it; the end of input ends the loop too.
    bool Ask(const char *pQuestion, char *pDst, size_t size);
    bool AskNumber(const char *pQuestion, int *pNumber);

    void EditName(const char *pWhat, char *pName, size_t size);
    void EditNumber(const char *pWhat, int *pNumber);
    void RunItem(int item);

    // The items in their order.
    void Reload();
    void EditSgName() { EditName("SG name", state_.sgName, sizeof state_.sgName); }
    void EditSdName() { EditName("SD name", state_.sdName, sizeof state_.sdName); }
    void EditDevName() { EditName("DEV name", state_.devName, sizeof state_.devName); }
    void RescanBus();
    void QueryAll();
    void ShowMountPoint();
    void ShowMountPointOf8();
    void ConvertSgToSd();
    void ConvertSdToSg();
    void ShowDisc();
    void MountNfs();
    void CheckPartition();
    void EditMajor() { EditNumber("Major number", &state_.major); }
    void EditMinor() { EditNumber("Minor number", &state_.minor); }
    void ConvertNumbers();
    void ShowTemperature();
    void Exit() { over_ = true; }

    tDevTestMenu &state_;
    FILE *in_;
    bool over_ = false;
};

bool IsBlank(int character) {
    return character == ' ' || character == '\t' || character == '\r';
}

// Reads a line without its end, the blanks around its text, and NUL bytes (Ctrl-@ sends one).
Line ReadLine(FILE *pIn, char (&text)[kLineSize]) {
    size_t length = 0;
    bool tooLong = false;
    int character = getc(pIn);
    for (; character != '\n' && character != EOF; character = getc(pIn)) {
        if (character == '\0' || (length == 0 && IsBlank(character))) {
            continue;
        }
        if (length + 1 < sizeof text) {
            text[length++] = static_cast<char>(character);
        } else {
            tooLong = true;
        }
    }
    if (tooLong) {
        return Line::kTooLong;
    }
    while (length > 0 && IsBlank(text[length - 1])) {
        --length;
    }
    text[length] = '\0';
    if (length > 0) {
        return Line::kText;
    }
    return character == EOF ? Line::kEnd : Line::kEmpty;
}

bool Menu::Ask(const char *pQuestion, char *pDst, size_t size) {
    for (;;) {
        printf("%s : ", pQuestion);
        fflush(stdout);
        char text[kLineSize];
        const Line line = ReadLine(in_, text);
        if (line == Line::kEnd) {
            putchar('\n');
            over_ = true;
            return false;
        }
        if (line == Line::kEmpty) {
            return false;
        }
        if (line == Line::kTooLong) {
            printf("The line is too long.\n");
        } else if (strlen(text) < size) {
            snprintf(pDst, size, "%s", text);
            return true;
        } else {
            printf("At most %zu characters are possible.\n", size - 1);
        }
    }
}

bool Menu::AskNumber(const char *pQuestion, int *pNumber) {
    char text[kLineSize];
    while (Ask(pQuestion, text, sizeof text)) {
        char *pEnd = nullptr;
        errno = 0;
        const long number = strtol(text, &pEnd, 10);
        if (*pEnd != '\0') {
            printf("\"%s\" is not a number.\n", text);
        } else if (errno != 0 || number < INT_MIN || number > INT_MAX) {
            printf("%s is out of range.\n", text);
        } else {
            *pNumber = static_cast<int>(number);
            return true;
        }
    }
    return false;
}

// The question shows the present value, which an empty line keeps.
void Menu::EditName(const char *pWhat, char *pName, size_t size) {
    char question[kLineSize];
    snprintf(question, sizeof question, "%s [%s]", pWhat, pName);
    if (Ask(question, pName, size)) {
        Dev_PrintTestMenu(&state_);
    }
}

void Menu::EditNumber(const char *pWhat, int *pNumber) {
    char question[kLineSize];
    snprintf(question, sizeof question, "%s [%d]", pWhat, *pNumber);
    if (AskNumber(question, pNumber)) {
        Dev_PrintTestMenu(&state_);
    }
}

void Report(const char *pAbout, const char *pResult) {
    printf("[%s] => %s\n", pAbout, pResult);
}

// Reports the name that an item found, or the reason why there is none.
void ReportName(const char *pAbout, int result, const char *pName, const char *pReason) {
    if (result == 0) {
        printf("[%s] => [%s]\n", pAbout, pName);
    } else {
        Report(pAbout, pReason);
    }
}

// For a read-only disc only the kind is shown. Sessions and tracks are shown when they are known:
// an empty or finalized CD has no track number.
void ReportDisc(const char *pDrive, const tDiscInfo &disc) {
    printf("[%s] => %s, %s", pDrive, NameIn(kClassNames, disc.discClass),
           NameIn(kMediaNames, disc.mediaKind));
    if (disc.mediaKind == DEV_MEDIA_READ_ONLY) {
        putchar('\n');
        return;
    }
    if (disc.recordMode != DEV_RECORD_NONE) {
        printf(", %s", NameIn(kRecordNames, disc.recordMode));
    }
    printf(", %s\n    used %llu KB of %llu KB", NameIn(kStatusNames, disc.discStatus),
           static_cast<unsigned long long>(disc.usedKB),
           static_cast<unsigned long long>(disc.totalKB));
    if (disc.sessions > 0) {
        printf(", sessions %u", disc.sessions);
    }
    if (disc.lastTrack > 0) {
        printf(", last track %u", disc.lastTrack);
    }
    putchar('\n');
}

void Menu::Reload() {
    Dev_PrintTestMenu(&state_);
}

void Menu::RescanBus() {
    const int hosts = Dev_RescanScsiBus();
    if (hosts > 0) {
        printf("%d SCSI host(s) scan for devices; new ones appear after some time.\n", hosts);
    } else {
        printf("No SCSI host scans for devices.\n");
    }
}

// The enumeration prints its list itself. The file system is shown too, because a disk without one
// that can be mounted has the sizes of a tmpfs.
void Menu::QueryAll() {
    const auto devices = talvek::HeapBuf<tDevInfo>::Zeroed(DEV_MAX_DEVICES);
    if (!devices) {
        printf("There is not enough memory.\n");
        return;
    }
    const int count = Dev_Get(devices.get());
    for (const tDevInfo &dev : std::span{devices.get(), static_cast<size_t>(count)}) {
        if (dev.isOptical == 0 && dev.u.disk.totalBlocks > 0) {
            printf("[%s] => file system : %s\n", dev.devPath, FsNameOf(dev.u.disk.fsType));
        }
    }
}

void Menu::ShowMountPoint() {
    char mountPoint[DEV_MOUNT_TEXT_SIZE] = "";
    const int result = Dev_GetMPT(state_.devName, mountPoint);
    ReportName(state_.devName, result, mountPoint, "not mounted");
}

void Menu::ShowMountPointOf8() {
    char mountPoint[DEV_MOUNT_TEXT_SIZE] = "";
    const int result = Dev_nGetMPT(state_.devName, mountPoint, kDeviceNameLength);
    ReportName(state_.devName, result, mountPoint, "not mounted");
}

void Menu::ConvertSgToSd() {
    char name[DEV_NODE_NAME_SIZE] = "";
    const int result = Dev_SgToSd(state_.sgName, name, sizeof name);
    ReportName(state_.sgName, result, name, "no such pair");
}

void Menu::ConvertSdToSg() {
    char name[DEV_NODE_NAME_SIZE] = "";
    const int result = Dev_SdToSg(state_.sdName, name, sizeof name);
    ReportName(state_.sdName, result, name, "no such pair");
}

// Fills a record as the enumeration does.
void Menu::ShowDisc() {
    tDevInfo device = {};
    device.isOptical = 1;
    if (strlen(state_.devName) >= sizeof device.devPath) {
        Report(state_.devName, "not the name of an optical drive");
        return;
    }
    memcpy(device.devPath, state_.devName, strlen(state_.devName) + 1);
    if (Dev_SdToSg(device.devPath, device.sgPath, sizeof device.sgPath) != 0) {
        Report(state_.devName, "no SCSI generic node");
        return;
    }
    const int result = Dev_GetDiscInfo(&device);
    if (result != DEV_DISC_INFO_OK) {
        Report(state_.devName, DiscFailure(result));
        return;
    }
    ReportDisc(state_.devName, device.u.disc);
}

void Menu::MountNfs() {
    char source[kLineSize];
    char directory[kLineSize];
    if (Ask("NFS export (host:/path)", source, sizeof source) &&
        Ask("Mount point", directory, sizeof directory)) {
        const int result = Dev_Mount(source, directory, DEV_FS_NFS);
        ReportName(source, result, directory, "not mounted");
    }
}

void Menu::CheckPartition() {
    Report(state_.devName, Dev_CheckPartition(state_.devName) == 0 ? "is in /proc/partitions"
                                                                   : "is not in /proc/partitions");
}

void Menu::ConvertNumbers() {
    char name[DEV_NODE_NAME_SIZE] = "";
    if (Dev_ConvertMajorMinor(state_.major, state_.minor, name, sizeof name) == 0) {
        printf("(%d, %d) => [%s]\n", state_.major, state_.minor, name);
    }
}

void Menu::ShowTemperature() {
    tSmartAttr temperature = {DEV_SMART_TEMPERATURE, 0};
    if (Dev_GetSmartValue(state_.devName, &temperature) == 0) {
        printf("[%s] => %d degrees Celsius\n", state_.devName, temperature.value);
    } else {
        Report(state_.devName, "no temperature");
    }
}

void Menu::RunItem(int item) {
    using Action = void (Menu::*)();
    static constexpr Action kActions[] = {
        &Menu::Reload,         &Menu::EditSgName,        &Menu::EditSdName,
        &Menu::EditDevName,    &Menu::RescanBus,         &Menu::QueryAll,
        &Menu::ShowMountPoint, &Menu::ShowMountPointOf8, &Menu::ConvertSgToSd,
        &Menu::ConvertSdToSg,  &Menu::ShowDisc,          &Menu::MountNfs,
        &Menu::CheckPartition, &Menu::EditMajor,         &Menu::EditMinor,
        &Menu::ConvertNumbers, &Menu::ShowTemperature,   &Menu::Exit};
    static_assert(std::size(kActions) == kExit + 1);
    if (item < 0 || item > kExit) {
        printf("There is no item %d; %d shows the menu.\n", item, kReload);
        return;
    }
    (this->*kActions[item])();
}

void Menu::Run() {
    Dev_PrintTestMenu(&state_);
    while (!over_) {
        int item = 0;
        if (AskNumber("Item", &item)) {
            RunItem(item);
        }
    }
    fflush(stdout);
}

}  // namespace

void Dev_PrintTestMenu(const tDevTestMenu *pState) {
    const talvek::CancelGuard guard;
    if (pState == nullptr) {
        return;
    }
    const tDevTestMenu &state = *pState;
    printf("\n\t%d) Reload\n", kReload);
    printf("\t%d) Modify SG Name : \"%s\"\n", kModifySgName, state.sgName);
    printf("\t%d) Modify SD Name : \"%s\"\n", kModifySdName, state.sdName);
    printf("\t%d) Modify DEV Name : \"%s\"\n", kModifyDevName, state.devName);
    printf("\t%d) Rescan SCSI Bus\n", kRescanBus);
    printf("\t%d) Query All Devices\n", kQueryAll);
    printf("\t%d) Get DEV MPT (Dev_GetMPT(%s, pMPT))\n", kGetMountPoint, state.devName);
    printf("\t%d) Get DEV MPT (Dev_nGetMPT(%s, pMPT, 8))\n", kGetMountPointOf8, state.devName);
    printf("\t%d) Convert SG to SD\n", kSgToSd);
    printf("\t%d) Convert SD to SG\n", kSdToSg);
    printf("\t%d) Get DEV(%s) Disc Info\n", kDiscInfo, state.devName);
    printf("\t%d) Test Dev_Mount() nfs mount\n", kNfsMount);
    printf("\t%d) Dev_CheckPartition(%s)\n", kCheckPartition, state.devName);
    printf("\t%d) Modify major number : \"%d\"\n", kModifyMajor, state.major);
    printf("\t%d) Modify minor number : \"%d\"\n", kModifyMinor, state.minor);
    printf("\t%d) Convert (major, minor) = (%d, %d) to device name\n", kConvertNumbers, state.major,
           state.minor);
    printf("\t%d) Get [%s] smart value [0xC2 - Temperature]\n", kSmartValue, state.devName);
    printf("\t%d) Exit\n\n", kExit);
    fflush(stdout);
}

int Dev_RunTestMenu(tDevTestMenu *pState, FILE *pIn) {
    const talvek::CancelGuard guard;
    if (pState == nullptr || pIn == nullptr) {
        return -1;
    }
    Menu{*pState, pIn}.Run();
    return 0;
}
