// The technician's menu over the storage functions.

#include "dev/test_menu.h"

#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "dev/device.h"
#include "dev/enumeration.h"
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

constexpr unsigned kNfsIndex = 9;  // of the file-system table
constexpr unsigned kDeviceNameLength = 8;

// One session at the menu.
class Session {
  public:
    Session(tDevTestMenu &state, FILE *pIn) : state_(state), in_(pIn) {}

    void Run();

  private:
    // Asks until a line of use comes in. False at the end of input.
    bool AskLine(const char *pQuestion, char *pDst, size_t size);
    bool AskNumber(const char *pQuestion, int *pNumber);
    // Returns false when the session is over.
    bool Do(int item);

    void EditName(const char *pQuestion, char *pName, size_t size);
    void EditNumber(const char *pQuestion, int *pNumber);
    void ShowMountPoint(unsigned n) const;
    void ShowDiscInfo() const;
    void MountNfs();
    void ConvertNumbers() const;
    void ShowTemperature() const;

    tDevTestMenu &state_;
    FILE *in_;
};

// A line without its end. False at the end of input; a line that does not fit comes in empty, told.
bool ReadLine(FILE *pIn, char *pDst, size_t size) {
    if (fgets(pDst, static_cast<int>(size), pIn) == nullptr) {
        return false;
    }
    const size_t length = strcspn(pDst, "\n");
    if (pDst[length] == '\n' || feof(pIn)) {
        pDst[length] = '\0';
        return true;
    }
    for (int character = getc(pIn); character != '\n' && character != EOF;) {
        character = getc(pIn);
    }
    printf("The line is too long.\n");
    pDst[0] = '\0';
    return true;
}

bool Session::AskLine(const char *pQuestion, char *pDst, size_t size) {
    char line[256];
    for (;;) {
        printf("%s", pQuestion);
        fflush(stdout);
        if (!ReadLine(in_, line, sizeof line)) {
            putchar('\n');
            return false;
        }
        if (line[0] == '\0') {
            continue;
        }
        if (strlen(line) < size) {
            snprintf(pDst, size, "%s", line);
            return true;
        }
        printf("At most %zu characters are possible.\n", size - 1);
    }
}

bool Session::AskNumber(const char *pQuestion, int *pNumber) {
    char line[256];
    while (AskLine(pQuestion, line, sizeof line)) {
        char *pEnd = nullptr;
        errno = 0;
        const long number = strtol(line, &pEnd, 10);
        if (pEnd != line && pEnd[strspn(pEnd, " \t\r")] == '\0' && errno == 0 &&
            number >= INT_MIN && number <= INT_MAX) {
            *pNumber = static_cast<int>(number);
            return true;
        }
        printf("\"%s\" is not a number.\n", line);
    }
    return false;
}

void Session::EditName(const char *pQuestion, char *pName, size_t size) {
    if (AskLine(pQuestion, pName, size)) {
        Dev_PrintTestMenu(&state_);
    }
}

void Session::EditNumber(const char *pQuestion, int *pNumber) {
    if (AskNumber(pQuestion, pNumber)) {
        Dev_PrintTestMenu(&state_);
    }
}

void ShowName(const char *pFrom, int result, const char *pTo) {
    if (result == 0) {
        printf("[%s] => [%s]\n", pFrom, pTo);
    } else {
        printf("[%s] => nothing found\n", pFrom);
    }
}

void Session::ShowMountPoint(unsigned n) const {
    char mountPoint[DEV_MOUNT_TEXT_SIZE] = "";
    const int result = n == 0 ? Dev_GetMPT(state_.devName, mountPoint)
                              : Dev_nGetMPT(state_.devName, mountPoint, n);
    ShowName(state_.devName, result, mountPoint);
}

