// What it costs to have a command run by the daemon: whole client invocations of `true`, one at a
// time and 16 at once, beside the shell's own, a bare pair of C programs and programs of others
// that can do the same. All are shuffled in one run, so that what else the machine does meets all
// alike. Then the memory of a daemon that waits.

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "bench/side_by_side.h"

namespace {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

constexpr int kRounds = 1000;
constexpr int kCalls = 1000;  // of a burst
constexpr size_t kInFlight = 16;
constexpr int kBursts = 7;
constexpr const char *kStatic = "talvek, static on musl";

// The same environment for all: 600 bytes in 15 variables, as a login has it.
std::vector<std::string> MakeEnvironment() {
    std::vector<std::string> strings = {"PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin", "HOME=/root",
                                        "LANG=C.UTF-8"};
    size_t size = 0;
    for (const std::string &string : strings) {
        size += string.size() + 1;
    }
    for (int i = 0; i < 12; ++i) {
        const size_t left = 600 - size;
        std::string string = "VARIABLE_" + std::to_string(i) + "=";
        string.resize(left / static_cast<size_t>(12 - i) - 1, 'x');
        size += string.size() + 1;
        strings.push_back(string);
    }
    return strings;
}

std::vector<char *> Pointers(std::vector<std::string> &strings) {
    std::vector<char *> pointers;
    for (std::string &string : strings) {
        pointers.push_back(string.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Starts a program with its output in /dev/null. The size of this process does not count:
// posix_spawn copies nothing of it.
pid_t Start(const Words &words) {
    static std::vector<std::string> strings = MakeEnvironment();
    static std::vector<char *> environment = Pointers(strings);
    Words copy = words;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    pid_t pid = -1;
    if (posix_spawnp(&pid, copy[0].c_str(), &actions, nullptr, Pointers(copy).data(),
                     environment.data()) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int StatusOf(pid_t pid) {
    int status = -1;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status)
                                                                           : -1;
}

double NowUs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double Fastest(const std::vector<double> &values) {
    return *std::min_element(values.begin(), values.end());
}

// What is measured: a command line that has `true` run and ends with its status.
struct Contender {
    std::string name;
    Words words;
    const char *work;           // what it does, and where that is more or less
    const char *aim = "";       // at most so much of its time for a call; 0 for none
    const char *burstAim = "";  // the same in a burst
    int every = 1;              // takes part in each n-th round
    bool inBursts = true;       // takes part in the bursts
    std::vector<double> us = {};
    std::vector<double> burstUs = {};  // of a call
};

bool Installed(const char *pProgram) {
    for (const char *pFolder : {"/usr/bin/", "/usr/sbin/"}) {
        if (access((pFolder + std::string{pProgram}).c_str(), X_OK) == 0) {
            return true;
        }
    }
    printf("%s is not installed and not measured\n", pProgram);
    return false;
}

// Whether a line of /proc/net/<table> has all the words.
bool Lists(const char *pTable, const Words &words) {
    std::ifstream in{std::string{"/proc/net/"} + pTable};
    for (std::string line; std::getline(in, line);) {
        if (std::all_of(words.begin(), words.end(), [&](const std::string &word) {
                return (line + " ").find(" " + word + " ") != std::string::npos;
            })) {
            return true;
        }
    }
    return false;
}

template <typename Condition>
bool Eventually(const std::string &what, Condition condition) {
    for (int tries = 0; tries < 1000; ++tries) {
        if (condition()) {
            return true;
        }
        usleep(10000);
    }
    fprintf(stderr, "%s : it did not happen in 10 seconds\n", what.c_str());
    return false;
}

// A Unix-domain socket that listens has flag 00010000, __SO_ACCEPTCON (Linux net/unix/af_unix.c).
bool ListensAt(const std::string &path) {
    return Eventually(path, [&] { return Lists("unix", {"00010000", path}); });
}

// A number of kB in /proc/<pid>/smaps_rollup (Linux Documentation/filesystems/proc.rst).
long MemoryOf(pid_t pid, const std::string &name) {
    std::ifstream in{"/proc/" + std::to_string(pid) + "/smaps_rollup"};
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, name.size(), name) == 0) {
            return std::stol(line.substr(name.size()));
        }
    }
    return -1;
}

std::vector<pid_t> ChildrenOf(pid_t parent) {
    const std::string pid = std::to_string(parent);
    std::ifstream in{"/proc/" + pid + "/task/" + pid + "/children"};
    return {std::istream_iterator<pid_t>{in}, {}};
}

// Servers and their files, ended and removed with the run.
class Servers {
  public:
    Servers() {
        char name[] = "/tmp/talvek-bench-XXXXXX";
        if (mkdtemp(name) == nullptr) {
            perror("mkdtemp");
            exit(1);
        }
        dir_ = name;
        prctl(PR_SET_CHILD_SUBREAPER, 1);  // daemons become children of this process
    }
    ~Servers() {
        for (const pid_t pid : pids_) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
        fs::remove_all(dir_);
    }
    Servers(const Servers &) = delete;
    Servers &operator=(const Servers &) = delete;

    [[nodiscard]] std::string operator/(const std::string &name) const { return dir_ + "/" + name; }

    // A server that stays in the foreground.
    bool Run(const Words &words, const std::string &socket) {
        pids_.push_back(Start(words));
        return pids_.back() > 0 && ListensAt(socket);
    }

    // The program as a daemon; its process id, -1 when it does not start. The process that was
    // started ends, and the daemon becomes a child of this one.
    pid_t RunTalvek(const std::string &program, const std::string &socket) {
        if (StatusOf(Start({program, "-D", "-s", socket})) != 0 || !ListensAt(socket)) {
            return -1;
        }
        for (const pid_t child : ChildrenOf(getpid())) {
            if (std::find(pids_.begin(), pids_.end(), child) == pids_.end()) {
                pids_.push_back(child);
                return child;
            }
        }
        return -1;
    }

    void Keep(pid_t pid) { pids_.push_back(pid); }

  private:
    std::string dir_;
    std::vector<pid_t> pids_;
};

bool AddTalvek(Servers &servers, std::vector<Contender> &contenders) {
    for (const auto &[name, program, aim] :
         {std::tuple{kStatic, TALVEK_PROGRAM, ""},
          std::tuple{"talvek, dynamic on glibc", TALVEK_DYNAMIC_PROGRAM, "0.62"}}) {
        const std::string socket = servers / fs::path{program}.parent_path().filename();
        if (servers.RunTalvek(program, socket) == -1) {
            return false;
        }
        contenders.push_back(
            {name, {program, "-C", "-f", "true", "-s", socket}, "the same sources", aim});
    }
    return true;
}

bool AddBarePair(Servers &servers, std::vector<Contender> &contenders) {
    for (const auto &[name, build, aim] :
         {std::tuple{"bare C pair, static on musl", "musl", "1.05"},
          std::tuple{"bare C pair, static on glibc", "static", ""},
          std::tuple{"bare C pair, dynamic on glibc", "dynamic", ""}}) {
        const std::string program = TALVEK_BINARY_DIR "/bench/bare_pair_" + std::string{build};
        const std::string socket = servers / ("pair_" + std::string{build});
        if (!servers.Run({program, "-D", socket}, socket)) {
            return false;
        }
        contenders.push_back({name,
                              {program, "-C", socket, "true"},
                              "the same exchange without checks, log lines and time-outs",
                              aim});
    }
    return true;
}

// s6-sudod runs the client's words after words of its own: a shell here too. It sends the client's
// standard streams along and no environment, and the command's status comes back.
bool AddS6(Servers &servers, std::vector<Contender> &contenders) {
    if (!Installed("s6-sudod")) {
        return true;
    }
    const std::string socket = servers / "s6";
    contenders.push_back({"s6-sudo, s6-ipcserver, s6-sudod",
                          {"s6-sudo", socket, "true"},
                          "no environment goes over; the standard streams do"});
    return servers.Run({"s6-ipcserver", "-c", "100", "-b", "128", socket, "s6-sudod", "sh", "-c"},
                       socket);
}

// These carry bytes alone. A shell at each end makes a service of them: a line is sent, the
// server's shell runs it, the status comes back as a line. No environment is sent.
const char kServe[] = "read -r line; eval \"$line\"; echo $?";

bool AddUcspi(Servers &servers, std::vector<Contender> &contenders) {
    if (!Installed("unixserver")) {
        return true;
    }
    const std::string socket = servers / "ucspi";
    contenders.push_back(
        {"ucspi-unix with sh",
         {"unixclient", socket, "sh", "-c", "echo true >&7; read -r status <&6; exit $status"},
         "no environment goes over; a shell at each end"});
    return servers.Run(
        {"unixserver", "-q", "-c", "100", "-b", "128", "--", socket, "sh", "-c", kServe}, socket);
}

bool AddSocat(Servers &servers, std::vector<Contender> &contenders) {
    if (!Installed("socat")) {
        return true;
    }
    const std::string socket = servers / "socat";
    contenders.push_back({"socat with sh",
                          {"sh", "-c", "exit $(echo true | socat - UNIX-CONNECT:" + socket + ")"},
                          "no environment goes over; a shell at each end"});
    return servers.Run(
        {"socat", "UNIX-LISTEN:" + socket + ",fork,backlog=128", std::string{"SYSTEM:"} + kServe},
        socket);
}

// A login over TCP: key exchange, encryption, a user's shell. The server gets the client's key as
// root's only one, in a mount namespace of its own.
bool AddDropbear(Servers &servers, std::vector<Contender> &contenders) {
    if (getuid() != 0) {
        printf("dropbear needs root and is not measured\n");
        return true;
    }
    if (!Installed("dropbear")) {
        return true;
    }
    const std::string ssh = servers / "ssh";
    fs::create_directory(ssh);
    const std::string script =
        "cd " + ssh +
        " && dropbearkey -t ed25519 -f host && dropbearkey -t ed25519 -f client && "
        "dropbearkey -y -f client | grep ^ssh-ed25519 >authorized_keys && chmod 600 *";
    if (StatusOf(Start({"sh", "-c", script})) != 0) {
        fprintf(stderr, "dropbear's keys cannot be made\n");
        return false;
    }
    constexpr uint16_t kPort = 22922;
    const std::string port = std::to_string(kPort);
    const std::string server =
        "mount -t tmpfs -o mode=700 none /root && mkdir -m 700 /root/.ssh && cp " + ssh +
        "/authorized_keys /root/.ssh && exec dropbear -F -E -s -r " + ssh + "/host -P " + ssh +
        "/pid -p 127.0.0.1:" + port;
    servers.Keep(Start({"unshare", "--mount", "sh", "-c", server}));
    contenders.push_back(
        {"dropbear",
         {"dbclient", "-y", "-y", "-i", ssh + "/client", "-p", port, "root@127.0.0.1", "true"},
         "over TCP, with key exchange, encryption and login",
         "",
         "",
         50,
         false});
    char row[32];
    snprintf(row, sizeof row, "0100007F:%04X", unsigned{kPort});
    return Eventually("dropbear", [&] { return Lists("tcp", {row, "0A"}); });
}

bool Fails(const Contender &contender, int status) {
    if (status != 0) {
        fprintf(stderr, "%s ended with %d\n", contender.name.c_str(), status);
    }
    return status != 0;
}

std::vector<size_t> Numbers(size_t count) {
    std::vector<size_t> numbers(count);
    for (size_t i = 0; i < count; ++i) {
        numbers[i] = i;
    }
    return numbers;
}

// Every contender once a round, in an order that changes.
bool MeasureCalls(std::vector<Contender> &contenders, std::mt19937 &random) {
    std::vector<size_t> order = Numbers(contenders.size());
    for (int round = -20; round < kRounds; ++round) {
        std::shuffle(order.begin(), order.end(), random);
        for (const size_t i : order) {
            Contender &contender = contenders[i];
            if (round % contender.every != 0) {
                continue;
            }
            const double before = NowUs();
            const int status = StatusOf(Start(contender.words));
            const double after = NowUs();
            if (Fails(contender, status)) {
                return false;
            }
            if (round >= 0) {
                contender.us.push_back(after - before);
            }
        }
    }
    return true;
}

// kCalls calls, kInFlight at a time; microseconds a call, -1 when one fails.
double Burst(const Contender &contender) {
    const double before = NowUs();
    std::set<pid_t> running;
    for (int started = 0; started < kCalls || !running.empty();) {
        if (started < kCalls && running.size() < kInFlight) {
            running.insert(Start(contender.words));
            ++started;
            continue;
        }
        int status = -1;
        const pid_t ended = wait(&status);  // a server's orphans end here too
        if (running.erase(ended) == 1 &&
            Fails(contender, WIFEXITED(status) ? WEXITSTATUS(status) : -1)) {
            return -1;
        }
    }
    return (NowUs() - before) / kCalls;
}

bool MeasureBursts(std::vector<Contender> &contenders, std::mt19937 &random) {
    std::vector<size_t> order = Numbers(contenders.size());
    for (int round = 0; round < kBursts; ++round) {
        std::shuffle(order.begin(), order.end(), random);
        for (const size_t i : order) {
            if (contenders[i].inBursts) {
                const double us = Burst(contenders[i]);
                if (us < 0) {
                    return false;
                }
                contenders[i].burstUs.push_back(us);
            }
        }
    }
    return true;
}

void Print(const std::vector<Contender> &contenders) {
    const Contender &shell = contenders[0];
    printf("%-48s %9s %9s %8s %9s %8s\n", "", "one call", "", "of", "16 at", "of");
    printf("%-48s %9s %9s %8s %9s %8s\n", "", "median us", "fastest", "sh", "once us", "sh");
    for (const Contender &contender : contenders) {
        const double median = Median(contender.us);
        printf("%-48s %9.0f %9.0f %8.2f", contender.name.c_str(), median, Fastest(contender.us),
               median / Median(shell.us));
        if (!contender.burstUs.empty()) {
            printf(" %9.0f %8.2f", Median(contender.burstUs),
                   Median(contender.burstUs) / Median(shell.burstUs));
        }
        printf("\n");
    }
}

// The contender whose name begins with a text.
const Contender &Find(const std::vector<Contender> &contenders, const std::string &begin) {
    return *std::find_if(contenders.begin(), contenders.end(), [&](const Contender &contender) {
        return contender.name.rfind(begin, 0) == 0;
    });
}

void AddRows(const std::vector<Contender> &contenders) {
    const Contender &talvek = Find(contenders, kStatic);
    for (const Contender &peer : contenders) {
        if (&peer == &talvek || peer.every != 1) {
            continue;
        }
        AddRow({"a call", talvek.us}, {peer.name, peer.us}, "us", peer.work, peer.aim);
        if (!peer.burstUs.empty()) {
            AddRow({"a call, 16 at once", talvek.burstUs}, {peer.name, peer.burstUs}, "us",
                   peer.work, peer.burstAim);
        }
    }
}

// A client that has registered with the program's package format and sends no command. The child
// that serves it, -1 when there is none.
pid_t Handler(pid_t daemon, const std::string &socket, int *pFd) {
    *pFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    socket.copy(address.sun_path, sizeof address.sun_path - 1);
    std::string strings;
    for (const std::string &string : MakeEnvironment()) {
        strings += string + '\0';
    }
    // Version 1, package 1 of 1, type 1, and the exclusive or of the words before it.
    const auto size = static_cast<uint16_t>(16 + strings.size());
    const uint16_t header[8] = {0x1101, 0, 0, 0, 0, 1, size, static_cast<uint16_t>(0x1100 ^ size)};
    std::string package{reinterpret_cast<const char *>(header), sizeof header};
    package += strings;
    std::vector<char> reply(package.size());
    if (connect(*pFd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        write(*pFd, package.data(), package.size()) != static_cast<ssize_t>(package.size()) ||
        recv(*pFd, reply.data(), reply.size(), MSG_WAITALL) != static_cast<ssize_t>(reply.size())) {
        return -1;
    }
    const std::vector<pid_t> children = ChildrenOf(daemon);
    return children.empty() ? -1 : children[0];
}

// Copies a file. What is not on the disk yet would count as memory that its readers have written.
void CopyToDisk(const std::string &from, const std::string &to) {
    fs::copy_file(from, to);
    const int fd = open(to.c_str(), O_RDONLY | O_CLOEXEC);
    fsync(fd);
    close(fd);
}

// A copy of the file, so that no other process shares its pages.
bool PrintMemory(Servers &servers) {
    struct Kb {
        double idleOwn, idlePss, handlerOwn;
    };
    std::vector<Kb> memory;
    for (const auto &[name, program] :
         {std::pair{"static", TALVEK_PROGRAM}, std::pair{"dynamic", TALVEK_DYNAMIC_PROGRAM}}) {
        const std::string copy = servers / (std::string{"copy_"} + name);
        const std::string socket = copy + ".socket";
        CopyToDisk(program, copy);
        const pid_t daemon = servers.RunTalvek(copy, socket);
        if (daemon == -1) {
            return false;
        }
        const auto idleOwn = static_cast<double>(MemoryOf(daemon, "Private_Dirty:"));
        const auto idlePss = static_cast<double>(MemoryOf(daemon, "Pss:"));
        int fd = -1;
        const pid_t handler = Handler(daemon, socket, &fd);
        if (handler <= 0) {
            return false;
        }
        const long handlerOwn =
            MemoryOf(handler, "Private_Dirty:") + MemoryOf(handler, "Private_Clean:");
        close(fd);
        memory.push_back({idleOwn, idlePss, static_cast<double>(handlerOwn)});
        printf("%s program: %ld bytes\n", name, static_cast<long>(fs::file_size(copy)));
    }
    const auto add = [&memory](const char *pName, double Kb::*field, const char *pAim) {
        AddRow({pName, {memory[0].*field}}, {"talvek, dynamic on glibc", {memory[1].*field}}, "kB",
               "the same sources", pAim);
    };
    add("idle daemon, Private_Dirty", &Kb::idleOwn, "32 kB");
    add("idle daemon, Pss", &Kb::idlePss, "230 kB");
    add("waiting handler, its own", &Kb::handlerOwn, "60 kB");
    return true;
}

}  // namespace

int main() {
    Servers servers;
    std::vector<Contender> contenders{
        {"sh -c true", {"sh", "-c", "true"}, "one shell, no service", "", "1.35"},
        {"nothing, static on musl", {TALVEK_BINARY_DIR "/bench/nothing"}, "ends at once"},
    };
    std::mt19937 random{20261121};
    if (!PrintMemory(servers) || !AddTalvek(servers, contenders) ||
        !AddBarePair(servers, contenders) || !AddS6(servers, contenders) ||
        !AddUcspi(servers, contenders) || !AddSocat(servers, contenders) ||
        !AddDropbear(servers, contenders) || !MeasureCalls(contenders, random) ||
        !MeasureBursts(contenders, random)) {
        return 1;
    }
    printf("\n");
    Print(contenders);
    AddRows(contenders);
    printf("\n");
    PrintRows("invoke_bench");
    return 0;
}
