// From a folder, a list or a table to jobs, and which of them have to be run.

#include <chrono>
#include <csignal>
#include <nlohmann/json.hpp>

#include "pipeline/base/Attempt.h"
#include "pipeline/batch/BatchPlan.h"
#include "pipeline/batch/CsvTable.h"
#include "pipeline/batch/JobRun.h"
#include "pipeline/batch/Workflow.h"
#include "support/FailureOf.h"
#include "support/MRCBytes.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const std::vector<vrk::OptionKind> kKinds = {
    {"tilt-axis", true, true, false}, {"distortion", true, true, false}, {"no-pictures", false, true, false},
    {"jobs", true, true, false},      {"pixel-size", true, true, true},  {"tilts", true, false, true}};

std::string seriesBytes(int frames = 5, int width = 16) {
    MRCBytes file(width, width, frames);
    file.putTilts(-40, 20);
    return file.bytes();
}

/// A folder with series in all the shapes that they come in.
class Plan : public testing::Test {
protected:
    Plan() {
        for (const char* inner : {"grid 1", "frames", "stack", "done", ".hidden"})
            fs::create_directories(folder / inner);
        folder.write("grid 1/a'\"{x}\n$(b).mrc", seriesBytes());
        folder.write("plain.mrc", seriesBytes(7));
        folder.write("bytes\xff.mrc", seriesBytes());
        for (const char* frame : {"frames/f_1.mrc", "frames/f_2.mrc", "frames/f_10.mrc"})
            folder.write(frame, MRCBytes(16, 16, 1, 0).bytes());
        folder.write("stack/s.mrc", MRCBytes(16, 16, 4, 0).bytes());
        folder.write("stack/s.rawtlt", "-2\n-1\n1\n2\n");
        folder.write("volume.mrc", MRCBytes(16, 16, 16, 0).bytes());
        folder.write("done/summary.json", "{}");
        folder.write("done/old.mrc", seriesBytes());
        folder.write(".hidden/h.mrc", seriesBytes());
        folder.write("notes.txt", "nothing");
    }

    std::vector<vrk::BatchJob> jobsOf(const std::string& source, const vrk::JobOptions& common = {}) {
        warnings.clear();
        return vrk::planBatch({source, common, kKinds},
                              [this](const std::string& text) { warnings.push_back(text); });
    }
    std::string refusalOf(const std::string& table) {
        return failureOf([&] { jobsOf(folder.write("t.csv", table)); }).text;
    }

    TemporaryFolder folder;
    std::vector<std::string> warnings;
};

TEST(Csv, ReadsWhatSpreadsheetsWrite) {
    using Case = std::pair<const char*, std::vector<std::string>>;
    for (const auto& [text, fields] :
         {Case{"a,b\n1,2\n", {"1", "2"}},
          Case{"\xef\xbb\xbf"
               "a;b\r\n1,5;\"x\"\r\n",
               {"1,5", "x"}},
          Case{"\na\tb\n\n\"q\"\"\t\n\"\t2", {"q\"\t\n", "2"}}, Case{"a,b\n,\n5'\" ,\n", {"5'\" ", ""}}}) {
        const vrk::CsvTable table = vrk::csvTable(text, "t");
        EXPECT_EQ(table.columns, (std::vector<std::string>{"a", "b"})) << text;
        ASSERT_EQ(table.rows.size(), 1U) << text;
        EXPECT_EQ(table.rows[0].fields, fields) << text;
    }
    for (const char* bad : {"a,b\n1\n", "a,b\n1,2,3\n", "a,b\n1,\"2\n"})
        EXPECT_THROW(vrk::csvTable(bad, "t"), vrk::Failure) << bad;
    for (const char* field : {"plain", "a,b", "q\"q", "two\nlines", ""})
        EXPECT_EQ(vrk::csvTable("a,b\n" + vrk::csvField(field) + ",1\n", "t").rows.at(0).fields.at(0), field);
}