// The record of one drive, as enumeration would make it.
void Session::ShowDiscInfo() const {
    tDevInfo device = {};
    device.isOptical = 1;
    if (strlen(state_.devName) >= sizeof device.devPath) {
        printf("[%s] => nothing found\n", state_.devName);
        return;
    }
    snprintf(device.devPath, sizeof device.devPath, "%.11s", state_.devName);
    if (Dev_SdToSg(device.devPath, device.sgPath, sizeof device.sgPath) != 0) {
        printf("[%s] => no generic node found\n", state_.devName);
        return;
    }
    const int result = Dev_GetDiscInfo(&device);
    printf("Dev_GetDiscInfo(%s) = %d\n", state_.devName, result);
    if (result != 0) {
        return;
    }
    const tDiscInfo &disc = device.u.disc;
    printf("(class, kind, mode, status) = (%u, %u, %u, %u)\n", disc.discClass, disc.mediaKind,
           disc.recordMode, disc.discStatus);
    printf("(sessions, last track) = (%u, %u)\n", disc.sessions, disc.lastTrack);
    printf("(used, total) = (%llu, %llu) KB\n", static_cast<unsigned long long>(disc.usedKB),
           static_cast<unsigned long long>(disc.totalKB));
}

void Session::MountNfs() {
    char source[256];
    char directory[256];
    if (AskLine("NFS export (host:/path) : ", source, sizeof source) &&
        AskLine("Mount point : ", directory, sizeof directory)) {
        printf("Dev_Mount(%s, %s) = %d\n", source, directory,
               Dev_Mount(source, directory, kNfsIndex));
    }
}

void Session::ConvertNumbers() const {
    char name[DEV_NODE_NAME_SIZE] = "";
    if (Dev_ConvertMajorMinor(state_.major, state_.minor, name, sizeof name) == 0) {
        printf("(%d, %d) => [%s]\n", state_.major, state_.minor, name);
    }
}

void Session::ShowTemperature() const {
    tSmartAttr temperature = {DEV_SMART_TEMPERATURE, 0};
    if (Dev_GetSmartValue(state_.devName, &temperature) == 0) {
        printf("[%s] : 0x%02X = %d\n", state_.devName, temperature.id, temperature.value);
    } else {
        printf("[%s] : no smart value 0x%02X\n", state_.devName, temperature.id);
    }
}

bool Session::Do(int item) {
    switch (item) {
        case kReload:
            Dev_PrintTestMenu(&state_);
            break;
        case kModifySgName:
            EditName("SG name : ", state_.sgName, sizeof state_.sgName);
            break;
        case kModifySdName:
            EditName("SD name : ", state_.sdName, sizeof state_.sdName);
            break;
        case kModifyDevName:
            EditName("DEV name : ", state_.devName, sizeof state_.devName);
            break;
        case kRescanBus:
            printf("%d SCSI hosts look for devices\n", Dev_RescanScsiBus());
            break;
        case kQueryAll: {
            tDevInfo devices[DEV_MAX_DEVICES] = {};
            Dev_Get(devices);
            break;
        }
        case kGetMountPoint:
            ShowMountPoint(0);
            break;
        case kGetMountPointOf8:
            ShowMountPoint(kDeviceNameLength);
            break;
        case kSgToSd: {
            char name[sizeof state_.sdName] = "";
            const int result = Dev_SgToSd(state_.sgName, name, sizeof name);
            ShowName(state_.sgName, result, name);
            break;
        }
        case kSdToSg: {
            char name[sizeof state_.sgName] = "";
            const int result = Dev_SdToSg(state_.sdName, name, sizeof name);
            ShowName(state_.sdName, result, name);
            break;
        }
        case kDiscInfo:
            ShowDiscInfo();
            break;
        case kNfsMount:
            MountNfs();
            break;
        case kCheckPartition:
            printf("Dev_CheckPartition(%s) = %d\n", state_.devName,
                   Dev_CheckPartition(state_.devName));
            break;
        case kModifyMajor:
            EditNumber("Major number : ", &state_.major);
            break;
        case kModifyMinor:
            EditNumber("Minor number : ", &state_.minor);
            break;
        case kConvertNumbers:
            ConvertNumbers();
            break;
        case kSmartValue:
            ShowTemperature();
            break;
        case kExit:
            return false;
        default:
            printf("There is no item %d.\n", item);
            break;
    }
    return true;
}

void Session::Run() {
    Dev_PrintTestMenu(&state_);
    int item = 0;
    while (AskNumber("Item : ", &item) && Do(item)) {
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
