// vrk run as a user meets it: on series that work, on series that cannot, and when it is interrupted.
#include <signal.h>

#include <chrono>
#include <regex>
#include <span>
#include <thread>

#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "app/RunVrk.h"
#include "pipeline/simulation/Simulation.h"
#include "support/JsonMatrix.h"

namespace {

constexpr std::array<double, 6> kCell = {6, 7, 8, 80, 85, 80};

/// A series that is small and easy.
std::unique_ptr<VoxMRCData> smallSeries(int size = 128) {
    vrk::SimulationSettings settings;
    settings.cell = kCell;
    settings.dmin = 1.0;
    settings.detector.size = size;
    for (int tilt = -60; tilt <= 60; tilt += 2)
        settings.tilts.push_back(tilt);
    return vrk::simulateSeries(settings).series;
}

/// What the header says of every frame.
std::span<float> stated(VoxMRCData& series, SliceValue value) {
    auto& all = series.m_Header.sliceValues[static_cast<std::size_t>(value)];
    return std::span<float>(all.data(), series.GetDepth());
}

void write(VoxMRCData& series, const std::string& path) {
    ASSERT_TRUE(VoxMRCFileHandler().writeMRCFile(&series, path));
}

/// The count at x, y of a slice.
using Pixels = std::function<short(unsigned, unsigned, unsigned)>;

/// The same series with other frames.
std::unique_ptr<VoxMRCData> changed(VoxMRCData& from, unsigned width, unsigned height, unsigned frames,
                                    const Pixels& value) {
    std::unique_ptr<VoxMRCData> to(VoxMRCData::Create3D(width, height, frames));
    to->m_Header = from.m_Header;
    mrcH& header = to->m_Header;
    header.nx = header.mx = static_cast<int>(width);
    header.ny = header.my = static_cast<int>(height);
    header.nz = header.mz = static_cast<int>(frames);
    for (unsigned z = 0; z < frames; ++z)
        for (unsigned y = 0; y < height; ++y)
            for (unsigned x = 0; x < width; ++x)
                to->GetChunkPointer(z)[y * width + x] = value(x, y, z);
    return to;
}

template <typename Entries = std::filesystem::directory_iterator>
std::set<std::string> filesIn(const std::string& folder) {
    std::set<std::string> names;
    for (const auto& entry : Entries(folder))
        names.insert(std::filesystem::relative(entry.path(), folder).string());
    return names;
}

bool anyHalfWritten(const std::set<std::string>& names) {
    return std::ranges::any_of(names,
                               [](const auto& name) { return name.find(".part") != std::string::npos; });
}

void expectTrueCell(const Json& summary) {
    for (std::size_t i = 0; i < 6; ++i)
        EXPECT_NEAR(cellOf(summary["cell"]["reduced"])[i], kCell[i], i < 3 ? 0.002 * kCell[i] : 0.15) << i;
    EXPECT_EQ(summary["cell"]["conventional"]["bravais"], "aP");
    EXPECT_GT(summary["reflections"]["fraction_indexed"].get<double>(), 0.95);
}

/// One series for all tests, simulated once.
class RunCommandTest : public VrkTest {
protected:
    static void SetUpTestSuite() { series = smallSeries(); }
    static void TearDownTestSuite() { series.reset(); }

    unsigned width() const { return series->GetWidth(); }
    unsigned frames() const { return series->GetDepth(); }
    static short pixel(unsigned x, unsigned y, unsigned z) {
        return series->GetChunkPointer(z)[y * series->GetWidth() + x];
    }
    std::unique_ptr<VoxMRCData> alike(const Pixels& value) const {
        return changed(*series, width(), width(), frames(), value);
    }
    VrkResult run(const std::string& options = "") const {
        return vrk("run series.mrc -o result " + options);
    }
    void expectSolved(VoxMRCData& odd, const char* warning) const {
        SCOPED_TRACE(warning);
        write(odd, folder / "series.mrc");
        const VrkResult result = run("--json --no-pictures");
        ASSERT_EQ(result.exitCode, 0) << result.err;
        EXPECT_TRUE(says(result.err, warning));
        const Json summary = Json::parse(result.out);
        expectTrueCell(summary);
        EXPECT_FALSE(summary["intensities"].is_null());
        EXPECT_TRUE(says(summary["warnings"].dump(), warning));
    }

