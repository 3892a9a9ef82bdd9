// MD5 and SHA-1: the two algorithms of the standards, and digests of files.

#include "common/digest.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <bit>

#include "base/cancel_guard.h"
#include "base/heap_buf.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "common/file_content.h"
#include "common/internal/module_log.h"

namespace {

constexpr size_t kBlockSize = COM_DIGEST_BLOCK_SIZE;
constexpr size_t kLengthOffset = 56;  // the last block ends with the length in bits, 8 bytes
// Small enough for a thread with a stack of 16 KiB. Larger reads are not measurably faster.
constexpr size_t kReadSize = 4096;
constexpr size_t kSideFileSize = 256;

// A bounded reader would cost 13 % of the throughput here. The callers pass whole blocks only.
static_assert(std::endian::native == std::endian::little, "words are loaded in memory order");

uint32_t LoadLittle(const uint8_t *pBytes) {
    uint32_t word;
    memcpy(&word, pBytes, sizeof word);
    return word;
}

uint32_t LoadBig(const uint8_t *pBytes) {
    return __builtin_bswap32(LoadLittle(pBytes));
}

void StoreLittle(uint8_t *pBytes, uint32_t word) {
    memcpy(pBytes, &word, sizeof word);
}

void StoreBig(uint8_t *pBytes, uint32_t word) {
    StoreLittle(pBytes, __builtin_bswap32(word));
}

// docs/decisions/digests.md: why the steps are written out.
//
// RFC 1321, 3.4: four rounds of sixteen steps. Each step depends on the register x of the step
// before it, so the functions use x last. F and G are written with one operation less than in the
// standard.
struct Md5F {
    static uint32_t Add(uint32_t sum, uint32_t x, uint32_t y, uint32_t z) {
        return sum + (z ^ (x & (y ^ z)));
    }
};
struct Md5G {
    // The two terms share no bit, so they can be added separately.
    static uint32_t Add(uint32_t sum, uint32_t x, uint32_t y, uint32_t z) {
        sum += y & ~z;
        return sum + (x & z);
    }
};
struct Md5H {
    static uint32_t Add(uint32_t sum, uint32_t x, uint32_t y, uint32_t z) {
        return sum + (x ^ (y ^ z));
    }
};
struct Md5I {
    static uint32_t Add(uint32_t sum, uint32_t x, uint32_t y, uint32_t z) {
        return sum + (y ^ (x | ~z));
    }
};

template <typename Function, int kShift>
[[gnu::always_inline]] inline void Md5Step(uint32_t &a, uint32_t b, uint32_t c, uint32_t d,
                                           uint32_t word, uint32_t sine) {
    a = b + std::rotl(Function::Add(a + (word + sine), b, c, d), kShift);
}

// Four steps, after which each register is in its place again.
template <typename Function, int kS0, int kS1, int kS2, int kS3>
[[gnu::always_inline]] inline void Md5Steps(uint32_t *r, const uint32_t *x, const int (&k)[4],
                                            const uint32_t (&t)[4]) {
    Md5Step<Function, kS0>(r[0], r[1], r[2], r[3], x[k[0]], t[0]);
    Md5Step<Function, kS1>(r[3], r[0], r[1], r[2], x[k[1]], t[1]);
    Md5Step<Function, kS2>(r[2], r[3], r[0], r[1], x[k[2]], t[2]);
    Md5Step<Function, kS3>(r[1], r[2], r[3], r[0], x[k[3]], t[3]);
}

void Md5Blocks(uint32_t (&state)[4], const uint8_t *pData, size_t count) {
    uint32_t r[4] = {state[0], state[1], state[2], state[3]};
    for (; count > 0; --count, pData += kBlockSize) {
        uint32_t x[16];
        for (size_t i = 0; i < 16; ++i) {
            x[i] = LoadLittle(pData + 4 * i);
        }
        const uint32_t before[4] = {r[0], r[1], r[2], r[3]};

        Md5Steps<Md5F, 7, 12, 17, 22>(r, x, {0, 1, 2, 3},
                                      {0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee});
        Md5Steps<Md5F, 7, 12, 17, 22>(r, x, {4, 5, 6, 7},
                                      {0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501});
        Md5Steps<Md5F, 7, 12, 17, 22>(r, x, {8, 9, 10, 11},
                                      {0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be});
        Md5Steps<Md5F, 7, 12, 17, 22>(r, x, {12, 13, 14, 15},
                                      {0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821});

        Md5Steps<Md5G, 5, 9, 14, 20>(r, x, {1, 6, 11, 0},
                                     {0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa});
        Md5Steps<Md5G, 5, 9, 14, 20>(r, x, {5, 10, 15, 4},
                                     {0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8});
        Md5Steps<Md5G, 5, 9, 14, 20>(r, x, {9, 14, 3, 8},
                                     {0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed});
        Md5Steps<Md5G, 5, 9, 14, 20>(r, x, {13, 2, 7, 12},
                                     {0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a});

        Md5Steps<Md5H, 4, 11, 16, 23>(r, x, {5, 8, 11, 14},
                                      {0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c});
        Md5Steps<Md5H, 4, 11, 16, 23>(r, x, {1, 4, 7, 10},
                                      {0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70});
        Md5Steps<Md5H, 4, 11, 16, 23>(r, x, {13, 0, 3, 6},
                                      {0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05});
        Md5Steps<Md5H, 4, 11, 16, 23>(r, x, {9, 12, 15, 2},
                                      {0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665});

        Md5Steps<Md5I, 6, 10, 15, 21>(r, x, {0, 7, 14, 5},
                                      {0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039});
        Md5Steps<Md5I, 6, 10, 15, 21>(r, x, {12, 3, 10, 1},
                                      {0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1});
        Md5Steps<Md5I, 6, 10, 15, 21>(r, x, {8, 15, 6, 13},
                                      {0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1});
        Md5Steps<Md5I, 6, 10, 15, 21>(r, x, {4, 11, 2, 9},
                                      {0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391});

        for (size_t i = 0; i < 4; ++i) {
            r[i] += before[i];
        }
    }
    memcpy(state, r, sizeof r);
}

// FIPS 180-1, section 7: eighty steps; the message schedule is kept in sixteen words.
struct ShaChoose {
    static constexpr uint32_t kConstant = 0x5A827999;
    static uint32_t Add(uint32_t sum, uint32_t x, uint32_t y, uint32_t z) {
        return sum + (z ^ (x & (y ^ z)));
    }
};
template <uint32_t kValue>
struct ShaParity {
    static constexpr uint32_t kConstant = kValue;
    static uint32_t Add(uint32_t sum, uint32_t x, uint32_t y, uint32_t z) {
        return sum + (x ^ y ^ z);
    }
};
struct ShaMajority {
    static constexpr uint32_t kConstant = 0x8F1BBCDC;
    // The two terms share no bit, so they can be added separately.
    static uint32_t Add(uint32_t sum, uint32_t x, uint32_t y, uint32_t z) {
        sum += y & z;
        return sum + (x & (y ^ z));
    }
};

// One step. e becomes TEMP of the standard, so the caller rotates the registers by their order.
template <typename Function>
[[gnu::always_inline]] inline void Sha1Step(uint32_t a, uint32_t &b, uint32_t c, uint32_t d,
                                            uint32_t &e, uint32_t word) {
    e = Function::Add(e + (word + Function::kConstant), b, c, d) + std::rotl(a, 5);
    b = std::rotl(b, 30);
}

[[gnu::always_inline]] inline uint32_t Sha1Word(uint32_t *w, size_t t) {
    if (t >= 16) {
        w[t & 15] = std::rotl(w[(t + 13) & 15] ^ w[(t + 8) & 15] ^ w[(t + 2) & 15] ^ w[t & 15], 1);
    }
    return w[t & 15];
}

// Twenty steps rotate the five registers four times.
template <typename Function, size_t kFirst>
[[gnu::always_inline]] inline void Sha1Round(uint32_t *r, uint32_t *w) {
#pragma GCC unroll 4
    for (size_t t = kFirst; t < kFirst + 20; t += 5) {
        Sha1Step<Function>(r[0], r[1], r[2], r[3], r[4], Sha1Word(w, t));
        Sha1Step<Function>(r[4], r[0], r[1], r[2], r[3], Sha1Word(w, t + 1));
        Sha1Step<Function>(r[3], r[4], r[0], r[1], r[2], Sha1Word(w, t + 2));
        Sha1Step<Function>(r[2], r[3], r[4], r[0], r[1], Sha1Word(w, t + 3));
        Sha1Step<Function>(r[1], r[2], r[3], r[4], r[0], Sha1Word(w, t + 4));
    }
}

void Sha1Blocks(uint32_t (&state)[5], const uint8_t *pData, size_t count) {
    uint32_t r[5] = {state[0], state[1], state[2], state[3], state[4]};
    for (; count > 0; --count, pData += kBlockSize) {
        uint32_t w[16];
        for (size_t i = 0; i < 16; ++i) {
            w[i] = LoadBig(pData + 4 * i);
        }
        const uint32_t before[5] = {r[0], r[1], r[2], r[3], r[4]};
        Sha1Round<ShaChoose, 0>(r, w);
        Sha1Round<ShaParity<0x6ED9EBA1>, 20>(r, w);
        Sha1Round<ShaMajority, 40>(r, w);
        Sha1Round<ShaParity<0xCA62C1D6>, 60>(r, w);
        for (size_t i = 0; i < 5; ++i) {
            r[i] += before[i];
        }
    }
    memcpy(state, r, sizeof r);
}

// Passes whole blocks to `blocks`. `block` holds the `held` bytes that were left over by the calls
// before, and receives those that are left over by this one.
template <typename Blocks>
void AddData(uint8_t (&block)[kBlockSize], size_t held, const void *pData, size_t size,
             Blocks blocks) {
    const uint8_t *pBytes = static_cast<const uint8_t *>(pData);
    if (held > 0) {
        const size_t room = kBlockSize - held;
        const size_t taken = std::min(size, room);
        memcpy(block + held, pBytes, taken);
        if (taken < room) {
            return;
        }
        blocks(block, 1);
        pBytes += taken;
        size -= taken;
    }
    const size_t count = size / kBlockSize;
    if (count > 0) {
        blocks(pBytes, count);
    }
    if (size % kBlockSize > 0) {
        memcpy(block, pBytes + count * kBlockSize, size % kBlockSize);
    }
}

// Pads the message with a one bit and zeros up to the length. The caller adds the length, whose
// byte order differs between the algorithms.
template <typename Blocks>
void Pad(uint8_t (&block)[kBlockSize], size_t held, Blocks blocks) {
    block[held++] = 0x80;
    if (held > kLengthOffset) {
        memset(block + held, 0, kBlockSize - held);
        blocks(block, 1);
        held = 0;
    }
    memset(block + held, 0, kLengthOffset - held);
}

void ToHex(char *pHex, const uint8_t *pDigest, size_t size) {
    if (pHex == nullptr || pDigest == nullptr) {
        return;
    }
    constexpr char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i < size; ++i) {
        pHex[2 * i] = kDigits[pDigest[i] >> 4];
        pHex[2 * i + 1] = kDigits[pDigest[i] & 15];
    }
}

