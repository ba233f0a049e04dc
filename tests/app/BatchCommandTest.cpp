// vrk batch as a user meets it: jobs one by one, what is run again, the table, and a short batch by
// Snakemake.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "app/RunVrk.h"
#include "support/TemporaryFolder.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

/// Names are data: none of this reaches a shell.
const std::string kOdd = "q'uo\"te {x}\nnew;$(touch PWNED)";

class BatchCommand : public testing::Test {
protected:
    BatchCommand() {
        fs::create_directories(folder / ("data/" + kOdd));
        simulate("data/good.mrc", "--cell 4,5,6,90,90,90");
        fs::copy_file(folder / "data/good.mrc", folder / ("data/" + kOdd + "/" + kOdd + ".mrc"));
    }

    void simulate(const std::string& path, const std::string& options) const {
        ASSERT_EQ(
            vrk("simulate -o " + path + " --size 64 --dmin 1.2 --tilts -45:45:3 --write-axis " + options)
                .exitCode,
            0);
    }
    VrkResult vrk(const std::string& line) const { return runVrkLine(line, folder / "."); }
    Json record(const std::string& name) const {
        return Json::parse(folder.read("out/records/" + name + ".json"));
    }
    std::vector<std::string> names() const {
        std::vector<std::string> all;
        const Json plan = Json::parse(folder.read("out/batch.json"));
        for (const Json& job : plan["jobs"])
            all.push_back(job["name"]);
        return all;
    }

    TemporaryFolder folder;
};

TEST_F(BatchCommand, DoesJobsOnceAndSaysWhatBecameOfThem) {
    simulate("data/empty.mrc", "--cell 4,5,6,90,90,90 --peak 1");
    folder.write("data/bad.mrc", folder.read("data/good.mrc").substr(0, 12000));
    const std::string options = " -- --no-pictures --no-integration";
    EXPECT_EQ(vrk("batch data -o out --dry-run" + options).exitCode, 0);
    EXPECT_FALSE(fs::exists(folder / "out"));
    const VrkResult planned = vrk("batch data -o out --plan-only" + options);
    ASSERT_EQ(planned.exitCode, 0) << planned.err;
    ASSERT_EQ(names().size(), 4U);
    const std::string lines = folder.read("out/jobs.txt");
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 4);

    // One that fails does not keep the others in its row from being done, and nobody sees how they were done.
    const VrkResult row = vrk("batch -o out --job bad good");
    EXPECT_EQ(row.exitCode, 1);
    EXPECT_NE(row.err.find("vrk: bad: "), std::string::npos) << row.err;
    const std::string command =
        Json::parse(folder.read("out/results/good/summary.json"))["program"]["command"];
    EXPECT_TRUE(command.starts_with("vrk run /") &&
                command.ends_with("/good --no-integration --no-pictures --jobs=1"))
        << command;
    EXPECT_EQ(vrk("verify out/results/good --input data/good.mrc").exitCode, 0);
    fs::remove(folder / "out/records/bad.json");
    for (const std::string& name : names()) {
        const int expected = name == "bad" ? 1 : 0;
        const VrkResult result = vrk("batch -o out --job " + name);
        EXPECT_EQ(result.exitCode, expected) << name << result.err;
        vrk("batch -o out --job " + name);
        // What has a result is not run again, what failed is.
        EXPECT_EQ(record(name)["attempts"], name == "bad" ? 2 : 1) << name;
    }
    EXPECT_EQ(record("empty")["outcome"], "nothing found");
    EXPECT_NE(record("bad")["cause"].get<std::string>().find("bad.mrc"), std::string::npos);
    EXPECT_FALSE(fs::exists(folder / "PWNED") || fs::exists(folder / "out/PWNED"));
    EXPECT_EQ(vrk("batch -o out --job nobody").exitCode, 2);

    ASSERT_EQ(vrk("batch --collect out --cut 0.02").exitCode, 0);
    EXPECT_EQ(Json::parse(folder.read("out/crystals.json"))["dendrogram"]["cut"], 0.02);
    EXPECT_NE(vrk("batch -o out --dry-run").out.find("4 series, 2 done, 1 nothing found, 1 failed; 1 to run"),
              std::string::npos);
    EXPECT_NE(vrk("batch -o out --dry-run --again").out.find("; 2 to run"), std::string::npos);
    // Other options are another result.
    EXPECT_NE(vrk("batch data -o out --dry-run -- --no-pictures").out.find("; 4 to run"), std::string::npos);
    const VrkResult wrong = vrk("batch data -o out -- --no-pictures --threshold many");
    EXPECT_EQ(wrong.exitCode, 2);
    EXPECT_NE(wrong.err.find("--threshold: many is not a number"), std::string::npos) << wrong.err;
}

TEST_F(BatchCommand, ImportsFramesAndRunsWithSnakemake) {
    if (std::system("command -v snakemake >/dev/null") != 0) GTEST_SKIP() << "snakemake is not installed";
    fs::rename(folder / ("data/" + kOdd), folder / kOdd);
    fs::create_directory(folder / "data/stack");
    fs::copy_file(folder / "data/good.mrc", folder / "data/stack/s.mrc");
    const VrkResult result =
        runVrk({"batch", "data", "-o", kOdd, "--jobs", "2", "--", "--no-pictures", "--no-integration"},
               folder / ".");
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.out.find("2 series, 2 done\ncluster 1      2 crystals  oP"), std::string::npos)
        << result.out;
    EXPECT_FALSE(fs::exists(folder / (kOdd + "/PWNED")) || fs::exists(folder / "PWNED"));
    const std::string table = folder.read(kOdd + "/crystals.csv");
    const VrkResult again = runVrk({"batch", "-o", kOdd}, folder / ".");
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_EQ(folder.read(kOdd + "/crystals.csv"), table);
}

TEST_F(BatchCommand, SaysHowToGetTheEngine) {
    const std::string path = std::getenv("PATH");
    setenv("PATH", "/nowhere", 1);
    const VrkResult result = vrk("batch data -o out");
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("snakemake is not installed"), std::string::npos) << result.err;
    EXPECT_TRUE(fs::exists(folder / "out/jobs.txt"));
}

}  // namespace
