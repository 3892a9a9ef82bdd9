#ifndef TALVEK_TESTS_DEV_IDE_FIXTURE_H
#define TALVEK_TESTS_DEV_IDE_FIXTURE_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <array>
#include <string>

// The 512 bytes of a disk's identity or SMART data, and the text that the kernel's IDE driver makes
// of them: words of four hexadecimal digits, eight a line (Linux 5.13, drivers/ide/ide-proc.c,
// proc_ide_read_identify: "%04x%c").

namespace talvek::test {

// Bytes as the disk sends them: the low byte of each word first.
using Sector = std::array<uint8_t, 512>;

inline std::string KernelText(const Sector &sector) {
    std::string text;
    for (size_t word = 0; word < sector.size() / 2; ++word) {
        char digits[8];
        snprintf(digits, sizeof digits, "%04x%c", sector[2 * word + 1] << 8 | sector[2 * word],
                 word % 8 == 7 ? '\n' : ' ');
        text += digits;
    }
    return text;
}

// Stores an ATA string, filled with blanks: its first character is the high byte of the first word.
inline void PutAtaString(Sector &sector, size_t firstWord, size_t words, std::string text) {
    text.resize(2 * words, ' ');
    for (size_t i = 0; i < words; ++i) {
        sector[2 * (firstWord + i) + 1] = static_cast<uint8_t>(text[2 * i]);
        sector[2 * (firstWord + i)] = static_cast<uint8_t>(text[2 * i + 1]);
    }
}

// ATA IDENTIFY DEVICE: serial number in words 10 to 19, firmware revision in 23 to 26, model in 27
// to 46 (ATA/ATAPI-6, 8.15). The other words are those of a plain disk; the bytes around the
// strings do not occur in them.
inline Sector Identity(const std::string &serial, const std::string &firmware,
                       const std::string &model) {
    Sector sector = {};
    const auto put = [&sector](size_t word, unsigned value) {
        sector[2 * word] = static_cast<uint8_t>(value);
        sector[2 * word + 1] = static_cast<uint8_t>(value >> 8);
    };
    put(0, 0x0040);  // ATA device, fixed
    put(9, 0x0109);
    put(20, 0x0120);
    put(22, 0x0122);
    put(47, 0x8010);  // 16 sectors a READ MULTIPLE
    put(49, 0x0F00);  // LBA, DMA
    put(80, 0x007E);  // ATA-1 to ATA-6
    PutAtaString(sector, 10, 10, serial);
    PutAtaString(sector, 23, 4, firmware);
    PutAtaString(sector, 27, 20, model);
    return sector;
}

// One of the 30 attributes of SMART READ DATA, which follow the revision of two bytes. Each has 12
// bytes, the id first and six raw bytes from byte 5 on (SFF-8035i).
inline void PutAttribute(Sector &sector, size_t entry, uint8_t id, uint8_t raw) {
    const size_t at = 2 + 12 * entry;
    sector[at] = id;
    sector[at + 1] = 0x02;                        // flags, low byte
    sector[at + 3] = 0x64;                        // value: 100
    sector[at + 4] = 0x63;                        // worst: 99
    sector[at + 5] = raw;                         // raw, lowest byte
    sector[at + 6] = static_cast<uint8_t>(~raw);  // and the next ones
    sector[at + 7] = 0x5A;
}

}  // namespace talvek::test

#endif
