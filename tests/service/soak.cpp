// Commands without end: soak [minutes [commands]]. Several clients at once call a daemon, and
// handlers, commands and clients are killed at random. A line for each minute shows the figures of
// the listening process. The run fails when a call ends wrongly, when something is left over, and
// when the last quarter of the run needs more than the first:
//
//   memory, descriptors  nothing more at all. They are counted while no client is connected, and
//                        the program's file is a copy that no other process maps.
//   time of a call       three times the 99th percentile. A machine becomes slower by itself, so
//                        the percentile is divided by that of `sh -c` started in the same minute.
//                        It is judged in runs of at least eight minutes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "service/support/program.h"

namespace {

using namespace talvek::test;
using Clock = std::chrono::steady_clock;
using Words = std::vector<std::string>;

constexpr double kLongestPeriod = 60;  // seconds of a sample
constexpr size_t kAtOnce = 4;
constexpr int kWarmUp = 500;  // calls before the first sample
constexpr unsigned kCallsPerKill = 50;
constexpr double kSlower = 3;        // how much is a failure
constexpr unsigned kPatience = 120;  // seconds in which a call must end

// What is known of the listening process, and of the calls since the sample before.
struct Sample {
    long pss = 0;  // kB
    long dirty = 0;
    int descriptors = 0;
    size_t calls = 0;
    std::vector<float> ours;    // milliseconds of a call of `exit <n>`
    std::vector<float> shells;  // of `sh -c 'exit <n>'`
};

float Percentile(std::vector<float> times, double part) {
    if (times.empty()) {
        return 0;
    }
    const auto at = times.begin() + static_cast<long>(part * static_cast<double>(times.size() - 1));
    std::nth_element(times.begin(), at, times.end());
    return *at;
}

long Kilobytes(pid_t pid, const std::string &name) {
    std::ifstream rollup{"/proc/" + std::to_string(pid) + "/smaps_rollup"};
    for (std::string word; rollup >> word;) {
        if (word == name + ":") {
            long value = -1;
            rollup >> value;
            return value;
        }
    }
    ADD_FAILURE() << "no " << name;
    return -1;
}

// Kills a child of `parent`, and no other process that has got its number meanwhile.
bool KillChildOf(pid_t parent, pid_t child) {
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    if (handle < 0) {
        return false;
    }
    const std::vector<pid_t> children = ChildrenOf(parent);
    const bool still = std::find(children.begin(), children.end(), child) != children.end();
    const bool sent = still && syscall(SYS_pidfd_send_signal, handle, SIGKILL, nullptr, 0) == 0;
    close(handle);
    return sent;
}

class Soak {
  public:
    Soak(double minutes, size_t commands)
        : end_(Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                  std::chrono::duration<double>(minutes * 60))),
          // A short run has eight samples too.
          period_(std::min(kLongestPeriod, minutes * 60 / 8)),
          commands_(commands) {
        environment_.resize(3);
        for (size_t i = 0; i < environment_.size(); ++i) {
            // The last one is larger than a package.
            environment_[i] = {"PATH=/usr/bin:/bin", "SOAK=" + std::string(10 + 600 * i, 'x')};
        }
    }

    // Returns whether nothing failed.
    bool Run();

  private:
    struct Call {
        Clock::time_point start;
        int expected;  // exit status
        bool shell;    // the shell's own, without the service
        bool timed;
        bool disturbed;  // something was killed while it ran
    };

    void Start();
    void Collect();
    void Judge(const Call &call, int status);
    void KillOne();
    void Drain();
    void TakeSample();
    void Compare() const;

    [[nodiscard]] unsigned Draw(unsigned below) { return static_cast<unsigned>(random_()) % below; }

    const Clock::time_point start_ = Clock::now();
    const Clock::time_point end_;
    const double period_;
    const size_t commands_;
    std::mt19937 random_{7};
    std::vector<Words> environment_;
    Daemon daemon_;
    const int descriptors_ = daemon_.Descriptors();  // without a client
    std::map<pid_t, Call> running_;
    std::vector<Sample> samples_;
    Sample now_;
    size_t calls_ = 0;
    size_t kills_ = 0;
    size_t hit_ = 0;  // calls that a kill ended
};

