// Calls of the C library fail while items of the menu run.

#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <string>

#include "dev/test_menu.h"
#include "support/capture.h"
#include "support/faults.h"
#include "support/simulated_drive.h"

namespace {

using namespace talvek::test;

// The output of the menu while the nth call of a function fails.
std::string OutputOf(std::string input, const char *function, int nth, int error) {
    tDevTestMenu menu = {"/dev/sg0", "/dev/sr0", "/dev/sr0", 8, 0};
    FILE *in = fmemopen(input.data(), input.size(), "r");
    const std::string output = Capture([&] {
        const Fault fault{function, nth, error};
        EXPECT_EQ(0, Dev_RunTestMenu(&menu, in));
        EXPECT_TRUE(Fault::Tripped());
    });
    fclose(in);
    return output;
}

TEST(MenuFault, ReportsThatTheDriveCannotBeOpened) {
    const SimulatedDrive drive{{"/dev/sr0", "/dev/sg0"}};
    // The node and its generic node are opened to find the pair, then the generic node again.
    const std::string output = OutputOf("10\n17\n", "open", 2, EBUSY);
    EXPECT_TRUE(output.ends_with("\n[/dev/sr0] => the drive cannot be opened\nItem : ")) << output;
}

TEST(MenuFault, ReportsThatThereIsNoMemoryForTheEnumeration) {
    const std::string output = OutputOf("5\n17\n", "calloc", 0, ENOMEM);
    EXPECT_TRUE(output.ends_with("\nItem : There is not enough memory.\nItem : ")) << output;
}

}  // namespace