TEST_F(Plan, FindsSeriesInAllShapesAndKeepsTheirNames) {
    const std::vector<vrk::BatchJob> jobs = jobsOf(folder / ".", {{"tilt-axis", "5"}});
    std::map<std::string, const vrk::BatchJob*> byFile;
    for (const vrk::BatchJob& job : jobs) {
        byFile[job.series.input.lexically_normal().filename().string()] = &job;
        EXPECT_EQ(
            job.name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-"),
            std::string::npos)
            << job.name;
    }
    ASSERT_EQ(jobs.size(), 5U);
    const vrk::BatchJob &plain = *byFile.at("plain.mrc"), &stack = *byFile.at("s.mrc");
    EXPECT_EQ(std::tuple(plain.name, stack.name), std::tuple("plain", "stack_s"));
    EXPECT_EQ(std::tuple(plain.series.needsImport, plain.series.frames), std::tuple(false, 7));
    const vrk::FoundSeries& frames = byFile.at("frames")->series;
    EXPECT_EQ(std::tuple(frames.needsImport, frames.frames, frames.columns), std::tuple(true, 3, 16));
    EXPECT_EQ(vrk::importWords(stack, kKinds),
              (std::vector<std::string>{"--tilts=" +
                                        fs::path(folder / "stack/s.rawtlt").lexically_normal().string()}));
    EXPECT_EQ(vrk::runWords(stack, kKinds), (std::vector<std::string>{"--tilt-axis=5", "--jobs=1"}));
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_TRUE(says(warnings[0], "volume.mrc states no tilts"));

    // The plan holds every byte of a name, and a job is found in it alone.
    const vrk::BatchFolder batch(folder / "out");
    fs::create_directories(batch.path());
    vrk::writePlan(jobs, batch, "1.0");
    const std::vector<vrk::BatchJob> read = vrk::readPlan(batch);
    ASSERT_EQ(read.size(), jobs.size());
    for (std::size_t i = 0; i < jobs.size(); ++i)
        for (const vrk::BatchJob& other : {read[i], vrk::readJob(batch, jobs[i].name)}) {
            EXPECT_EQ(other.series.input, jobs[i].series.input);
            EXPECT_EQ(other.series.bytes, jobs[i].series.bytes);
            EXPECT_EQ(other.series.needsImport, jobs[i].series.needsImport);
            EXPECT_EQ(other.options, jobs[i].options);
        }
    EXPECT_THROW(vrk::readJob(batch, "plai"), vrk::Failure);
    for (const auto& [from, to, message] : {std::tuple("\"version\":1", "\"version\":2", "(another format)"),
                                            {"\"format\":\"", "\"format\":\"x", "(another format)"},
                                            {"\"jobs\":", "\"job\":", "is damaged ("}}) {
        std::string plan = folder.read("out/batch.json");
        const vrk::BatchFolder other(folder / "other");
        fs::create_directories(other.path());
        ASSERT_NE(plan.find(from), std::string::npos) << from;
        folder.write("other/batch.json", plan.replace(plan.find(from), std::strlen(from), to));
        EXPECT_TRUE(failureOf([&] { vrk::readPlan(other); }).says(message)) << to;
    }

    // A list names the same files, with line ends in their names by zero bytes.
    const std::string listed =
        "plain.mrc" + std::string(1, '\0') + "grid 1/a'\"{x}\n$(b).mrc" + std::string(1, '\0');
    const std::vector<vrk::BatchJob> ofList = jobsOf(folder.write("list", listed));
    ASSERT_EQ(ofList.size(), 2U);
    EXPECT_EQ(ofList[1].name, "plain");
    EXPECT_EQ(ofList[0].name, byFile.at("a'\"{x}\n$(b).mrc")->name);
}

