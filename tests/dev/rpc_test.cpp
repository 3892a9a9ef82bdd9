// RPC messages byte by byte, and calls to servers that answer in every possible way.

#include "dev/internal/rpc.h"

#include <errno.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>

#include "pretended_time.h"
#include "rpc_peer.h"
#include "support/capture.h"

namespace {

int g_sendFlags = 0;
int g_sendError = 0;  // a send fails with this

}  // namespace

extern "C" {
ssize_t __real_send(int fd, const void *buf, size_t size, int flags);
ssize_t __wrap_send(int fd, const void *buf, size_t size, int flags);
ssize_t __wrap_send(int fd, const void *buf, size_t size, int flags) {
    g_sendFlags = flags;
    errno = g_sendError;
    return g_sendError != 0 ? -1 : __real_send(fd, buf, size, flags);
}
}

namespace {

using namespace talvek::rpc;
using namespace talvek::test;
using talvek::Deadline;

constexpr in_port_t kPort = 20048;
constexpr uint32_t kXid = static_cast<uint32_t>(PretendedTime::kStart);

Bytes Copy(std::span<const uint8_t> bytes) {
    return {bytes.begin(), bytes.end()};
}

// ---- Calls

// RFC 5531, 9: xid, CALL, RPC version 2, program, version, procedure, credential, verifier.
TEST(CallMessage, HasTheHeaderOfACall) {
    const PretendedTime time;
    CallMessage call{100000, 2, 3, CallMessage::kNone};
    for (const uint32_t word : {100005u, 3u, 17u, 0u}) {
        call.AddWord(word);
    }
    const Bytes expected = Words({kXid, 0, 2, 100000, 2, 3, 0, 0, 0, 0, 100005, 3, 17, 0});
    EXPECT_EQ(kXid, call.xid());
    EXPECT_EQ(expected, Copy(call.Bytes(false)));
    EXPECT_EQ(Fragment(true, expected), Copy(call.Bytes(true)));
}

// RFC 4506, 4.10: the size, the bytes, and zeros up to a multiple of four.
TEST(CallMessage, PadsOpaqueData) {
    const PretendedTime time;
    for (const auto &[text, padded] : std::vector<std::pair<std::string, std::string>>{
             {"", ""},
             {"a", std::string{"a\0\0\0", 4}},
             {"ab", std::string{"ab\0\0", 4}},
             {"abc", std::string{"abc\0", 4}},
             {"abcd", "abcd"},
             {"abcde", std::string{"abcde\0\0\0", 8}}}) {
        CallMessage call{1, 2, 3, CallMessage::kNone};
        call.AddOpaque(text.data(), text.size());
        call.AddWord(7);
        const Bytes header = Words({kXid, 0, 2, 1, 2, 3, 0, 0, 0, 0});
        EXPECT_EQ(header + Words({uint32_t(text.size())}) + Bytes(padded.begin(), padded.end()) +
                      Words({7}),
                  Copy(call.Bytes(false)));
    }
}

TEST(CallMessage, IsEmptyWhenItDoesNotFit) {
    const Bytes bytes(2000, 'x');
    constexpr size_t kFits = 1024 - 4 - 10 * 4 - 4;  // record mark, header, size
    for (const size_t size : {kFits - 4, kFits - 3, kFits - 1, kFits, kFits + 1, size_t{2000}}) {
        CallMessage call{1, 2, 3, CallMessage::kNone};
        call.AddOpaque(bytes.data(), size);
        const size_t length = size <= kFits ? 4 + 10 * 4 + 4 + (size + 3) / 4 * 4 : 0;
        EXPECT_EQ(length, call.Bytes(true).size()) << size;
        EXPECT_EQ(length > 0 ? length - 4 : 0, call.Bytes(false).size()) << size;
    }
    CallMessage call{1, 2, 3, CallMessage::kNone};
    call.AddOpaque(bytes.data(), bytes.size());
    call.AddWord(0);
    EXPECT_EQ(RPC_CANTENCODEARGS,
              Call(SOCK_DGRAM, Loopback(kPort), call, nullptr, Deadline{0}).status);
}

// RFC 5531, appendix A: stamp, machine name, uid, gid, gids, after flavor 1 and the size.
void ExpectCredential(const std::string &host, const std::vector<uint32_t> &ids) {
    const PretendedTime time;
    CallMessage call{100005, 3, 3, CallMessage::kSystem};
    Bytes name{host.begin(), host.end()};
    name.resize((name.size() + 3) / 4 * 4);
    const Bytes body = Words({kXid, uint32_t(host.size())}) + name + Words(ids);
    EXPECT_EQ(Words({kXid, 0, 2, 100005, 3, 3, 1, uint32_t(body.size())}) + body + Words({0, 0}),
              Copy(call.Bytes(false)));
}

TEST(CallMessage, CarriesTheHostName) {
    RunInPrivateWorld(kHostname, [] {
        const int count = getgroups(0, nullptr);
        std::vector<gid_t> groups(static_cast<size_t>(count));
        ASSERT_EQ(count, getgroups(count, groups.data()));
        groups.resize(std::min<size_t>(groups.size(), 16));
        std::vector<uint32_t> ids{geteuid(), getegid(), uint32_t(groups.size())};
        ids.insert(ids.end(), groups.begin(), groups.end());
        // Linux names have up to 64 bytes.
        for (const size_t length : {0, 1, 2, 3, 4, 5, 63, 64}) {
            const std::string host(length, 'h');
            ASSERT_EQ(0, sethostname(host.data(), host.size()));
            ExpectCredential(host, ids);
        }
    });
}

TEST(CallMessage, CarriesTheEffectiveIdsAndTheFirst16Groups) {
    RunInPrivateWorld(
        kHostname,
        [] {
            ASSERT_EQ(0, sethostname("unit", 4));
            for (const uint32_t count : {0u, 1u, 15u, 16u, 17u, 40u, 65536u}) {
                std::vector<gid_t> groups(count);
                std::vector<uint32_t> ids{5678, 1234, std::min(count, 16u)};
                for (uint32_t i = 0; i < count; ++i) {
                    groups[i] = 100000 + i;
                    if (i < 16) {
                        ids.push_back(100000 + i);
                    }
                }
                ASSERT_EQ(0, setgroups(groups.size(), groups.data()));
                ASSERT_EQ(0, setegid(1234));
                ASSERT_EQ(0, seteuid(5678));
                ExpectCredential("unit", ids);
                ASSERT_EQ(0, seteuid(0));
                ASSERT_EQ(0, setegid(0));
            }
        },
        true);
}

// ---- Replies

const Bytes kCall = Words({kXid});

struct ReplyCase {
    Bytes reply;
    Status status;
    uint32_t low, high, why;
};

// Each accept_stat, reject_stat and auth_stat of RFC 5531, 9, and the first number after them.
std::vector<ReplyCase> ReplyCases() {
    std::vector<ReplyCase> cases = {
        {Reply(kCall, 0), RPC_SUCCESS, 0, 0, 0},
        {Reply(kCall, 1), RPC_PROGUNAVAIL, 0, 0, 0},
        {Reply(kCall, 2, {1, 4294967295u}), RPC_PROGVERSMISMATCH, 1, 4294967295u, 0},
        {Reply(kCall, 3), RPC_PROCUNAVAIL, 0, 0, 0},
        {Reply(kCall, 4), RPC_CANTDECODEARGS, 0, 0, 0},
        {Reply(kCall, 5), RPC_SYSTEMERROR, 0, 0, 0},
        {Reply(kCall, 6), RPC_FAILED, 0, 0, 0},
        {Reply(kCall, 0xFFFFFFFF), RPC_FAILED, 0, 0, 0},
        {Denial(kCall, {0, 2, 3}), RPC_VERSMISMATCH, 2, 3, 0},
        {Denial(kCall, {2}), RPC_FAILED, 0, 0, 0},
    };
    for (const uint32_t why : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 13u, 14u, 0xFFFFFFFFu}) {
        cases.push_back({Denial(kCall, {1, why}), RPC_AUTHERROR, 0, 0, why});
    }
    return cases;
}

