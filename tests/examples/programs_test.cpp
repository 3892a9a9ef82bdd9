// The example programs on real files, interfaces, terminals, disks and processes.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "run_example.h"
#include "service/support/program.h"
#include "support/await.h"
#include "support/command.h"
#include "support/loop_device.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;

// ---- exec_once ----

TEST(ExecOnce, ReportsTheStatusOfTheCommand) {
    const Daemon daemon;
    const std::string socket = "-p -s " + daemon.socket();
    Ended run = RunExample("exec_once", socket + " 'exit 7'");
    EXPECT_EQ(1, run.status);
    EXPECT_EQ("command exit 7\nstatus 7\nmeaning failure\n", run.output);
    run = RunExample("exec_once", socket + " true");
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("command true\nstatus 0\nmeaning success\n", run.output);
    run = RunExample("exec_once", "-p -s /nonexistent true");
    EXPECT_EQ(1, run.status);
    EXPECT_EQ("command true\nstatus -1\nmeaning killed, or no daemon was reached\n", run.output);
}

TEST(ExecOnce, RunsTheCommandInItsOwnEnvironment) {
    const Daemon daemon;
    const Ended run =
        RunShell("env -i GREETING=hello " + LauncherText() + ExamplePath("exec_once") + " -s " +
                 daemon.socket() + " 'test \"$GREETING\" = hello' 2>&1");
    EXPECT_EQ(0, run.status) << run.output;
}

// ---- Network ----

// An interface near0 with the address 10.1.2.3 and a default route, linked to far0.
void MakeNetwork() {
    RunCommand(
        "ip link set lo up && ip link add near0 address 02:00:00:00:00:01 mtu 1400"
        " type veth peer name far0 && ip link set far0 up && ip link set near0 up &&"
        " ip address add 10.1.2.3/24 broadcast 10.1.2.255 dev near0 &&"
        " ip route add default via 10.1.2.1");
    FreshEtc();
    WriteFile("/etc/resolv.conf", "nameserver 10.1.2.53\n");
}

TEST(NetFacts, ShowsTheInterfaceOfTheDefaultRoute) {
    RunInPrivateWorld(kMounts | kNetwork, [] {
        MakeNetwork();
        for (const char *pArguments : {"-p", "-p near0"}) {
            const Ended run = RunExample("net_facts", pArguments);
            EXPECT_EQ(0, run.status);
            EXPECT_EQ(
                "interface near0\nmtu 1400\nhardware_address 02:00:00:00:00:01\n"
                "address 10.1.2.3\nnetmask 255.255.255.0\nbroadcast 10.1.2.255\n"
                "gateway 10.1.2.1\nname_server_1 10.1.2.53\n",
                run.output.substr(0, run.output.find("packets")));
        }
        EXPECT_EQ("[\"10.1.2.3\",1400,null]\n",
                  JsonOf("net_facts", "near0", "[.address, .mtu, .name_server_2]"));
        const Ended missing = RunExample("net_facts", "none0");
        EXPECT_EQ(1, missing.status);
        EXPECT_EQ("", missing.output);
    });
}

// The same facts from Python, through the shared library.
TEST(NetFactsPython, ShowsAnInterface) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the shared library needs the sanitizer's runtime";
#endif
    if (Foreign() || !HasCommand("python3")) {
        GTEST_SKIP() << "no python3 here for the processor of the shared library";
    }
    if (access(TALVEK_BINARY_DIR "/shared/libtalvek_common.so.1", R_OK) != 0) {
        GTEST_SKIP() << "this build has no shared libraries";
    }
    const std::string program = "LD_LIBRARY_PATH=" TALVEK_BINARY_DIR
                                "/shared python3 " TALVEK_SOURCE_DIR "/examples/net_facts.py";
    RunInPrivateWorld(kMounts | kNetwork, [&] {
        MakeNetwork();
        const Ended run = RunShell(program + " near0");
        EXPECT_EQ(0, run.status);
        EXPECT_EQ("interface near0\nmtu 1400\naddress 10.1.2.3\n", run.output);
        EXPECT_EQ(1, RunShell(program + " none0 2>/dev/null >&2").status);
        EXPECT_EQ(2, RunShell(program + " 2>/dev/null").status);
    });
}