// Reads a file in blocks. A read that fails ends it like the end of the file. Not inlined, so that
// the block is off the stack when the caller logs.
template <typename Update>
[[gnu::noinline]] void ReadBlocks(int fd, Update update) {
    uint8_t block[kReadSize];
    for (;;) {
        const ssize_t count = read(fd, block, sizeof block);
        if (count <= 0) {
            return;
        }
        update(block, static_cast<size_t>(count));
    }
}

// The token before the first one that names the file; empty if no token precedes it. NULL if no
// token names the file.
const char *FindExpectedHash(char *pText, const char *pFileName) {
    constexpr const char *kDelimiters = "\r\n\t ";
    const char *pName = talvek::LastComponent(pFileName);
    const char *pBefore = "";
    char *pState = nullptr;
    for (char *pToken = strtok_r(pText, kDelimiters, &pState); pToken != nullptr;
         pToken = strtok_r(nullptr, kDelimiters, &pState)) {
        if (strcmp(talvek::LastComponent(pToken), pName) == 0) {
            return pBefore;
        }
        pBefore = pToken;
    }
    return nullptr;
}

}  // namespace

void COM_Md5Init(tMd5Ctx *pCtx) {
    if (pCtx != nullptr) {
        *pCtx = {{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, {0, 0}, {}};
    }
}

void COM_Md5Update(tMd5Ctx *pCtx, const void *pData, size_t size) {
    if (pCtx == nullptr || pData == nullptr || size == 0) {
        return;
    }
    uint64_t bits = static_cast<uint64_t>(pCtx->bits[1]) << 32 | pCtx->bits[0];
    const size_t held = bits / 8 % kBlockSize;
    bits += static_cast<uint64_t>(size) * 8;
    pCtx->bits[0] = static_cast<uint32_t>(bits);
    pCtx->bits[1] = static_cast<uint32_t>(bits >> 32);
    AddData(pCtx->block, held, pData, size,
            [pCtx](const uint8_t *pBytes, size_t count) { Md5Blocks(pCtx->state, pBytes, count); });
}

void COM_Md5Final(uint8_t *pDigest, tMd5Ctx *pCtx) {
    if (pDigest == nullptr || pCtx == nullptr) {
        return;
    }
    const auto blocks = [pCtx](const uint8_t *pBytes, size_t count) {
        Md5Blocks(pCtx->state, pBytes, count);
    };
    Pad(pCtx->block, pCtx->bits[0] / 8 % kBlockSize, blocks);
    StoreLittle(pCtx->block + kLengthOffset, pCtx->bits[0]);
    StoreLittle(pCtx->block + kLengthOffset + 4, pCtx->bits[1]);
    blocks(pCtx->block, 1);
    for (size_t i = 0; i < 4; ++i) {
        StoreLittle(pDigest + 4 * i, pCtx->state[i]);
    }
    explicit_bzero(pCtx, sizeof *pCtx);
}

void COM_Md5DigestToHex(char *pHex, const uint8_t *pDigest) {
    ToHex(pHex, pDigest, COM_MD5_SIZE);
}

void COM_MakeBufMD5(char *pHex, const void *pData, size_t size) {
    tMd5Ctx ctx;
    uint8_t digest[COM_MD5_SIZE];
    COM_Md5Init(&ctx);
    COM_Md5Update(&ctx, pData, size);
    COM_Md5Final(digest, &ctx);
    COM_Md5DigestToHex(pHex, digest);
}

void COM_MakeStrMD5(char *pHex, const char *pText) {
    COM_MakeBufMD5(pHex, pText, pText != nullptr ? strlen(pText) : 0);
}

int COM_MakeFileMD5(char *pHex, const char *pFileName) {
    const talvek::CancelGuard guard;
    if (pHex == nullptr) {
        return -1;
    }
    talvek::UniqueFd fd{talvek::OpenPath(pFileName, O_RDONLY)};
    if (!fd) {
        return LOG_ERRNO("open(%s) fail : %s\n", talvek::Shown(pFileName));
    }
    tMd5Ctx ctx;
    COM_Md5Init(&ctx);
    ReadBlocks(fd.get(),
               [&ctx](const uint8_t *pBytes, size_t count) { COM_Md5Update(&ctx, pBytes, count); });
    uint8_t digest[COM_MD5_SIZE];
    COM_Md5Final(digest, &ctx);
    COM_Md5DigestToHex(pHex, digest);
    return fd.Close();
}

int COM_CheckFileMD5(const char *pFileName, const char *pSuffix) {
    const talvek::CancelGuard guard;
    if (pFileName == nullptr) {
        return -1;
    }
    const char *pEnd = pSuffix != nullptr ? pSuffix : ".md5";
    const size_t size = strlen(pFileName) + strlen(pEnd) + 1;
    const auto sideFile = talvek::HeapBuf<char>::Zeroed(size);
    if (!sideFile) {
        LOG_ERRNO("CALLOC(%zu) fail : %s\n", size);
        return -1;
    }
    snprintf(sideFile.get(), size, "%s%s", pFileName, pEnd);
    // COM_GetFileContent decides whether the side file can be read, but it returns one line, and a
    // side file may have several.
    char text[kSideFileSize + 1] = {};
    if (COM_GetFileContent(sideFile.get(), text, kSideFileSize) != 0) {
        LOG("Can't read md5 in [%s]\n", sideFile.get());
        return -1;
    }
    memset(text, 0, sizeof text);
    COM_LoadDataFromFile(sideFile.get(), text, kSideFileSize);
    const char *pExpected = FindExpectedHash(text, pFileName);
    if (pExpected == nullptr) {
        return -1;
    }
    char hex[COM_MD5_HEX_SIZE + 1] = {};
    COM_MakeFileMD5(hex, pFileName);
    // A side file without a hash must not match a file without a digest: both texts are empty.
    // Tested by CheckFileMD5.FailsWithoutHashAndFile.
    if (pExpected[0] == '\0' || strcmp(hex, pExpected) != 0) {
        printf("%s(%s) failed\n  => [%s] vs [%s]\n", __func__, pFileName, hex, pExpected);
        fflush(stdout);
        return -1;
    }
    LOG("md5sum(%s) passed\n", pFileName);
    return 0;
}

void COM_Sha1Init(tSha1Ctx *pCtx) {
    if (pCtx != nullptr) {
        *pCtx = {{0, 0}, {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0}, {}};
    }
}

void COM_Sha1Update(const void *pData, size_t size, tSha1Ctx *pCtx) {
    if (pCtx == nullptr || pData == nullptr || size == 0) {
        return;
    }
    uint64_t bytes = static_cast<uint64_t>(pCtx->bytes[1]) << 32 | pCtx->bytes[0];
    const size_t held = bytes % kBlockSize;
    bytes += size;
    pCtx->bytes[0] = static_cast<uint32_t>(bytes);
    pCtx->bytes[1] = static_cast<uint32_t>(bytes >> 32);
    AddData(pCtx->block, held, pData, size, [pCtx](const uint8_t *pBytes, size_t count) {
        Sha1Blocks(pCtx->state, pBytes, count);
    });
}

uint8_t *COM_Sha1Final(uint8_t *pDigest, tSha1Ctx *pCtx) {
    if (pDigest == nullptr || pCtx == nullptr) {
        return pDigest;
    }
    const auto blocks = [pCtx](const uint8_t *pBytes, size_t count) {
        Sha1Blocks(pCtx->state, pBytes, count);
    };
    Pad(pCtx->block, pCtx->bytes[0] % kBlockSize, blocks);
    const uint64_t bits = (static_cast<uint64_t>(pCtx->bytes[1]) << 32 | pCtx->bytes[0]) * 8;
    StoreBig(pCtx->block + kLengthOffset, static_cast<uint32_t>(bits >> 32));
    StoreBig(pCtx->block + kLengthOffset + 4, static_cast<uint32_t>(bits));
    blocks(pCtx->block, 1);
    for (size_t i = 0; i < 5; ++i) {
        StoreBig(pDigest + 4 * i, pCtx->state[i]);
    }
    return pDigest;
}

uint8_t *COM_MakeStrSHA1(uint8_t *pDigest, const char *pText) {
    return COM_MakeBufSHA1(pDigest, pText, pText != nullptr ? strlen(pText) : 0);
}

uint8_t *COM_MakeBufSHA1(uint8_t *pDigest, const void *pData, size_t size) {
    tSha1Ctx ctx;
    COM_Sha1Init(&ctx);
    COM_Sha1Update(pData, size, &ctx);
    return COM_Sha1Final(pDigest, &ctx);
}

int COM_MakeFileSHA1(uint8_t *pDigest, const char *pFileName) {
    const talvek::CancelGuard guard;
    if (pDigest == nullptr) {
        return -1;
    }
    talvek::UniqueFd fd{talvek::OpenPath(pFileName, O_RDONLY)};
    if (!fd) {
        return LOG_ERRNO("open(%s) fail : %s\n", talvek::Shown(pFileName));
    }
    tSha1Ctx ctx;
    COM_Sha1Init(&ctx);
    ReadBlocks(fd.get(), [&ctx](const uint8_t *pBytes, size_t count) {
        COM_Sha1Update(pBytes, count, &ctx);
    });
    COM_Sha1Final(pDigest, &ctx);
    char hex[COM_SHA1_HEX_SIZE + 1] = {};
    COM_Sha1DigestToHex(hex, pDigest);
    LOG("Digest = [%s]\n", hex);
    return fd.Close();
}

void COM_Sha1DigestToHex(char *pHex, const uint8_t *pDigest) {
    ToHex(pHex, pDigest, COM_SHA1_SIZE);
}
