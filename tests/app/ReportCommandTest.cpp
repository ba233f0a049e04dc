// The page that a run leaves shows what the run found, and vrk report makes it again.

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "app/RunVrk.h"
#include "support/JsonMatrix.h"
#include "support/ReportedData.h"

namespace {

using Eigen::Vector3d;
using Columns = std::map<std::string, std::vector<double>>;

constexpr const char* kName = "\"><script>alert(1)<'script>.mrc";
constexpr int kColumns = 128, kRows = 112;

/// A C-centred crystal on frames that are wider than high, its axis oblique and its beam aside.
void writeSeries(const TemporaryFolder& folder) {
    runVrkLine(
        "simulate -o whole.mrc --cell 7.1,8.4,6.2,90,104,90 --centring C --dmin 1 --size 128 --axis 25 "
        "--write-axis --centre-offset 5,-3 --tilts -60:50:2",
        folder / ".");
    const std::unique_ptr<VoxMRCData> whole(VoxMRCFileHandler().readMRCFile(folder / "whole.mrc"));
    ASSERT_TRUE(whole);
    const std::unique_ptr<VoxMRCData> series(VoxMRCData::Create3D(kColumns, kRows, whole->GetDepth()));
    series->m_Header = whole->m_Header;
    series->m_Header.ny = series->m_Header.my = kRows;
    constexpr int top = (kColumns - kRows) / 2;
    for (unsigned z = 0; z < whole->GetDepth(); ++z)
        std::copy_n(whole->GetChunkPointer(z) + top * kColumns, kColumns * kRows, series->GetChunkPointer(z));
    ASSERT_TRUE(VoxMRCFileHandler().writeMRCFile(series.get(), folder / kName));
}

/// A run and the data of its page.
class ReportCommandTest : public VrkTest {
protected:
    void SetUp() override {
        writeSeries(folder);
        const VrkResult run = runVrk({"run", kName, "-o", "result"}, folder / ".");
        ASSERT_EQ(run.exitCode, 0) << run.err;
        blocks = blocksOf(folder.read("result/report.html"));
        for (const auto& [name, column] : blocks["reflections"].items())
            if (column.is_object()) columns[name] = unpacked(column);
    }

    Json& summary() { return blocks["summary"]; }
    Vector3d hkl(std::size_t i) { return {columns["h"][i], columns["k"][i], columns["l"][i]}; }
    /// The nodes of the first crystal, 1/Angstrom.
    Eigen::Matrix3d base() { return rows(summary()["crystals"][0]["reciprocal_vectors"]).transpose(); }
    void expectReflectionsOnTheirNodes();
    void expectSpotsWhereTheyAreSaidToBe();
    void expectSpotsInTheSections();

    std::map<std::string, Json> blocks;
    Columns columns;
};

void ReportCommandTest::expectReflectionsOnTheirNodes() {
    EXPECT_EQ(summary(), jsonFile("result/summary.json"));
    EXPECT_EQ(summary()["input"]["path"], kName);
    EXPECT_EQ(summary()["inputs"][0]["bytes"], std::filesystem::file_size(folder / kName));
    EXPECT_EQ(summary()["program"]["command"], "vrk run '\"><script>alert(1)<'\\''script>.mrc' -o result");

    const std::size_t count = columns["h"].size();
    const double voxel = summary()["input"]["pixel_size"].get<double>() * 1e-10;
    int seen = 0, indexed = 0, measured = 0, far = 0, extinct = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const Vector3d place(columns["x"][i], columns["y"][i], columns["z"][i]);
        EXPECT_NEAR(columns["d"][i] * place.norm(), 1, 0.01);
        seen += columns["counts"][i] > 0;
        measured += columns["sigma"][i] > 0 && columns["counts"][i] == 0;
        if (columns["crystal"][i] < 1) continue;
        indexed += columns["counts"][i] > 0;
        extinct += std::lround(columns["h"][i] + columns["k"][i]) % 2 != 0;
        far += (place - base() * hkl(i)).norm() > 3 * voxel;
    }
    EXPECT_EQ(seen, summary()["reflections"]["found"]);
    EXPECT_EQ(indexed, summary()["reflections"]["indexed"]);
    EXPECT_GT(measured, 0) << "weak ones are on the frames alone";
    EXPECT_EQ(extinct, 0) << "the indices are those of the centred cell";
    EXPECT_LE(far, indexed / 50);
}

