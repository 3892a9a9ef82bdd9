// Enumeration of 32 devices that answer at once, initialisation of the file-system table, and
// look-ups among 500 mounts next to libmount and getmntent. Everything is done in a mount namespace
// of the program's own, with a /var in memory.

#include <benchmark/benchmark.h>
#include <errno.h>
#include <fcntl.h>
#include <libmount/libmount.h>
#include <linux/fs.h>
#include <mntent.h>
#include <sched.h>
#include <scsi/scsi.h>
#include <scsi/sg.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "bench/quiet.h"
#include "bench/side_by_side.h"
#include "dev/DEV.h"

namespace {

constexpr int kMounts = 500;
constexpr int kDevices = 32;
bool g_haveWorld = false;

bool PutText(const char *pPath, const std::string &text) {
    const int fd = open(pPath, O_WRONLY | O_CLOEXEC);
    const bool done = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return done;
}

bool MountTmpfs(const char *pSrc, const std::string &dir) {
    return mount(pSrc, dir.c_str(), "tmpfs", 0, "mode=755") == 0;
}

// Own mounts: an empty /var, and /mnt with 500 mounts whose names are as long as usual ones.
bool EnterWorld() {
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (unshare(CLONE_NEWNS | (uid != 0 ? CLONE_NEWUSER : 0)) != 0) {
        return false;
    }
    if (uid != 0 && (!PutText("/proc/self/setgroups", "deny") ||
                     !PutText("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
                     !PutText("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))) {
        return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        !MountTmpfs("tmpfs", "/var") || !MountTmpfs("tmpfs", "/mnt")) {
        return false;
    }
    for (int i = 0; i < kMounts; ++i) {
        const std::string dir = "/mnt/recordings-" + std::to_string(i);
        const std::string src = "/dev/disk-" + std::to_string(i) + "-";
        if (mkdir(dir.c_str(), 0755) != 0 || !MountTmpfs(src.c_str(), dir)) {
            return false;
        }
    }
    return true;
}

#define NEED_WORLD(state)                                       \
    if (!g_haveWorld) {                                         \
        (state).SkipWithError("no mount namespace of its own"); \
        return;                                                 \
    }

void InitFsArray(benchmark::State &state) {
    NEED_WORLD(state);
    const Quiet quiet;
    for (auto _ : state) {
        Dev_InitFsArray();
    }
}
BENCHMARK(InitFsArray);

// The device of the last mount, so that the whole table is read.
constexpr const char *kLastDevice = "/dev/disk-499-";
constexpr const char *kLastDir = "/mnt/recordings-499";

void nGetMPT_Of500(benchmark::State &state) {
    NEED_WORLD(state);
    char dir[DEV_MOUNT_TEXT_SIZE] = "";
    for (auto _ : state) {
        Dev_nGetMPT(kLastDevice, dir, 0);
    }
    if (strcmp(dir, kLastDir) != 0) {
        state.SkipWithError("not found");
    }
}
BENCHMARK(nGetMPT_Of500);

void GetDevViaMount_Of500(benchmark::State &state) {
    NEED_WORLD(state);
    char dev[DEV_MOUNT_TEXT_SIZE] = "";
    for (auto _ : state) {
        Dev_GetDevViaMount(dev, kLastDir);
    }
    if (strcmp(dev, kLastDevice) != 0) {
        state.SkipWithError("not found");
    }
}
BENCHMARK(GetDevViaMount_Of500);

void Libmount_Of500(benchmark::State &state, const char *pFile) {
    NEED_WORLD(state);
    bool found = false;
    for (auto _ : state) {
        struct libmnt_table *pTable = mnt_new_table_from_file(pFile);
        struct libmnt_fs *pFs = mnt_table_find_srcpath(pTable, kLastDevice, MNT_ITER_FORWARD);
        found = pFs != nullptr && strcmp(mnt_fs_get_target(pFs), kLastDir) == 0;
        mnt_unref_table(pTable);
    }
    if (!found) {
        state.SkipWithError("not found");
    }
}
BENCHMARK_CAPTURE(Libmount_Of500, mounts, "/proc/mounts");
BENCHMARK_CAPTURE(Libmount_Of500, mountinfo, "/proc/self/mountinfo");

void Getmntent_Of500(benchmark::State &state) {
    NEED_WORLD(state);
    bool found = false;
    for (auto _ : state) {
        FILE *pFile = setmntent("/proc/mounts", "re");
        while (const struct mntent *pEntry = getmntent(pFile)) {
            if (strcmp(pEntry->mnt_fsname, kLastDevice) == 0) {
                found = strcmp(pEntry->mnt_dir, kLastDir) == 0;
                break;
            }
        }
        endmntent(pFile);
    }
    if (!found) {
        state.SkipWithError("not found");
    }
}
BENCHMARK(Getmntent_Of500);

// What the kernel alone takes to write the table.
void Read_Of500(benchmark::State &state) {
    NEED_WORLD(state);
    static char block[1 << 16];
    for (auto _ : state) {
        const int fd = open("/proc/mounts", O_RDONLY | O_CLOEXEC);
        while (read(fd, block, sizeof block) > 0) {
        }
        close(fd);
    }
}
BENCHMARK(Read_Of500);

const SideBySide g_pairs[] = {
    {"nGetMPT_Of500", "Libmount_Of500/mounts",
     "the last of 500 mounts; the peer keeps a table of all"},
    {"GetDevViaMount_Of500", "Libmount_Of500/mounts",
     "the last of 500 mounts; the peer keeps a table of all"},
    {"nGetMPT_Of500", "Getmntent_Of500", "both read the table up to the last of 500 mounts"},
    {"nGetMPT_Of500", "Read_Of500", "the peer reads the table and looks for nothing"}};

// The simulated device of a descriptor, plus one; 0 for none.
int g_deviceOfFd[1024];
bool g_simulate = false;

// Devices 0 to 25 are disks and 26 to 31 drives, device i also at /dev/sg<i>.
int DeviceOf(const char *pPath) {
    char letter;
    int number;
    if (sscanf(pPath, "/dev/sg%d", &number) == 1 ||
        (sscanf(pPath, "/dev/sr%d", &number) == 1 && (number += 26, true))) {
        return number < kDevices ? number + 1 : 0;
    }
    return sscanf(pPath, "/dev/sd%c", &letter) == 1 ? letter - 'a' + 1 : 0;
}

void WriteFile(const char *pPath, const std::string &text) {
    std::ofstream{pPath} << text;
}

// A /dev and a /proc of files for the simulated devices, whose disks are all mounted on /mnt.
void Enumerate32(benchmark::State &state) {
    NEED_WORLD(state);
    const Quiet quiet;
    const bool made = MountTmpfs("tmpfs", "/dev") && MountTmpfs("tmpfs", "/proc");
    std::string mounts;
    for (char c = 'a'; c <= 'z'; ++c) {
        const std::string node = std::string{"/dev/sd"} + c;
        WriteFile(node.c_str(), "");
        mounts += node + "1 /mnt ext4 rw,noatime 0 0\n";
    }
    WriteFile("/dev/null", "");
    WriteFile("/proc/mounts", mounts);
    int count = 0;
    g_simulate = true;
    for (auto _ : state) {
        tDevInfo devs[DEV_MAX_DEVICES] = {};
        count = Dev_Get(devs);
    }
    g_simulate = false;
    umount("/proc");
    umount2("/dev", MNT_DETACH);
    if (!made || count != kDevices) {
        state.SkipWithError("not all devices were found");
    }
}
BENCHMARK(Enumerate32);

int AnswerSimulated(int device, unsigned long request, void *pArg) {
    switch (request) {
        case SCSI_IOCTL_GET_BUS_NUMBER:
            *static_cast<int *>(pArg) = device;
            return 0;
        case SCSI_IOCTL_GET_IDLUN:
            memset(pArg, 0, 8);
            return 0;
        case SCSI_IOCTL_PROBE_HOST:
            strcpy(static_cast<char *>(pArg), "SCSI emulation for USB Mass Storage devices");
            return 1;
        case BLKGETSIZE64:
            memset(pArg, 0, 8);
            return 0;
        case SG_GET_VERSION_NUM:
            *static_cast<int *>(pArg) = 30536;
            return 0;
        case SG_IO:
            static_cast<sg_io_hdr_t *>(pArg)->info = 0;
            return 0;
        default:
            errno = ENOTTY;
            return -1;
    }
}

}  // namespace

// The names are given to the assembler: on 32 bits the headers give ioctl and open others.
#if __SIZEOF_POINTER__ == 4
#define IOCTL_SYMBOL "__ioctl_time64"
#define OPEN_SYMBOL "open64"
#else
#define IOCTL_SYMBOL "ioctl"
#define OPEN_SYMBOL "open"
#endif
extern "C" {
int AnswerIoctl(int fd, unsigned long request, ...) __asm__(IOCTL_SYMBOL);
int AnswerOpen(const char *path, int flags, ...) __asm__(OPEN_SYMBOL);
}

int AnswerIoctl(int fd, unsigned long request, ...) {
    va_list list;
    va_start(list, request);
    void *pArg = va_arg(list, void *);
    va_end(list);
    const int device = fd >= 0 && fd < 1024 ? g_deviceOfFd[fd] : 0;
    return device != 0 ? AnswerSimulated(device - 1, request, pArg)
                       : static_cast<int>(syscall(SYS_ioctl, fd, request, pArg));
}

int AnswerOpen(const char *path, int flags, ...) {
    va_list list;
    va_start(list, flags);
    const auto mode = va_arg(list, unsigned);
    va_end(list);
    const int device = g_simulate ? DeviceOf(path) : 0;
    const int fd = static_cast<int>(
        syscall(SYS_openat, AT_FDCWD, device != 0 ? "/dev/null" : path, flags | O_LARGEFILE, mode));
    if (fd >= 0 && fd < 1024) {
        g_deviceOfFd[fd] = device;
    }
    return fd;
}

int main(int argc, char **argv) {
    g_haveWorld = EnterWorld();
    return RunBenchmarks(argc, argv);
}
