#include "board/support/board.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <sstream>

#include "support/private_world.h"

namespace talvek::test {
namespace {

namespace fs = std::filesystem;

std::string Line(const fs::path &path) {
    std::string text = ReadFile(path);
    return text.substr(0, text.find('\n'));
}

// The only entry of a directory as a node, "/dev/sda".
std::string NodeIn(const fs::path &dir) {
    std::error_code error;
    for (const auto &entry : fs::directory_iterator{dir, error}) {
        return "/dev/" + entry.path().filename().string();
    }
    return "";
}

bool IsBlockOrCharacterDevice(const std::string &path) {
    struct stat st = {};
    return stat(path.c_str(), &st) == 0 && (S_ISBLK(st.st_mode) || S_ISCHR(st.st_mode));
}

}  // namespace

std::string BoardVariable(const char *pName) {
    const char *value = getenv(pName);
    return value != nullptr ? value : "";
}

std::string BoardPort(const std::string &name) {
    std::error_code error;
    for (const auto &entry : fs::directory_iterator{"/sys/class/virtio-ports", error}) {
        if (Line(entry.path() / "name") == name) {
            return "/dev/" + entry.path().filename().string();
        }
    }
    return "";
}

bool Await(const std::function<bool()> &holds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes{1};
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        usleep(20000);
    }
    return true;
}

MountPoint::MountPoint() {
    EXPECT_NE(nullptr, mkdtemp(path_));
}

MountPoint::~MountPoint() {
    umount2(path_, MNT_DETACH);
    EXPECT_EQ(0, rmdir(path_));
}

std::string MountPoint::Type() const {
    std::istringstream lines{ReadFile("/proc/mounts")};
    std::string type;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words{line};
        std::string device, dir, word;
        words >> device >> dir >> word;
        type = dir == path_ ? word : type;
    }
    return type;
}

std::vector<SysfsDevice> SysfsDevices() {
    std::vector<SysfsDevice> devices;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator{"/sys/class/scsi_device", error}) {
        SysfsDevice device = {};
        if (sscanf(entry.path().filename().c_str(), "%u:%u:%u:%u", &device.host, &device.channel,
                   &device.id, &device.lun) != 4) {
            continue;
        }
        const fs::path dir = fs::canonical(entry.path() / "device", error);
        device.dir = dir;
        device.node = NodeIn(dir / "block");
        device.sgNode = NodeIn(dir / "scsi_generic");
        device.vendor = Line(dir / "vendor");
        device.model = Line(dir / "model");
        device.type = static_cast<unsigned>(strtoul(Line(dir / "type").c_str(), nullptr, 10));
        device.driver =
            Line("/sys/class/scsi_host/host" + std::to_string(device.host) + "/proc_name");
        if (!device.node.empty()) {
            const fs::path size = fs::path{"/sys/block"} / device.node.substr(5) / "size";
            device.bytes = strtoull(Line(size).c_str(), nullptr, 10) * 512;
        }
        devices.push_back(device);
    }
    std::sort(devices.begin(), devices.end(),
              [](const SysfsDevice &a, const SysfsDevice &b) { return a.node < b.node; });
    return devices;
}

std::optional<SysfsDevice> SysfsDeviceOf(const std::string &text) {
    for (const SysfsDevice &device : SysfsDevices()) {
        if (device.model.find(text) != std::string::npos) {
            return device;
        }
    }
    return std::nullopt;
}

SysfsDevice AwaitDevice(const std::string &text) {
    std::optional<SysfsDevice> device;
    EXPECT_TRUE(Await([&] {
        device = SysfsDeviceOf(text);
        return device && IsBlockOrCharacterDevice(device->node) &&
               IsBlockOrCharacterDevice(device->sgNode) && (device->type != 0 || device->bytes > 0);
    })) << text;
    return device.value_or(SysfsDevice{});
}

void AwaitNoDevice(const std::string &text) {
    EXPECT_TRUE(Await([&] { return !SysfsDeviceOf(text); })) << text;
}

tDevInfo DriveRecord(const std::string &node, const std::string &sgNode) {
    tDevInfo dev = {};
    strcpy(dev.devPath, node.c_str());
    strcpy(dev.sgPath, sgNode.c_str());
    dev.isOptical = 1;
    return dev;
}

}  // namespace talvek::test