void Soak::Start() {
    const int status = static_cast<int>(Draw(256));
    Call call = {Clock::now(), status, Draw(8) == 0, true, false};
    std::string command = "exit " + std::to_string(status);
    Words words = {ProgramPath(), "-C", "-s", daemon_.socket(), "-f", command};
    if (call.shell) {
        words = {"/bin/sh", "-c", command};
    } else if (Draw(16) == 0) {
        // Long enough to be hit, and with a child of its own.
        words.back() = "sleep 0.01; " + command;
        call.timed = false;
    }
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    Words &strings = environment_[Draw(static_cast<unsigned>(environment_.size()))];
    char *envp[] = {strings[0].data(), strings[1].data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    EXPECT_EQ(0, posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp));
    posix_spawn_file_actions_destroy(&actions);
    running_.emplace(pid, call);
}

// Waits for the end of one call.
void Soak::Collect() {
    for (;;) {
        int status = -1;
        const pid_t pid = waitpid(-1, &status, 0);
        ASSERT_LT(0, pid);
        const auto found = running_.find(pid);
        if (found != running_.end()) {
            const Call call = found->second;
            running_.erase(found);
            Judge(call, status);
            return;
        }
        // Else a command whose handler was killed; this process adopts it.
        ASSERT_NE(daemon_.pid(), pid) << "the daemon has ended: " << status;
    }
}

// A call that something was killed in may end as that lets it end: 1 without a handler, 255 without
// a command, SIGKILL without a client.
void Soak::Judge(const Call &call, int status) {
    const bool good = WIFEXITED(status) && WEXITSTATUS(status) == call.expected;
    const bool killed = WIFSIGNALED(status)
                            ? WTERMSIG(status) == SIGKILL
                            : WEXITSTATUS(status) == 1 || WEXITSTATUS(status) == 255;
    if (!good) {
        EXPECT_TRUE(call.disturbed && killed)
            << "wait status " << status << " for " << call.expected;
        ++hit_;
    }
    const std::chrono::duration<float, std::milli> took = Clock::now() - call.start;
    EXPECT_LT(took.count(), 1000.F * kPatience);
    if (!call.shell) {
        ++calls_;
        ++now_.calls;
    }
    if (good && call.shell) {
        now_.shells.push_back(took.count());
    } else if (good && call.timed && !call.disturbed) {
        now_.ours.push_back(took.count());
    }
}

// Kills a handler, a command or a client that runs now.
void Soak::KillOne() {
    pid_t parent = daemon_.pid();
    const unsigned kind = Draw(3);
    if (kind == 0) {
        parent = getpid();
    } else if (kind == 1) {
        const std::vector<pid_t> handlers = ChildrenOf(parent);
        if (handlers.empty()) {
            return;
        }
        parent = handlers[Draw(static_cast<unsigned>(handlers.size()))];
    }
    std::vector<pid_t> children = ChildrenOf(parent);
    if (kind == 0) {
        std::erase_if(children, [this](pid_t child) { return running_.count(child) == 0; });
    }
    if (children.empty()) {
        return;
    }
    const pid_t child = children[Draw(static_cast<unsigned>(children.size()))];
    for (auto &[pid, call] : running_) {
        call.disturbed = true;
    }
    kills_ += KillChildOf(parent, child);
}

// Lets the calls end, and what they leave.
void Soak::Drain() {
    alarm(kPatience);
    while (!running_.empty() && !::testing::Test::HasFatalFailure()) {
        Collect();
    }
    EXPECT_TRUE(Eventually([this] { return daemon_.Children().empty(); }))
        << daemon_.Children().size() << " children or zombies";
    // The daemon closes its end of a connection after it has started the handler.
    EXPECT_TRUE(Eventually([this] { return daemon_.Descriptors() == descriptors_; }))
        << daemon_.Descriptors() << " descriptors";
}

void Soak::TakeSample() {
    Drain();
    now_.pss = Kilobytes(daemon_.pid(), "Pss");
    now_.dirty = Kilobytes(daemon_.pid(), "Private_Dirty");
    now_.descriptors = daemon_.Descriptors();
    const std::chrono::duration<double> took = Clock::now() - start_;
    printf(
        "%7.1f min %9zu calls %6zu kills, %5zu calls hit; Pss %ld kB, Private_Dirty %ld kB, "
        "%d descriptors; call p50 %.2f ms p99 %.2f ms, shell p99 %.2f ms\n",
        took.count() / 60, calls_, kills_, hit_, now_.pss, now_.dirty, now_.descriptors,
        static_cast<double>(Percentile(now_.ours, 0.5)),
        static_cast<double>(Percentile(now_.ours, 0.99)),
        static_cast<double>(Percentile(now_.shells, 0.99)));
    fflush(stdout);
    samples_.push_back(std::exchange(now_, {}));
    // The daemon appends, so its next line is the first one again.
    EXPECT_EQ(0, truncate((daemon_.dir() / "log").c_str(), 0));
}

