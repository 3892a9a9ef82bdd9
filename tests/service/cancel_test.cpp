// Cancellation of a thread waits until a call of the service is over.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "service/TALVEK.h"
#include "service/support/wire.h"
#include "support/cancellation.h"
#include "support/capture.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

class Cancellation : public ::testing::Test {
  protected:
    Cancellation() {
        sigaction(SIGCHLD, nullptr, &child_);  // TALVEK_RunCommand changes it
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_));
        client_.fd = fds_[0];
    }
    ~Cancellation() override {
        sigaction(SIGCHLD, &child_, nullptr);
        close(fds_[1]);
        if (client_.fd >= 0) {
            close(client_.fd);
        }
    }

    struct sigaction child_;
    int fds_[2];
    tTalvekClient client_ = {};
};

TEST_F(Cancellation, WaitsUntilTheClientReturns) {
    const TempDir dir;
    const std::string path = dir / "socket";
    const int listener = ListenAt(path);
    std::thread daemon{AnswerOneClient, listener, 7};
    EXPECT_TRUE(OutlastsCancellation([&] { EXPECT_EQ(7, TALVEK_Client(path.c_str(), "true")); }));
    daemon.join();
    close(listener);
}

TEST_F(Cancellation, WaitsUntilTheHandlerReturns) {
    Put(fds_[1], CommandPkg("exit 3"));
    shutdown(fds_[1], SHUT_WR);
    EXPECT_EQ(1u, CaptureLog([&] {
                      EXPECT_TRUE(OutlastsCancellation(
                          [&] { EXPECT_EQ(0, TALVEK_DaemonHandler(&client_)); }));
                  }).size());
    EXPECT_EQ(-1, client_.fd);
    EXPECT_EQ(20u, Take(fds_[1], 20).size());
}

TEST_F(Cancellation, WaitsUntilACommandHasRun) {
    EXPECT_TRUE(OutlastsCancellation([] { EXPECT_EQ(4, TALVEK_RunCommand("exit 4")); }));
}

TEST_F(Cancellation, WaitsUntilAPackageIsSent) {
    const tTalvekPkg pkg = {};
    EXPECT_TRUE(
        OutlastsCancellation([&] { EXPECT_EQ(0, TALVEK_SendPkg(&client_, &pkg, sizeof pkg)); }));
    EXPECT_EQ(sizeof pkg, Take(fds_[1], sizeof pkg).size());
}

TEST_F(Cancellation, WaitsUntilADaemonHasFailedToStart) {
    EXPECT_EQ(2u, CaptureLog([] {
                      EXPECT_TRUE(OutlastsCancellation(
                          [] { EXPECT_EQ(-1, TALVEK_Daemon("/nowhere/socket")); }));
                  }).size());
}

}  // namespace
