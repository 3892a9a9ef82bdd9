// The technician's menu over the storage functions.

#include "dev/test_menu.h"

#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <iterator>

#include "dev/device.h"
#include "dev/enumeration.h"
#include "dev/file_system.h"
#include "dev/ide.h"
#include "dev/mount.h"
#include "dev/mount_table.h"
#include "dev/naming.h"
#include "dev/optical_disc.h"
#include "dev/scsi_bus.h"

namespace talvek {
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
constexpr size_t kLineSize = 256;

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

const char *DiscFailure(int result) {
    constexpr int kNotReady = -129;
    constexpr int kUnknownDisc = -130;
    switch (result) {
        case kNotReady:
            return "not ready (no disc, or the tray is open)";
        case kUnknownDisc:
            return "a disc of unknown kind";
        default:
            return "the drive cannot be opened";
    }
}

// What came in with one line.
enum class Line { kText, kEmpty, kTooLong, kEnd };

// One session at the menu.
class Session {
  public:
    Session(tDevTestMenu &state, FILE *pIn) : state_(state), in_(pIn) {}

    void Run();

  private:
    // Both ask until a line of use comes in. False when the question is given up: by an empty line,
    // or by the end of input, which is the end of the session too.
    bool Ask(const char *pQuestion, char *pDst, size_t size);
    bool AskNumber(const char *pQuestion, int *pNumber);

    void EditName(const char *pWhat, char *pName, size_t size);
    void EditNumber(const char *pWhat, int *pNumber);
    void Do(int item);