void ReportCommandTest::expectSpotsWhereTheyAreSaidToBe() {
    const Json& patterns = blocks["patterns"];
    ASSERT_EQ(patterns["frames"].size(), summary()["input"]["nz"]);
    ASSERT_EQ(patterns["bin"], 1);
    ASSERT_EQ(patterns["width"], kColumns);
    ASSERT_EQ(patterns["height"], kRows);
    std::vector<std::vector<unsigned char>> frames;
    for (const Json& frame : patterns["frames"]) {
        frames.push_back(inflated(frame));
        ASSERT_EQ(frames.back().size(), std::size_t{kColumns} * kRows);
    }
    int looked = 0, bright = 0;
    const auto look = [&](std::size_t frame, double column, double row) {
        const auto at = [&](double x, double y) {
            const long i = std::lround(y) * kColumns + std::lround(x);
            return static_cast<int>(frames[frame][static_cast<std::size_t>(i)]);
        };
        if (column < 8 || row < 8 || column > kColumns - 9 || row > kRows - 9) return;
        int near = 0, around = 0;
        for (int dy = -2; dy <= 2; ++dy)
            for (int dx = -2; dx <= 2; ++dx)
                near = std::max(near, at(column + dx, row + dy));
        for (const auto& [x, y] : {std::pair{7, 0}, {-7, 0}, {0, 7}, {0, -7}})
            around += at(column + x, row + y);
        ++looked;
        bright += 4 * near > around + 12;
    };
    std::vector<double> sorted = columns["counts"];
    std::sort(sorted.rbegin(), sorted.rend());
    for (std::size_t i = 0; i < columns["h"].size(); ++i)
        if (columns["counts"][i] >= sorted[60])
            look(static_cast<std::size_t>(columns["frame"][i]) - 1, columns["column"][i], columns["row"][i]);
    EXPECT_GT(looked, 20);

    // So do the spots that were observed.
    const auto observed = [&](const char* name) { return unpacked(patterns["observed"][name]); };
    const std::vector<double> start = observed("start"), x = observed("x"), y = observed("y");
    for (std::size_t frame = 0; frame + 1 < start.size(); ++frame)
        for (auto i = static_cast<std::size_t>(start[frame]); i < static_cast<std::size_t>(start[frame + 1]);
             ++i)
            look(frame, x[i] / 16, y[i] / 16);
    EXPECT_GT(looked, 150);
    EXPECT_GE(bright, looked * 9 / 10) << "of " << looked;
    EXPECT_NEAR(patterns["axis"], 25, 0.5);
}

void ReportCommandTest::expectSpotsInTheSections() {
    const Json& sections = blocks["sections"];
    const int size = sections["size"];
    const double perPixel = 2 * sections["radius"].get<double>() / size;
    ASSERT_EQ(sections["planes"].size(), 3U);
    const auto vectorOf = [](const Json& v) { return Vector3d(v.get<std::array<double, 3>>().data()); };
    int onNodes = 0, spots = 0, white = 0;
    for (const Json& plane : sections["planes"]) {
        const Vector3d right = (base() * vectorOf(plane["u"])).normalized();
        const Vector3d up = right.cross((base() * vectorOf(plane["v"])).cross(right)).normalized();
        for (const Json& layer : plane["layers"]) {
            const std::vector<unsigned char> grey = inflated(layer["data"]);
            ASSERT_EQ(grey.size(), static_cast<std::size_t>(size) * static_cast<std::size_t>(size));
            for (std::size_t i = 0; i < columns["h"].size(); ++i) {
                const double level = hkl(i).dot(vectorOf(plane["w"]));
                if (columns["crystal"][i] != 1 || level != layer["level"].get<double>()) continue;
                if (columns["counts"][i] < 2000 || columns["d"][i] < 1.6) continue;
                const Vector3d g = base() * hkl(i);
                const long column = std::lround(0.5 * (size - 1) + g.dot(right) / perPixel);
                const long row = std::lround(0.5 * (size - 1) - g.dot(up) / perPixel);
                int brightest = 0;
                for (long dy = -4; dy <= 4; ++dy)
                    for (long dx = -4; dx <= 4; ++dx)
                        brightest = std::max<int>(
                            brightest, grey[static_cast<std::size_t>((row + dy) * size + column + dx)]);
                ++spots;
                onNodes += brightest > 25;
                white += brightest == 255;
            }
        }
    }
    EXPECT_GT(spots, 50);
    EXPECT_GE(onNodes, spots * 9 / 10) << "of " << spots;
    EXPECT_LE(white, spots / 4) << "of " << spots;
}

TEST_F(ReportCommandTest, ShowsWhatTheRunFoundAndMakesThePageAgain) {
    expectReflectionsOnTheirNodes();
    expectSpotsWhereTheyAreSaidToBe();
    expectSpotsInTheSections();
    EXPECT_NEAR(soFarOf(folder / "result"), 10640300.2225, 1e-3);

    const VrkResult again = vrk("report result -o again.html");
    ASSERT_EQ(again.exitCode, 0) << again.err;
    EXPECT_EQ(again.out, "again.html\n");
    std::map<std::string, Json> same = blocksOf(folder.read("again.html"));
    EXPECT_EQ(same["folder"], "result");
    same.erase("folder");
    EXPECT_EQ(same, blocks);

    ASSERT_EQ(vrk("report result result").exitCode, 0);
    const std::string two = folder.read("comparison.html");
    EXPECT_EQ(blocksOf(two, 1)["summary"], summary());
    EXPECT_FALSE(blocksOf(two, 1).contains("patterns"));

    expectRefused({{"report .", 1, "holds no result"}}, folder / ".");
}

}  // namespace
