// Hexadecimal text of the kernel, and the identity and the health of a disk in it: 1 byte with the
// SMART attribute, then the text.

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "common/hex_text.h"
#include "dev/ide.h"
#include "fuzz/support/oracle.h"
#include "fuzz/support/target.h"
#include "fuzz/support/world.h"

FUZZ_TARGET(hex_text) {
    tSmartAttr attribute = {in.U8(), 0};
    const talvek::fuzz::Bytes content = in.Rest();
    const int fd = talvek::fuzz::OpenMemory(content);
    int length = -1;
    char *text = COM_ReadHexDataInStrFormat(fd, &length);
    std::string expected{content.begin(), content.end()};
    std::erase_if(expected,
                  [](char c) { return c != '\0' && strchr(" \t\n\v\f\r", c) != nullptr; });
    REQUIRE(text != nullptr && length == static_cast<int>(expected.size()));
    REQUIRE(memcmp(text, expected.c_str(), expected.size() + 1) == 0);
    free(text);
    close(fd);

    talvek::fuzz::World world;
    world.AddFiles({"/proc/ide/hda/identify", "/proc/ide/hda/smart_values"}, content);
    world.AddFile("/proc/mounts", {});
    talvek::fuzz::Out serial{DEV_IDE_SERIAL_SIZE};
    talvek::fuzz::Out firmware{DEV_IDE_FIRMWARE_SIZE};
    talvek::fuzz::Out model{DEV_IDE_MODEL_SIZE};
    const int result = Dev_GetDevIdentify("/dev/hda", serial.text(), firmware.text(), model.text());
    if (result == 0) {
        REQUIRE(serial.IsText() && firmware.IsText() && model.IsText());
    } else {
        REQUIRE(result == -1 && serial.Untouched() && firmware.Untouched() && model.Untouched());
    }
    const uint8_t id = attribute.id;
    const int found = Dev_GetSmartValue("/dev/hda", &attribute);
    REQUIRE(found == 0 || (found == -1 && attribute.value == 0));
    REQUIRE(attribute.id == id);
}
