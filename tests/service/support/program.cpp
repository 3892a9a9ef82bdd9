#include "service/support/program.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

#include "service/support/wire.h"
#include "support/capture.h"
#include "support/emulator.h"
#include "support/private_world.h"

namespace talvek::test {
namespace {

// Makes this process the parent of the orphans among its descendants.
bool Inherits() {
    return prctl(PR_SET_CHILD_SUBREAPER, 1) == 0;
}

std::string ReadAll(int fd) {
    std::string text;
    char block[4096];
    off_t at = 0;
    ssize_t count;
    while ((count = pread(fd, block, sizeof block, at)) > 0) {
        text.append(block, static_cast<size_t>(count));
        at += count;
    }
    return text;
}

// Clock ticks of processor time that a process has used (proc(5), stat, fields 14 and 15).
long TicksOf(pid_t pid) {
    std::ifstream stat{"/proc/" + std::to_string(pid) + "/stat"};
    const std::string text{std::istreambuf_iterator<char>{stat}, {}};
    std::istringstream fields{text.substr(text.rfind(')') + 1)};
    std::string skipped;
    for (int field = 3; field < 14; ++field) {
        fields >> skipped;
    }
    long user = -1;
    long system = -1;
    fields >> user >> system;
    EXPECT_GE(user, 0);
    return user + system;
}

// A terminal that passes bytes on unchanged: its user's end, and the end of programs.
void OpenTerminal(int *pUser, int *pPrograms) {
    *pUser = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(0, grantpt(*pUser));
    EXPECT_EQ(0, unlockpt(*pUser));
    *pPrograms = open(ptsname(*pUser), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios line;
    EXPECT_EQ(0, tcgetattr(*pPrograms, &line));
    cfmakeraw(&line);
    EXPECT_EQ(0, tcsetattr(*pPrograms, TCSANOW, &line));
}

// Reads until an expression matches. False at the end of the text.
bool ReadTo(int fd, const std::regex &expression, std::smatch &match, std::string &text) {
    char block[4096];
    ssize_t count;
    while (!std::regex_search(text, match, expression)) {
        if ((count = read(fd, block, sizeof block)) <= 0) {
            return false;
        }
        text.append(block, static_cast<size_t>(count));
    }
    return true;
}

// The inodes of the sockets that listen at a path, as /proc/net/unix lists them.
std::set<std::string> ListenersAt(const std::string &path) {
    std::set<std::string> inodes;
    std::ifstream in{"/proc/net/unix"};
    for (std::string line; std::getline(in, line);) {
        std::istringstream words{line};
        std::string number, references, protocol, flags, type, state, inode;
        words >> number >> references >> protocol >> flags >> type >> state >> inode;
        // __SO_ACCEPTCON marks a listening socket (Linux net/unix/af_unix.c: unix_seq_show).
        if (flags == "00010000" && line.ends_with(" " + path)) {
            inodes.insert(inode);
        }
    }
    return inodes;
}

// Kills the daemon when this process dies.
pid_t StartGuard(pid_t daemon, int *pPipe) {
    int ends[2];
    EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, daemon, 0));
    const pid_t guard = fork();
    if (guard == 0) {
        close(ends[1]);
        char byte;
        while (read(ends[0], &byte, 1) == -1 && errno == EINTR) {
        }
        if (handle >= 0) {
            syscall(SYS_pidfd_send_signal, handle, SIGKILL, nullptr, 0);
        }
        _exit(0);
    }
    close(ends[0]);
    close(handle);
    *pPipe = ends[1];
    return guard;
}

}  // namespace

