// What it costs to have a command run by the daemon: whole client invocations of `true`, next to
// the shell's own, to a program that does nothing and to s6's client where that is installed. All
// are shuffled in one run, so that what the machine does meanwhile meets them alike.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using Words = std::vector<std::string>;

constexpr int kRounds = 1500;

// The same small environment for all.
char g_path[] = "PATH=/usr/local/bin:/usr/bin:/bin";
char g_home[] = "HOME=/root";
char g_lang[] = "LANG=C.UTF-8";
char *g_environment[] = {g_path, g_home, g_lang, nullptr};

// Starts a program with its output in a file; vfork beneath, so that the size of this process does
// not count.
pid_t Start(const Words &words, const char *pOutput) {
    std::vector<char *> argv;
    for (const std::string &word : words) {
        argv.push_back(const_cast<char *>(word.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, pOutput,
                                     O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), g_environment) != 0) {
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

struct Contender {
    std::string name;
    Words words;
    std::vector<double> us = {};
};

bool Installed(const char *pProgram) {
    return access((std::string{"/usr/bin/"} + pProgram).c_str(), X_OK) == 0;
}

bool Appears(const std::string &path) {
    for (int tries = 0; tries < 500; ++tries) {
        struct stat st;
        if (stat(path.c_str(), &st) == 0) {
            return true;
        }
        usleep(10000);
    }
    fprintf(stderr, "%s did not appear\n", path.c_str());
    return false;
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

void Print(const std::vector<Contender> &contenders) {
    const double shell = Median(contenders[0].us);
    printf("%-44s %10s %10s %14s\n", "", "median us", "fastest us", "of sh -c true");
    for (const Contender &contender : contenders) {
        const double median = Median(contender.us);
        printf("%-44s %10.0f %10.0f %14.2f\n", contender.name.c_str(), median,
               *std::min_element(contender.us.begin(), contender.us.end()), median / shell);
    }
}

// Every contender once a round, in an order that changes.
bool Measure(std::vector<Contender> &contenders) {
    std::mt19937 random{20261121};
    std::vector<size_t> order;
    for (size_t i = 0; i < contenders.size(); ++i) {
        order.push_back(i);
    }
    for (int round = -20; round < kRounds; ++round) {
        std::shuffle(order.begin(), order.end(), random);
        for (const size_t i : order) {
            const double before = NowUs();
            const int status = StatusOf(Start(contenders[i].words, "/dev/null"));
            const double after = NowUs();
            if (status != 0) {
                fprintf(stderr, "%s ended with %d\n", contenders[i].name.c_str(), status);
                return false;
            }
            if (round >= 0) {
                contenders[i].us.push_back(after - before);
            }
        }
    }
    return true;
}

// The listening process is the one that the log names.
pid_t PidIn(const std::string &log) {
    std::ifstream in{log};
    const std::string mark = "you're on your own [";
    for (std::string line; std::getline(in, line);) {
        const size_t at = line.find(mark);
        if (at != std::string::npos) {
            return std::stoi(line.substr(at + mark.size()));
        }
    }
    return -1;
}

}  // namespace

int main() {
    char name[] = "/tmp/talvek-bench-XXXXXX";
    if (mkdtemp(name) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    const std::string dir = name;
    const std::string socket = dir + "/socket";
    const std::string log = dir + "/log";
    const std::string s6Socket = dir + "/s6";
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // what is started here can be waited for here

    std::vector<Contender> contenders{
        {"sh -c true", {"sh", "-c", "true"}},
        {"a static program that does nothing", {TALVEK_BINARY_DIR "/bench/nothing"}},
        {"talvek -C -f true", {TALVEK_PROGRAM, "-C", "-f", "true", "-s", socket}},
    };
    bool good =
        StatusOf(Start({TALVEK_PROGRAM, "-D", "-s", socket}, log.c_str())) == 0 && Appears(socket);
    const pid_t daemon = PidIn(log);
    pid_t s6 = -1;
    if (Installed("s6-sudod")) {
        // Its server runs the client's words behind words of its own: a shell here too.
        s6 = Start({"s6-ipcserver", s6Socket, "s6-sudod", "sh", "-c"}, "/dev/null");
        good = good && Appears(s6Socket);
        contenders.push_back(
            {"s6-sudo (s6-ipcclient, s6-sudoc), sh -c true", {"s6-sudo", s6Socket, "true"}});
    } else {
        printf("s6 is not installed and not measured\n");
    }
    usleep(100000);
    good = good && daemon > 0 && Measure(contenders);
    if (good) {
        Print(contenders);
        usleep(100000);
        struct stat st;
        stat(TALVEK_PROGRAM, &st);
        printf("\nidle daemon: %ld kB of proportional memory (Pss), %ld kB of its own\n",
               MemoryOf(daemon, "Pss:"),
               MemoryOf(daemon, "Private_Dirty:") + MemoryOf(daemon, "Private_Clean:"));
        if (s6 > 0) {
            printf("idle s6-ipcserverd: %ld kB (Pss)\n", MemoryOf(s6, "Pss:"));
        }
        printf("program: %ld bytes\n", static_cast<long>(st.st_size));
    }
    for (const pid_t server : {daemon, s6}) {
        if (server > 0) {
            kill(server, SIGTERM);
            waitpid(server, nullptr, 0);
        }
    }
    unlink(log.c_str());
    unlink(socket.c_str());
    unlink(s6Socket.c_str());
    unlink((s6Socket + ".lock").c_str());
    if (rmdir(dir.c_str()) != 0) {
        fprintf(stderr, "%s is left behind\n", dir.c_str());
    }
    return good ? 0 : 1;
}