TEST_F(Plan, TakesOptionsFromTables) {
    folder.write("d.json", "1");
    const std::string table =
        "series,name,tilt-axis,distortion,no-pictures,pixel-size\n"
        "plain.mrc,one,7,d.json,yes,\nplain.mrc,two,,,no,\nframes,three,,,,5e7\n";
    const std::vector<vrk::BatchJob> jobs =
        jobsOf(folder.write("t.csv", table), {{"tilt-axis", "1"}, {"jobs", "3"}});
    ASSERT_EQ(jobs.size(), 3U);
    EXPECT_EQ(
        vrk::runWords(jobs[0], kKinds),
        (std::vector<std::string>{"--distortion=" + fs::path(folder / "d.json").lexically_normal().string(),
                                  "--jobs=3", "--no-pictures", "--tilt-axis=7"}));
    EXPECT_EQ(vrk::importWords(jobs[1], kKinds), (std::vector<std::string>{"--pixel-size=5e7"}));
    EXPECT_EQ(vrk::runWords(jobs[2], kKinds), (std::vector<std::string>{"--jobs=3", "--tilt-axis=1"}));
    for (const auto& [bad, expected] : std::map<std::string, std::string>{
             {"path\nplain.mrc\n", "no column \"series\""},
             {"series\nplain.mrc\nplain.mrc\n", "occurs twice"},
             {"series,name\nplain.mrc,x\nframes,x\n", "occurs twice"},
             {"series,colour\nplain.mrc,red\n", "line 2: --colour is no option"},
             {"series,no-pictures\nplain.mrc,perhaps\n", "neither yes nor no"},
             {"series,tilts\nplain.mrc,1:2\n", "needs none"},
             {"series\nnowhere.mrc\n", "line 2: there is no series"}})
        EXPECT_TRUE(says(refusalOf(bad), expected)) << bad;
    // Every letter, digit, point and stroke stands for itself, whatever is beside them in ASCII does not.
    const std::string plain(119, 'z');
    for (const auto& [given, name] : {std::pair<std::string, std::string>{"azAZ09._-", "azAZ09._-"},
                                      {"@[`{/:", "______-881f7e88"},
                                      {".hidden", "s.hidden-e5e365c5"},
                                      {"-x", "s-x-b3486ca7"},
                                      {plain + "y", plain + "y"},
                                      {plain + "yx", plain + "y-f3794ee7"}}) {
        const std::string row = "series,name\nplain.mrc," + given + '\n';
        EXPECT_EQ(jobsOf(folder.write("t.csv", row)).at(0).name, name);
    }
    EXPECT_EQ(vrk::seriesAt(fs::path(VRK_FRAMES) / "nexus_master.h5").bytes, 22376U + 6716U + 6658U);
    EXPECT_THROW(vrk::readOptions({"--tilt-axis"}, kKinds, "."), vrk::Failure);
    EXPECT_THROW(vrk::readOptions({"5"}, kKinds, "."), vrk::Failure);
    EXPECT_EQ(vrk::readOptions({"--tilt-axis", "-5", "--pixel-size=2", "--no-pictures"}, kKinds, "."),
              (vrk::JobOptions{{"tilt-axis", "-5"}, {"pixel-size", "2"}, {"no-pictures", std::nullopt}}));
}

TEST_F(Plan, RunsAgainWhatChangedAndNothingElse) {
    const std::string calibration = folder.write("d.json", "1");
    const vrk::BatchFolder batch(folder / "out");
    fs::create_directories(batch.record("plain").parent_path());
    fs::create_directories(batch.result("plain"));
    std::ofstream(batch.result("plain") / "summary.json") << "{}";
    const fs::path input = folder / "plain.mrc";
    std::vector<vrk::BatchJob> jobs = {
        {"plain", vrk::seriesAt(input), {{"distortion", calibration}, {"tilt-axis", "5"}}}};
    vrk::JobRecord done;
    done.settings = vrk::settingsKey(jobs[0].options, "1.0");
    done.content = vrk::contentKey(input);
    done.stamp = vrk::stampOf(input);
    const auto outcome = [&](vrk::JobOutcome recorded, const std::string& version = "1.0") {
        done.outcome = recorded;
        vrk::writeRecord(done, batch.record("plain"));
        const std::vector<vrk::JobState> states = vrk::statesOf(jobs, batch, version);
        return std::pair(states[0].record.outcome, vrk::openJobs(states, false).size());
    };
    using enum vrk::JobOutcome;
    EXPECT_EQ(outcome(Done), std::pair(Done, std::size_t{0}));
    EXPECT_EQ(outcome(NothingFound), std::pair(NothingFound, std::size_t{0}));
    EXPECT_EQ(vrk::openJobs(vrk::statesOf(jobs, batch, "1.0"), true).size(), 1U);
    EXPECT_EQ(outcome(Failed), std::pair(Failed, std::size_t{1}));
    EXPECT_EQ(outcome(Started), std::pair(Started, std::size_t{1}));
    EXPECT_EQ(outcome(Done, "1.1"), std::pair(Open, std::size_t{1}));

    // Time alone is no change; bytes are, and so are those of a file that an option names.
    fs::last_write_time(input, fs::last_write_time(input) + std::chrono::hours(1));
    EXPECT_EQ(outcome(Done).first, Done);
    EXPECT_EQ(vrk::readRecord(batch.record("plain")).stamp, vrk::stampOf(input));
    jobs[0].options[1].value = "6";
    EXPECT_EQ(outcome(Done).first, Open);
    jobs[0].options[1].value = "5";
    folder.write("d.json", "2");
    EXPECT_EQ(outcome(Done).first, Open);
    folder.write("d.json", "1");
    std::string bytes = seriesBytes(7);
    bytes.back() ^= 1;
    folder.write("plain.mrc", bytes);
    EXPECT_EQ(outcome(Done).first, Open);
    folder.write("plain.mrc", seriesBytes(7));
    EXPECT_EQ(outcome(Done).first, Done);
    fs::remove(batch.result("plain") / "summary.json");
    EXPECT_EQ(outcome(Done).first, Open);
    fs::remove(input);
    EXPECT_EQ(outcome(Failed).first, Failed) << "that it is gone was told";
    EXPECT_EQ(outcome(Failed, "1.1").first, Open);
    // Frames of a folder count with their names.
    const std::string frames = vrk::contentKey(folder / "frames");
    fs::rename(folder / "frames/f_2.mrc", folder / "frames/f_3.mrc");
    EXPECT_NE(vrk::contentKey(folder / "frames"), frames);
}

