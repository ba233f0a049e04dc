// Processes that are waited for, and asked to stop with all that they started.

#include "pipeline/batch/ChildProcess.h"

#include <thread>

#include "support/Testing.h"

namespace {

class ChildProcess : public testing::Test {
protected:
    vrk::ChildEnd run(const std::string& script, const std::string& log = "") {
        return vrk::runChild({{"sh", "-c", script}, folder / ".", true, log, {}},
                             [&] { return std::filesystem::exists(folder / "began"); });
    }

    const TemporaryFolder folder;
};

TEST_F(ChildProcess, TellsHowItEndedAndWhatItSaidLast) {
    const vrk::ChildEnd failed = run("echo one; echo two >&2; pwd -P >&2; exit 7");
    EXPECT_EQ(failed.exitCode, 7);
    EXPECT_EQ(failed.lastWords, "two\n" + std::filesystem::canonical(folder / ".").string() + '\n');
    EXPECT_EQ(run("kill -9 $$").exitCode, 137);
    const std::string words = run("seq 100000 >&2; echo end >&2").lastWords;
    EXPECT_TRUE(words.size() >= 8192 && words.size() <= 3 * 8192U) << words.size();
    EXPECT_TRUE(words.ends_with("\n99999\n100000\nend\n"));
    EXPECT_EQ(run("echo one; echo two >&2", folder.write("log", "zero\n")).lastWords, "");
    EXPECT_EQ(folder.read("log"), "zero\none\ntwo\n");
    EXPECT_EQ(run("", folder / "none/log").exitCode, 127);
    EXPECT_EQ(vrk::runChild({{"no such program"}, ".", false, "", {}}, [] { return false; }).exitCode, 127);
    EXPECT_FALSE(vrk::isInPath("no such program") || vrk::isInPath(folder / "log"));
    EXPECT_TRUE(vrk::isInPath("sh") && vrk::isInPath("/bin/sh"));
}

TEST_F(ChildProcess, StopsWithWhatItStarted) {
    EXPECT_EQ(run("sh -c 'trap \"touch ended; exit\" TERM; touch began; sleep 20 & wait' & wait").exitCode,
              143);
    for (int i = 0; i < 1000 && !std::filesystem::exists(folder / "ended"); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(std::filesystem::exists(folder / "ended"));
}

}  // namespace