void FillPipe(int end) {
    // A second open file description, so that the daemon's end stays in blocking mode.
    const int fd =
        open(("/proc/self/fd/" + std::to_string(end)).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_LE(0, fd);
    // Whole pages first, then single bytes for what is left of the last one.
    const std::string block(4096, '.');
    while (write(fd, block.data(), block.size()) > 0) {
    }
    while (write(fd, block.data(), 1) > 0) {
    }
    EXPECT_EQ(EAGAIN, errno);
    close(fd);
}

const char *ProgramPath() {
    const char *pOther = getenv("TALVEK_PROGRAM");
    return pOther != nullptr ? pOther : TALVEK_PROGRAM;
}

bool StaticProgram() {
    return TALVEK_STATIC && getenv("TALVEK_PROGRAM") == nullptr;
}

// musl's src/errno/__strerror.h, for the errors of these tests that it words differently.
const char *ProgramErrorText(int error) {
    if (StaticProgram() && error == EADDRINUSE) {
        return "Address in use";
    }
    if (StaticProgram() && error == EMFILE) {
        return "No file descriptors available";
    }
    return strerror(error);
}

int Outcome::exitStatus() const {
    return WIFEXITED(wait) ? WEXITSTATUS(wait) : -1;
}

std::vector<std::string> Outcome::lines() const {
    return LogLines(output);
}

pid_t StartProgram(const Arguments &arguments, int out, const std::function<void()> &prepare) {
    std::vector<std::string> words = Launcher();
    words.emplace_back(ProgramPath());
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        close_range(3, ~0U, 0);  // the program must not inherit the descriptors of the test
        clearenv();
        setenv("PATH", "/usr/local/bin:/usr/bin:/bin", 1);
        if (prepare) {
            prepare();
        }
        execvp(argv[0], argv.data());
        _exit(126);
    }
    return child;
}

void BecomeUserWith(unsigned processes) {
    const rlimit limit{processes, processes};
    setrlimit(RLIMIT_NPROC, &limit);
    // An ambient capability stays with a user through the execution of a program.
    prctl(PR_SET_KEEPCAPS, 1);
    static_cast<void>(setuid(700000000U + static_cast<uid_t>(getpid())));
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    constexpr uint32_t kOverride = 1U << CAP_DAC_OVERRIDE;
    const __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {
        {kOverride, kOverride, kOverride}, {}};
    syscall(SYS_capset, &header, data);
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_DAC_OVERRIDE, 0, 0);
}

uint64_t SignalMask(const std::string &path, const std::string &name) {
    std::ifstream in{path};
    for (std::string word; in >> word;) {
        if (word == name) {
            in >> word;
            return std::stoull(word, nullptr, 16);
        }
    }
    ADD_FAILURE() << name << " is not in " << path;
    return 0;
}

uint64_t SignalBits(std::initializer_list<int> signals) {
    uint64_t bits = 0;
    for (const int signal : signals) {
        bits |= uint64_t{1} << (signal - 1);
    }
    return bits;
}

Outcome RunProgram(const Arguments &arguments, const std::function<void()> &prepare) {
    const int sink = memfd_create("output", MFD_CLOEXEC);
    Outcome outcome;
    outcome.wait = WaitFor(StartProgram(arguments, sink, prepare));
    outcome.output = ReadAll(sink);
    close(sink);
    return outcome;
}

bool Gone(pid_t pid) {
    const char state = StateOf(pid);
    return state == '\0' || state == 'Z';
}

std::vector<pid_t> ChildrenOf(pid_t pid) {
    const std::string task = std::to_string(pid);
    std::ifstream in{"/proc/" + task + "/task/" + task + "/children"};
    std::vector<pid_t> children;
    for (pid_t child; in >> child;) {
        children.push_back(child);
    }
    return children;
}

::testing::AssertionResult EndedBy(int wait, int signal) {
    if (wait == -1 && !Inherits()) {
        return ::testing::AssertionSuccess();
    }
    if (wait != -1 && WIFSIGNALED(wait) && WTERMSIG(wait) == signal) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "wait status " << wait << ", not signal " << signal;
}

Daemon::Daemon(const Options &options)
    : dir_(options.dir != nullptr ? options.dir : &ownDir_),
      socket_(options.socket[0] == '/' || options.socket.empty() ? options.socket
                                                                 : *dir_ / options.socket),
      earlier_(ListenersAt(socket_)) {
    // The process that is started ends at once, and the daemon becomes our child.
    static_cast<void>(Inherits());
    const std::string logPath = *dir_ / "log";
    int out = -1;
    if (options.logToPipe) {
        int ends[2];
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
        logPipe_ = ends[0];
        out = ends[1];
    } else if (options.logToTerminal) {
        OpenTerminal(&logPipe_, &out);
    } else {
        out = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    }
    const pid_t first = StartProgram({"-D", "-s", socket_}, out, options.prepare);
    EXPECT_EQ(0, WaitFor(first)) << "the foreground process leaves with 0";
    close(out);
    std::string text = log();
    const std::regex leaving{"Master\\[" + std::to_string(first) +
                             "\\] is leaving - you're on your own \\[(\\d+)\\]\n"};
    std::smatch part;
    if (!ReadTo(logPipe_, leaving, part, text)) {
        ADD_FAILURE() << "no daemon was started:\n" << text;
        return;
    }
    pid_ = std::stoi(part[1]);
    guard_ = StartGuard(pid_, &guardPipe_);
    if (options.waitForSocket) {
        EXPECT_TRUE(Eventually([this] { return Listening(); })) << log();
    }
}