void ExpectOutcome(const ReplyCase &expected, const Outcome &outcome) {
    EXPECT_EQ(expected.status, outcome.status);
    EXPECT_EQ(expected.low, outcome.low);
    EXPECT_EQ(expected.high, outcome.high);
    EXPECT_EQ(expected.why, outcome.why);
    EXPECT_EQ(0, outcome.error);
}

// The bytes are a heap block of their size, so that a sanitizer sees a read beyond them.
bool Read(const Bytes &bytes, bool stream, uint32_t *pResult, Outcome &outcome) {
    const std::unique_ptr<uint8_t[]> block{new uint8_t[bytes.size()]};
    std::copy(bytes.begin(), bytes.end(), block.get());
    return ReadReply({block.get(), bytes.size()}, stream, kXid, pResult, outcome);
}

TEST(ReadReply, KnowsEveryReply) {
    for (const ReplyCase &one : ReplyCases()) {
        Outcome outcome;
        EXPECT_TRUE(Read(one.reply, false, nullptr, outcome));
        ExpectOutcome(one, outcome);
        EXPECT_TRUE(Read(one.reply + Words({9, 9}), false, nullptr, outcome));
        ExpectOutcome(one, outcome);
        EXPECT_TRUE(Read(Fragment(true, one.reply), true, nullptr, outcome));
        ExpectOutcome(one, outcome);
    }
}

