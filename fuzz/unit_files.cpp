// The unit's own files (identity, port, revision, host name) and an MD5 side file: 1 byte for the
// size of the caller's buffer, then the content of every file and of the kernel's answers.

#include <string.h>

#include "common/digest.h"
#include "common/file_content.h"
#include "common/unit_info.h"
#include "fuzz/support/drive.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

namespace {

bool HasText(const char *pText, size_t size) {
    return memchr(pText, 0, size) != nullptr;
}

}  // namespace

FUZZ_TARGET(unit_files) {
    const int size = in.U8();
    const talvek::fuzz::Bytes content = in.Rest();
    talvek::fuzz::World world;
    world.AddFiles({"/etc/Model", "/etc/Proj", "/etc/Note", "/etc/Port", "/etc/SVN",
                    "/etc/hostname", "/etc/resolv.conf", "/proc/net/route", "/data", "/data.md5"},
                   content);
    talvek::fuzz::Input answers{content};
    const talvek::fuzz::Drive kernel{answers};
    {
        talvek::fuzz::Out out{static_cast<size_t>(size < 8 ? 8 : size)};
        out.text()[0] = '\0';
        const int result = COM_GetFileContent("/etc/Model", out.text(), size);
        REQUIRE(result == 0 || result == -1);
        REQUIRE(out.IsText());
    }
    {
        talvek::fuzz::Out out{COM_SVN_REVISION_SIZE};
        const int result = COM_GetSvnRevision(out.text());
        REQUIRE(result == 0 ? out.IsText() : result == -1 && out.Untouched());
    }
    {
        talvek::fuzz::Out out{COM_PORT_SIZE, 0};
        REQUIRE(COM_GetPort(out.text(), COM_PORT_SIZE) <= 0 && out.IsText());
    }
    {
        talvek::fuzz::Out out{sizeof(tUnitNetInfo)};
        auto *unit = reinterpret_cast<tUnitNetInfo *>(out.bytes());
        const int result = COM_GetUnitNetInfo(unit, "eth0");
        REQUIRE(result <= 0);
        REQUIRE(HasText(unit->model, sizeof unit->model) && HasText(unit->proj, sizeof unit->proj));
        REQUIRE(HasText(unit->name, sizeof unit->name) && HasText(unit->ip, sizeof unit->ip));
        REQUIRE(HasText(unit->port, sizeof unit->port) && HasText(unit->mac, sizeof unit->mac));
        REQUIRE(HasText(unit->netmask, sizeof unit->netmask) &&
                HasText(unit->gateway, sizeof unit->gateway) &&
                HasText(unit->dns, sizeof unit->dns) && HasText(unit->dev, sizeof unit->dev) &&
                HasText(unit->note, sizeof unit->note));
    }
    // The content is no list of its own digest.
    REQUIRE(COM_CheckFileMD5("/data", nullptr) == -1);
}
