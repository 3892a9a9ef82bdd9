// The header check of a package: 1 byte whose low bit makes the checksum good, then the package.

#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "service/package.h"

FUZZ_TARGET(package_header) {
    const bool seal = (in.U8() & 1) != 0;
    const talvek::fuzz::Block bytes{in.Rest()};
    auto *package = reinterpret_cast<tTalvekPkg *>(bytes.data());
    const auto received = static_cast<uint32_t>(bytes.size());
    if (received < sizeof *package) {
        REQUIRE(TALVEK_CheckPkgHeader(package, received) == 0);
        return;
    }
    if (seal) {
        package->chksum = TALVEK_CalcPkgChecksum(package);
    }
    unsigned sum = 0;
    for (size_t i = 0; i < offsetof(tTalvekPkg, chksum); i += 2) {
        sum ^= bytes.data()[i] | unsigned{bytes.data()[i + 1]} << 8;
    }
    REQUIRE(TALVEK_CalcPkgChecksum(package) == sum);
    const int type = TALVEK_CheckPkgHeader(package, received);
    const int packages = package->pkg_cnt_idx & TALVEK_PKG_CNT_MASK;
    const int index = package->pkg_cnt_idx >> TALVEK_PKG_IDX_SHIFT;
    const bool split = (package->ver_fragement & TALVEK_PKG_FRAGEMENT) != 0;
    const bool good = (package->ver_fragement & TALVEK_PKG_VER_MASK) == TALVEK_PKG_VERSION &&
                      (split ? packages >= 2 : packages == 1) && index <= packages &&
                      package->chksum == sum;
    REQUIRE(type == (good ? package->type : 0));
}
