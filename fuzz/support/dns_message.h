#ifndef TALVEK_FUZZ_SUPPORT_DNS_MESSAGE_H
#define TALVEK_FUZZ_SUPPORT_DNS_MESSAGE_H

#include <stdint.h>

#include <array>
#include <vector>

#include "fuzz/support/input.h"

namespace talvek::fuzz {

// Builds a DNS message from the bytes, so that counts, names and records fit each other often. Each
// step takes one byte, whose value modulo 8 decides:
//
//   0   a header of 12 bytes: the identifier and flags of a good response, and three counts below
//       16
//   1   a label and its bytes      2   the end of a name
//   3   a compression pointer; the step's upper bits are the upper bits of its target
//   4   an address record without its owner: type, class, time to live, length 4, address
//   5   a mail exchanger without owner and name: type, class, time to live, length, preference
//   6   bytes unchanged            7   one byte at any place of the message is replaced
inline std::vector<uint8_t> BuildDnsMessage(Input &in) {
    constexpr size_t kMost = 1200;
    std::vector<uint8_t> message;
    message.reserve(kMost + UINT8_MAX);
    const auto add = [&message](Bytes bytes) {
        message.insert(message.end(), bytes.begin(), bytes.end());
    };
    while (!in.empty() && message.size() < kMost) {
        const uint8_t step = in.U8();
        switch (step % 8) {
            case 0: {
                const uint8_t answers = in.U8() % 16;
                const uint8_t authorities = in.U8() % 16;
                const uint8_t additional = in.U8() % 16;
                add(std::array<uint8_t, 12>{0xA9, 0xFA, 0x81, 0x80, 0, 1, 0, answers, 0,
                                            authorities, 0, additional});
                break;
            }
            case 1: {
                const Bytes label = in.Take(in.U8() % 64);
                message.push_back(static_cast<uint8_t>(label.size()));
                add(label);
                break;
            }
            case 2:
                message.push_back(0);
                break;
            case 3:
                message.push_back(static_cast<uint8_t>(0xC0 | step >> 3));
                message.push_back(in.U8());
                break;
            case 4:
                add(std::array<uint8_t, 10>{0, 1, 0, 1, 0, 0, 0, 60, 0, 4});
                add(in.Take(4));
                break;
            case 5:
                add(std::array<uint8_t, 12>{0, 15, 0, 1, 0, 0, 0, 60, 0, in.U8(), 0, in.U8()});
                break;
            case 6:
                add(in.Take(in.U8()));
                break;
            case 7: {
                const size_t at = in.U16();
                const uint8_t value = in.U8();
                if (!message.empty()) {
                    message[at % message.size()] = value;
                }
                break;
            }
        }
    }
    return message;
}

}  // namespace talvek::fuzz

#endif