    inline static std::unique_ptr<VoxMRCData> series;
};

/// Every key with its path, `[]` for the elements of an array of objects.
std::set<std::string> keysOf(const Json& document) {
    std::set<std::string> keys;
    const Json flat = document.flatten();
    for (const auto& [place, value] : flat.items()) {
        const std::string key = std::regex_replace(place, std::regex("(/[0-9]+)+$"), "");
        const std::string listed = std::regex_replace(key, std::regex("/[0-9]+"), "[]");
        keys.insert(std::regex_replace(listed.substr(1), std::regex("/"), "."));
    }
    return keys;
}

TEST_F(RunCommandTest, FindsTheCellAndWritesEveryFileAndDocumentedKey) {
    write(*series, folder / "series.mrc");
    const VrkResult result = run("--keep-volume");
    ASSERT_EQ(result.exitCode, 0) << result.err;
    expectTrueCell(jsonFile("result/summary.json"));
    EXPECT_FALSE(anyHalfWritten(filesIn(folder / "result")));
    EXPECT_TRUE(exists("result/volume.mrc"));

    const std::string log = folder.read("result/vrk.log");
    EXPECT_EQ(log.rfind("vrk ", 0), 0U) << "the version comes first";
    EXPECT_TRUE(says(log, "--keep-volume")) << "with the options that were given";
    EXPECT_GT(std::count(log.begin(), log.end(), '\n'), 50) << "and the library's messages";

    const std::set<std::string> written = keysOf(jsonFile("result/summary.json"));
    // Rows of the tables: | `key` or `key`, `key` | unit | meaning |. Keys that only some runs have are
    // marked.
    std::set<std::string> always;
    std::set<std::string> sometimes;
    std::ifstream page(VRK_DOCS "/summary-json.md");
    ASSERT_TRUE(page);
    for (std::string line; std::getline(page, line);) {
        if (line.rfind("| `", 0) != 0) continue;
        const std::string cell = line.substr(0, line.find('|', 1));
        std::set<std::string>& keys = line.find("(not always)") == std::string::npos ? always : sometimes;
        const std::regex quoted("`([^`]*)`");
        for (std::sregex_iterator key(cell.begin(), cell.end(), quoted), end; key != end; ++key)
            keys.insert(key->str(1));
    }
    for (const std::string& key : written)
        EXPECT_TRUE(always.contains(key) || sometimes.contains(key)) << key << " is not documented";
    for (const std::string& key : always)
        EXPECT_TRUE(written.contains(key)) << key << " is documented and not written";
}

TEST_F(RunCommandTest, TakesTheCentresThatItWroteAndNoOthers) {
    write(*series, folder / "series.mrc");
    const VrkResult first = run("--no-pictures --json");
    ASSERT_EQ(first.exitCode, 0) << first.err;
    EXPECT_EQ(first.out, folder.read("result/summary.json")) << "nothing else is printed";
    EXPECT_FALSE(exists("result/hk0.png"));
    const Json found = Json::parse(first.out)["centres"];
    ASSERT_EQ(found.size(), frames());
    EXPECT_EQ(found[0]["from"], "beam");
    // Without the first pattern and the tenth, in the other order.
    std::vector<std::string> kept = folder.lines("result/centres.txt");
    std::ranges::reverse(kept);
    ASSERT_EQ(kept.size(), frames() + 1);
    kept.erase(kept.end() - 11);
    kept.erase(kept.end() - 2);
    std::string text;
    for (const std::string& line : kept)
        text += line + '\n';
    folder.write("given.txt", text);
    const Json given = jsonOf("run series.mrc -o result --no-pictures --centre given.txt")["centres"];
    for (std::size_t i = 0; i < given.size(); ++i) {
        const bool gap = i == 0 || i == 9;
        EXPECT_EQ(given[i]["from"], gap ? "neighbours" : "given") << i;
        EXPECT_NEAR(given[i]["x"], found[i]["x"], gap ? 0.1 : 0.001) << i;
    }

    for (const auto& [wrong, message] : {std::pair{"# tilt\n-60 63 here\n", "line 2"},
                                         {"", "no centre for any tilt"},
                                         {"77 60 60\n", "no centre for any tilt"},
                                         {"-60 1e9 60\n", "far outside"}}) {
        folder.write("given.txt", wrong);
        const VrkResult bad = run("--no-pictures --centre given.txt");
        EXPECT_EQ(bad.exitCode, 1) << wrong;
        EXPECT_TRUE(says(bad.err, message));
    }
}

TEST_F(RunCommandTest, OddSeriesWorkWithAWarning) {
    expectSolved(*changed(*series, width(), width() - 16, frames(),
                          [&](unsigned x, unsigned y, unsigned z) { return pixel(x, y + 8, z); }),
                 "not square");
    // It can be solved, or ends clearly as its counts are cut.
    write(*alike([&](unsigned x, unsigned y, unsigned z) {
        return pixel(x, y, z) > 60 ? short{32767} : pixel(x, y, z);
    }),
          folder / "series.mrc");
    const VrkResult saturated = run("--no-pictures");
    EXPECT_TRUE(saturated.exitCode == 0 || saturated.exitCode == 3) << saturated.exitCode;
    EXPECT_TRUE(says(saturated.err, "limit of 32767"));
}

TEST_F(RunCommandTest, SeriesThatCannotBeSolvedEndWithAMessage) {
    const auto background = [](unsigned x, unsigned y, unsigned z) {
        return static_cast<short>(100 + (x * 7919U + y * 104729U + z * 1299709U) % 11U);
    };
    const auto anyBytes = [state = 1U](unsigned, unsigned, unsigned) mutable {
        return static_cast<short>((state = state * 1664525U + 1013904223U) >> 16U);
    };
    using Case = std::tuple<unsigned, unsigned, Pixels, int, const char*>;
    for (const auto& [edge, depth, counts, exitCode, message] :
         {Case{128, 2, pixel, 1, "three different tilts"},
          {64, 9, [](auto...) { return short{7}; }, 3, "no pattern"},
          {64, 31, background, 3, "assumed, because the series does not state it: a tilt axis along y"},
          {128, 61, anyBytes, 3, "no "}}) {
        SCOPED_TRACE(message);
        write(*changed(*series, edge, edge, depth, counts), folder / "series.mrc");
        const VrkResult result = run("--json");
        EXPECT_EQ(result.exitCode, exitCode) << result.err;
        EXPECT_TRUE(says(result.err, message));
        EXPECT_EQ(result.out, "");
        EXPECT_FALSE(anyHalfWritten(filesIn(folder / "result")));
        EXPECT_FALSE(filesIn(folder / "result").contains("summary.json"));
    }
    write(*series, folder / "series.mrc");
    // They run at the same time: each has a folder of its own.
    expectRefused({{"r1 --voltage 200000", 2, "give --voltage 200"},
                   {"r2 --voltage 20", 2, "states 200 kV"},
                   {"r3 --pixel-size 0.005", 2, "1/Angstrom per pixel"}},
                  folder / ".", "run series.mrc -o ");
}

TEST_F(RunCommandTest, StoppedRunsLeaveEarlierResultsWholeAndNothingHalf) {
    write(*smallSeries(256), folder / "series.mrc");
    const std::string result = folder / "result";
    std::filesystem::create_directories(result);
    folder.write("result/summary.json", "{\"files\": [\"cell.txt\", \"../series.mrc\"]}");
    folder.write("result/cell.txt", "old");
    // Signals so many times, when this file is there.
    using Stop = std::tuple<int, int, const char*>;
    for (const auto& [number, times, when] :
         {Stop{SIGINT, 1, "unfinished/vrk.log"}, Stop{SIGTERM, 1, "unfinished/vrk.log"},
          Stop{SIGTERM, 2, "unfinished/vrk.log"}, Stop{SIGKILL, 1, "unfinished/vrk.log"},
          Stop{SIGINT, 1, "cell.txt"}, Stop{SIGTERM, 1, "cell.txt"}}) {
        SCOPED_TRACE(std::to_string(number) + " when " + when);
        std::filesystem::remove_all(result + "/unfinished");
        // With pictures, so that there is time for the signal on a busy machine, too.
        StartedVrk vrk({"run", folder / "series.mrc", "-o", result});
        for (int i = 0; i < 5000 && !std::filesystem::exists(result + "/" + when); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        for (int i = 0; i < times; ++i)
            vrk.signal(number);
        const VrkResult stopped = vrk.wait();
        EXPECT_EQ(stopped.exitCode, 128 + number);
        const auto files = filesIn<std::filesystem::recursive_directory_iterator>(result);
        EXPECT_FALSE(anyHalfWritten(files));
        EXPECT_EQ(folder.read("result/cell.txt"), "old");
        EXPECT_TRUE(files.contains("summary.json"));
        if (number == SIGKILL || times > 1 || !files.contains("unfinished/vrk.log")) continue;
        EXPECT_TRUE(says(stopped.err, {"unfinished holds vrk.log", "are as they were"}));
    }
}

TEST_F(RunCommandTest, ResultsReplaceEarlierOnesTogetherAndFailuresSetThemAside) {
    write(*series, folder / "series.mrc");
    const std::string result = folder / "result";
    std::filesystem::create_directories(result + "/unfinished");
    // What a run leaves that is killed while its results take the places of earlier ones.
    folder.write("result/unfinished/replaced.json", "{\"files\": [\"old.txt\", \"../series.mrc\"]}");
    folder.write("result/unfinished/summary.json", "{\"files\": [\"new.txt\"]}");
    for (const char* name : {"result/old.txt", "result/new.txt", "result/mine.txt"})
        folder.write(name, "text");
    ASSERT_EQ(run("--no-pictures --no-integration --tilt-axis none").exitCode, 0);
    Json listed = jsonFile("result/summary.json")["files"];
    EXPECT_GT(listed.size(), 6U);
    listed.push_back("summary.json");
    listed.push_back("mine.txt");
    EXPECT_EQ(std::set<std::string>(listed.begin(), listed.end()), filesIn(result));

    // Too few reflections for a lattice, in a series that does not say its voltage.
    std::unique_ptr<VoxMRCData> silent = alike(pixel);
    std::ranges::fill(stated(*silent, SliceValue::HighTension), 0.0F);
    write(*silent, folder / "series.mrc");
    const VrkResult failed = run("--tilt-axis none --threshold 2500");
    EXPECT_EQ(failed.exitCode, 3) << failed.err;
    EXPECT_TRUE(
        says(failed.err, {"vrk: assumed, because the series does not state it: 200 kV (--voltage); no ",
                          "peaks.txt, projection_x.png"}));
    EXPECT_EQ(filesIn(result), (std::set<std::string>{"mine.txt", "earlier", "unfinished"}));
    EXPECT_TRUE(filesIn(result + "/earlier").contains("reflections.hkl"));
    const std::set<std::string> names = filesIn(result + "/unfinished");
    for (const char* name : {"vrk.log", "peaks.txt", "centres.txt", "projection_y.png"})
        EXPECT_TRUE(names.contains(name)) << name;
}

TEST_F(RunCommandTest, TwoRunsIntoOneFolderDoNotMix) {
    write(*smallSeries(256), folder / "series.mrc");
    StartedVrk first({"run", folder / "series.mrc", "-o", folder / "result", "--no-pictures"});
    for (int i = 0; i < 5000 && !std::filesystem::exists(folder / "result/unfinished/vrk.log"); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const VrkResult second = run();
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_TRUE(says(second.err, "is writing into"));
    first.signal(SIGTERM);
    EXPECT_EQ(first.wait().exitCode, 143);
}

}  // namespace
