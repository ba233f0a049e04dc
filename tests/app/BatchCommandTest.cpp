// vrk batch as a user meets it: jobs one by one, what is run again, the table, and a short batch by
// Snakemake.

#include "app/RunVrk.h"

namespace {

namespace fs = std::filesystem;

/// Names are data: none of this reaches a shell.
const std::string kOdd = "q'uo\"te {x}\nnew;$(touch PWNED)";

class BatchCommand : public VrkTest {
protected:
    BatchCommand() {
        fs::create_directories(folder / ("data/" + kOdd));
        simulate("data/good.mrc", "--cell 4,5,6,90,90,90");
        fs::copy_file(folder / "data/good.mrc", folder / ("data/" + kOdd + "/" + kOdd + ".mrc"));
    }

    void simulate(const std::string& path, const std::string& options) const {
        jsonOf("simulate -o " + path + " --size 64 --dmin 1.2 --tilts -45:45:3 --write-axis " + options);
    }
    Json record(const std::string& name) const { return jsonFile("out/records/" + name + ".json"); }
    std::vector<std::string> names() const {
        std::vector<std::string> all;
        const Json plan = jsonFile("out/batch.json");
        for (const Json& job : plan["jobs"])
            all.push_back(job["name"]);
        return all;
    }
};

TEST_F(BatchCommand, DoesJobsOnceAndSaysWhatBecameOfThem) {
    simulate("data/empty.mrc", "--cell 4,5,6,90,90,90 --peak 1");
    folder.write("data/bad.mrc", folder.read("data/good.mrc").substr(0, 12000));
    const std::string options = " -- --no-pictures --no-integration";
    EXPECT_EQ(vrk("batch data -o out --dry-run" + options).exitCode, 0);
    EXPECT_FALSE(exists("out"));
    ASSERT_EQ(vrk("batch data -o out --plan-only" + options).exitCode, 0);
    ASSERT_EQ(names().size(), 4U);
    EXPECT_EQ(std::ranges::count(folder.read("out/jobs.txt"), '\n'), 4);

    // One that fails does not keep the others in its row from being done, and nobody sees how they were done.
    const VrkResult row = vrk("batch -o out --job bad good");
    EXPECT_EQ(row.exitCode, 1);
    EXPECT_TRUE(says(row.err, "vrk: bad: "));
    const std::string command = jsonFile("out/results/good/summary.json")["program"]["command"];
    EXPECT_TRUE(command.starts_with("vrk run /") &&
                command.ends_with("/good --no-integration --no-pictures --jobs=1"))
        << command;
    EXPECT_EQ(vrk("verify out/results/good --input data/good.mrc").exitCode, 0);
    fs::remove(folder / "out/records/bad.json");
    for (const std::string& name : names()) {
        for (int times = 0; times < 2; ++times)
            EXPECT_EQ(vrk("batch -o out --job " + name).exitCode, name == "bad" ? 1 : 0) << name;
        // What has a result is not run again, what failed is.
        EXPECT_EQ(record(name)["attempts"], name == "bad" ? 2 : 1) << name;
    }
    EXPECT_EQ(record("empty")["outcome"], "nothing found");
    EXPECT_TRUE(says(record("bad")["cause"].get<std::string>(), "bad.mrc"));
    EXPECT_FALSE(exists("PWNED") || exists("out/PWNED"));
    EXPECT_EQ(vrk("batch -o out --job nobody").exitCode, 2);

    ASSERT_EQ(vrk("batch --collect out --cut 0.02").exitCode, 0);
    EXPECT_EQ(jsonFile("out/crystals.json")["dendrogram"]["cut"], 0.02);
    EXPECT_TRUE(
        says(vrk("batch -o out --dry-run").out, "4 series, 2 done, 1 nothing found, 1 failed; 1 to run"));
    EXPECT_TRUE(says(vrk("batch -o out --dry-run --again").out, "; 2 to run"));
    // Other options are another result.
    EXPECT_TRUE(says(vrk("batch data -o out --dry-run -- --no-pictures").out, "; 4 to run"));
    const VrkResult wrong = vrk("batch data -o out -- --no-pictures --threshold many");
    EXPECT_EQ(wrong.exitCode, 2);
    EXPECT_TRUE(says(wrong.err, "--threshold: many is not a number"));
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
    EXPECT_TRUE(says(result.out, "2 series, 2 done\ncluster 1      2 crystals  oP"));
    EXPECT_FALSE(exists(kOdd + "/PWNED") || exists("PWNED"));
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
    EXPECT_TRUE(says(result.err, "snakemake is not installed"));
    EXPECT_TRUE(exists("out/jobs.txt"));
}

}  // namespace