TEST(ReadReply, ReturnsTheResult) {
    Outcome outcome;
    uint32_t result = 0;
    EXPECT_TRUE(Read(Reply(kCall, 0, {0x12345678}), false, &result, outcome));
    EXPECT_EQ(RPC_SUCCESS, outcome.status);
    EXPECT_EQ(0x12345678u, result);
}

TEST(ReadReply, NeedsEveryByte) {
    std::vector<ReplyCase> cases = ReplyCases();
    cases.push_back({Reply(kCall, 0, {77}), RPC_SUCCESS, 0, 0, 0});
    for (const ReplyCase &one : cases) {
        uint32_t result = 0;
        uint32_t *pResult = one.reply.size() == 28 && one.status == RPC_SUCCESS ? &result : nullptr;
        for (size_t length = 0; length < one.reply.size(); ++length) {
            const Bytes bytes{one.reply.begin(), one.reply.begin() + static_cast<ssize_t>(length)};
            Outcome outcome;
            EXPECT_EQ(length >= 4, Read(bytes, false, pResult, outcome)) << length;
            EXPECT_EQ(RPC_CANTDECODERES, outcome.status) << length;
            EXPECT_TRUE(Read(Fragment(true, bytes), true, pResult, outcome)) << length;
            EXPECT_EQ(RPC_CANTDECODERES, outcome.status) << length;
        }
    }
}

TEST(ReadReply, TakesVerifiersOfUpTo400Bytes) {
    for (uint32_t size = 0; size <= 404; ++size) {
        const Bytes reply =
            Words({kXid, 1, 0, 2, size}) + Bytes((size + 3) / 4 * 4, 'v') + Words({2, 30, 40});
        Outcome outcome;
        EXPECT_TRUE(Read(reply, false, nullptr, outcome));
        EXPECT_EQ(size <= 400 ? RPC_PROGVERSMISMATCH : RPC_CANTDECODERES, outcome.status) << size;
        EXPECT_EQ(size <= 400 ? 30u : 0u, outcome.low);
    }
    for (const uint32_t size : {0x80000000u, 0xFFFFFFFCu, 0xFFFFFFFFu}) {
        Outcome outcome;
        EXPECT_TRUE(Read(Words({kXid, 1, 0, 0, size, 0}), false, nullptr, outcome));
        EXPECT_EQ(RPC_CANTDECODERES, outcome.status) << size;
    }
}

TEST(ReadReply, RefusesWhatIsNoReply) {
    for (const Bytes &message :
         {Words({kXid, 0, 0, 0, 0, 0}), Words({kXid, 2, 0, 0, 0, 0}), Words({kXid, 1, 2, 0, 0, 0}),
          Words({kXid, 1, 0xFFFFFFFF, 0, 0, 0})}) {
        Outcome outcome;
        EXPECT_TRUE(Read(message, false, nullptr, outcome));
        EXPECT_EQ(RPC_CANTDECODERES, outcome.status);
    }
}

// A datagram with another xid is ignored. On a connection, which has one call, it is a failure.
TEST(ReadReply, ChecksTheXid) {
    for (const uint32_t xid : {kXid + 1, kXid ^ 0x80000000, 0u}) {
        Outcome outcome;
        uint32_t result = 5;
        const Bytes reply = Reply(Words({xid}), 0, {9});
        EXPECT_FALSE(Read(reply, false, &result, outcome));
        EXPECT_TRUE(Read(Fragment(true, reply), true, &result, outcome));
        EXPECT_EQ(RPC_CANTDECODERES, outcome.status);
        EXPECT_EQ(5u, result);
    }
    for (const size_t length : {0, 1, 3}) {
        Outcome outcome;
        EXPECT_FALSE(ReadReply({Words({0}).data(), length}, false, 0, nullptr, outcome));
    }
}

