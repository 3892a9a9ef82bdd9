#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "common/unit_info.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/faults.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

void MakeUnit() {
    FreshEtc();
    for (const char *pPath : {"/etc/Model", "/etc/Proj", "/etc/Port", "/etc/Note"}) {
        WriteFile(pPath, "8080\n");
    }
    WriteFile("/etc/resolv.conf", "nameserver 192.0.2.53\n");
    RunCommand(
        "ip link set lo up && ip link add eth0 type veth peer name far && ip link set eth0 up"
        " && ip link set far up && ip addr add 10.0.0.5/20 dev eth0"
        " && ip route add default via 10.0.0.1");
}

TEST(UnitInfoFault, ReturnsUnknownWithoutAHostName) {
    RunInPrivateWorld(kNetwork, [] {
        MakeUnit();
        tUnitNetInfo unit;
        EXPECT_EQ("", Capture([&] {
                      const Fault fault{"gethostname", 0, EFAULT};
                      EXPECT_EQ(-1, COM_GetUnitNetInfo(&unit, "eth0"));
                      EXPECT_TRUE(Fault::Tripped());
                  }));
        EXPECT_STREQ("unknown", unit.name);
    });
}

TEST(UnitInfoFault, FillsTheRecordWhicheverCallFails) {
    RunInPrivateWorld(kNetwork, [] {
        MakeUnit();
        const int failed = EveryCallFails(EIO, [] {
            tUnitNetInfo unit;
            memset(&unit, 'x', sizeof unit);
            EXPECT_GE(0, COM_GetUnitNetInfo(&unit, nullptr));
            const struct {
                const char *text;
                size_t size;
            } fields[] = {{unit.model, sizeof unit.model},     {unit.proj, sizeof unit.proj},
                          {unit.name, sizeof unit.name},       {unit.ip, sizeof unit.ip},
                          {unit.port, sizeof unit.port},       {unit.netmask, sizeof unit.netmask},
                          {unit.gateway, sizeof unit.gateway}, {unit.dns, sizeof unit.dns},
                          {unit.mac, sizeof unit.mac},         {unit.dev, sizeof unit.dev},
                          {unit.note, sizeof unit.note}};
            for (const auto &field : fields) {
                EXPECT_LT(strnlen(field.text, field.size), field.size);
            }
            EXPECT_EQ(17U, strlen(unit.mac));
            EXPECT_LE(7U, strlen(unit.ip));
            EXPECT_EQ(0x78787878, unit.if_info_num);
        });
        EXPECT_LT(30, failed);
    });
}

TEST(UnitInfoFault, CountsNoPacketsWhenReadingFails) {
    RunInPrivateWorld(kNetwork, [] {
        ReplaceDir("/sys");
        WriteFile("/sys/class/net/eth0/statistics/rx_packets", "77\n");
        const int failed = EveryCallFails(EIO, [] {
            const int count = COM_GetRxPackets("eth0");
            const std::string which = Fault::Which();
            EXPECT_EQ(which.empty() || which == "close" ? 77 : 0, count) << which;
        });
        EXPECT_EQ(3, failed);  // open, read, close
    });
}

}  // namespace
