// What a technician types into the device menu; the drives' answers are empty.

#include <string.h>

#include "dev/test_menu.h"
#include "fuzz/support/drive.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

FUZZ_TARGET(menu_input) {
    const talvek::fuzz::Bytes typed = in.Rest();
    talvek::fuzz::World world;
    world.AddFile("/input", typed);
    world.AddFiles({"/proc/mounts", "/proc/partitions"}, {});
    const talvek::fuzz::Drive nothing{in};
    FILE *input = fopen("/input", "r");
    REQUIRE(input != nullptr);
    talvek::fuzz::Out out{sizeof(tDevTestMenu), 0};
    auto *state = reinterpret_cast<tDevTestMenu *>(out.bytes());
    REQUIRE(Dev_RunTestMenu(state, input) == 0);
    fclose(input);
    REQUIRE(memchr(state->sgName, 0, sizeof state->sgName) != nullptr);
    REQUIRE(memchr(state->sdName, 0, sizeof state->sdName) != nullptr);
    REQUIRE(memchr(state->devName, 0, sizeof state->devName) != nullptr);
}
