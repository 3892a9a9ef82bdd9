// Makes each call site of the library fail, with each error of calls.def, and looks at what is
// left.
//
//   faults [<regular expression>]   all scenarios, or those whose name matches
//
// Each scenario runs undisturbed first. Then, in a process of its own each time, every call site
// that it reached fails: once at the first call, once at the last, and from the first on for ever.
// A site that is reached only now is made to fail in turn, after the same failure as before.

#include "faults/harness.h"

#include <cxxabi.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "faults/wrappers.h"
#include "support/private_world.h"

namespace talvek::faults {
namespace {

namespace fs = std::filesystem;

constexpr int kRunSeconds = 20;
constexpr int kMostFaults = 3;   // in one run
constexpr uint32_t kAWhile = 5;  // calls, where a failure for ever is not plausible
constexpr int kMostReports = 200;
constexpr int kFinished = 42;  // exit status of a run that came to its end

// What all workers share.
struct Totals {
    std::atomic<unsigned> next;  // scenario
    std::atomic<unsigned> done;
    std::atomic<unsigned> runs;
    std::atomic<unsigned> bad;
    std::atomic<bool> reached[kMostSites];
    std::atomic<bool> failed[kMostSites];
};
Totals *g_totals = nullptr;
int g_log = -1;  // a run's standard output
std::vector<pid_t> g_peers;

template <typename T>
T *Shared() {
    return static_cast<T *>(
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
}

std::string FunctionOf(const Site &site) {
    int status = 0;
    char *name = abi::__cxa_demangle(site.function, nullptr, nullptr, &status);
    std::string text = name != nullptr ? name : site.function;
    free(name);
    // Without the parameters; "(anonymous namespace)" is not one.
    size_t at = 0;
    while ((at = text.find('(', at)) != std::string::npos && text.compare(at, 2, "(a") == 0) {
        ++at;
    }
    return text.substr(0, at);
}

std::string TextOf(const Fault &fault) {
    const std::string error = fault.error == kShort ? "short"
                              : fault.error == kEnd ? "end"
                              : strerrorname_np(fault.error) != nullptr
                                  ? strerrorname_np(fault.error)
                                  : std::to_string(fault.error);
    std::ostringstream text;
    text << FunctionOf(g_sites[fault.site]) << ": " << CalleeName(g_sites[fault.site].callee)
         << " @" << std::hex << g_sites[fault.site].returns << std::dec << ' ' << error;
    text << (fault.until == UINT32_MAX ? " for ever" : fault.from > 0 ? " at the last" : "");
    return text.str();
}

// What a process holds, and what could be left of a run.
struct Holdings {
    Held held = HeldNow();
    std::string mounts;
    std::set<std::string> files;
    sigset_t mask = {};
    std::map<int, void (*)(int)> actions;
};

std::string Content(const char *pPath) {
    std::ifstream in{pPath};
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

Holdings Look() {
    Holdings now;
    now.mounts = Content("/proc/self/mounts");
    for (const char *pTop : {"/tmp", "/var", "/etc", "/mnt"}) {
        std::error_code ignored;
        for (const auto &entry : fs::recursive_directory_iterator{pTop, ignored}) {
            now.files.insert(entry.path());
        }
    }
    sigprocmask(SIG_BLOCK, nullptr, &now.mask);
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        now.actions[signal] = action.sa_handler;
    }
    return now;
}

void CheckNothingLeft(const Scenario &scenario, const Holdings &before) {
    for (const pid_t peer : g_peers) {
        kill(peer, SIGKILL);
        waitpid(peer, nullptr, 0);
    }
    // A child that has lost its parent ends soon; one that runs on is found by the time of a run.
    pid_t child;
    while ((child = waitpid(-1, nullptr, 0)) > 0) {
        CHECK(g_children.count(child) == 0 || FailsIn({"waitpid", "waitid"}));
    }
    // What a failing call was to undo stays.
    const Holdings now = Look();
    CHECK(now.held.fds == before.held.fds);
    CHECK(now.held.blocks == before.held.blocks);
    CHECK(now.mounts == before.mounts || FailsIn({"umount", "umount2"}));
    CHECK(memcmp(&now.mask, &before.mask, sizeof now.mask) == 0);
    CHECK(now.actions == before.actions || FailsIn({"sigaction"}));
    for (const std::string &file : now.files) {
        if (before.files.count(file) == 0 && !FailsIn({"unlink", "unlinkat", "rmdir", "umount2"}) &&
            std::find(scenario.makes.begin(), scenario.makes.end(), file) == scenario.makes.end()) {
            Check(false, ("no file is left: " + file).c_str());
        }
    }
    int state = -1;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    CHECK(state == PTHREAD_CANCEL_ENABLE);
    CHECK(std::distance(fs::directory_iterator{"/proc/self/task"}, {}) == 1);
}

// Any process of a run may crash, a handler of the daemon too; its parent may not notice it.
void ReportCrash(int signal) {
    char text[64];
    snprintf(text, sizeof text, "no process ends by SIG%s", sigabbrev_np(signal));
    Check(false, text);
    raise(signal);  // its action is the default now
}

void ReportCrashes() {
    alignas(16) static char stack[64 * 1024];
    const stack_t onOverflow = {stack, 0, sizeof stack};
    sigaltstack(&onOverflow, nullptr);
    struct sigaction action = {};
    action.sa_handler = ReportCrash;
    action.sa_flags = static_cast<int>(SA_ONSTACK | SA_RESETHAND);
    for (const int signal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL}) {
        sigaction(signal, &action, nullptr);
    }
}

[[noreturn]] void RunInChild(const Scenario &scenario) {
    setpgid(0, 0);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    dup2(g_log, STDOUT_FILENO);
    dup2(g_log, STDERR_FILENO);
    ReportCrashes();
    unshare(CLONE_NEWNS);
    test::MountTmpfs("/tmp");
    test::MountTmpfs("/var");
    test::FreshEtc();
    mkdir("/var/run", 0755);
    if (scenario.prepare != nullptr) {
        scenario.prepare();
    }
    const Holdings before = Look();
    g_run->armed = true;
    const long result = scenario.run();
    g_run->armed = false;
    fflush(stdout);
    // A failure may come to nothing, and its run still take another way in time.
    const bool disturbed = g_run->planned > 0;
    const std::vector<long> &results = scenario.stated;
    bool stated = result == results[0] || (results[0] == kPositive && result > 0);
    for (const long one : results) {
        stated = stated || (disturbed && (result == one || (one == kPositive && result > 0)));
    }
    Check(stated, ("the result is stated: " + std::to_string(result)).c_str());
    if (scenario.verify != nullptr) {
        scenario.verify(result);
    }
    CheckNothingLeft(scenario, before);
    fflush(stdout);
    _exit(kFinished);
}

void Report(const Scenario &scenario, const std::vector<Fault> &plan, const std::string &verdict) {
    if (g_totals->bad++ >= kMostReports) {
        return;
    }
    std::ostringstream text;
    text << "FAILED " << scenario.name << ": " << verdict << '\n';
    for (const Fault &fault : plan) {
        text << "    " << TextOf(fault) << '\n';
    }
    char log[2000] = "";
    const off_t size = lseek(g_log, 0, SEEK_END);
    const ssize_t got = pread(g_log, log, sizeof log - 1, size > 1500 ? size - 1500 : 0);
    if (got > 0) {
        text << "  log: " << std::string{log, static_cast<size_t>(got)} << '\n';
    }
    fputs(text.str().c_str(), stdout);
    fflush(stdout);
}

// Whether the run passed.
bool RunOnce(const Scenario &scenario, const std::vector<Fault> &plan) {
    memset(static_cast<void *>(g_run), 0, sizeof *g_run);
    std::copy(plan.begin(), plan.end(), g_run->plan);
    g_run->planned = static_cast<int>(plan.size());
    ftruncate(g_log, 0);
    lseek(g_log, 0, SEEK_SET);
    g_totals->runs++;
    const pid_t child = fork();
    if (child == 0) {
        RunInChild(scenario);
    }
    pollfd ended = {static_cast<int>(syscall(SYS_pidfd_open, child, 0)), POLLIN, 0};
    const bool hangs = poll(&ended, 1, kRunSeconds * 1000) == 0;
    close(ended.fd);
    if (hangs) {
        kill(child, SIGKILL);
    }
    int status = 0;
    waitpid(child, &status, 0);
    kill(-child, SIGKILL);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    std::string verdict = g_run->verdict;
    if (hangs) {
        verdict = "it hangs";
    } else if (WIFSIGNALED(status)) {
        verdict = std::string{"ended by "} + strsignal(WTERMSIG(status));
    } else if (WEXITSTATUS(status) != kFinished) {
        verdict = "the process ended";
    }
    for (size_t i = 0; i < g_sites.size(); ++i) {
        g_totals->reached[i] = g_totals->reached[i] || g_run->calls[i] > 0;
        g_totals->failed[i] = g_totals->failed[i] || g_run->failed[i];
    }
    if (!verdict.empty()) {
        Report(scenario, plan, verdict);
    }
    return verdict.empty();
}

// Adds the runs in which the sites reached for the first time fail, each after `prefix`.
void PlanNew(const Scenario &scenario, std::set<size_t> &seen, const std::vector<Fault> &prefix,
             std::deque<std::vector<Fault>> &plans) {
    for (size_t site = 0; site < g_sites.size(); ++site) {
        const uint32_t calls = g_run->calls[site];
        if (calls == 0 || !seen.insert(site).second || prefix.size() == kMostFaults) {
            continue;
        }
        for (const int error : ErrorsOf(g_sites[site].callee)) {
            const bool waits = strcmp(CalleeName(g_sites[site].callee), "ppoll") == 0;
            const bool passing = error == EINTR || error == EAGAIN || (waits && error == kEnd) ||
                                 scenario.triesAgain;
            const auto add = [&](uint32_t from, uint32_t until) {
                plans.push_back(prefix);
                plans.back().push_back({static_cast<int>(site), error, from, until});
            };
            add(0, 1);
            add(0, passing ? kAWhile : UINT32_MAX);
            if (calls > 1) {
                add(calls - 1, calls);
            }
        }
    }
}

void RunScenario(const Scenario &scenario) {
    std::set<size_t> seen;
    std::deque<std::vector<Fault>> plans{{}};
    while (!plans.empty()) {
        const std::vector<Fault> plan = plans.front();
        plans.pop_front();
        if (!RunOnce(scenario, plan) && plan.empty()) {
            return;
        }
        PlanNew(scenario, seen, plan, plans);
    }
}

void RunLoopback() {
    ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ioctl(fd, SIOCSIFFLAGS, &request);
    close(fd);
}

void Work(const std::vector<Scenario> &scenarios) {
    g_run = Shared<Run>();
    g_log = memfd_create("log", MFD_CLOEXEC);
    test::RunInPrivateWorld(test::kMounts | test::kNetwork | test::kHostname | test::kPids, [&] {
        RunLoopback();
        while (true) {
            const unsigned next = g_totals->next++;
            if (next >= scenarios.size()) {
                break;
            }
            RunScenario(scenarios[next]);
            g_totals->done++;
        }
    });
}

// "<function> <callee> : <reason>" of each line of the list of exceptions, as function and callee.
std::multiset<std::string> Exceptions() {
    std::multiset<std::string> exceptions;
    std::ifstream in{TALVEK_SOURCE_DIR "/tests/faults/exceptions.txt"};
    for (std::string line; std::getline(in, line);) {
        if (const size_t end = line.find(" : "); end != std::string::npos && line[0] != '#') {
            exceptions.insert(line.substr(0, end));
        }
    }
    return exceptions;
}

// Prints the figure and the sites that no run made fail. Whether they are all exceptions.
bool ReportSites() {
    std::multiset<std::string> exceptions = Exceptions();
    size_t failed = 0;
    size_t excepted = 0;
    size_t all = 0;
    for (size_t i = 0; i < g_sites.size(); ++i) {
        if (g_sites[i].returns == kThroughPointer && !g_totals->reached[i]) {
            continue;
        }
        ++all;
        if (g_totals->failed[i]) {
            ++failed;
            continue;
        }
        const std::string name = FunctionOf(g_sites[i]) + " " + CalleeName(g_sites[i].callee);
        if (const auto line = exceptions.find(name); line != exceptions.end()) {
            exceptions.erase(line);  // it is for one site
            ++excepted;
        } else {
            printf("not %s: %s @%lx\n", g_totals->reached[i] ? "failed" : "reached", name.c_str(),
                   g_sites[i].returns);
        }
    }
    for (const std::string &name : exceptions) {
        printf("no exception: %s\n", name.c_str());
    }
    printf("%zu of %zu call sites failed (%.1f %%), %zu are exceptions\n", failed, all,
           100.0 * double(failed) / double(all), excepted);
    return failed + excepted == all && exceptions.empty();
}

}  // namespace

void Check(bool holds, const char *pText) {
    if (!holds && g_run->verdict[0] == '\0') {
        snprintf(g_run->verdict, sizeof g_run->verdict, "%s", pText);
    }
}

Held HeldNow() {
    Held now = {0, g_blocks};
    for (int fd = 0; fd < 256; ++fd) {
        now.fds += fcntl(fd, F_GETFD) >= 0;
    }
    return now;
}

bool Undisturbed() {
    return std::none_of(std::begin(g_run->failed), std::end(g_run->failed),
                        [](const std::atomic<bool> &failed) { return failed.load(); });
}

bool FailsWith(int error) {
    return std::any_of(g_run->plan, g_run->plan + g_run->planned,
                       [error](const Fault &fault) { return fault.error == error; });
}

bool FailsIn(std::initializer_list<const char *> names) {
    return std::any_of(g_run->plan, g_run->plan + g_run->planned, [&](const Fault &fault) {
        const std::string callee = CalleeName(g_sites[static_cast<size_t>(fault.site)].callee);
        return std::find(names.begin(), names.end(), callee) != names.end();
    });
}

void Free(void *block) {
    g_blocks -= block != nullptr;
    free(block);
}

int StartPeer(const std::function<void()> &body) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(2 * kRunSeconds);
        body();
        _exit(0);
    }
    g_peers.push_back(pid);
    return pid;
}