// `reply` in fragments of `size` bytes, with `empty` empty ones before each.
Bytes InFragments(const Bytes &reply, size_t size, int empty) {
    Bytes stream;
    for (size_t at = 0; at < reply.size(); at += size) {
        const size_t end = std::min(at + size, reply.size());
        for (int i = 0; i < empty; ++i) {
            stream = stream + Fragment(false, {});
        }
        stream =
            stream + Fragment(end == reply.size(), {reply.begin() + static_cast<ssize_t>(at),
                                                    reply.begin() + static_cast<ssize_t>(end)});
    }
    return stream;
}

TEST(ReadReply, JoinsFragments) {
    for (const ReplyCase &one : ReplyCases()) {
        for (size_t size = 1; size <= one.reply.size(); ++size) {
            for (const int empty : {0, 1, 3}) {
                const Bytes stream = InFragments(one.reply, size, empty);
                Outcome outcome;
                for (size_t length = 0; length < stream.size(); ++length) {
                    EXPECT_FALSE(Read({stream.begin(), stream.begin() + ssize_t(length)}, true,
                                      nullptr, outcome));
                }
                EXPECT_TRUE(Read(stream, true, nullptr, outcome));
                ExpectOutcome(one, outcome);
                EXPECT_TRUE(Read(stream + Bytes{1, 2, 3}, true, nullptr, outcome));
                ExpectOutcome(one, outcome);
            }
        }
    }
    Outcome outcome;
    EXPECT_TRUE(
        Read(Fragment(false, Reply(kCall, 0)) + Fragment(true, {}), true, nullptr, outcome));
    EXPECT_EQ(RPC_SUCCESS, outcome.status);
    EXPECT_TRUE(Read(Fragment(true, {}), true, nullptr, outcome));
    EXPECT_EQ(RPC_CANTDECODERES, outcome.status);
}

TEST(ReadReply, StaysInsideItsBytes) {
    std::mt19937 random{1};
    std::vector<Bytes> seeds;
    for (const ReplyCase &one : ReplyCases()) {
        seeds.push_back(one.reply);
        seeds.push_back(Fragment(true, one.reply));
        seeds.push_back(InFragments(one.reply, 5, 1));
    }
    for (int i = 0; i < 100000; ++i) {
        Bytes bytes = seeds[random() % seeds.size()];
        for (auto changes = random() % 6; changes > 0; --changes) {
            bytes[random() % bytes.size()] =
                static_cast<uint8_t>(random() % 3 == 0 ? 255 : random());
        }
        bytes.resize(random() % (bytes.size() + 1));
        Outcome outcome;
        uint32_t result;
        Read(bytes, random() % 2 == 0, random() % 2 == 0 ? &result : nullptr, outcome);
        EXPECT_LE(outcome.status, RPC_FAILED);
    }
}

// Its length decides, before its bytes arrive.
TEST(ReadReply, RefusesALongRecordAtOnce) {
    const size_t most = 1024 - 4;
    Outcome outcome;
    EXPECT_FALSE(Read(Words({0x80000000u | most}), true, nullptr, outcome));
    for (const Bytes &record :
         {Words({0x80000000u | (most + 1)}), Words({0xFFFFFFFFu}), Words({0x7FFFFFFFu}),
          Words({4, kXid, 0x80000000u | (most - 7)}), Fragment(true, Bytes(5000, 'x'))}) {
        outcome = {};
        EXPECT_TRUE(Read(record, true, nullptr, outcome));
        EXPECT_EQ(RPC_CANTDECODERES, outcome.status);
    }
    outcome = {};
    EXPECT_FALSE(Read(Words({4, kXid, 0x80000000u | (most - 8)}), true, nullptr, outcome));
}

// ---- Reasons

// What is written to standard error; standard output receives nothing.
std::string Printed(const Outcome &outcome) {
    return CaptureAll(
        [&] { EXPECT_EQ("", Capture([&] { PrintFailure("Bad UMNT RPC", outcome); })); });
}

