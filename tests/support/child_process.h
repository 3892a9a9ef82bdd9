#ifndef TALVEK_TESTS_SUPPORT_CHILD_PROCESS_H
#define TALVEK_TESTS_SUPPORT_CHILD_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace talvek::test {

// A program that runs beside the test; it is killed and collected at the end if it still runs.
class ChildProcess {
  public:
    // Executes `path` with the arguments given, the first of which is the name that it goes by in
    // its command line. It has been executed when the constructor returns.
    ChildProcess(const char *path, const std::vector<std::string> &args);
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }

    // Whether it still runs (or is stopped).
    [[nodiscard]] bool Lives();

    // Waits for its end and returns the wait status.
    int Wait();

    // Waits until it has ended and leaves it as a zombie.
    void AwaitZombie() const;

  private:
    pid_t pid_;
    bool collected_ = false;
    int status_ = -1;
};

// "/bin/sleep 60" under the name given.
inline const std::vector<std::string> Sleeper(const std::string &name) {
    return {name, "60"};
}

}  // namespace talvek::test

#endif