TEST_F(Plan, JobsTellHowTheyEnded) {
    const vrk::BatchFolder batch(folder / "out");
    fs::create_directories(batch.result("one"));
    vrk::writePlan(
        {{"one", vrk::seriesAt(folder / "plain.mrc"), {}}, {"two", vrk::seriesAt(folder / "frames"), {}}},
        batch, "1.0");
    using enum vrk::JobOutcome;
    using Case = std::tuple<const char*, std::function<int(const std::string&)>, vrk::JobOutcome, const char*,
                            int, int>;
    const auto breaks = [](const auto&) {
        std::cerr << "vrk: it broke\nvrk: warning: of before\nin a file\n";
        return 1;
    };
    for (const auto& [job, work, outcome, cause, attempts, unended] :
         {Case{"one", [](const auto&) { return 0; }, Done, "", 1, 0},
          {"one", breaks, Failed, "it broke", 2, 0},
          {"one", [](const auto&) { return raise(SIGKILL); }, Failed, "vrk run was killed; its memory", 3, 1},
          {"one", [](const auto&) { return raise(SIGTERM); }, Failed, "vrk run was ended by signal 15", 4, 0},
          {"two", [](const auto& step) { return step == "import" ? 4 : 0; }, Failed,
           "vrk import ended with code 4", 1, 0},
          {"two", [](const auto& step) { return step == "run" ? 3 : 0; }, NothingFound,
           "vrk run ended with code 3", 2, 0},
          {"two", breaks, NothingFound, "vrk run ended with code 3", 2, 0}}) {
        SCOPED_TRACE(cause);
        vrk::Session session(vrk::silence());
        const vrk::JobRecord record = vrk::runJob(
            job, {batch, [&, &step = work](const auto& words) { return step(words[0]); }, "1.0", kKinds},
            session);
        EXPECT_EQ(record.outcome, outcome);
        EXPECT_TRUE(record.cause.starts_with(cause) && record.cause.empty() == !*cause) << record.cause;
        EXPECT_EQ(std::pair(record.attempts, record.unended), std::pair(attempts, unended));
        EXPECT_FALSE(fs::exists(batch.scratch(job)));
    }
    std::ifstream diary(batch.diary());
    EXPECT_EQ(std::count(std::istreambuf_iterator<char>(diary), {}, '\n'), 6);
}

