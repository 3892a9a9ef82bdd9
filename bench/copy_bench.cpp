// Copying a file onto an existing one: COM_CopyFile next to cp and to what the kernel offers. The
// files lie in memory (/dev/shm), so that the copy is measured and not a disk.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench/side_by_side.h"
#include "common/file_copy.h"

namespace {

// A source of state.range(0) KiB and an existing destination, in a directory of their own.
class Files {
  public:
    explicit Files(benchmark::State &state) {
        char name[] = "/dev/shm/talvek-bench-XXXXXX";
        if (mkdtemp(name) == nullptr) {
            state.SkipWithError("no directory below /dev/shm");
            return;
        }
        dir_ = name;
        src_ = dir_ + "/src";
        dst_ = dir_ + "/dst";
        const std::vector<char> bytes(static_cast<size_t>(state.range(0)) << 10, 'x');
        const int fd = open(src_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
            COM_CopyFile(dst_.c_str(), src_.c_str()) != 0) {
            state.SkipWithError("the files cannot be made");
        }
        close(fd);
    }
    ~Files() {
        unlink(src_.c_str());
        unlink(dst_.c_str());
        rmdir(dir_.c_str());
    }
    Files(const Files &) = delete;
    Files &operator=(const Files &) = delete;

    [[nodiscard]] const char *src() const { return src_.c_str(); }
    [[nodiscard]] const char *dst() const { return dst_.c_str(); }

  private:
    std::string dir_;
    std::string src_;
    std::string dst_;
};

void Report(benchmark::State &state, bool good) {
    if (!good) {
        state.SkipWithError("a copy failed");
    }
    state.SetBytesProcessed(state.iterations() * (state.range(0) << 10));
}

bool Ended(pid_t pid) {
    int status = -1;
    return pid > 0 && waitpid(pid, &status, 0) == pid && status == 0;
}

void ComCopyFile(benchmark::State &state) {
    const Files files{state};
    bool good = true;
    for (auto _ : state) {
        good = good && COM_CopyFile(files.dst(), files.src()) == 0;
    }
    Report(state, good);
}

// With a process of its own, as cp has one; the program is not loaded again.
void ComCopyFileForked(benchmark::State &state) {
    const Files files{state};
    bool good = true;
    for (auto _ : state) {
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(COM_CopyFile(files.dst(), files.src()) == 0 ? 0 : 1);
        }
        good = Ended(pid) && good;
    }
    Report(state, good);
}

void Cp(benchmark::State &state) {
    const Files files{state};
    char path[] = "/bin/cp";
    std::string src = files.src();
    std::string dst = files.dst();
    char *const args[] = {path, src.data(), dst.data(), nullptr};
    bool good = true;
    for (auto _ : state) {
        pid_t pid = -1;
        good = posix_spawn(&pid, path, nullptr, nullptr, args, environ) == 0 && Ended(pid) && good;
    }
    Report(state, good);
}

void CopyFileRange(benchmark::State &state) {
    const Files files{state};
    bool good = true;
    for (auto _ : state) {
        const int src = open(files.src(), O_RDONLY | O_CLOEXEC);
        const int dst = open(files.dst(), O_WRONLY | O_TRUNC | O_CLOEXEC);
        ssize_t count;
        while ((count = copy_file_range(src, nullptr, dst, nullptr, size_t{1} << 30, 0)) > 0) {
        }
        good = good && count == 0;
        close(src);
        close(dst);
    }
    Report(state, good);
}

// KiB of the file. Real time: cp's work is not this process's.
void Sizes(benchmark::internal::Benchmark *bench) {
    bench->ArgName("KiB")->Arg(4)->Arg(1024)->Arg(65536)->UseRealTime();
    bench->Unit(benchmark::kMicrosecond);
}

BENCHMARK(ComCopyFile)->Apply(Sizes);
BENCHMARK(ComCopyFileForked)->Apply(Sizes);
BENCHMARK(Cp)->Apply(Sizes);
BENCHMARK(CopyFileRange)->Apply(Sizes);

const SideBySide g_pairs[] = {
    {"ComCopyFileForked", "Cp",
     "both copy onto an existing file in a new process; cp loads a program", "1.05"},
    {"ComCopyFile", "CopyFileRange", "the kernel copies for both; the peer makes no directory"}};

}  // namespace
