#include "dev/ide.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "ide_fixture.h"
#include "support/canary.h"
#include "support/cancellation.h"
#include "support/capture.h"
#include "support/command.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

const std::string kSerial = "WD-0123456789";
const std::string kFirmware = "07.02E07";
const std::string kModel = "DISK 250GB-00AbC1";

std::string Filled(std::string text, size_t size) {
    text.resize(size, ' ');
    return text;
}

// Runs `body` with a /proc of its own that holds these files of the driver for the disk hda.
void WithDisk(const std::string &identify, const std::string &smart,
              const std::function<void()> &body) {
    RunInPrivateWorld(kMounts, [&] {
        ReplaceDir("/proc");
        WriteFile("/proc/ide/hda/identify", identify);
        WriteFile("/proc/ide/hda/smart_values", smart);
        body();
    });
}

void WithIdentity(const std::string &identify, const std::function<void()> &body) {
    WithDisk(identify, "", body);
}

void WithSmart(const std::string &smart, const std::function<void()> &body) {
    WithDisk("", smart, body);
}

std::string PlainIdentity() {
    return KernelText(Identity(kSerial, kFirmware, kModel));
}

struct Read {
    int result;
    std::string serial;
    std::string firmware;
    std::string model;
};

// Reads into outputs between canaries. An unchanged output becomes an empty text.
template <typename Query>
Read ReadInto(Query query, bool serial = true, bool firmware = true, bool model = true) {
    CanaryBuf sn{DEV_IDE_SERIAL_SIZE};
    CanaryBuf fw{DEV_IDE_FIRMWARE_SIZE};
    CanaryBuf name{DEV_IDE_MODEL_SIZE};
    Read read = {};
    read.result = query(serial ? sn.text() : nullptr, firmware ? fw.text() : nullptr,
                        model ? name.text() : nullptr);
    for (const auto &[pBuf, pText] :
         {std::pair{&sn, &read.serial}, {&fw, &read.firmware}, {&name, &read.model}}) {
        EXPECT_TRUE(pBuf->Intact());
        if (!pBuf->UntouchedFrom(0)) {
            *pText = std::string{pBuf->text(), pBuf->size() - 1};
            EXPECT_EQ('\0', pBuf->text()[pBuf->size() - 1]);
        }
    }
    return read;
}

Read Identify(const char *pDevPath) {
    return ReadInto([=](char *pSerial, char *pFwRev, char *pModel) {
        return Dev_GetDevIdentify(pDevPath, pSerial, pFwRev, pModel);
    });
}

Read IdentifyMount(const char *pMountPoint) {
    return ReadInto([=](char *pSerial, char *pFwRev, char *pModel) {
        return Dev_GetIDViaMount(pMountPoint, pSerial, pFwRev, pModel);
    });
}

void ExpectPlainIdentity(const Read &read) {
    EXPECT_EQ(0, read.result);
    EXPECT_EQ(Filled(kSerial, 20), read.serial);
    EXPECT_EQ(Filled(kFirmware, 8), read.firmware);
    EXPECT_EQ(Filled(kModel, 40), read.model);
}

void ExpectNothing(const Read &read) {
    EXPECT_EQ(-1, read.result);
    EXPECT_EQ("", read.serial + read.firmware + read.model);
}

TEST(DevIdentify, ReadsTheTextsWithTheirBlanks) {
    WithIdentity(PlainIdentity(), [] {
        EXPECT_EQ(Lines{}, CaptureLog([] { ExpectPlainIdentity(Identify("/dev/hda")); }));
    });
}

TEST(DevIdentify, FillsTheTextsToTheirLastCharacter) {
    const std::string serial = "ABCDEFGHIJKLMNOPQRST";
    const std::string model = "0123456789abcdefghijklmnopqrstuvwxyz-+/!";
    WithIdentity(KernelText(Identity(serial, "12345678", model)), [&] {
        const Read read = Identify("hda");
        EXPECT_EQ(0, read.result);
        EXPECT_EQ(serial, read.serial);
        EXPECT_EQ("12345678", read.firmware);
        EXPECT_EQ(model, read.model);
    });
}