TEST(Needs, GrowWithTheSeriesAndWithAttemptsThatEndWithoutAWord) {
    const auto needs = [](int width, int frames, int doublings) {
        return vrk::needsOf({"s", false, {}, 0, width, width, frames}, 1, doublings);
    };
    // Of measured runs: 435 MiB for 121 frames of 512 pixels, 543 MiB for 241.
    EXPECT_EQ(needs(512, 121, 0), (vrk::JobNeeds{896, 14, 1}));
    EXPECT_EQ(needs(512, 241, 0).memory, 1024);
    EXPECT_EQ(vrk::needsOf({"s", true, {}, 512 << 20, 512, 512, 121}, 1, 0).minutes, 24);
    EXPECT_EQ(needs(512, 121, 2).memory, 4 * needs(512, 121, 0).memory);
    EXPECT_EQ(needs(512, 121, 1).minutes, 2 * needs(512, 121, 0).minutes);
    EXPECT_EQ(needs(512, 900, 0), needs(512, 300, 0));
    for (const auto& [width, frames] : {std::pair(0, 0), {512, 0}, {0, 121}})
        EXPECT_EQ(needs(width, frames, 0), needs(1024, 300, 0));
    EXPECT_EQ(vrk::needsOf({"s", false, {}, 0, 256, 512, 121}, 3, 9),
              vrk::needsOf({"s", false, {}, 0, 512, 256, 121}, 3, 6));
    EXPECT_EQ(vrk::needsOf({"s", false, {}, 0, 256, 512, 121}, 3, 0), (vrk::JobNeeds{768, 12, 3}));
}

TEST(Units, AreFewJobsInARowAndArraysOfEqualOnes) {
    std::vector<vrk::JobState> open;
    for (int i = 0; i < 12006; ++i) {
        const int width = i % 3 == 0 ? 256 : 64;
        const vrk::FoundSeries series = {"s", false, {}, 0, width, width, 30};
        open.push_back(
            {{std::string("j").append(std::to_string(i)), series, {}}, {}, vrk::needsOf(series, 1, 0)});
    }
    const auto sizes = [&](std::size_t count, const vrk::EngineSettings& settings) {
        std::map<std::size_t, int> result;
        for (const vrk::WorkUnit& unit :
             vrk::unitsOf({open.begin(), open.begin() + static_cast<long>(count)}, settings))
            ++result[unit.jobs.size()];
        return result;
    };
    vrk::EngineSettings settings;
    settings.jobs = 2;
    EXPECT_EQ(sizes(31, settings), (std::map<std::size_t, int>{{1, 31}}));
    // In fours until some sixty are left, which end one by one.
    EXPECT_EQ(sizes(500, settings), (std::map<std::size_t, int>{{4, 110}, {3, 5}, {2, 7}, {1, 31}}));
    EXPECT_EQ(sizes(12006, settings), (std::map<std::size_t, int>{{7, 1715}, {1, 1}}));
    settings.jobs = 64;
    EXPECT_EQ(sizes(500, settings), (std::map<std::size_t, int>{{1, 500}}));
    settings.jobs = 0;
    settings.slurm = true;
    EXPECT_EQ(sizes(4500, settings), (std::map<std::size_t, int>{{1000, 4}, {500, 1}}));
    const std::vector<vrk::WorkUnit> units = vrk::unitsOf(open, settings);
    EXPECT_EQ(units.front().jobs.front(), "j0");
    EXPECT_GT(units.front().needs.memory, units.back().needs.memory);
    EXPECT_EQ(units.front().needs, open[0].needs);
    EXPECT_EQ(vrk::engineCommand(units, settings).back(), std::to_string(units.size()));
    settings.jobs = 9;
    EXPECT_EQ(vrk::engineCommand(units, settings).back(), "1") << "one array after the other";

    const TemporaryFolder folder;
    settings.program = "the program";
    settings.memory = 100;
    for (const bool slurm : {true, false}) {
        settings.slurm = slurm;
        vrk::writeWorkflow({{units[0].needs, {"j0", "j3"}}}, settings, vrk::BatchFolder(folder / "."));
        const json told = json::parse(folder.read("workflow/settings.json"));
        EXPECT_EQ(told["units"]["000000"]["memory"], slurm ? units[0].needs.memory : 100);
        EXPECT_EQ(folder.read(told["folder"].get<std::string>() + "/units/000000"), "j0\nj3\n");
        EXPECT_TRUE(folder.read("jobs.txt").ends_with("\n'the program' batch -o . --job j3\n"));
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(folder / "workflow"), {}), 5) << "one run, not two";
    EXPECT_EQ(vrk::engineCommand(units, settings).back(), "mem_mb=100");
}

}  // namespace