// The samples of a part of the run in one: the most of each figure.
Sample Most(const Sample *pFirst, const Sample *pEnd) {
    Sample most;
    for (; pFirst != pEnd; ++pFirst) {
        most.pss = std::max(most.pss, pFirst->pss);
        most.dirty = std::max(most.dirty, pFirst->dirty);
        most.descriptors = std::max(most.descriptors, pFirst->descriptors);
        most.calls += pFirst->calls;
        most.ours.insert(most.ours.end(), pFirst->ours.begin(), pFirst->ours.end());
        most.shells.insert(most.shells.end(), pFirst->shells.begin(), pFirst->shells.end());
    }
    return most;
}

void Soak::Compare() const {
    const size_t quarter = std::max<size_t>(1, samples_.size() / 4);
    const Sample first = Most(samples_.data(), samples_.data() + quarter);
    const Sample last =
        Most(samples_.data() + samples_.size() - quarter, samples_.data() + samples_.size());
    EXPECT_LE(last.pss, first.pss) << "Pss";
    EXPECT_LE(last.dirty, first.dirty) << "Private_Dirty";
    EXPECT_LE(last.descriptors, first.descriptors);
    EXPECT_LE(hit_, kills_) << "more calls failed than were killed";
    double relative[2];
    for (const Sample *pPart : {&first, &last}) {
        const double ours = static_cast<double>(Percentile(pPart->ours, 0.99));
        const double shells = static_cast<double>(Percentile(pPart->shells, 0.99));
        relative[pPart == &last] = ours / shells;
        printf(
            "%s quarter: %zu calls, p50 %.2f ms, p90 %.2f ms, p99 %.2f ms, p99.9 %.2f ms; p99 "
            "%.2f times that of the shell; Pss %ld kB, Private_Dirty %ld kB, %d descriptors\n",
            pPart == &first ? "first" : "last ", pPart->calls,
            static_cast<double>(Percentile(pPart->ours, 0.5)),
            static_cast<double>(Percentile(pPart->ours, 0.9)), ours,
            static_cast<double>(Percentile(pPart->ours, 0.999)), ours / shells, pPart->pss,
            pPart->dirty, pPart->descriptors);
    }
    if (period_ >= kLongestPeriod) {
        EXPECT_LE(relative[1], kSlower * relative[0]) << "99th percentile of a call";
    }
}

bool Soak::Run() {
    const auto failed = [] {
        return ::testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
    };
    alarm(kPatience);
    while (calls_ < kWarmUp && !failed()) {
        Start();
        if (running_.size() == kAtOnce) {
            Collect();
        }
    }
    Drain();
    now_ = {};
    Clock::time_point next = Clock::now();
    while (!failed() && Clock::now() < end_ && calls_ < commands_) {
        next += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(period_));
        while (!failed() && Clock::now() < std::min(next, end_) && calls_ < commands_) {
            alarm(kPatience);
            Start();
            if (Draw(kCallsPerKill) == 0) {
                KillOne();
            }
            if (running_.size() == kAtOnce) {
                Collect();
            }
        }
        TakeSample();
    }
    if (!failed()) {
        Compare();
    }
    printf("%zu calls, %zu kills, %zu calls hit: %s\n", calls_, kills_, hit_,
           failed() ? "FAILED" : "nothing grew, nothing is left");
    return !failed();
}

}  // namespace

int main(int argc, char **argv) {
    ::testing::InitGoogleTest(&argc, argv);
    const double minutes = argc > 1 ? atof(argv[1]) : 10;
    const double commands = argc > 2 ? atof(argv[2]) : std::numeric_limits<int>::max();
    if (!(minutes > 0) || !(commands >= 1)) {
        fprintf(stderr, "usage: soak [minutes [commands]]\n");
        return 2;
    }
    const TempDir copies;
    const std::string program = copies / "talvek";
    std::filesystem::copy_file(ProgramPath(), program);
    // What has not reached the disk counts as dirty in the memory of who maps it.
    const int copy = open(program.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(0, fsync(copy));
    close(copy);
    setenv("TALVEK_PROGRAM", program.c_str(), 1);
    return Soak{minutes, static_cast<size_t>(commands)}.Run() ? 0 : 1;
}