TEST(DevIdentify, UsesTheLastComponentOfThePath) {
    WithIdentity(PlainIdentity(), [] {
        for (const char *pPath : {"/dev/hda", "hda", "/hda", "/dev/disk/hda", "./hda"}) {
            ExpectPlainIdentity(Identify(pPath));
        }
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      for (const char *pPath : {"/dev/hdb", "hd", "hda1", "", "/", "/dev/hda/"}) {
                          ExpectNothing(Identify(pPath));
                      }
                      ExpectNothing(Identify(std::string(255, 'n').c_str()));
                      ExpectNothing(Identify(std::string(4000, 'n').c_str()));
                  }));
    });
}

TEST(DevIdentify, FillsTheOutputsThatAreGiven) {
    WithIdentity(PlainIdentity(), [] {
        for (unsigned asked = 1; asked < 8; ++asked) {
            const bool serial = (asked & 1) != 0;
            const bool firmware = (asked & 2) != 0;
            const bool model = (asked & 4) != 0;
            const Read read = ReadInto(
                [](char *pSerial, char *pFwRev, char *pModel) {
                    return Dev_GetDevIdentify("hda", pSerial, pFwRev, pModel);
                },
                serial, firmware, model);
            EXPECT_EQ(0, read.result);
            EXPECT_EQ(serial ? Filled(kSerial, 20) : "", read.serial);
            EXPECT_EQ(firmware ? Filled(kFirmware, 8) : "", read.firmware);
            EXPECT_EQ(model ? Filled(kModel, 40) : "", read.model);
        }
    });
}

TEST(DevIdentify, RefusesMissingArguments) {
    const char *pPath = "/dev/hda";
    char line[200];
    snprintf(line, sizeof line,
             "DEV:Dev_GetDevIdentify(): Invalid input : (pDevPath, pSN, pFwRev, pModel) = "
             "(%p, (nil), (nil), (nil))",
             static_cast<const void *>(pPath));
    EXPECT_EQ((Lines{line,
                     "DEV:Dev_GetDevIdentify(): Invalid input : (pDevPath, pSN, pFwRev, pModel) = "
                     "((nil), (nil), (nil), (nil))"}),
              CaptureLog([&] {
                  EXPECT_EQ(-1, Dev_GetDevIdentify(pPath, nullptr, nullptr, nullptr));
                  EXPECT_EQ(-1, Dev_GetDevIdentify(nullptr, nullptr, nullptr, nullptr));
                  ExpectNothing(Identify(nullptr));  // not logged
              }));
}

// The model ends with word 46, so 94 bytes are needed: 188 digits.
TEST(DevIdentify, NeedsTheWordsUpToTheModel) {
    std::string digits = PlainIdentity();
    std::erase_if(digits, [](char c) { return c == ' ' || c == '\n'; });
    ASSERT_EQ(1024u, digits.size());
    digits = digits.substr(0, 200);
    WithIdentity("", [&digits] {
        for (size_t length = 0; length <= digits.size(); ++length) {
            WriteFile("/proc/ide/hda/identify", digits.substr(0, length));
            Read read = {};
            const Lines lines = CaptureLog([&] { read = Identify("hda"); });
            if (length >= 188) {
                ExpectPlainIdentity(read);
                EXPECT_EQ(Lines{}, lines);
                continue;
            }
            ExpectNothing(read);
            EXPECT_EQ(Lines{"DEV:Dev_GetDevIdentify(): count error : (count, size, limit) = (" +
                            std::to_string(length / 2) + ", " + std::to_string(length) + ", 94)"},
                      lines);
        }
    });
}

TEST(DevIdentify, AcceptsAnyCharactersAndAnyBytes) {
    // Upper case, no white space; bytes that end a text are copied too.
    std::string digits(188, '0');
    digits.replace(40, 8, "4142FF0a");
    digits.replace(92, 4, "zz4F");  // "zz" reads as 0
    WithIdentity(digits, [] {
        const Read read = Identify("hda");
        EXPECT_EQ(0, read.result);
        EXPECT_EQ("AB\xFF\n" + std::string(16, '\0'), read.serial);
        EXPECT_EQ(std::string("\0O", 2) + std::string(6, '\0'), read.firmware);
        EXPECT_EQ(std::string(40, '\0'), read.model);
    });
}