// The texts are those of clnt_perror(3) and clnt_pcreateerror(3).
TEST(PrintFailure, PrintsTheTextsOfClntPerror) {
    const std::pair<Outcome, const char *> kRows[] = {
        {{.status = RPC_SUCCESS}, "Success"},
        {{.status = RPC_CANTENCODEARGS}, "Can't encode arguments"},
        {{.status = RPC_CANTDECODERES}, "Can't decode result"},
        {{.status = RPC_CANTSEND, .error = ENETUNREACH},
         "Unable to send; errno = Network is unreachable"},
        {{.status = RPC_CANTRECV, .error = ECONNREFUSED},
         "Unable to receive; errno = Connection refused"},
        {{.status = RPC_TIMEDOUT, .error = ETIMEDOUT}, "Timed out"},
        {{.status = RPC_VERSMISMATCH, .low = 2, .high = 5},
         "Incompatible versions of RPC; low version = 2, high version = 5"},
        {{.status = RPC_AUTHERROR, .why = 1},
         "Authentication error; why = Invalid client credential"},
        {{.status = RPC_PROGUNAVAIL}, "Program unavailable"},
        {{.status = RPC_PROGVERSMISMATCH, .low = 1, .high = 4294967295u},
         "Program/version mismatch; low version = 1, high version = 4294967295"},
        {{.status = RPC_PROCUNAVAIL}, "Procedure unavailable"},
        {{.status = RPC_CANTDECODEARGS}, "Server can't decode arguments"},
        {{.status = RPC_SYSTEMERROR}, "Remote system error"},
        {{.status = RPC_SYSTEMERROR, .error = ECONNREFUSED},
         "Remote system error - Connection refused"},
        {{.status = RPC_PMAPFAILURE, .cause = RPC_SYSTEMERROR},
         "Port mapper failure - Remote system error"},
        {{.status = RPC_PMAPFAILURE, .error = ETIMEDOUT, .cause = RPC_TIMEDOUT},
         "Port mapper failure - Timed out"},
        {{.status = RPC_PMAPFAILURE, .error = ECONNREFUSED, .cause = RPC_CANTRECV},
         "Port mapper failure - Unable to receive: errno 111 (Connection refused)"},
        {{.status = RPC_PMAPFAILURE, .error = ENETUNREACH, .cause = RPC_CANTSEND},
         "Port mapper failure - Unable to send: errno 101 (Network is unreachable)"},
        {{.status = RPC_PMAPFAILURE, .why = 1, .cause = RPC_AUTHERROR},
         "Port mapper failure - Authentication error"},
        {{.status = RPC_PMAPFAILURE, .low = 2, .high = 4, .cause = RPC_PROGVERSMISMATCH},
         "Port mapper failure - Program/version mismatch"},
        {{.status = RPC_PROGNOTREGISTERED}, "Program not registered"},
        {{.status = RPC_FAILED}, "Failed (unspecified error)"},
    };
    for (const auto &[outcome, pReason] : kRows) {
        EXPECT_EQ(std::string{"Bad UMNT RPC: RPC: "} + pReason + "\n", Printed(outcome));
    }
}

TEST(PrintFailure, SaysWhyACredentialWasRefused) {
    constexpr const char *kWhy[] = {
        "Authentication OK",
        "Invalid client credential",
        "Server rejected credential",
        "Invalid client verifier",
        "Server rejected verifier",
        "Client credential too weak",
        "Invalid server verifier",
        "Failed (unspecified error)",
        "(unknown authentication error - 8)",
    };
    for (uint32_t why = 0; why < std::size(kWhy); ++why) {
        EXPECT_EQ(std::string{"Bad UMNT RPC: RPC: Authentication error; why = "} + kWhy[why] + "\n",
                  Printed({.status = RPC_AUTHERROR, .why = why}));
    }
    EXPECT_EQ(
        "Bad UMNT RPC: RPC: Authentication error; why = (unknown authentication error - -1)\n",
        Printed({.status = RPC_AUTHERROR, .why = 0xFFFFFFFF}));
}

// ---- Exchanges

constexpr int64_t kMs = 3000;

// Calls the server on kPort.
Outcome CallServer(int type, uint32_t *pResult = nullptr, int64_t ms = kMs) {
    CallMessage call{100005, 3, 3, CallMessage::kNone};
    return Call(type, Loopback(kPort), call, pResult, Deadline{ms});
}

void ExpectFailure(Status status, int error, const Outcome &outcome) {
    EXPECT_EQ(status, outcome.status);
    EXPECT_EQ(error, outcome.error);
}

TEST(Call, ReturnsTheResult) {
    WithLoopback([] {
        for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
            RpcPeer peer{type, kPort, [](const Bytes &call) { return Reply(call, 0, {4711}); }};
            uint32_t result = 0;
            EXPECT_EQ(RPC_SUCCESS, CallServer(type, &result).status);
            EXPECT_EQ(4711u, result);
            EXPECT_EQ(1u, peer.Calls().size());
        }
    });
}