TEST(UnitRecord, ShowsTheIdentityFilesAndTheInterface) {
    RunInPrivateWorld(kMounts | kNetwork | kHostname, [] {
        MakeNetwork();
        RunCommand("hostname recorder-7");
        WriteFile("/etc/Model", "HDR-4\n");
        WriteFile("/etc/Proj", "bay \"A\"\n");
        WriteFile("/etc/Port", "8080\n");
        Ended run = RunExample("unit_record", "-p near0");
        EXPECT_EQ(0, run.status);
        EXPECT_EQ(
            "model HDR-4\nproject bay \"A\"\nname recorder-7\nnote unknown\ninterface near0\n"
            "hardware_address 02:00:00:00:00:01\naddress 10.1.2.3\nnetmask 255.255.255.0\n"
            "gateway 10.1.2.1\nname_server 10.1.2.53\nport 8080\nmtu 1400\nmissing 0\n",
            run.output);
        EXPECT_EQ("bay \"A\"\n", JsonOf("unit_record", "", ".project"));
        unlink("/etc/Model");
        run = RunExample("unit_record", "-p");
        EXPECT_EQ(1, run.status);
        EXPECT_NE(std::string::npos, run.output.find("\nmissing 1\n")) << run.output;
    });
}

TEST(Announce, ReachesAReceiverOnAnInterfaceWithoutAnAddress) {
    RunInPrivateWorld(kMounts | kNetwork, [] {
        RunCommand(
            "ip link add near0 address 02:00:00:00:00:01 type veth peer name far0 &&"
            " ip link set far0 up && ip link set near0 up");
        FreshEtc();
        WriteFile("/etc/Model", "HDR-4\n");
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in any = {};
        any.sin_family = AF_INET;
        any.sin_port = htons(5000);
        ASSERT_EQ(0, bind(fd, reinterpret_cast<struct sockaddr *>(&any), sizeof any));
        ASSERT_EQ(0, setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, "far0", 4));

        const Ended run = RunExample("announce", "-p -t 5000 near0");
        EXPECT_EQ(0, run.status);
        EXPECT_EQ("interface near0\nport 5000\nmodel HDR-4\n",
                  run.output.substr(0, run.output.find("name ")));
        ASSERT_TRUE(Readable(fd));
        char text[2048];
        const ssize_t size = recv(fd, text, sizeof text, 0);
        ASSERT_GT(size, 0);
        const std::string got{text, static_cast<size_t>(size)};
        EXPECT_EQ("model HDR-4\n", got.substr(0, 12));
        EXPECT_NE(std::string::npos, got.find("\nmac 02:00:00:00:00:01\nport 80\n")) << got;
        close(fd);
        EXPECT_EQ(1, RunExample("announce", "none0").status);
    });
}

// ---- Files ----

TEST(Md5Check, ComparesWithTheSideFilesOfMd5sum) {
    const TempDir dir;
    WriteFile(dir / "good.bin", "abc");
    WriteFile(dir / "bad.bin", "abc");
    RunCommand("cd " + dir.path() +
               " && for f in good.bin bad.bin; do md5sum $f >$f.md5; done && cp good.bin.md5 "
               "good.bin.sum");
    WriteFile(dir / "bad.bin", "abd");
    Ended run = RunExample("md5_check", "-p " + dir / "good.bin");
    EXPECT_EQ(0, run.status);
    // The digest of "abc" is the example of RFC 1321, A.5.
    EXPECT_EQ("files.1.file " + dir / "good.bin" +
                  "\nfiles.1.md5 900150983cd24fb0d6963f7d28e17f72\nfiles.1.result good\n",
              run.output);
    EXPECT_EQ(0, RunExample("md5_check", "-s .sum " + dir / "good.bin").status);
    run = RunExample("md5_check",
                     "-p " + dir / "good.bin" + " " + dir / "bad.bin" + " " + dir / "missing");
    EXPECT_EQ(1, run.status);
    EXPECT_NE(std::string::npos, run.output.find("files.1.result good\n")) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("files.2.result bad\n")) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("files.3.result bad\n")) << run.output;
}