TEST(DevIdentify, OutlastsCancellation) {
    WithIdentity(PlainIdentity(), [] {
        EXPECT_TRUE(OutlastsCancellation([] { ExpectPlainIdentity(Identify("hda")); }));
    });
}

TEST(DevIdentify, LogsAFailedRead) {
    RunInPrivateWorld(kMounts, [] {
        ReplaceDir("/proc");
        std::filesystem::create_directories("/proc/ide/hda/identify");
        const Lines lines = CaptureLog([] { ExpectNothing(Identify("hda")); });
        ASSERT_EQ(1u, lines.size());
        EXPECT_NE(std::string::npos, lines[0].find("error : Is a directory")) << lines[0];
    });
}

TEST(DevIdentify, AgreesWithHdparm) {
    const TempDir dir;
    WriteFile(dir / "identify", PlainIdentity());
    const std::string output = RunCommand("hdparm --Istdin < " + dir / "identify");
    const auto valueOf = [&output](const std::string &name) {
        const size_t at = output.find(name);
        if (at == std::string::npos) {
            return "no " + name + " in " + output;
        }
        const size_t begin = output.find_first_not_of(" \t", at + name.size());
        std::string value = output.substr(begin, output.find('\n', begin) - begin);
        value.erase(value.find_last_not_of(' ') + 1);
        return value;
    };
    WithIdentity(PlainIdentity(), [&] {
        const Read read = Identify("hda");
        EXPECT_EQ(Filled(valueOf("Serial Number:"), 20), read.serial);
        EXPECT_EQ(Filled(valueOf("Firmware Revision:"), 8), read.firmware);
        EXPECT_EQ(Filled(valueOf("Model Number:"), 40), read.model);
    });
}

constexpr const char *kMountList =
    "/dev/root / ext3 rw 0 0\n"
    "/dev/hda1 /mnt\\040one ext3 rw 0 0\n"
    "/dev/hdb /two ext3 rw 0 0\n"
    "/dev/hda12 /twelve ext3 rw 0 0\n"
    "/dev/hda /whole ext3 rw 0 0\n"
    "none /none tmpfs rw 0 0\n"
    "7 /number tmpfs rw 0 0\n"
    "/dev/hdb1 /stack ext3 rw 0 0\n"
    "/dev/hda2 /stack ext3 rw 0 0\n";

TEST(IdViaMount, FindsTheDiskOfAMount) {
    WithIdentity(PlainIdentity(), [] {
        WriteFile("/proc/mounts", kMountList);
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      for (const char *pDir : {"/mnt one", "/twelve", "/whole", "/stack"}) {
                          ExpectPlainIdentity(IdentifyMount(pDir));
                      }
                      for (const char *pDir : {"/", "/two", "/none", "/number", "/absent", ""}) {
                          ExpectNothing(IdentifyMount(pDir));
                      }
                  }));
    });
}

TEST(IdViaMount, PrefersTheMountedNameToItsDisk) {
    WithIdentity(PlainIdentity(), [] {
        WriteFile("/proc/ide/hda12/identify", KernelText(Identity("OWN", "OWN", "OWN")));
        WriteFile("/proc/mounts", kMountList);
        EXPECT_EQ(Filled("OWN", 20), IdentifyMount("/twelve").serial);
        ExpectPlainIdentity(IdentifyMount("/mnt one"));
    });
}

TEST(IdViaMount, FillsTheOutputsThatAreGiven) {
    WithIdentity(PlainIdentity(), [] {
        WriteFile("/proc/mounts", kMountList);
        char model[DEV_IDE_MODEL_SIZE];
        EXPECT_EQ(0, Dev_GetIDViaMount("/whole", nullptr, nullptr, model));
        EXPECT_EQ(Filled(kModel, 40), model);
        char firmware[DEV_IDE_FIRMWARE_SIZE];
        EXPECT_EQ(0, Dev_GetIDViaMount("/whole", nullptr, firmware, nullptr));
        EXPECT_EQ(kFirmware, firmware);
        char serial[DEV_IDE_SERIAL_SIZE];
        EXPECT_EQ(0, Dev_GetIDViaMount("/whole", serial, nullptr, nullptr));
        EXPECT_EQ(Filled(kSerial, 20), serial);
    });
}

