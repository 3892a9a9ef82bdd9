#include "board/support/monitor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>

#include "board/support/board.h"

namespace talvek::test {

Monitor::Monitor() : fd_(open(BoardPort("board.monitor").c_str(), O_RDWR | O_CLOEXEC)) {
    EXPECT_GE(fd_, 0);
    // Needed once in the emulator's life; later it is an error that does not matter.
    Send("qmp_capabilities", "{}");
}

Monitor::~Monitor() {
    while (!plugged_.empty()) {
        Pull(std::string{plugged_.back()});
    }
    RemoveFiles();
    close(fd_);
}

void Monitor::RemoveFiles() {
    for (const std::string &name : files_) {
        // A device lets go of its file some time after it was pulled.
        EXPECT_TRUE(Await([&] {
            return Send("blockdev-del", R"({"node-name":")" + name + "\"}").find("\"error\"") ==
                   std::string::npos;
        })) << name;
    }
    files_.clear();
}

void Monitor::AddZeros(const std::string &name, long size) {
    Run("blockdev-add", R"({"driver":"null-co","read-zeroes":true,"node-name":")" + name +
                            R"(","size":)" + std::to_string(size) + "}");
    files_.push_back(name);
}

std::string Monitor::Send(const std::string &command, const std::string &arguments) {
    const std::string id = std::to_string(getpid()) + "." + std::to_string(++count_);
    const std::string text =
        R"({"execute":")" + command + R"(","id":")" + id + R"(","arguments":)" + arguments + "}\n";
    EXPECT_EQ(ssize_t(text.size()), write(fd_, text.data(), text.size()));
    // Events, and replies to an earlier user of the monitor, have another id or none.
    const std::string mark = "\"id\": \"" + id + "\"";
    for (;;) {
        const size_t end = read_.find('\n');
        if (end != std::string::npos) {
            const std::string line = read_.substr(0, end);
            read_.erase(0, end + 1);
            if (line.find(mark) != std::string::npos) {
                return line;
            }
            continue;
        }
        struct pollfd item = {fd_, POLLIN, 0};
        char bytes[4096];
        const ssize_t got = poll(&item, 1, 60000) == 1 ? read(fd_, bytes, sizeof bytes) : -1;
        if (got <= 0) {
            ADD_FAILURE() << "no answer to " << text;
            return "\"error\"";
        }
        read_.append(bytes, static_cast<size_t>(got));
    }
}

std::string Monitor::Run(const std::string &command, const std::string &arguments) {
    const std::string reply = Send(command, arguments);
    EXPECT_EQ(std::string::npos, reply.find("\"error\"")) << command << arguments << reply;
    return reply;
}

void Monitor::AddFile(const std::string &name, const std::string &file, bool readOnly) {
    Run("blockdev-add", R"({"driver":"raw","node-name":")" + name + R"(","read-only":)" +
                            (readOnly ? "true" : "false") +
                            R"(,"file":{"driver":"file","filename":")" +
                            BoardVariable("BOARD_MEDIA") + "/" + file + R"("}})");
    files_.push_back(name);
}

void Monitor::Plug(const std::string &id, const std::string &properties) {
    Run("device_add", R"({"id":")" + id + "\"," + properties + "}");
    plugged_.push_back(id);
}

void Monitor::Pull(const std::string &id) {
    Run("device_del", R"({"id":")" + id + "\"}");
    plugged_.erase(std::remove(plugged_.begin(), plugged_.end(), id), plugged_.end());
}

}  // namespace talvek::test