TEST(SettingsRead, ShowsNumbersChoicesAndTexts) {
    const TempDir dir;
    WriteFile(dir / "settings.xml",
              "<DATA Name=\"Mode\" type=\"INT\" min=\"0\" max=\"1\" value=\"1\">\n"
              "<ITEM Name=\"Off\"/><ITEM Name=\"On\"/>\n</DATA>\n"
              "<DATA Name=\"Title\" type=\"TEXT\" value=\"a &lt; b\">\n</DATA>\n"
              "<DATA Name=\"End\" type=\"INT\" min=\"0\" max=\"0\" value=\"0\">\n</DATA>\n");
    const Ended run = RunExample("settings_read", "-p " + dir / "settings.xml" + " Mode Title");
    EXPECT_EQ(
        "settings.1.name Mode\nsettings.1.value 1\nsettings.1.min 0\nsettings.1.max 1\n"
        "settings.1.choices Off,On\nsettings.2.name Title\nsettings.2.text a &lt; b\n",
        run.output);
    EXPECT_EQ(0, run.status);
    EXPECT_EQ(1, RunExample("settings_read", dir / "settings.xml" + " None").status);
    EXPECT_EQ(1, RunExample("settings_read", dir / "missing" + " Mode").status);
}

TEST(StreamFacts, ShowsWhatARealEncoderWrote) {
    if (!HasCommand("x264")) {
        GTEST_SKIP() << "x264 is not installed";
    }
    const TempDir dir;
    {
        // Six grey pictures of 64 x 48 samples, each brighter than the one before.
        std::ofstream out{dir / "in.yuv", std::ios::binary};
        for (int picture = 0; picture < 6; ++picture) {
            out << std::string(64 * 48, static_cast<char>(40 + 20 * picture))
                << std::string(64 * 48 / 2, static_cast<char>(0x80));
        }
    }
    RunCommand(
        "x264 --quiet --no-progress --threads 1 --demuxer raw --input-res 64x48 --fps 25"
        " --profile main --level 3.1 --bframes 0 --ref 2 --scenecut 0 --muxer raw -o " +
        dir / "out.h264" + " " + dir / "in.yuv" + " 2>/dev/null");
    const Ended run = RunExample("stream_facts", "-p " + dir / "out.h264");
    EXPECT_EQ(0, run.status);
    for (const char *pFact : {"profile 77", "level 31", "coded_width 64", "coded_height 48",
                              "reference_frames 2", "slices_i 1", "slices_p 5", "slices_b 0"}) {
        EXPECT_NE(std::string::npos, run.output.find(std::string{"\n"} + pFact + "\n"))
            << pFact << " in:\n"
            << run.output;
    }
    WriteFile(dir / "text", "no stream");
    EXPECT_EQ(1, RunExample("stream_facts", dir / "text").status);
    EXPECT_EQ(1, RunExample("stream_facts", dir / "missing").status);
}

// ---- Disks ----

TEST(DiskFacts, MeasuresAMountedDiskAndMountsOneOnDemand) {
    std::string reason;
    if (!LoopDevicesWork(reason)) {
        GTEST_SKIP() << reason;
    }
    RunInPrivateWorld(
        kMounts,
        [] {
            MountTmpfs("/var");
            MountTmpfs("/mnt");
            MakeImage("/mnt/image", 8 << 20);
            RunCommand("mke2fs -q -F /mnt/image");
            const LoopDevice disk{"/mnt/image"};
            EXPECT_EQ(1, RunExample("disk_facts", "-p " + disk.path()).status) << "not mounted";

            Ended run = RunExample("disk_facts", "-p -m " + disk.path());
            EXPECT_EQ(0, run.status);
            EXPECT_EQ(
                "device " + disk.path() + "\ndevice_size 8388608\nfile_system ext2, ext3 or ext4\n",
                run.output.substr(0, run.output.find("total")));

            WriteFile("/mnt/there/x", "");
            ASSERT_EQ(0, mount(disk.path().c_str(), "/mnt/there", "ext2", 0, nullptr));
            struct statfs st;
            ASSERT_EQ(0, statfs("/mnt/there", &st));
            run = RunExample("disk_facts", "-p " + disk.path());
            EXPECT_EQ(0, run.status);
            const uint64_t block = static_cast<uint64_t>(st.f_bsize);
            EXPECT_EQ("device " + disk.path() +
                          "\ndevice_size 8388608\nfile_system ext2, ext3 or ext4\n"
                          "mount_point /mnt/there\ntotal " +
                          std::to_string(block * st.f_blocks) + "\nfree " +
                          std::to_string(block * st.f_bfree) + "\n",
                      run.output);
            EXPECT_EQ(0, umount("/mnt/there"));

            MakeImage("/mnt/blank", 1 << 20);
            const LoopDevice blank{"/mnt/blank"};
            EXPECT_EQ("null\n", JsonOf("disk_facts", "-m " + blank.path(), ".file_system"));
        },
        true);
}