TEST(Call, ReportsEveryRefusal) {
    WithLoopback([] {
        for (const ReplyCase &one : ReplyCases()) {
            for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
                RpcPeer peer{type, kPort, [&](const Bytes &call) {
                                 Bytes reply = one.reply;
                                 std::copy_n(call.begin(), 4, reply.begin());
                                 return reply;
                             }};
                ExpectOutcome(one, CallServer(type));
            }
        }
    });
}

TEST(Call, IgnoresOtherDatagrams) {
    WithLoopback([] {
        const UdpTalker server{kPort, [](const Bytes &call, const UdpTalker::Send &send) {
                                   const Bytes reply = Reply(call, 0, {1});
                                   Bytes other = Reply(call, 0, {2});
                                   other[3] ^= 1;
                                   send(other);
                                   for (const ssize_t length : {0, 1, 3}) {
                                       send({reply.begin(), reply.begin() + length});
                                   }
                                   send(Bytes(1023, 'x'));
                                   send(Bytes(1024, 'x'));
                                   send(Bytes(9000, 'x'));
                                   send(reply);
                               }};
        uint32_t result = 0;
        EXPECT_EQ(RPC_SUCCESS, CallServer(SOCK_DGRAM, &result).status);
        EXPECT_EQ(1u, result);
    });
}

// Only a reply from the address and port that were called counts.
TEST(Call, TakesDatagramsOfItsServerOnly) {
    WithLoopback([] {
        RpcPeer server{SOCK_DGRAM, kPort, [&](const Bytes &call) {
                           const int stranger = BoundSocket(SOCK_DGRAM, kPort + 1);
                           const sockaddr_in to = Loopback(server.sourcePort());
                           const Bytes forged = Reply(call, 0, {2});
                           sendto(stranger, forged.data(), forged.size(), 0,
                                  reinterpret_cast<const sockaddr *>(&to), sizeof to);
                           close(stranger);
                           return Reply(call, 0, {1});
                       }};
        uint32_t result = 0;
        EXPECT_EQ(RPC_SUCCESS, CallServer(SOCK_DGRAM, &result).status);
        EXPECT_EQ(1u, result);
    });
}

TEST(Call, ReportsWhenNobodyListens) {
    WithLoopback([] {
        ExpectFailure(RPC_CANTRECV, ECONNREFUSED, CallServer(SOCK_DGRAM));
        const Outcome outcome = CallServer(SOCK_STREAM);
        ExpectFailure(RPC_SYSTEMERROR, ECONNREFUSED, outcome);
        EXPECT_TRUE(outcome.unconnected());
    });
}

TEST(Call, ReportsWhenThereIsNoRoute) {
    RunInPrivateWorld(kMounts | kNetwork, [] {
        const Outcome outcome = CallServer(SOCK_DGRAM);
        ExpectFailure(RPC_CANTSEND, ENETUNREACH, outcome);
        EXPECT_FALSE(outcome.unconnected());
        ExpectFailure(RPC_SYSTEMERROR, ENETUNREACH, CallServer(SOCK_STREAM));
    });
}

using Waits = std::vector<PretendedTime::Wait>;

TEST(Call, RepeatsADatagramAfter1And2And4Seconds) {
    WithLoopback([] {
        RpcPeer peer{SOCK_DGRAM, kPort, RpcPeer::StaySilent};
        PretendedTime time;
        time.inVain = [](short) { return true; };
        EXPECT_EQ(RPC_TIMEDOUT, CallServer(SOCK_DGRAM, nullptr, 10000).status);
        EXPECT_EQ((Waits{{POLLIN, 1000}, {POLLIN, 2000}, {POLLIN, 4000}, {POLLIN, 3000}}),
                  time.waits);
        const std::vector<Bytes> calls = peer.AwaitCalls(4);
        EXPECT_EQ((std::vector<Bytes>{calls[0], calls[0], calls[0], calls[0]}), calls);
    });
}

TEST(Call, EndsAtItsDeadline) {
    WithLoopback([] {
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::StaySilent};
        RpcPeer tcp{SOCK_STREAM, kPort, RpcPeer::StaySilent};
        for (const int64_t ms : {0, 1, 999, 1000, 1001, 3000}) {
            PretendedTime time;
            time.inVain = [](short events) { return events == POLLIN; };
            EXPECT_EQ(RPC_TIMEDOUT, CallServer(SOCK_DGRAM, nullptr, ms).status);
            EXPECT_EQ(ms, time.ElapsedMs());
        }
        PretendedTime time;
        time.inVain = [](short events) { return events == POLLIN; };
        EXPECT_EQ(RPC_TIMEDOUT, CallServer(SOCK_STREAM).status);
        EXPECT_EQ((Waits{{POLLOUT, kMs}, {POLLIN, kMs}}), time.waits);
        EXPECT_EQ(1u, tcp.AwaitCalls(1).size());
    });
}

