// MD5 and SHA-1 of a file and of a buffer of 256 MiB, beside md5sum, sha1sum and openssl on the
// same file, in one shuffled run. The tools' figures include their start. Processor times include
// the children, so the ratios also hold on a busy machine.
//
// openssl uses the processor's SHA instructions if there are any; the others are plain C.

#include <benchmark/benchmark.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench/quiet.h"
#include "bench/side_by_side.h"
#include "common/digest.h"

namespace {

constexpr size_t kSize = size_t{256} << 20;

[[noreturn]] void Give(const char *pWhat) {
    fprintf(stderr, "digest_bench: %s : %s\n", pWhat, strerror(errno));
    exit(1);
}

// The bytes, in memory and in an unlinked file, which disappears when the program ends.
class Input {
  public:
    Input() : bytes_(kSize) {
        uint32_t x = 1;
        for (uint8_t &byte : bytes_) {
            x = x * 1664525 + 1013904223;
            byte = static_cast<uint8_t>(x >> 24);
        }
        char name[] = "/tmp/digest_bench_XXXXXX";
        const int fd = mkostemp(name, O_CLOEXEC);
        if (fd < 0) {
            Give("mkostemp");
        }
        unlink(name);
        for (size_t at = 0; at < kSize;) {
            const ssize_t count = write(fd, bytes_.data() + at, kSize - at);
            if (count <= 0) {
                Give("write");
            }
            at += static_cast<size_t>(count);
        }
        path_ = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd);
    }
    [[nodiscard]] const uint8_t *data() const { return bytes_.data(); }
    [[nodiscard]] const char *path() const { return path_.c_str(); }

  private:
    std::vector<uint8_t> bytes_;
    std::string path_;
};

const Input &TheInput() {
    static const Input input;
    return input;
}

double ProcessorSeconds() {
    double seconds = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage = {};
        getrusage(who, &usage);
        seconds += static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                   static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    }
    return seconds;
}

template <typename Digest>
void Measure(benchmark::State &state, Digest digest) {
    const Input &input = TheInput();
    const double before = ProcessorSeconds();
    for (auto _ : state) {
        digest(input);
    }
    state.counters["cpu_s"] =
        (ProcessorSeconds() - before) / static_cast<double>(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kSize));
}

void FileMd5(benchmark::State &state) {
    Measure(state, [](const Input &input) {
        char hex[COM_MD5_HEX_SIZE];
        COM_MakeFileMD5(hex, input.path());
        benchmark::DoNotOptimize(hex);
    });
}

// The digest is logged, so the output is discarded.
void FileSha1(benchmark::State &state) {
    const Quiet quiet;
    Measure(state, [](const Input &input) {
        uint8_t digest[COM_SHA1_SIZE];
        COM_MakeFileSHA1(digest, input.path());
        benchmark::DoNotOptimize(digest);
    });
}

void BufferMd5(benchmark::State &state) {
    Measure(state, [](const Input &input) {
        char hex[COM_MD5_HEX_SIZE];
        COM_MakeBufMD5(hex, input.data(), kSize);
        benchmark::DoNotOptimize(hex);
    });
}

void BufferSha1(benchmark::State &state) {
    Measure(state, [](const Input &input) {
        uint8_t digest[COM_SHA1_SIZE];
        COM_MakeBufSHA1(digest, input.data(), kSize);
        benchmark::DoNotOptimize(digest);
    });
}

void Tool(benchmark::State &state, const char *pCommand) {
    const std::string line =
        "exec " + std::string{pCommand} + " < " + TheInput().path() + " > /dev/null";
    Measure(state, [&](const Input &) {
        if (system(line.c_str()) != 0) {
            state.SkipWithError("the tool is missing");
        }
    });
}

// One digest a measurement; they take some tenths of a second.
#define ONE_DIGEST ->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime()
BENCHMARK(FileMd5) ONE_DIGEST;
BENCHMARK(BufferMd5) ONE_DIGEST;
BENCHMARK_CAPTURE(Tool, md5sum, "md5sum") ONE_DIGEST;
BENCHMARK_CAPTURE(Tool, opensslMd5, "openssl dgst -md5") ONE_DIGEST;
BENCHMARK(FileSha1) ONE_DIGEST;
BENCHMARK(BufferSha1) ONE_DIGEST;
BENCHMARK_CAPTURE(Tool, sha1sum, "sha1sum") ONE_DIGEST;
BENCHMARK_CAPTURE(Tool, opensslSha1, "openssl dgst -sha1") ONE_DIGEST;

constexpr const char *kBuffer = "processor time; the peer reads a file too";
constexpr const char *kFile = "processor time; the peer's start is included";
constexpr const char *kOpenssl = "processor time; the peer uses the processor's SHA instructions";

const SideBySide g_pairs[] = {
    {"FileMd5", "Tool/md5sum", kFile, "1.00"},       {"BufferMd5", "Tool/md5sum", kBuffer, "1.00"},
    {"FileMd5", "Tool/opensslMd5", kFile},           {"FileSha1", "Tool/sha1sum", kFile, "1.00"},
    {"BufferSha1", "Tool/sha1sum", kBuffer, "1.00"}, {"FileSha1", "Tool/opensslSha1", kOpenssl}};

}  // namespace

int main(int argc, char *argv[]) {
    TheInput();
    return RunBenchmarks(argc, argv);
}
