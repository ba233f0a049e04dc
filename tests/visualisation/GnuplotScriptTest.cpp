#include "visualisation/GnuplotScript.h"

#include "support/Testing.h"

#include <stdlib.h>

namespace {

namespace fs = std::filesystem;

class GnuplotScriptTest : public testing::Test {
protected:
    // Everything that a composed command line would stumble over.
    GnuplotScriptTest() { fs::create_directories(m_folder); }

    GnuplotScript parabola() const {
        GnuplotScript plot(m_folder.string(), "it's a plot");
        const std::vector<double> rows = {0, 0,    1, 1, 2, std::numeric_limits<double>::quiet_NaN(),
                                          3, 9.25, 4};
        m_data = plot.addData("x y", rows, 2);
        plot.addCommand("plot " + m_data + " using 1:2 with lines title " + GnuplotScript::quoted("a 'b'"));
        return plot;
    }

    const TemporaryFolder m_own;
    const fs::path m_folder = m_own / "plots of 'a' \"b\"; $(exit) &";
    mutable std::string m_data;
};

TEST_F(GnuplotScriptTest, WritesDataRowByRowWithGapsForWhatIsNotFinite) {
    ASSERT_TRUE(parabola().save());
    EXPECT_EQ(m_data, "'it''s a plot_1.dat'");
    EXPECT_EQ(m_own.read(m_folder / "it's a plot_1.dat"), "# x y\n0 0\n1 1\n2 NaN\n3 9.25\n");
    EXPECT_FALSE(fs::exists(m_folder / "it's a plot.png"));
}

TEST_F(GnuplotScriptTest, RendersWhereGnuplotIsInstalledAndReportsWhatItSays) {
    if (std::system("gnuplot --version > /dev/null 2>&1") != 0) GTEST_SKIP() << "no gnuplot";
    const GnuplotScript plot = parabola();
    ASSERT_TRUE(plot.render());
    EXPECT_EQ(m_own.read(plot.imagePath()).substr(1, 3), "PNG");
    RecordingLogObserver log;
    GnuplotScript broken(m_folder.string(), "broken");
    broken.addCommand("no such command");
    EXPECT_FALSE(broken.render());
    EXPECT_TRUE(log.has("invalid command", VRK::Warning));
}

TEST_F(GnuplotScriptTest, LeavesTheScriptWithANoteWithoutGnuplot) {
    const std::string path = getenv("PATH");
    RecordingLogObserver log;
    setenv("PATH", m_folder.c_str(), 1);
    const GnuplotScript plot = parabola();
    const bool rendered = plot.render();
    setenv("PATH", path.c_str(), 1);
    EXPECT_FALSE(rendered);
    EXPECT_TRUE(log.has("gnuplot is not installed", VRK::Normal));
    EXPECT_TRUE(fs::exists(plot.scriptPath()));
}

TEST_F(GnuplotScriptTest, FailsLoudlyInAFolderThatDoesNotExist) {
    RecordingLogObserver log;
    EXPECT_FALSE(GnuplotScript((m_folder / "none").string(), "plot").render());
    EXPECT_TRUE(log.has("Cannot write the plot file", VRK::Error));
}

}  // namespace
