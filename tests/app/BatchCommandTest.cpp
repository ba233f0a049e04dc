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
};

TEST_F(BatchCommand, DoesJobsOnceAndSaysWhatBecameOfThem) {
    simulate("data/empty.mrc", "--cell 4,5,6,90,90,90 --peak 1");
    folder.write("data/bad.mrc", folder.read("data/good.mrc").substr(0, 12000));
    const std::string options = " -- --no-pictures --no-integration";
    EXPECT_EQ(vrk("batch data -o out --dry-run" + options).exitCode, 0);
    EXPECT_FALSE(exists("out"));
    ASSERT_EQ(vrk("batch data -o out --plan-only" + options).exitCode, 0);
    const Json jobs = jsonFile("out/batch.json")["jobs"];
    ASSERT_EQ(jobs.size(), 4U);
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
    for (const Json& job : jobs) {
        const std::string name = job["name"];
        for (int times = 0; times < 2; ++times)
            EXPECT_EQ(vrk("batch -o out --job " + name).exitCode, name == "bad" ? 1 : 0) << name;
        // What has a result is not run again, what failed is.
        EXPECT_EQ(record(name)["attempts"], name == "bad" ? 2 : 1) << name;
    }
    EXPECT_EQ(record("empty")["outcome"], "nothing found");
    EXPECT_TRUE(record("good")["seconds"] > 0 && record("good")["modified"] > 1'600'000'000'000'000'000);
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

/// By an engine and a cluster that do jobs one by one, at first only one of them, and by the true one.
TEST_F(BatchCommand, ImportsFramesAndRunsWithAnEngine) {
    fs::rename(folder / ("data/" + kOdd), folder / kOdd);
    fs::create_directory(folder / "data/stack");
    fs::copy_file(folder / "data/good.mrc", folder / "data/stack/s.mrc");
    folder.write("snakemake",
                 "#!/bin/sh\nread -r _ _ _ _ group _ < /proc/$$/stat\n"
                 "[ $group = $$ ] && echo \"$* in a group\" >> words\n"
                 "for unit in $(ls -d workflow/run-* | tail -1)/units/*; do\n  task=0\n"
                 "  for job in $(cat $unit); do\n    if [ -d workflow/logs ]\n"
                 "    then SLURM_ARRAY_TASK_ID=$task sh workflow/task.sh $unit " VRK_PROGRAM
                 "\n    else " VRK_PROGRAM
                 " batch -o . --job $job\n    fi\n    task=$((task + 1))\n"
                 "    [ $(wc -l < words) = 1 ] && break 2\n  done\ndone\n");
    fs::create_symlink("snakemake", folder / "sbatch");
    fs::permissions(folder / "snakemake", fs::perms::owner_all);
    const std::string path = std::getenv("PATH");
    const bool isInstalled = std::system("command -v snakemake >/dev/null") == 0;
    setenv("PATH", ((folder / ".:") + path).c_str(), 1);
    std::set<std::string> tables;
    for (const auto& [how, words] : {std::pair("--jobs=3", "--cores 3 --resources mem_mb=700 in a group"),
                                     {"--slurm", "--cores 1 in a group"},
                                     {"--jobs=2", ""}}) {
        if (!*words) setenv("PATH", path.c_str(), 1);
        if (!*words && !isInstalled) break;
        const VrkResult result = runVrk(
            {"batch", "data", "-o", kOdd, how, "--memory", "700", "--", "--no-pictures", "--no-integration"},
            folder / ".");
        EXPECT_EQ(result.exitCode, 0) << result.err << folder.read(kOdd + "/workflow/engine.log");
        EXPECT_TRUE(says(result.out, "2 series, 2 done\ncluster 1      2 crystals  oP  3.9"));
        const std::vector<std::string> calls = folder.lines(kOdd + "/words");
        EXPECT_TRUE(calls.size() == (*words ? 2U : 0U) && (!*words || calls[1].ends_with(words))) << how;
        tables.insert(folder.read(kOdd + "/crystals.csv"));
        for (const char* name : {"/results", "/words", "/workflow"})
            fs::remove_all(folder / (kOdd + name));
    }
    EXPECT_EQ(tables.size(), 1U);
    EXPECT_FALSE(exists(kOdd + "/PWNED") || exists("PWNED"));
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
