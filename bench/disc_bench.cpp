// The cost of identifying one disc without the drive's own time: the requests, their decoding and
// the log lines. A stand-in for ioctl answers at once with the replies of a fixture.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <scsi/sg.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bench/quiet.h"
#include "common/log.h"
#include "dev/DEV.h"

#ifndef TALVEK_SOURCE_DIR
#define TALVEK_SOURCE_DIR "."  // run from the source directory
#endif

namespace {

// Replies by opcode; a header "[43 2=04]" of the fixtures counts as its opcode.
std::map<uint8_t, std::vector<uint8_t>> g_replies;
long g_commands = 0;

void LoadReplies(const std::string &fixture) {
    std::ifstream in{TALVEK_SOURCE_DIR "/tests/dev/fixtures/" + fixture};
    uint8_t opcode = 0;
    for (std::string line; std::getline(in, line);) {
        line.resize(std::min(line.size(), line.find('#')));
        if (line.rfind('[', 0) == 0) {
            opcode = static_cast<uint8_t>(std::stoul(line.substr(1, 2), nullptr, 16));
            g_replies[opcode].clear();
            continue;
        }
        std::istringstream words{line};
        for (std::string word; words >> word;) {
            const size_t star = word.find('*');
            const size_t count = star == std::string::npos ? 1 : std::stoul(word.substr(star + 1));
            g_replies[opcode].insert(g_replies[opcode].end(), count,
                                     static_cast<uint8_t>(std::stoul(word, nullptr, 16)));
        }
    }
}

int Answer(sg_io_hdr_t &hdr) {
    ++g_commands;
    const std::vector<uint8_t> &reply = g_replies[hdr.cmdp[0]];
    const size_t count = std::min<size_t>(reply.size(), hdr.dxfer_len);
    if (count > 0) {
        memcpy(hdr.dxferp, reply.data(), count);
    }
    hdr.resid = static_cast<int>(hdr.dxfer_len - count);
    hdr.info = 0;
    return 0;
}

void Identify(benchmark::State &state, const char *pFixture) {
    g_replies.clear();
    LoadReplies("drive.hex");
    LoadReplies(pFixture);
    tDevInfo dev = {};
    strcpy(dev.devPath, "/dev/sr0");
    strcpy(dev.sgPath, "/dev/null");  // a node that opens; the requests do not reach it
    dev.isOptical = 1;
    g_commands = 0;
    int result = -1;
    {
        const Quiet quiet;
        for (auto _ : state) {
            result = Dev_GetDiscInfo(&dev);
        }
    }
    if (result != 0) {
        state.SkipWithError("the disc was not identified");
        return;
    }
    state.counters["commands"] =
        benchmark::Counter(static_cast<double>(g_commands), benchmark::Counter::kAvgIterations);
}
BENCHMARK_CAPTURE(Identify, cd_r_closed, "cd_r_closed.hex");
BENCHMARK_CAPTURE(Identify, dvd_minus_r_open, "dvd_minus_r_open.hex");
BENCHMARK_CAPTURE(Identify, dvd_minus_rw_sequential, "dvd_minus_rw_sequential.hex");
BENCHMARK_CAPTURE(Identify, dvd_plus_r_open, "dvd_plus_r_open.hex");

// One log line to /dev/null, of which an identification writes ten to twenty.
void OneLogLine(benchmark::State &state) {
    const Quiet quiet;
    for (auto _ : state) {
        COM_Log("DEV", 1, "Dev_GetDiscInfo", "(%s) : %d\n", "/dev/sr0", 1);
    }
}
BENCHMARK(OneLogLine);

// What clearing a whole reply buffer would add to every issue.
void ClearAReplyBuffer(benchmark::State &state) {
    static uint8_t buffer[DEV_REPLY_SIZE];
    for (auto _ : state) {
        memset(buffer, 0, sizeof buffer);
        benchmark::DoNotOptimize(buffer);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(ClearAReplyBuffer);

}  // namespace

// The names are given to the assembler: on 32 bits <sys/ioctl.h> gives ioctl another.
#if __SIZEOF_POINTER__ == 4
#define IOCTL_SYMBOL "__ioctl_time64"
#else
#define IOCTL_SYMBOL "ioctl"
#endif
extern "C" int AnswerIoctl(int fd, unsigned long request, ...) __asm__(IOCTL_SYMBOL);

int AnswerIoctl(int fd, unsigned long request, ...) {
    va_list list;
    va_start(list, request);
    void *arg = va_arg(list, void *);
    va_end(list);
    switch (request) {
        case SG_GET_VERSION_NUM:
            *static_cast<int *>(arg) = 30536;
            return 0;
        case SG_IO:
            return Answer(*static_cast<sg_io_hdr_t *>(arg));
        default:
            return static_cast<int>(syscall(SYS_ioctl, fd, request, arg));
    }
}