TEST(Call, EndsAtItsDeadlineWithoutAConnection) {
    WithLoopback([] {
        MakeFullListener(kPort);
        PretendedTime time;
        time.inVain = [](short events) { return events == POLLOUT; };
        const Outcome outcome = CallServer(SOCK_STREAM);
        ExpectFailure(RPC_SYSTEMERROR, ETIMEDOUT, outcome);
        EXPECT_TRUE(outcome.unconnected());
        EXPECT_EQ((Waits{{POLLOUT, kMs}}), time.waits);
    });
}

// Other datagrams do not extend the time.
TEST(Call, EndsAtItsDeadlineInAFloodOfDatagrams) {
    WithLoopback([] {
        for (const ssize_t length : {24, 3, 0}) {
            std::atomic<bool> over = false;
            const UdpTalker server{kPort, [&](const Bytes &call, const UdpTalker::Send &send) {
                                       Bytes reply = Reply(call, 0);
                                       reply[0] ^= 0x40;
                                       while (!over) {
                                           send({reply.begin(), reply.begin() + length});
                                       }
                                   }};
            PretendedTime time;
            time.readyMs = 10;
            EXPECT_EQ(RPC_TIMEDOUT, CallServer(SOCK_DGRAM).status);
            EXPECT_EQ(kMs, time.ElapsedMs());
            over = true;
        }
    });
}

TEST(Call, ReadsARecordThatArrivesByteByByteWithinItsTime) {
    WithLoopback([] {
        for (const int64_t readyMs : {100, 200}) {  // for the connection, and 28 times for a byte
            const TcpTalker server{kPort, [](int fd, const Bytes &call) {
                                       TcpTalker::Send(fd, Fragment(true, Reply(call, 0)));
                                       TcpTalker::AwaitHangUp(fd);
                                   }};
            PretendedTime time;
            time.mostReceived = 1;
            time.readyMs = readyMs;
            EXPECT_EQ(readyMs == 100 ? RPC_SUCCESS : RPC_TIMEDOUT, CallServer(SOCK_STREAM).status);
            EXPECT_EQ(readyMs == 100 ? 2900 : kMs, time.ElapsedMs());
        }
    });
}

TEST(Call, TakesARecordInFragments) {
    WithLoopback([] {
        for (const size_t size : {1, 2, 3, 4, 5, 7, 23, 24}) {
            for (const size_t mostReceived : {size_t{1}, size_t{6}, SIZE_MAX}) {
                const TcpTalker server{kPort, [&](int fd, const Bytes &call) {
                                           TcpTalker::Send(fd,
                                                           InFragments(Reply(call, 0), size, 1));
                                       }};
                PretendedTime time;
                time.mostReceived = mostReceived;
                EXPECT_EQ(RPC_SUCCESS, CallServer(SOCK_STREAM).status) << size;
            }
        }
    });
}

TEST(Call, TakesTheLongestReply) {
    WithLoopback([] {
        const auto answer = [](const Bytes &call) {
            const Bytes reply =
                Words({Get32(call, 0), 1, 0, 0, 400}) + Bytes(400, 'v') + Words({2, 1, 3});
            EXPECT_EQ(432u, reply.size());
            return reply;
        };
        for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
            RpcPeer peer{type, kPort, answer};
            const Outcome outcome = CallServer(type);
            EXPECT_EQ(RPC_PROGVERSMISMATCH, outcome.status);
            EXPECT_EQ(3u, outcome.high);
        }
    });
}

TEST(Call, ReportsAConnectionThatIsClosedEarly) {
    WithLoopback([] {
        for (ssize_t length = 0; length < 28; ++length) {
            const TcpTalker server{
                kPort, [&](int fd, const Bytes &call) {
                    const Bytes record = Fragment(true, Reply(call, 0));
                    TcpTalker::Send(fd, {record.begin(), record.begin() + length});
                }};
            ExpectFailure(RPC_CANTRECV, ECONNRESET, CallServer(SOCK_STREAM));
        }
    });
}

TEST(Call, ReportsAConnectionThatIsReset) {
    WithLoopback([] {
        const TcpTalker server{kPort, [](int fd, const Bytes &) {
                                   const struct linger hard = {1, 0};
                                   setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
                               }};
        ExpectFailure(RPC_CANTRECV, ECONNRESET, CallServer(SOCK_STREAM));
    });
}

