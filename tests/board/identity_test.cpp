// Identity and SMART attributes of an attached disk. The board's kernel no longer has the driver
// that published them in /proc/ide, so the texts are made there of what the disk itself answers.

#include "dev/ide.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>

#include <string>

#include "board/support/board.h"
#include "dev/enumeration.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

// The value after "name:" in what hdparm -I prints, without the blanks around it.
std::string Field(const std::string &listing, const std::string &name) {
    const size_t at = listing.find(name + ":");
    EXPECT_NE(std::string::npos, at) << name << " in " << listing;
    const size_t begin = listing.find_first_not_of(" \t", at + name.size() + 1);
    const std::string value = listing.substr(begin, listing.find('\n', begin) - begin);
    return value.substr(0, value.find_last_not_of(' ') + 1);
}

std::string Trimmed(const char *pText) {
    const std::string text = pText;
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

// The text of the IDE driver: the little-endian words of a sector as "%04x", eight a line
// (drivers/ide/ide-proc.c).
std::string WordsText(const std::string &sector) {
    std::string text;
    for (size_t at = 0; at + 1 < sector.size(); at += 2) {
        char word[8];
        snprintf(word, sizeof word, "%02x%02x%c", uint8_t(sector[at + 1]), uint8_t(sector[at]),
                 at % 16 == 14 ? '\n' : ' ');
        text += word;
    }
    return text;
}

TEST(AttachedDisk, HasTheIdentityThatHdparmReports) {
    NEEDS_EMULATED_BOARD();
    const std::string node = AwaitDevice("BOARD DISK").node;
    const std::string listing = RunCommand("hdparm -I " + node);
    // "\n/dev/sda:\n", then the words as the IDE driver printed them.
    const std::string words = RunCommand("hdparm --Istdout " + node);
    RunInPrivateWorld(kMounts, [&] {
        ReplaceProc();
        WriteFile("/proc/ide/" + node.substr(5) + "/identify", words.substr(words.find(":\n") + 2));
        char serial[DEV_IDE_SERIAL_SIZE] = "";
        char firmware[DEV_IDE_FIRMWARE_SIZE] = "";
        char model[DEV_IDE_MODEL_SIZE] = "";
        const std::string text = Capture(
            [&] { EXPECT_EQ(0, Dev_GetDevIdentify(node.c_str(), serial, firmware, model)); });
        EXPECT_EQ("", text);
        EXPECT_EQ(Field(listing, "Serial Number"), Trimmed(serial));
        EXPECT_EQ(Field(listing, "Firmware Revision"), Trimmed(firmware));
        EXPECT_EQ(Field(listing, "Model Number"), Trimmed(model));
        EXPECT_EQ("BOARD DISK", Trimmed(model));
    });
}

// ATA PASS-THROUGH (16), PIO data-in, of SMART READ DATA (ACS-3 7.48.6): 30 entries of 12 bytes
// from byte 2, each with its id first and its raw value from byte 5.
TEST(AttachedDisk, HasTheSmartAttributesThatItAnswers) {
    NEEDS_EMULATED_BOARD();
    const std::string node = AwaitDevice("BOARD DISK").node;
    const TempDir dir;
    RunCommand("sg_raw -r 512 -o " + dir / "data" + " " + node +
               " 85 08 0e 00 d0 00 01 00 00 00 4f 00 c2 00 b0 00");
    const std::string data = ReadFile(dir / "data");
    ASSERT_EQ(512u, data.size());
    RunInPrivateWorld(kMounts, [&] {
        ReplaceProc();
        WriteFile("/proc/ide/" + node.substr(5) + "/smart_values", WordsText(data));
        int found = 0;
        for (size_t at = 2; at < 2 + 30 * 12; at += 12) {
            tSmartAttr attribute = {};
            attribute.id = static_cast<uint8_t>(data[at]);
            if (attribute.id == 0) {
                continue;
            }
            ++found;
            const std::string text =
                Capture([&] { EXPECT_EQ(0, Dev_GetSmartValue(node.c_str(), &attribute)); });
            EXPECT_EQ(static_cast<uint8_t>(data[at + 5]), attribute.value)
                << unsigned{attribute.id} << text;
        }
        EXPECT_GT(found, 0);
        tSmartAttr missing = {0xFE, 0};
        EXPECT_EQ(-1, Dev_GetSmartValue(node.c_str(), &missing));
    });
}

}  // namespace
