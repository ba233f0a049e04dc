// What commands print and write, as one number each; tests of the commands look at whether it is true.

#include <regex>

#include "app/RunVrk.h"
#include "support/SoFar.h"

namespace {

class PrintedTest : public VrkTest {
protected:
    /// What is printed, without what it cost.
    std::string printed(const std::string& line) const {
        const VrkResult result = vrk(line);
        EXPECT_EQ(result.exitCode, 0) << line << '\n' << result.err;
        return std::regex_replace(result.out, std::regex("(seconds .*)?[0-9.]+ (s|MiB)\\b"), "");
    }
    void expectPrinted(const std::vector<std::string>& lines, double expected) const {
        SoFar soFar;
        for (const std::string& line : lines)
            soFar.addText(printed(line));
        EXPECT_NEAR(soFar.sum(), expected, 1e-3);
    }
};

/// A crystal with a centring; and two, seen with distortion, wrong tilts and a wrong axis.
const std::string kSeries =
    "--cell 5.2,6.1,4.6,90,105,90 --centring C --size 128 --dmin 1 --seed 4 --axis 6 --write-axis ";
constexpr const char* kBentSeries =
    "simulate -o bent.mrc --cell 6.1,6.1,6.1,90,90,90 --centring I --size 128 --dmin 0.9 --tilts -60:60:2 "
    "--axis 29 --state-axis 30 --ellipse 0.012 --ellipse-azimuth 40 --tilt-scale 1.01 --peak 20000 "
    "--second-crystal 0.4";

TEST_F(PrintedTest, OfRuns) {
    jsonOf("simulate -o series.mrc --tilts -60:60:3 --drift 3 " + kSeries);
    expectPrinted({"run series.mrc -o out --no-pictures"}, 1216.7643);
    // What it took is what the summary says.
    const std::string out = vrk("run series.mrc -o out --no-pictures").out;
    const Json told = jsonFile("out/summary.json")["seconds"];
    std::string form = "seconds +";
    const std::vector<std::string> stages = {"read", "preprocess", "tilt_axis", "reconstruct", "search",
                                             "cell", "index",      "integrate", "total"};
    for (const std::string& stage : stages)
        form += (stage == "tilt_axis" ? "axis" : stage) + " ([0-9.]+)" + (stage == "total" ? "; " : ", ");
    std::smatch seconds;
    ASSERT_TRUE(std::regex_search(out, seconds, std::regex(form + "[0-9]+ MiB\n"))) << out;
    for (std::size_t i = 0; i < stages.size(); ++i)
        EXPECT_NEAR(std::stod(seconds[i + 1]), told[stages[i]], told[stages[i]] < 9.9 ? 0.0501 : 0.501);
}

TEST_F(PrintedTest, OfPlots) {
    jsonOf("simulate -o series.mrc --tilts -60:60:3 --drift 3 " + kSeries);
    printed("run series.mrc -o out");
    EXPECT_NEAR(soFarOf(folder / "out"), 9090325.0750, 1e-3);
}

TEST_F(PrintedTest, OfInstruments) {
    jsonOf(kBentSeries);
    expectPrinted(
        {"run bent.mrc -o bent --no-pictures --no-integration", "calibrate bent bent.mrc -o c.json"},
        2428.4786);
    const Json summary = jsonFile("bent/summary.json");
    for (const Json& term : summary["instrument"]["terms"])
        EXPECT_TRUE(term["esd"] > 0 && term["esd"] < 0.2) << term;
    EXPECT_NEAR(soFarOf(folder / "bent"), 80869.1419, 1e-3);
    EXPECT_NEAR(soFarOf(folder / "c.json"), 698.9644, 1e-3);
}

TEST_F(PrintedTest, OfMerging) {
    jsonOf("simulate -o series.mrc --tilts -60:60:3 --drift 3 " + kSeries);
    expectPrinted({"run series.mrc -o a --no-pictures",
                   "simulate -o second.mrc --tilts -60:60:2 --peak 5000 " + kSeries,
                   "run second.mrc -o b --no-pictures", "merge a b -o m"},
                  3816.2829);
    EXPECT_NEAR(soFarOf(folder / "m"), 27776.0053, 1e-3);
}

TEST_F(PrintedTest, OfStages) {
    jsonOf("simulate -o series.mrc --tilts -60:60:3 --drift 3 " + kSeries);
    expectPrinted({"import series.mrc -o i.mrc --sum 2", "info series.mrc",
                   "preprocess series.mrc -o clean.mrc --rotate header",
                   "reconstruct clean.mrc -o volume.mrc", "peaks volume.mrc -o p.txt", "cell p.txt -o c.txt",
                   "index p.txt c.txt -o x.hkl --voltage 200 --lattice auto",
                   "tilt-axis series.mrc -o ax --range 4 8 2", "cell-info 5 5.1 7 90.3 90.4 90.2",
                   "cell-info 5 5 7 90 90 120 --centring R",
                   "simulate -o s.mrc --cell 4,5,6,80,95,100 --size 64 --dmin 2 --tilts -9:9:3 --axis 20",
                   "demo -o demo --size 128 --step 3 --cell 5,6,7,90,95,90 --centring C --seed 2"},
                  7723.9582);
    EXPECT_NEAR(soFarOf(folder / "."), 9703883.6014, 1e-3);
}

}  // namespace