TEST(Call, ReportsARecordThatIsNoReply) {
    WithLoopback([] {
        for (const bool endless : {false, true}) {
            const TcpTalker server{
                kPort, [&](int fd, const Bytes &call) {
                    Bytes reply = Reply(call, 0);
                    reply[0] ^= 0x40;
                    while (TcpTalker::Send(fd, Fragment(true, reply)) && endless) {
                    }
                }};
            ExpectFailure(RPC_CANTDECODERES, 0, CallServer(SOCK_STREAM));
        }
    });
}

// More fragments or bytes than a reply can have.
TEST(Call, ReportsARecordThatIsTooLong) {
    WithLoopback([] {
        for (const uint32_t mark : {0x00000000u, 0x00000004u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
            const TcpTalker server{kPort, [&](int fd, const Bytes &) {
                                       TcpTalker::Send(fd, Words(std::vector<uint32_t>(256, mark)));
                                       TcpTalker::AwaitHangUp(fd);
                                   }};
            ExpectFailure(RPC_CANTDECODERES, 0, CallServer(SOCK_STREAM));
        }
    });
}

TEST(Call, RaisesNoSigpipe) {
    WithLoopback([] {
        RpcPeer peer{SOCK_STREAM, kPort, RpcPeer::Accept};
        g_sendError = EPIPE;
        ExpectFailure(RPC_CANTSEND, EPIPE, CallServer(SOCK_STREAM));
        EXPECT_EQ(MSG_NOSIGNAL, g_sendFlags & MSG_NOSIGNAL);
    });
}

// ---- Ports

std::vector<int> Occupy(in_port_t first, in_port_t last, in_port_t except) {
    std::vector<int> sockets;
    for (in_port_t port = first; port <= last; ++port) {
        if (port != except) {
            sockets.push_back(BoundSocket(SOCK_DGRAM, port));
        }
    }
    return sockets;
}

TEST(Call, ComesFromAPortBelow1024) {
    WithLoopback([] {
        for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
            RpcPeer peer{type, kPort, RpcPeer::Accept};
            for (int i = 0; i < 20; ++i) {
                EXPECT_EQ(RPC_SUCCESS, CallServer(type).status);
                EXPECT_GE(peer.sourcePort(), 600);
                EXPECT_LE(peer.sourcePort(), 1023);
            }
        }
    });
}

TEST(Call, FindsTheOneFreePortBelow1024) {
    WithLoopback([] {
        RpcPeer peer{SOCK_DGRAM, kPort, RpcPeer::Accept};
        // The search begins at a port that depends on the clock.
        const PretendedTime time;
        constexpr auto kTriedFirst = static_cast<in_port_t>(600 + PretendedTime::kStart % 424);
        for (const in_port_t only : {in_port_t{600}, kTriedFirst, in_port_t{1023}}) {
            const std::vector<int> sockets = Occupy(600, 1023, only);
            EXPECT_EQ(RPC_SUCCESS, CallServer(SOCK_DGRAM).status);
            EXPECT_EQ(only, peer.sourcePort());
            std::for_each(sockets.begin(), sockets.end(), close);
        }
    });
}

TEST(Call, ComesFromAnyPortWhenThoseBelow1024AreInUse) {
    WithLoopback([] {
        RpcPeer peer{SOCK_DGRAM, kPort, RpcPeer::Accept};
        const std::vector<int> sockets = Occupy(600, 1023, 0);
        EXPECT_EQ(RPC_SUCCESS, CallServer(SOCK_DGRAM).status);
        EXPECT_GE(peer.sourcePort(), 1024);
        std::for_each(sockets.begin(), sockets.end(), close);
    });
}

TEST(Call, ComesFromAnyPortForAnOrdinaryUser) {
    if (getuid() != 0) {
        GTEST_SKIP() << "needs root, to become an ordinary user";
    }
    WithLoopback([] {
        RpcPeer udp{SOCK_DGRAM, kPort, RpcPeer::Accept};
        RpcPeer tcp{SOCK_STREAM, kPort, RpcPeer::Accept};
        ASSERT_EQ(0, seteuid(65533));
        EXPECT_EQ(RPC_SUCCESS, CallServer(SOCK_DGRAM).status);
        EXPECT_EQ(RPC_SUCCESS, CallServer(SOCK_STREAM).status);
        EXPECT_GE(udp.sourcePort(), 1024);
        EXPECT_GE(tcp.sourcePort(), 1024);
    });
}

}  // namespace