std::string LogSoFar() {
    fflush(stdout);
    std::string log(static_cast<size_t>(lseek(g_log, 0, SEEK_END)), '\0');
    log.resize(static_cast<size_t>(std::max<ssize_t>(0, pread(g_log, log.data(), log.size(), 0))));
    return log;
}

int Main(const char *pPattern) {
    if (getuid() != 0) {
        fputs("needs root: the scenarios have mounts and sockets of their own\n", stderr);
        return 1;
    }
    g_sites = FindSites(fs::read_symlink("/proc/self/exe").c_str());
    g_totals = Shared<Totals>();
    std::vector<Scenario> scenarios;
    for (const auto &list :
         {CommonScenarios(), DevScenarios(), DnsScenarios(), ServiceScenarios()}) {
        for (const Scenario &scenario : list) {
            if (pPattern == nullptr || std::regex_search(scenario.name, std::regex{pPattern})) {
                scenarios.push_back(scenario);
            }
        }
    }
    fflush(stdout);
    std::vector<pid_t> workers;
    for (long i = sysconf(_SC_NPROCESSORS_ONLN); i > 0; --i) {
        workers.push_back(fork());
        if (workers.back() == 0) {
            Work(scenarios);
            fflush(stdout);
            _exit(0);
        }
    }
    for (const pid_t worker : workers) {
        waitpid(worker, nullptr, 0);
    }
    const bool all = pPattern != nullptr || ReportSites();
    printf("%u scenarios, %u runs, %u did not pass\n", g_totals->done.load(), g_totals->runs.load(),
           g_totals->bad.load());
    return all && g_totals->bad == 0 && g_totals->done == scenarios.size() && !scenarios.empty()
               ? 0
               : 1;
}

}  // namespace talvek::faults

int main(int argc, char **argv) {
    return talvek::faults::Main(argc > 1 ? argv[1] : nullptr);
}