Daemon::~Daemon() {
    if (pid_ > 0) {
        Stop(SIGKILL);
    }
    if (guard_ > 0) {
        close(guardPipe_);
        waitpid(guard_, nullptr, 0);
    }
    CloseLog();
}

void Daemon::CloseLog() {
    if (logPipe_ >= 0) {
        close(logPipe_);
        logPipe_ = -1;
    }
}

void Daemon::StallLog() const {
    FillPipe(logPipe_);
}

void Daemon::DrainLog() const {
    const int fd = open(("/proc/self/fd/" + std::to_string(logPipe_)).c_str(),
                        O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_LE(0, fd);
    char block[4096];
    while (read(fd, block, sizeof block) > 0) {
    }
    close(fd);
}

void Daemon::ControlTerminal(int action) const {
    const int fd = open(ptsname(logPipe_), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(0, tcflow(fd, action));
    close(fd);
}

std::string Daemon::log() const {
    return ReadFile(*dir_ / "log");
}

std::vector<std::string> Daemon::logLines() const {
    return LogLines(log());
}

bool Daemon::Logs(const std::string &text) const {
    return Eventually([&] { return log().find(text) != std::string::npos; });
}

std::vector<pid_t> Daemon::Children() const {
    return ChildrenOf(pid_);
}

int Daemon::Descriptors() const {
    int count = 0;
    const std::string path = "/proc/" + std::to_string(pid_) + "/fd";
    DIR *dir = opendir(path.c_str());
    while (dir != nullptr && readdir(dir) != nullptr) {
        ++count;
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return count - 2;  // "." and ".."
}

// Asks the kernel, since a connection would be served and logged. The socket of a daemon that was
// killed lasts until the handler that it forked last has closed its copy.
bool Daemon::Listening() const {
    for (const std::string &inode : ListenersAt(socket_)) {
        if (earlier_.count(inode) == 0) {
            return true;
        }
    }
    return false;
}

Outcome Daemon::Client(const std::string &command) const {
    return RunProgram({"-C", "-f", command, "-s", socket_});
}

int Daemon::Stop(int signal) {
    if (pid_ <= 0) {
        return -1;  // it was not started, and the signal would reach every process
    }
    kill(pid_, signal);
    if (!Eventually([this] { return Gone(pid_); })) {
        ADD_FAILURE() << "the daemon did not end";
        kill(pid_, SIGKILL);
    }
    int status = -1;
    if (waitpid(pid_, &status, 0) != pid_) {
        status = -1;
    }
    pid_ = -1;
    // Its handlers are our children now; they end with their clients.
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    return status;
}

bool Torturing() {
    return getenv("TALVEK_TORTURE") != nullptr;
}

void ExpectServes(const Daemon &daemon) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(6, daemon.Client("exit 6").exitStatus());
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    if (Torturing()) {
        EXPECT_LT(took.count(), 1.0);
        printf("a good client was served in %.3f s\n", took.count());
    }
}

void ExpectNothingLeft(const Daemon &daemon, int descriptors) {
    // When it has answered this client, it has accepted all the others.
    ExpectServes(daemon);
    EXPECT_TRUE(Eventually([&] { return daemon.Children().empty(); }))
        << daemon.Children().size() << " children or zombies";
    EXPECT_TRUE(Eventually([&] { return daemon.Descriptors() == descriptors; }))
        << daemon.Descriptors();
    // Half a second is the window in which the work is measured.
    const long before = TicksOf(daemon.pid());
    usleep(500 * 1000);
    // A wake-up may end a tick that began earlier; a loop uses fifty.
    EXPECT_GT(before + 5, TicksOf(daemon.pid())) << "works without a client";
}

}  // namespace talvek::test