// ---- Programs that run on ----

// An example whose facts are read while it runs.
class Running {
  public:
    explicit Running(const std::string &command) : pipe_(popen(command.c_str(), "re")) {}
    ~Running() { End(); }
    Running(const Running &) = delete;
    Running &operator=(const Running &) = delete;

    // The value of the next fact, which must have this name.
    std::string Value(const std::string &name) {
        char line[4096] = "";
        EXPECT_NE(nullptr, fgets(line, sizeof line, pipe_)) << name;
        const std::string text{line};
        EXPECT_EQ(name + " ", text.substr(0, name.size() + 1));
        return text.size() > name.size() + 1 ? text.substr(name.size() + 1) : "";
    }
    int End() {
        const int status = pipe_ != nullptr ? WEXITSTATUS(pclose(pipe_)) : -1;
        pipe_ = nullptr;
        return status;
    }

  private:
    FILE *pipe_;
};

TEST(SerialDump, ShowsEachLineAndItsTime) {
    const int line = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(line, 0);
    ASSERT_EQ(0, grantpt(line));
    ASSERT_EQ(0, unlockpt(line));
    const std::string device = ptsname(line);
    Running dump{LauncherText() + ExamplePath("serial_dump") + " -p -b 115200 -n 2 " + device +
                 " 2>/dev/null"};
    EXPECT_EQ(device + "\n", dump.Value("device"));
    EXPECT_EQ("115200\n", dump.Value("speed"));
    ASSERT_EQ(13, write(line, "hello\r\n\x1b[2J\n!", 13));
    EXPECT_EQ('/', dump.Value("lines.1.time")[4]) << "YYYY/MM/DD";
    EXPECT_EQ("hello\\x0d\n", dump.Value("lines.1.text"));
    dump.Value("lines.2.time");
    EXPECT_EQ("\\x1b[2J\n", dump.Value("lines.2.text"));
    EXPECT_EQ(0, dump.End());
    char echo;
    ASSERT_EQ(0, fcntl(line, F_SETFL, O_NONBLOCK));
    EXPECT_EQ(-1, read(line, &echo, 1)) << "nothing is sent back to the device";
    close(line);

    EXPECT_EQ(1, RunExample("serial_dump", "/nonexistent").status);
    EXPECT_EQ(2, RunExample("serial_dump", "-b 115201 /dev/null").status);
    EXPECT_EQ(2, RunExample("serial_dump", "5").status) << "the board has four ports";
}

TEST(SerialDump, EndsWhenTheDeviceHangsUp) {
    const int line = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(line, 0);
    ASSERT_EQ(0, grantpt(line));
    ASSERT_EQ(0, unlockpt(line));
    Running dump{LauncherText() + ExamplePath("serial_dump") + " -p " + ptsname(line) +
                 " 2>/dev/null"};
    dump.Value("device");
    EXPECT_EQ("9600\n", dump.Value("speed"));
    close(line);
    EXPECT_EQ(0, dump.End());
}

TEST(WatchThreads, ReportsAProgramThatIsStopped) {
    RunInPrivateWorld(kMounts, [] {
        MountTmpfs("/run");
        MountTmpfs("/var");
        const TempDir dir;
        int input[2];
        ASSERT_EQ(0, pipe2(input, O_CLOEXEC));
        Running program{LauncherText() + ExamplePath("watch_threads") +
                        " -p -t 1 recorder exporter 2>" + dir / "log" + " <&" +
                        std::to_string(dup(input[0]))};
        const pid_t pid = std::stoi(program.Value("process"));
        EXPECT_GT(std::stoi(program.Value("watcher")), 0);
        EXPECT_EQ("1\n", program.Value("period"));
        EXPECT_EQ("recorder\n", program.Value("threads.1.name"));
        EXPECT_EQ("exporter\n", program.Value("threads.2.name"));
        EXPECT_EQ(std::to_string(pid), ReadFile("/var/run/exporter.thread.pid"));

        ASSERT_EQ(0, kill(pid, SIGSTOP));
        EXPECT_TRUE(Eventually([&] {
            return ReadFile(dir / "log")
                       .find("[pid = " + std::to_string(pid) + "] [main] process error") !=
                   std::string::npos;
        })) << ReadFile(dir / "log");
        ASSERT_EQ(0, kill(pid, SIGCONT));
        close(input[1]);
        EXPECT_EQ(0, program.End());
    });
}

}  // namespace