TEST(IdViaMount, RefusesMissingArguments) {
    const char *pDir = "/whole";
    char line[100];
    snprintf(line, sizeof line, "DEV:Dev_GetIDViaMount(): (%p, (nil)) : Null ptr",
             static_cast<const void *>(pDir));
    EXPECT_EQ((Lines{line, "DEV:Dev_GetIDViaMount(): ((nil), (nil)) : Null ptr"}), CaptureLog([&] {
                  char text[DEV_IDE_MODEL_SIZE] = "same";
                  EXPECT_EQ(-1, Dev_GetIDViaMount(pDir, nullptr, nullptr, nullptr));
                  EXPECT_EQ(-1, Dev_GetIDViaMount(nullptr, nullptr, nullptr, text));
                  EXPECT_STREQ("same", text);
              }));
}

TEST(IdViaMount, LogsThatThereIsNoListOfMounts) {
    WithIdentity(PlainIdentity(), [] {
        EXPECT_EQ(
            Lines{
                "DEV:Dev_GetDevViaMount(): fopen(/proc/mounts) error : No such file or directory"},
            CaptureLog([] { ExpectNothing(IdentifyMount("/whole")); }));
    });
}

// The value, or -1 when there is none and the attribute is unchanged.
int ValueOf(const char *pDevPath, uint8_t id) {
    tSmartAttr attribute = {id, 0xEE};
    const int result = Dev_GetSmartValue(pDevPath, &attribute);
    EXPECT_EQ(id, attribute.id);
    if (result == 0) {
        return attribute.value;
    }
    EXPECT_EQ(-1, result);
    EXPECT_EQ(0xEE, attribute.value);
    return -1;
}

// SMART data with ids 1 to 29 in the first 29 of the 30 attributes and the temperature in the last.
Sector FullSmart() {
    Sector sector = {};
    sector[0] = 0x10;  // revision
    for (uint8_t entry = 0; entry < 29; ++entry) {
        const auto id = static_cast<uint8_t>(entry + 1);
        PutAttribute(sector, entry, id, static_cast<uint8_t>(200 - id));
    }
    PutAttribute(sector, 29, DEV_SMART_TEMPERATURE, 38);
    return sector;
}

TEST(SmartValue, FindsEachOfTheThirtyAttributes) {
    WithSmart(KernelText(FullSmart()), [] {
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      for (uint8_t id = 1; id < 30; ++id) {
                          EXPECT_EQ(200 - id, ValueOf("/dev/hda", id));
                      }
                      EXPECT_EQ(38, ValueOf("/dev/hda", 0xC2));
                      EXPECT_EQ(38, ValueOf("hda", 0xC2));
                      EXPECT_EQ(-1, ValueOf("hda", 30));
                      EXPECT_EQ(-1, ValueOf("hda", 0xFF));
                  }));
    });
}

TEST(SmartValue, FindsTheFirstOfEqualIdsAndTheFirstEmptyEntryForZero) {
    Sector sector = {};
    PutAttribute(sector, 0, 5, 11);
    PutAttribute(sector, 1, 0, 12);
    PutAttribute(sector, 2, 5, 13);
    PutAttribute(sector, 3, 0, 14);
    WithSmart(KernelText(sector), [] {
        EXPECT_EQ(11, ValueOf("hda", 5));
        EXPECT_EQ(12, ValueOf("hda", 0));
        // Other bytes than the ids are not compared.
        EXPECT_EQ(-1, ValueOf("hda", 0x64));
        EXPECT_EQ(-1, ValueOf("hda", 13));
    });
}

// The bytes after the 30 attributes, up to byte 511, are searched in steps of 12 too.
TEST(SmartValue, SearchesToTheEndOfTheText) {
    Sector sector = {};
    for (size_t entry = 0; entry < 30; ++entry) {
        PutAttribute(sector, entry, 1, 0);
    }
    for (size_t entry = 30; entry < 42; ++entry) {
        PutAttribute(sector, entry, 2, 0);
    }
    // The 43rd begins with byte 506. Its raw byte, 506 + 5 = 511, is the last but one of the text.
    sector[506] = 0xC2;
    sector[511] = 77;
    WithSmart(KernelText(sector), [] {
        EXPECT_EQ(77, ValueOf("hda", 0xC2));
        EXPECT_EQ(-1, ValueOf("hda", 3));
    });
}

