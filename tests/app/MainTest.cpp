#include <gtest/gtest.h>

#include "app/RunVrk.h"
#include "foundation/Version.h"

TEST(Main, VersionGoesToTheStandardOutputAlone) {
    const VrkResult result = runVrk({"--version"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, std::string("vrk ") + VRK::kVersion + "\n");
    EXPECT_EQ(result.err, "");
}

TEST(Main, WrongUsageIsExitCodeTwoWithNothingOnTheStandardOutput) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{}, {"no-such-command"}, {"--no-such-option"}}) {
        const VrkResult result = runVrk(arguments);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err, "");
    }
}
