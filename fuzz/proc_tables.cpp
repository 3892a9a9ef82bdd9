// Tables and texts of /proc: a line with the text to look for, then the content, which every table
// has.

#include <stdlib.h>
#include <string.h>

#include "common/command.h"
#include "common/io.h"
#include "common/system_info.h"
#include "common/terminal.h"
#include "common/unit_info.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

namespace {

using talvek::fuzz::Out;
using talvek::fuzz::Text;

void ReadPci(const Text &pattern) {
    constexpr int kMost = 3;
    Out ids{kMost * sizeof(uint32_t)};
    const int count =
        COM_GetPciDeviceId(pattern.get(), reinterpret_cast<uint32_t *>(ids.bytes()), kMost);
    REQUIRE(count >= 0 && count <= kMost);
    REQUIRE(ids.Untouched(0xA5, static_cast<size_t>(count) * sizeof(uint32_t)));
    REQUIRE(COM_GetPciDevice(pattern.get()) >= 0);
}

void ReadMemory() {
    int32_t values[COM_MEM_FIGURES] = {-1, -1, -1, -1};
    const int result = COM_GetMemAndSwap(values);
    REQUIRE(result == 0 || result == -1);
}

void ReadDevices() {
    tDeviceName *list = nullptr;
    const int count = COM_GetDeviceFromProc(&list, "/proc/net/dev");
    REQUIRE(count >= 0 && (count > 0) == (list != nullptr));
    for (int i = 0; i < count; ++i) {
        REQUIRE(memchr(list[i], 0, sizeof list[i]) != nullptr);
    }
    free(list);
}

void ReadVersion() {
    Out release{COM_KERNEL_TEXT_SIZE};
    Out extra{COM_KERNEL_TEXT_SIZE};
    if (COM_GetKernelVersion(release.text(), extra.text()) == 0) {
        REQUIRE(release.IsText() && extra.IsText());
    } else {
        REQUIRE(release.Untouched() && extra.Untouched());
    }
}

void ReadProcesses(const Text &pattern) {
    tProcState process = {1, "x"};
    const int state = COM_CheckProcState(&process);
    REQUIRE(state == 0 || state == -1);
    REQUIRE(memchr(process.state, 0, sizeof process.state) != nullptr);
    const int exists = COM_CheckProcExist(pattern.get());
    REQUIRE(exists == 0 || exists == -1);
    COM_KillProcess(pattern.get(), 0, 0);
}

void ReadPorts() {
    for (int port = 2; port <= 4; ++port) {
        Out path{COM_SERIAL_PATH_SIZE};
        const int result = COM_GetSerialPort(port, path.text());
        REQUIRE(result == 0 ? path.IsText() : result == -1);
    }
}

}  // namespace

FUZZ_TARGET(proc_tables) {
    const Text pattern{in.Line()};
    const talvek::fuzz::Bytes content = in.Rest();
    talvek::fuzz::World world;
    world.AddFiles({"/proc/bus/pci/devices", "/proc/meminfo", "/proc/net/dev", "/proc/version",
                    "/proc/1/stat", "/proc/1/cmdline", "/proc/tty/driver/usb-serial",
                    "/sys/class/net/eth0/statistics/rx_packets"},
                   content);
    world.AddDirectory("/proc", {".", "..", "1", "2", "self"});
    ReadPci(pattern);
    ReadMemory();
    ReadDevices();
    ReadVersion();
    ReadProcesses(pattern);
    ReadPorts();
    const int packets = COM_GetRxPackets("eth0");  // eight characters, one of which may be a sign
    REQUIRE(packets > -10000000 && packets < 100000000);
}
