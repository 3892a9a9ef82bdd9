// The three forms of the examples' output, and the rules that hold for all examples.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <set>
#include <string>

#include "run_example.h"
#include "support/capture.h"

extern "C" {
#include "examples/facts.h"
}

namespace {

using namespace talvek::test;

// What a program with the form's option writes; each runs in a child of its own.
std::string Output(const char *pForm, const std::function<int()> &program) {
    return Capture([&] {
        const pid_t pid = fork();
        if (pid == 0) {
            char name[] = "facts";
            char option[3] = "";
            snprintf(option, sizeof option, "%s", pForm);
            char *arguments[] = {name, option, nullptr};
            FactsOption(option[0] != '\0' ? 2 : 1, arguments, "", "");
            puts("a line of the library's log");
            fflush(stdout);
            _exit(program());
        }
        int status = -1;
        waitpid(pid, &status, 0);
        EXPECT_EQ(0, status);
    });
}

int AllKinds() {
    FactsText("host_name", "recorder");
    FactsNumber("size", INT64_MIN, "bytes");
    FactsText("note", nullptr);
    FactsList("disks");
    for (const char *pPath : {"/dev/sda", "/dev/sdb"}) {
        FactsItem();
        FactsText("path", pPath);
        FactsNumber("free", 7, "KB");
        FactsText("label", nullptr);
    }
    FactsListEnd();
    FactsList("tapes");
    FactsListEnd();
    FactsText("end", "");
    return FactsEnd(0);
}

TEST(Facts, ForPeople) {
    EXPECT_EQ(
        "host name             recorder\n"
        "size                  -9223372036854775808 bytes\n"
        "note                  -\n"
        " 1  path /dev/sda  free 7 KB  label -\n"
        " 2  path /dev/sdb  free 7 KB  label -\n"
        "end                   \n",
        Output("", AllKinds));
}

TEST(Facts, OneALine) {
    EXPECT_EQ(
        "host_name recorder\n"
        "size -9223372036854775808\n"
        "disks.1.path /dev/sda\ndisks.1.free 7\n"
        "disks.2.path /dev/sdb\ndisks.2.free 7\n"
        "end \n",
        Output("-p", AllKinds));
}

TEST(Facts, Json) {
    EXPECT_EQ(R"({"host_name": "recorder", "size": -9223372036854775808, "note": null, )"
              R"("disks": [{"path": "/dev/sda", "free": 7, "label": null}, )"
              R"({"path": "/dev/sdb", "free": 7, "label": null}], "tapes": [], "end": ""})"
              "\n",
              Output("-j", AllKinds));
    EXPECT_EQ("{}\n", Output("-j", [] { return FactsEnd(0); }));
    EXPECT_EQ("{\"empty\": []}\n", Output("-j", [] {
                  FactsList("empty");
                  FactsListEnd();
                  return FactsEnd(0);
              }));
}

std::string JsonText(const std::string &text) {
    return Output("-j", [&] {
        FactsText("t", text.c_str());
        return FactsEnd(0);
    });
}

TEST(Facts, JsonTextsAreEscaped) {
    EXPECT_EQ("{\"t\": \"\\\"\\\\/\\u000a\\u001b\\u007f\"}\n", JsonText("\"\\/\n\x1b\x7f"));
    // RFC 3629: the smallest and the greatest characters of each length.
    for (const char *pGood : {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF",
                              "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
        EXPECT_EQ("{\"t\": \"<" + std::string{pGood} + ">\"}\n",
                  JsonText("<" + std::string{pGood} + ">"));
    }
    // Lone and missing continuations, overlong forms, a surrogate, above U+10FFFF: each byte that
    // begins no character is replaced.
    EXPECT_EQ("{\"t\": \"\\ufffd\\ufffd\"}\n", JsonText("\x80\xFF"));
    EXPECT_EQ("{\"t\": \"\\ufffd.\"}\n", JsonText("\xC3."));
    EXPECT_EQ("{\"t\": \"\\ufffd\\ufffd\"}\n", JsonText("\xE2\x82"));
    EXPECT_EQ("{\"t\": \"\\ufffd\\ufffd\"}\n", JsonText("\xC0\xAF"));
    EXPECT_EQ("{\"t\": \"\\ufffd\\ufffd\\ufffd\"}\n", JsonText("\xE0\x9F\xBF"));
    EXPECT_EQ("{\"t\": \"\\ufffd\\ufffd\\ufffd\"}\n", JsonText("\xED\xA0\x80"));
    EXPECT_EQ("{\"t\": \"\\ufffd\\ufffd\\ufffd\\ufffd\"}\n", JsonText("\xF4\x90\x80\x80"));
    EXPECT_EQ("{\"t\": \"\\ufffd\\ufffd\\ufffd\\ufffd\"}\n", JsonText("\xF0\x8F\xBF\xBF"));
}

TEST(Facts, ControlCharactersAreShown) {
    const auto evil = [] {
        FactsText("t", "a\n\x1b[2Jb\x7f");
        return FactsEnd(0);
    };
    EXPECT_EQ("t a\\x0a\\x1b[2Jb\\x7f\n", Output("-p", evil));
    EXPECT_EQ("t                     a\\x0a\\x1b[2Jb\\x7f\n", Output("", evil));
}

TEST(Examples, FailWhenTheOutputCannotBeWritten) {
    for (const char *pForm : {"", "-p", "-j"}) {
        const Ended run = RunShell(LauncherText() + ExamplePath("net_facts") + " " + pForm +
                                   " lo 2>&1 >/dev/full");
        EXPECT_EQ(1, run.status) << pForm;
        EXPECT_NE(std::string::npos, run.output.find("the output could not be written")) << pForm;
    }
}

std::set<std::string> Names() {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator{TALVEK_SOURCE_DIR "/examples"}) {
        if (entry.path().extension() == ".c" && entry.path().stem() != "facts") {
            names.insert(entry.path().stem());
        }
    }
    return names;
}

TEST(Examples, ShowTheUsageAfterWrongUse) {
    ASSERT_GE(Names().size(), 12U);
    for (const std::string &name : Names()) {
        for (const char *pWrong : {"-x", "-p -j -x", "--help", "a b c -x ''"}) {
            if (std::string{pWrong}[0] != '-' && name != "net_facts" && name != "unit_record") {
                continue;  // more arguments are wrong for these two alone
            }
            const Ended run = ErrorsOfExample(name, pWrong);
            EXPECT_EQ(2, run.status) << name << " " << pWrong;
            EXPECT_NE(std::string::npos, run.output.find("usage: " + ExamplePath(name) + " [-p"))
                << name << " " << pWrong << ": " << run.output;
            EXPECT_EQ("", RunExample(name, pWrong).output) << name << " " << pWrong;
        }
        if (name != "net_facts" && name != "unit_record") {
            EXPECT_EQ(2, RunExample(name, "").status) << name;
        }
    }
}

TEST(Examples, IncludeChiefHeadersAloneAndStayShort) {
    const std::set<std::string> allowed{"\"facts.h\"", "<talvek/common/COMMON.h>",
                                        "<talvek/dev/DEV.h>", "<talvek/dns/DNS.h>",
                                        "<talvek/service/TALVEK.h>"};
    const std::regex include{"^#include (\".*|<talvek/.*)$"};
    for (const std::string &name : Names()) {
        std::ifstream in{TALVEK_SOURCE_DIR "/examples/" + name + ".c"};
        int lines = 0;
        std::smatch part;
        for (std::string line; std::getline(in, line); ++lines) {
            if (std::regex_match(line, part, include)) {
                EXPECT_TRUE(allowed.contains(part[1])) << name << ": " << line;
            }
        }
        EXPECT_LE(lines, 100) << name;
    }
}

}  // namespace