    // The items, in their order.
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

// A line without its end, the blanks around it and NUL bytes, which a slip on the keyboard sends.
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

bool Session::Ask(const char *pQuestion, char *pDst, size_t size) {
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

bool Session::AskNumber(const char *pQuestion, int *pNumber) {
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

// The value that an empty line keeps stands in the question.
void Session::EditName(const char *pWhat, char *pName, size_t size) {
    char question[kLineSize];
    snprintf(question, sizeof question, "%s [%s]", pWhat, pName);
    if (Ask(question, pName, size)) {
        Dev_PrintTestMenu(&state_);
    }
}

void Session::EditNumber(const char *pWhat, int *pNumber) {
    char question[kLineSize];
    snprintf(question, sizeof question, "%s [%d]", pWhat, *pNumber);
    if (AskNumber(question, pNumber)) {
        Dev_PrintTestMenu(&state_);
    }
}

// What an item found out about a name.
void Tell(const char *pAbout, const char *pFound) {
    printf("[%s] => %s\n", pAbout, pFound);
}

void TellName(const char *pAbout, int result, const char *pName, const char *pNone) {
    if (result == 0) {
        printf("[%s] => [%s]\n", pAbout, pName);
    } else {
        Tell(pAbout, pNone);
    }
}

// A disc that cannot be written is not asked for more than its kind, nor an empty or finalized CD
// for its tracks.
void TellDisc(const char *pDrive, const tDiscInfo &disc) {
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

void Session::Reload() {
    Dev_PrintTestMenu(&state_);
}

void Session::RescanBus() {
    const int hosts = Dev_RescanScsiBus();
    if (hosts > 0) {
        printf("Asked %d SCSI host(s); new devices turn up by and by.\n", hosts);
    } else {
        printf("No SCSI host could be asked.\n");
    }
}

// The enumeration itself prints what it finds.
void Session::QueryAll() {
    tDevInfo devices[DEV_MAX_DEVICES] = {};
    Dev_Get(devices);
}

void Session::ShowMountPoint() {
    char mountPoint[DEV_MOUNT_TEXT_SIZE] = "";
    const int result = Dev_GetMPT(state_.devName, mountPoint);
    TellName(state_.devName, result, mountPoint, "not mounted");
}

void Session::ShowMountPointOf8() {
    char mountPoint[DEV_MOUNT_TEXT_SIZE] = "";
    const int result = Dev_nGetMPT(state_.devName, mountPoint, kDeviceNameLength);
    TellName(state_.devName, result, mountPoint, "not mounted");
}

void Session::ConvertSgToSd() {
    char name[DEV_NODE_NAME_SIZE] = "";
    const int result = Dev_SgToSd(state_.sgName, name, sizeof name);
    TellName(state_.sgName, result, name, "no such pair");
}

void Session::ConvertSdToSg() {
    char name[DEV_NODE_NAME_SIZE] = "";
    const int result = Dev_SdToSg(state_.sdName, name, sizeof name);
    TellName(state_.sdName, result, name, "no such pair");
}

// The record of one drive is made as the enumeration would make it.
void Session::ShowDisc() {
    tDevInfo device = {};
    device.isOptical = 1;
    if (strlen(state_.devName) >= sizeof device.devPath) {
        Tell(state_.devName, "no name of an optical drive");
        return;
    }
    memcpy(device.devPath, state_.devName, strlen(state_.devName) + 1);
    if (Dev_SdToSg(device.devPath, device.sgPath, sizeof device.sgPath) != 0) {
        Tell(state_.devName, "no SCSI generic node");
        return;
    }
    const int result = Dev_GetDiscInfo(&device);
    if (result != 0) {
        Tell(state_.devName, DiscFailure(result));
        return;
    }
    TellDisc(state_.devName, device.u.disc);
}

void Session::MountNfs() {
    char source[kLineSize];
    char directory[kLineSize];
    if (Ask("NFS export (host:/path)", source, sizeof source) &&
        Ask("Mount point", directory, sizeof directory)) {
        const int result = Dev_Mount(source, directory, DEV_FS_NFS);
        TellName(source, result, directory, "not mounted");
    }
}

void Session::CheckPartition() {
    Tell(state_.devName, Dev_CheckPartition(state_.devName) == 0 ? "is in /proc/partitions"
                                                                 : "is not in /proc/partitions");
}

void Session::ConvertNumbers() {
    char name[DEV_NODE_NAME_SIZE] = "";
    if (Dev_ConvertMajorMinor(state_.major, state_.minor, name, sizeof name) == 0) {
        printf("(%d, %d) => [%s]\n", state_.major, state_.minor, name);
    }
}

void Session::ShowTemperature() {
    tSmartAttr temperature = {DEV_SMART_TEMPERATURE, 0};
    if (Dev_GetSmartValue(state_.devName, &temperature) == 0) {
        printf("[%s] => %d degrees Celsius\n", state_.devName, temperature.value);
    } else {
        Tell(state_.devName, "no temperature");
    }
}

void Session::Do(int item) {
    using Action = void (Session::*)();
    static constexpr Action kActions[] = {
        &Session::Reload,         &Session::EditSgName,        &Session::EditSdName,
        &Session::EditDevName,    &Session::RescanBus,         &Session::QueryAll,
        &Session::ShowMountPoint, &Session::ShowMountPointOf8, &Session::ConvertSgToSd,
        &Session::ConvertSdToSg,  &Session::ShowDisc,          &Session::MountNfs,
        &Session::CheckPartition, &Session::EditMajor,         &Session::EditMinor,
        &Session::ConvertNumbers, &Session::ShowTemperature,   &Session::Exit};
    static_assert(std::size(kActions) == kExit + 1);
    if (item < 0 || item > kExit) {
        printf("There is no item %d; %d shows the menu.\n", item, kReload);
        return;
    }
    (this->*kActions[item])();
}

void Session::Run() {
    Dev_PrintTestMenu(&state_);
    while (!over_) {
        int item = 0;
        if (AskNumber("Item", &item)) {
            Do(item);
        }
    }
    fflush(stdout);
}

}  // namespace
}  // namespace talvek

void Dev_PrintTestMenu(const tDevTestMenu *pState) {
    if (pState == nullptr) {
        return;
    }
    const tDevTestMenu &state = *pState;
    printf("\n\t%d) Reload\n", talvek::kReload);
    printf("\t%d) Modify SG Name : \"%s\"\n", talvek::kModifySgName, state.sgName);
    printf("\t%d) Modify SD Name : \"%s\"\n", talvek::kModifySdName, state.sdName);
    printf("\t%d) Modify DEV Name : \"%s\"\n", talvek::kModifyDevName, state.devName);
    printf("\t%d) Rescan SCSI Bus\n", talvek::kRescanBus);
    printf("\t%d) Query All Devices\n", talvek::kQueryAll);
    printf("\t%d) Get DEV MPT (Dev_GetMPT(%s, pMPT))\n", talvek::kGetMountPoint, state.devName);
    printf("\t%d) Get DEV MPT (Dev_nGetMPT(%s, pMPT, 8))\n", talvek::kGetMountPointOf8,
           state.devName);
    printf("\t%d) Convert SG to SD\n", talvek::kSgToSd);
    printf("\t%d) Convert SD to SG\n", talvek::kSdToSg);
    printf("\t%d) Get DEV(%s) Disc Info\n", talvek::kDiscInfo, state.devName);
    printf("\t%d) Test Dev_Mount() nfs mount\n", talvek::kNfsMount);
    printf("\t%d) Dev_CheckPartition(%s)\n", talvek::kCheckPartition, state.devName);
    printf("\t%d) Modify major number : \"%d\"\n", talvek::kModifyMajor, state.major);
    printf("\t%d) Modify minor number : \"%d\"\n", talvek::kModifyMinor, state.minor);
    printf("\t%d) Convert (major, minor) = (%d, %d) to device name\n", talvek::kConvertNumbers,
           state.major, state.minor);
    printf("\t%d) Get [%s] smart value [0xC2 - Temperature]\n", talvek::kSmartValue, state.devName);
    printf("\t%d) Exit\n\n", talvek::kExit);
    fflush(stdout);
}

int Dev_RunTestMenu(tDevTestMenu *pState, FILE *pIn) {
    if (pState == nullptr || pIn == nullptr) {
        return -1;
    }
    talvek::Session{*pState, pIn}.Run();
    return 0;
}
