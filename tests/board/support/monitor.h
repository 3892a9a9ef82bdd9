#ifndef TALVEK_TESTS_BOARD_SUPPORT_MONITOR_H
#define TALVEK_TESTS_BOARD_SUPPORT_MONITOR_H

#include <string>
#include <vector>

namespace talvek::test {

// The emulator's monitor (QMP, docs/interop/qmp-spec of QEMU), which is one of the board's ports. A
// test plugs devices in and pulls them with it. What it plugged in and has not pulled is pulled at
// the end.
class Monitor {
  public:
    Monitor();
    ~Monitor();
    Monitor(const Monitor &) = delete;
    Monitor &operator=(const Monitor &) = delete;

    // Runs a command; `arguments` is the text of a JSON object. Returns the whole reply. The test
    // fails when that is an error.
    std::string Run(const std::string &command, const std::string &arguments = "{}");

    // Makes a file of $BOARD_MEDIA known under a name.
    void AddFile(const std::string &name, const std::string &file, bool readOnly);
    // The same for a disk of zeros that keeps nothing.
    void AddZeros(const std::string &name, long size);
    // Forgets them all; what was plugged in with them has been pulled.
    void RemoveFiles();

    // Plugs in a device that is `id` from then on: "driver":"scsi-hd","bus":"scsi.0",...
    void Plug(const std::string &id, const std::string &properties);
    void Pull(const std::string &id);

  private:
    // Sends a command and returns the reply to it.
    std::string Send(const std::string &command, const std::string &arguments);

    int fd_;
    int count_ = 0;
    std::string read_;
    std::vector<std::string> plugged_;
    std::vector<std::string> files_;
};

}  // namespace talvek::test

#endif