// Ids are bytes 3, 15, 27 and so on of the text, two digits a byte; the raw byte is three further
// on.
TEST(SmartValue, EndsWithTheText) {
    std::string digits = KernelText(FullSmart());
    std::erase_if(digits, [](char c) { return c == ' ' || c == '\n'; });
    WithSmart("", [&digits] {
        for (size_t length = 0; length <= 90; ++length) {
            WriteFile("/proc/ide/hda/smart_values", digits.substr(0, length));
            EXPECT_EQ(Lines{}, CaptureLog([length] {
                          // A text of up to 29 characters is not searched.
                          EXPECT_EQ(length >= 30 ? 199 : -1, ValueOf("hda", 1)) << length;
                          // The raw bytes of the next entries are characters 36, 37 and 60, 61;
                          // both are needed.
                          EXPECT_EQ(length >= 38 ? 198 : -1, ValueOf("hda", 2)) << length;
                          EXPECT_EQ(length >= 62 ? 197 : -1, ValueOf("hda", 3)) << length;
                          // There are no ids beyond the end, not even empty ones.
                          EXPECT_EQ(-1, ValueOf("hda", 0)) << length;
                      }));
        }
    });
}

TEST(SmartValue, ReadsUpperCaseAndUnbrokenText) {
    // Bytes 0 to 15: the id is byte 3, the raw byte byte 6.
    WithSmart("001000C20000ABCD0000000000000000", [] { EXPECT_EQ(0xAB, ValueOf("hda", 0xC2)); });
}

TEST(SmartValue, OutlastsCancellation) {
    WithSmart(KernelText(FullSmart()),
              [] { EXPECT_TRUE(OutlastsCancellation([] { EXPECT_EQ(199, ValueOf("hda", 1)); })); });
}

TEST(SmartValue, IsSilentWithoutADisk) {
    WithSmart("", [] {
        EXPECT_EQ(Lines{}, CaptureLog([] {
                      EXPECT_EQ(-1, ValueOf("/dev/hdb", 0xC2));
                      EXPECT_EQ(-1, ValueOf("", 0xC2));
                      EXPECT_EQ(-1, ValueOf("hda", 0xC2));
                  }));
    });
}

TEST(SmartValue, LogsOtherFailuresToOpen) {
    WithSmart("", [] {
        WriteFile("/proc/ide/hdc", "");
        const std::string longName(256, 'n');
        const Lines lines = CaptureLog([&] {
            EXPECT_EQ(-1, ValueOf("/dev/hdc", 0xC2));
            EXPECT_EQ(-1, ValueOf(longName.c_str(), 0xC2));
        });
        ASSERT_EQ(2u, lines.size());
        EXPECT_EQ(
            "DEV:Dev_GetSmartValue(): open(/proc/ide/hdc/smart_values) error : Not a directory",
            lines[0]);
        EXPECT_EQ("DEV:Dev_GetSmartValue(): open(/proc/ide/" + longName +
                      "/smart_values) error : File name too long",
                  lines[1]);
    });
}

TEST(SmartValue, RefusesMissingArguments) {
    tSmartAttr attribute = {0xC2, 7};
    char line[100];
    snprintf(line, sizeof line,
             "DEV:Dev_GetSmartValue(): Invalid Input : (pDev, pSmart) = ((null), %p)",
             static_cast<void *>(&attribute));
    EXPECT_EQ((Lines{"DEV:Dev_GetSmartValue(): Invalid Input : (pDev, pSmart) = (/dev/hda, (nil))",
                     line}),
              CaptureLog([&] {
                  EXPECT_EQ(-1, Dev_GetSmartValue("/dev/hda", nullptr));
                  EXPECT_EQ(-1, Dev_GetSmartValue(nullptr, &attribute));
              }));
    EXPECT_EQ(7, attribute.value);
}

}  // namespace
