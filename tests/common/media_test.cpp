#include "common/media.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "support/bytes.h"
#include "support/canary.h"
#include "support/capture.h"
#include "support/private_world.h"

namespace {

using namespace talvek::test;

// --- Content types ---

std::string MimeType(const char *pFileName) {
    std::string type;
    CaptureLog([&] { type = COM_GetMimeType(pFileName); });
    return type;
}

const struct {
    const char *extension;
    const char *type;
} kTypes[] = {
    {"avi", "video/x-msvideo"}, {"rpt", "application/xml"}, {"txt", "text/plain"},
    {"log", "text/plain"},      {"jpg", "image/jpeg"},      {"jpe", "image/jpeg"},
    {"jpeg", "image/jpeg"},     {"gif", "image/gif"},       {"bmp", "image/x-ms-bmp"},
    {"pdf", "application/pdf"}, {"rar", "application/rar"}, {"xml", "application/xml"},
    {"zip", "application/zip"}, {"mpeg", "video/mpeg"},     {"mpg", "video/mpeg"},
    {"mpe", "video/mpeg"},      {"mp4", "video/mp4"},
};

TEST(GetMimeType, KnowsEachExtensionInLowerCaseOnly) {
    for (const auto &row : kTypes) {
        const std::string extension = row.extension;
        EXPECT_EQ(row.type, MimeType(("/a/b." + extension).c_str()));
        EXPECT_EQ(row.type, MimeType(("." + extension).c_str()));
        EXPECT_EQ("text/plain", MimeType(("b." + extension + "x").c_str()));
        std::string upper = extension;
        upper[0] = static_cast<char>(upper[0] - 'a' + 'A');
        EXPECT_EQ("text/plain", MimeType(("b." + upper).c_str()));
    }
}

TEST(GetMimeType, UsesTheTextAfterTheLastDot) {
    EXPECT_EQ("text/plain", MimeType("movie.AVI"));
    EXPECT_EQ("application/zip", MimeType("a.tar.zip"));
    EXPECT_EQ("text/plain", MimeType("a.zip.tar"));
    EXPECT_EQ("text/plain", MimeType("README"));
    EXPECT_EQ("text/plain", MimeType("dir.zip/README"));
    EXPECT_EQ("text/plain", MimeType("a.zip."));
    EXPECT_EQ("text/plain", MimeType("zip"));
    EXPECT_EQ("text/plain", MimeType(""));
    EXPECT_EQ("text/plain", MimeType(nullptr));
}

TEST(GetMimeType, LogsEachCallWithoutFunctionName) {
    EXPECT_EQ(
        (Lines{"COMMON: [x.pdf][pdf] => [application/pdf]", "COMMON: [x.AVI][AVI] => [text/plain]",
               "COMMON: [x.][] => [text/plain]", "COMMON: [README][(null)] => [text/plain]",
               "COMMON: [(null)][(null)] => [text/plain]"}),
        CaptureLog([] {
            COM_GetMimeType("x.pdf");
            COM_GetMimeType("x.AVI");
            COM_GetMimeType("x.");
            COM_GetMimeType("README");
            COM_GetMimeType(nullptr);
        }));
}

// --- Audio codecs ---

TEST(GetAudioCodecId, KnowsEachNameInAnyCase) {
    const struct {
        const char *name;
        int id;
    } rows[] = {{"PCMU", 7},
                {"pcmu", COM_AUDIO_CODEC_PCMU},
                {"PcMa", 6},
                {"PCMA", COM_AUDIO_CODEC_PCMA},
                {"G726-16", 0x4000},
                {"g726-16", COM_AUDIO_CODEC_G726_16},
                {"G726-24", 0x4001},
                {"g726-24", COM_AUDIO_CODEC_G726_24},
                {"G726-32", 0x4002},
                {"g726-32", COM_AUDIO_CODEC_G726_32},
                {"G726-40", 0x4003},
                {"g726-40", COM_AUDIO_CODEC_G726_40},
                {"G726-48", 0},
                {"G726", 0},
                {"PCM", 0},
                {"PCMUX", 0},
                {"", 0},
                {nullptr, COM_AUDIO_CODEC_UNKNOWN}};
    for (const auto &row : rows) {
        int second = -1;
        int id = -1;
        EXPECT_EQ(0, COM_GetAudioCodecId(row.name, &second, &id));
        EXPECT_EQ(row.id, id) << (row.name != nullptr ? row.name : "NULL");
    }
}

TEST(GetAudioCodecId, ReturnsEightAsTheSecondNumberOfEveryName) {
    for (const char *pName : {"PCMU", "G726-40", "opus", ""}) {
        int second = -1;
        int id = -1;
        COM_GetAudioCodecId(pName, &second, &id);
        EXPECT_EQ(8, second);
        EXPECT_EQ(int{COM_AUDIO_CODEC_SECOND}, second);
    }
}

TEST(GetAudioCodecId, AcceptsNullForANumber) {
    int value = -1;
    EXPECT_EQ(0, COM_GetAudioCodecId("PCMU", nullptr, &value));
    EXPECT_EQ(7, value);
    EXPECT_EQ(0, COM_GetAudioCodecId("PCMU", &value, nullptr));
    EXPECT_EQ(8, value);
}

// --- Digest challenges ---

// A record with all bytes set, so that an unchanged field differs from an empty one.
struct Record {
    CanaryBuf buf{sizeof(tDigestChallenge), '#'};
    tDigestChallenge *rec = reinterpret_cast<tDigestChallenge *>(buf.bytes());
};

TEST(ParseDigestChallenge, ReadsTheFourParameters) {
    const Record r;
    // RFC 7616, section 3.9.1, without the algorithm.
    const char *headers =
        "HTTP/1.1 401 Unauthorized\r\n"
        "www-authenticate: digest\r\n"
        "    realm=\"http-auth@example.org\",\r\n"
        "    qop=\"auth, auth-int\",\r\n"
        "    nonce=\"7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v\",\r\n"
        "    opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\"\r\n\r\n";
    EXPECT_EQ(Lines{}, CaptureLog([&] { EXPECT_EQ(0, COM_ParseDigestChallenge(headers, r.rec)); }));
    EXPECT_STREQ("http-auth@example.org", r.rec->realm);
    EXPECT_STREQ("auth, auth-int", r.rec->qop);
    EXPECT_STREQ("7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v", r.rec->nonce);
    EXPECT_STREQ("FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS", r.rec->opaque);
}

TEST(ParseDigestChallenge, FailsWithoutTheHeader) {
    for (const char *pHeaders :
         {"", "realm=\"x\"", "WWW-Authenticate: Basic realm=\"x\"", "WWW-Authenticate:Digest"}) {
        const Record r;
        EXPECT_EQ(-1, COM_ParseDigestChallenge(pHeaders, r.rec));
        EXPECT_TRUE(r.buf.UntouchedFrom(0));
    }
    const Record r;
    EXPECT_EQ(-1, COM_ParseDigestChallenge(nullptr, r.rec));
    EXPECT_EQ(-1, COM_ParseDigestChallenge("WWW-Authenticate: Digest", nullptr));
    EXPECT_TRUE(r.buf.UntouchedFrom(0));
}

TEST(ParseDigestChallenge, LeavesTheFieldOfAMissingParameterUnchanged) {
    const Record r;
    EXPECT_EQ(0, COM_ParseDigestChallenge("WWW-Authenticate: Digest nonce=\"n\", opaque=x", r.rec));
    EXPECT_EQ('#', r.rec->realm[0]);
    EXPECT_EQ('#', r.rec->qop[0]);
    EXPECT_STREQ("n", r.rec->nonce);
    EXPECT_EQ('#', r.rec->opaque[0]);
}

TEST(ParseDigestChallenge, EmptiesTheFieldOfAnEmptyParameter) {
    const Record r;
    EXPECT_EQ(0, COM_ParseDigestChallenge("WWW-Authenticate: Digest realm=\"\" qop=\"a\"", r.rec));
    EXPECT_STREQ("", r.rec->realm);
    EXPECT_STREQ("a", r.rec->qop);
}

// Text before the header is ignored, later lines are not.
TEST(ParseDigestChallenge, SearchesFromTheHeaderToTheEndOfTheText) {
    const Record r;
    EXPECT_EQ(0, COM_ParseDigestChallenge("realm=\"before\"\r\n"
                                          "WWW-Authenticate: Digest nonce=\"n\"\r\n"
                                          "X: realm=\"later\"\r\n",
                                          r.rec));
    EXPECT_STREQ("later", r.rec->realm);
}

TEST(ParseDigestChallenge, TruncatesValuesToTheirFields) {
    const struct {
        const char *key;
        size_t offset;
        size_t size;
    } fields[] = {{"realm", offsetof(tDigestChallenge, realm), 80},
                  {"qop", offsetof(tDigestChallenge, qop), 16},
                  {"nonce", offsetof(tDigestChallenge, nonce), 80},
                  {"opaque", offsetof(tDigestChallenge, opaque), 80}};
    for (const auto &field : fields) {
        for (size_t length = field.size - 2; length <= field.size + 2; ++length) {
            const Record r;
            const std::string value(length, 'v');
            const std::string headers =
                std::string{"WWW-Authenticate: Digest "} + field.key + "=\"" + value + "\"";
            const Lines log =
                CaptureLog([&] { EXPECT_EQ(0, COM_ParseDigestChallenge(headers.c_str(), r.rec)); });
            const char *stored = r.buf.text() + field.offset;
            EXPECT_EQ(value.substr(0, field.size - 1), stored);
            EXPECT_TRUE(r.buf.UntouchedFrom(field.offset + field.size)) << field.key;
            if (length >= field.size) {
                EXPECT_EQ((Lines{"COMMON:COM_GetStrInDoubleQuotes(): Warning! overflow (len, size) "
                                 "= (" +
                                 std::to_string(length) + ", " + std::to_string(field.size) + ")"}),
                          log);
            } else {
                EXPECT_EQ(Lines{}, log);
            }
        }
    }
}

TEST(ParseDigestChallenge, ReadsNothingAfterTheText) {
    const std::string whole =
        "WWW-Authenticate: Digest realm=\"r\", qop=\"q\", nonce=\"n\", opaque=\"o\"";
    for (size_t length = 0; length <= whole.size(); ++length) {
        const Record r;
        const GuardedCopy headers{whole.substr(0, length).c_str()};
        EXPECT_EQ(length >= 24 ? 0 : -1, COM_ParseDigestChallenge(headers.text(), r.rec));
        EXPECT_EQ(length >= whole.find("\", qop") + 1, r.rec->realm[0] == 'r');
        EXPECT_EQ(length >= whole.size(), r.rec->opaque[0] == 'o');
    }
}

// --- H.264 byte streams ---

int FindStartCode(const Bytes &bytes, int *pType) {
    const GuardedCopy guarded{bytes.data(), bytes.size()};
    return COM_FindStartCode(guarded.bytes(), static_cast<int>(bytes.size()), pType);
}

TEST(FindStartCode, FindsFourBytesAndReturnsTheUnitsType) {
    int type = -1;
    EXPECT_EQ(0, FindStartCode({0, 0, 0, 1, 0x65}, &type));
    EXPECT_EQ(5, type);
    EXPECT_EQ(3, FindStartCode({9, 0, 1, 0, 0, 0, 1, 0xFF, 0, 0, 0, 1, 1}, &type));
    EXPECT_EQ(31, type);
    // Zero bytes before a start code do not belong to it.
    EXPECT_EQ(2, FindStartCode({0, 0, 0, 0, 0, 1, 0x67}, &type));
    EXPECT_EQ(7, type);
}

TEST(FindStartCode, NeedsAByteAfterTheCode) {
    int type = -1;
    EXPECT_EQ(-1, FindStartCode({0, 0, 0, 1}, &type));
    EXPECT_EQ(-1, FindStartCode({7, 0, 0, 0, 1}, &type));
    EXPECT_EQ(-1, FindStartCode({}, &type));
    EXPECT_EQ(-1, type);
    EXPECT_EQ(1, FindStartCode({7, 0, 0, 0, 1, 0x41}, &type));
    EXPECT_EQ(1, type);
}

TEST(FindStartCode, IgnoresThreeByteCodes) {
    int type = -1;
    EXPECT_EQ(-1, FindStartCode({9, 0, 0, 1, 0x65, 0, 0, 1, 0x65}, &type));
    EXPECT_EQ(-1, type);
}

TEST(FindStartCode, FindsNothingInNullOrFewerThanFiveBytes) {
    const uint8_t bytes[] = {0, 0, 0, 1, 0x65};
    int type = -1;
    EXPECT_EQ(-1, COM_FindStartCode(nullptr, 5, &type));
    for (const int len : {4, 0, -1, INT_MIN}) {
        EXPECT_EQ(-1, COM_FindStartCode(bytes, len, &type));
    }
    EXPECT_EQ(-1, type);
    EXPECT_EQ(0, COM_FindStartCode(bytes, 5, nullptr));
}

TEST(FindStartCode, FindsWhatAByteWiseSearchFinds) {
    std::mt19937 random{7};
    for (int i = 0; i < 2000; ++i) {
        Bytes bytes(random() % 60);
        for (uint8_t &byte : bytes) {
            byte = static_cast<uint8_t>(random() % 5 > 0 ? 0 : random() % 3);
        }
        int expected = -1;
        for (size_t at = 0; at + 5 <= bytes.size() && expected < 0; ++at) {
            if (bytes[at] == 0 && bytes[at + 1] == 0 && bytes[at + 2] == 0 && bytes[at + 3] == 1) {
                expected = static_cast<int>(at);
            }
        }
        ASSERT_EQ(expected, FindStartCode(bytes, nullptr));
    }
}

struct Sei {
    int offset;
    int type;
    int size;
    bool operator==(const Sei &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Sei &sei) {
    return out << sei.offset << ": " << sei.type << ", " << sei.size;
}

Sei FindSei(const Bytes &bytes) {
    const GuardedCopy guarded{bytes.data(), bytes.size()};
    Sei sei{0, -7, -7};
    sei.offset =
        COM_FindSeiPayload(guarded.bytes(), static_cast<int>(bytes.size()), &sei.type, &sei.size);
    return sei;
}

constexpr Sei kNoSei{-1, -7, -7};

// A sequence parameter set, a picture parameter set, then SEI: type 255 + 255 + 5, size 255 + 0.
const Bytes kStream = {0, 0, 0, 1, 0x67, 0x42, 0,    0, 0,    1, 0x68, 0xCE,
                       0, 0, 0, 1, 0x06, 0xFF, 0xFF, 5, 0xFF, 0, 0x11, 0x80};

TEST(FindSeiPayload, SkipsOtherUnits) {
    EXPECT_EQ((Sei{12, 515, 255}), FindSei(kStream));
}

TEST(FindSeiPayload, AddsTheBytesOfANumber) {
    EXPECT_EQ((Sei{0, 5, 3}), FindSei({0, 0, 0, 1, 6, 5, 3}));
    EXPECT_EQ((Sei{0, 0, 0}), FindSei({0, 0, 0, 1, 0x46, 0, 0}));
    EXPECT_EQ((Sei{0, 254, 255}), FindSei({0, 0, 0, 1, 6, 254, 255, 0}));
    EXPECT_EQ((Sei{0, 255, 509}), FindSei({0, 0, 0, 1, 6, 255, 0, 255, 254}));
}

TEST(FindSeiPayload, FindsAUnitRightAfterAStartCode) {
    // The byte after the first start code is the first zero of the next one: type 0.
    EXPECT_EQ((Sei{4, 1, 2}), FindSei({0, 0, 0, 1, 0, 0, 0, 1, 6, 1, 2}));
}

TEST(FindSeiPayload, FailsWithoutASeiUnit) {
    EXPECT_EQ(kNoSei, FindSei({}));
    EXPECT_EQ(kNoSei, FindSei({0, 0, 0, 1, 0x65}));
    EXPECT_EQ(kNoSei, FindSei({0, 0, 0, 1, 0x65, 1, 2, 3}));
    EXPECT_EQ(kNoSei, FindSei({0, 0, 0, 1, 0x65, 1, 2, 3, 4}));
    EXPECT_EQ(kNoSei, FindSei({0, 0, 1, 6, 1, 2, 0, 0, 1, 6, 1, 2}));
    int type = 0;
    int size = 0;
    EXPECT_EQ(-1, COM_FindSeiPayload(nullptr, 100, &type, &size));
    EXPECT_EQ(-1, COM_FindSeiPayload(kStream.data(), -1, &type, &size));
}

TEST(FindSeiPayload, FailsWhenTheBytesEndInsideTheNumbers) {
    for (size_t length = 0; length <= kStream.size(); ++length) {
        const Bytes cut{kStream.begin(), kStream.begin() + static_cast<ptrdiff_t>(length)};
        EXPECT_EQ(length >= 22 ? (Sei{12, 515, 255}) : kNoSei, FindSei(cut)) << length;
    }
    EXPECT_EQ(kNoSei, FindSei({0, 0, 0, 1, 6, 0xFF, 0xFF, 0xFF}));
}

TEST(FindSeiPayload, SaturatesANumberAtIntMax) {
    // 255 * 8,421,505 is the first multiple above 2,147,483,647.
    std::vector<uint8_t> bytes(5 + 8421505 + 2, 0xFF);
    memcpy(bytes.data(), "\0\0\0\1\6", 5);
    bytes[bytes.size() - 2] = 9;
    bytes[bytes.size() - 1] = 4;
    EXPECT_EQ((Sei{0, INT_MAX, 4}), FindSei(bytes));
}

TEST(FindSeiPayload, AcceptsNullForANumber) {
    int value = 0;
    EXPECT_EQ(
        12, COM_FindSeiPayload(kStream.data(), static_cast<int>(kStream.size()), nullptr, &value));
    EXPECT_EQ(255, value);
    EXPECT_EQ(
        12, COM_FindSeiPayload(kStream.data(), static_cast<int>(kStream.size()), &value, nullptr));
    EXPECT_EQ(515, value);
}

// --- Internet checksum ---

// The two bytes that go on the wire.
std::vector<int> WireBytes(uint16_t sum) {
    uint8_t bytes[2];
    memcpy(bytes, &sum, 2);
    return {bytes[0], bytes[1]};
}

std::vector<int> CheckSum(const Bytes &bytes) {
    const GuardedCopy guarded{bytes.data(), bytes.size()};
    return WireBytes(COM_CheckSum16(guarded.bytes(), static_cast<int>(bytes.size())));
}

// RFC 1071, section 3: the sum of the words 0001 f203 f4f5 f6f7 is ddf2, its complement 220d.
TEST(CheckSum16, ReturnsTheExampleOfTheStandard) {
    EXPECT_EQ((std::vector<int>{0x22, 0x0D}), CheckSum({0, 1, 0xF2, 3, 0xF4, 0xF5, 0xF6, 0xF7}));
}

// An IPv4 header with 172.16.10.99 and 172.16.10.12: 4500 + 003c + 1c46 + 4000 + 4006 + ac10 + 0a63
// + ac10 + 0a0c = 24e17, 4e17 + 2 = 4e19, complement b1e6.
TEST(CheckSum16, SumsAnIpHeaderAndVerifiesIt) {
    Bytes header = {0x45, 0, 0,    0x3C, 0x1C, 0x46, 0x40, 0,    0x40, 0x06,
                    0,    0, 0xAC, 0x10, 0x0A, 0x63, 0xAC, 0x10, 0x0A, 0x0C};
    EXPECT_EQ((std::vector<int>{0xB1, 0xE6}), CheckSum(header));
    header[10] = 0xB1;
    header[11] = 0xE6;
    EXPECT_EQ((std::vector<int>{0, 0}), CheckSum(header));
}

TEST(CheckSum16, PadsALastOddByteWithZero) {
    EXPECT_EQ(CheckSum({1, 2, 3, 0}), CheckSum({1, 2, 3}));
    // Complement of 0100, and of 0102 + 0300.
    EXPECT_EQ((std::vector<int>{0xFE, 0xFF}), CheckSum({1}));
    EXPECT_EQ((std::vector<int>{0xFB, 0xFD}), CheckSum({1, 2, 3}));
}

TEST(CheckSum16, FoldsEveryCarry) {
    // ffff + 0001 = 10000, folded 0001, complement fffe.
    EXPECT_EQ((std::vector<int>{0xFF, 0xFE}), CheckSum({0xFF, 0xFF, 0, 1}));
    EXPECT_EQ((std::vector<int>{0, 0}), CheckSum(Bytes(200000, 0xFF)));
    EXPECT_EQ((std::vector<int>{0xFF, 0xFF}), CheckSum(Bytes(200000, 0)));
}

TEST(CheckSum16, ReturnsAllOnesForNoBytes) {
    const uint8_t byte = 1;
    for (const int len : {0, -1, INT_MIN}) {
        EXPECT_EQ(0xFFFF, COM_CheckSum16(&byte, len));
    }
    EXPECT_EQ(0xFFFF, COM_CheckSum16(nullptr, 2));
}

void LoopbackUp() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    ASSERT_EQ(0, ioctl(fd, SIOCSIFFLAGS, &request)) << strerror(errno);
    close(fd);
}

// The kernel answers an echo request only if its checksum is correct, and computes the checksum of
// the answer itself.
TEST(CheckSum16, EqualsTheKernelsChecksum) {
    talvek::test::RunInPrivateWorld(talvek::test::kNetwork, [] {
        LoopbackUp();
        const int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
        ASSERT_GE(fd, 0) << strerror(errno);
        const struct timeval limit = {60, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        struct sockaddr_in loopback = {};
        loopback.sin_family = AF_INET;
        loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        for (const size_t size : {8, 9, 10, 63, 64, 65, 999, 1000}) {
            Bytes request(size, 0xD7);
            memset(request.data(), 0, sizeof(struct icmphdr));
            request[0] = ICMP_ECHO;
            request[7] = static_cast<uint8_t>(size);  // low byte of the sequence number
            const uint16_t sum = COM_CheckSum16(request.data(), static_cast<int>(size));
            memcpy(request.data() + 2, &sum, sizeof sum);
            ASSERT_EQ(
                static_cast<ssize_t>(size),
                sendto(fd, request.data(), size, 0,
                       reinterpret_cast<const struct sockaddr *>(&loopback), sizeof loopback));
            uint8_t packet[1100];
            ssize_t got;
            do {  // the request is received too
                got = recv(fd, packet, sizeof packet, 0);
                ASSERT_EQ(static_cast<ssize_t>(sizeof(struct iphdr) + size), got) << "no answer";
            } while (packet[sizeof(struct iphdr)] != ICMP_ECHOREPLY);
            EXPECT_EQ(0, COM_CheckSum16(packet, sizeof(struct iphdr)));
            EXPECT_EQ(0, COM_CheckSum16(packet + sizeof(struct iphdr), static_cast<int>(size)));
        }
        close(fd);
    });
}

// The definition: a sum of words of two bytes, the high byte first.
TEST(CheckSum16, FollowsTheDefinitionForEveryLengthAndAlignment) {
    std::mt19937 random{11};
    for (size_t length = 0; length < 80; ++length) {
        for (size_t shift = 0; shift < 4; ++shift) {
            Bytes bytes(length + shift);
            for (uint8_t &byte : bytes) {
                byte = static_cast<uint8_t>(random() % 3 == 0 ? 0xFF : random());
            }
            unsigned sum = 0;
            for (size_t i = 0; i < length; ++i) {
                sum += static_cast<unsigned>(bytes[shift + i]) << (i % 2 == 0 ? 8 : 0);
            }
            while (sum > 0xFFFF) {
                sum = (sum & 0xFFFF) + (sum >> 16);
            }
            const unsigned expected = ~sum & 0xFFFF;
            const GuardedCopy guarded{bytes.data(), bytes.size()};
            EXPECT_EQ((std::vector<int>{static_cast<int>(expected >> 8),
                                        static_cast<int>(expected & 0xFF)}),
                      WireBytes(COM_CheckSum16(guarded.bytes() + shift, static_cast<int>(length))));
        }
    }
}

}  // namespace
