// vrk run against the truth: every number of its summary, on simulated series of all kinds.

#include "app/RunVrk.h"
#include "support/JsonMatrix.h"

namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;

struct TruthCase {
    const char* simulate;
    const char* run;
    const char* bravais;
    int multiplicity;  ///< of the conventional cell
    double axis;       ///< degrees
    const char* axisSource;
    double kiloVolts;
    double soFar;
    int frames = 61;
    double scale = 1.0;  ///< of the pixel size that the run is told
    const char* warning = "";

    friend void PrintTo(const TruthCase& one, std::ostream* out) { *out << one.bravais; }
};

class RunTruthTest : public VrkTest, public testing::WithParamInterface<TruthCase> {
protected:
    void SetUp() override {
        const TruthCase& one = GetParam();
        std::string line = std::string("simulate --list-reflections --dmin 1 ") + one.simulate;
        for (const char* usual : {"--size 256", "--tilts -60:60:2"})
            if (line.find(words(usual)[0]) == std::string::npos) line += std::string(" ") + usual;
        truth = jsonOf(line + " -o s.mrc");
        found = jsonOf(std::string("run s.mrc -o out --no-pictures ") + one.run);
        ASSERT_TRUE(truth.is_object() && found.is_object());
    }

    double number(const std::string& place) const { return found.at(Json::json_pointer(place)); }

    void expectInput() const;
    void expectReflections() const;
    void expectCells() const;
    void expectLattice() const;
    void expectIndices() const;
    void expectConfidence() const;
    void expectIntensities() const;
    void expectTheRest() const;

    Json truth;
    Json found;
};

void RunTruthTest::expectInput() const {
    const TruthCase& one = GetParam();
    const double size = truth["settings"]["detector"]["size"];
    EXPECT_EQ(number("/input/nx"), size);
    EXPECT_EQ(number("/input/ny"), size);
    EXPECT_EQ(number("/input/nz"), one.frames);
    const auto [first, last] =
        std::minmax({truth["tilts"].front().get<double>(), truth["tilts"].back().get<double>()});
    EXPECT_EQ(number("/input/tilt_first"), first);
    EXPECT_EQ(number("/input/tilt_last"), last);
    EXPECT_NEAR(number("/input/pixel_size") / truth["pixel_size"].get<double>(), one.scale, 1e-6);
    EXPECT_EQ(found["tilt_axis"]["source"], one.axisSource);
    const double uncertainty = found["tilt_axis"].value("uncertainty_deg", 0.0);
    EXPECT_EQ(uncertainty > 0, std::string(one.axisSource) == "search");
    EXPECT_NEAR(std::remainder(number("/tilt_axis/angle_deg") - one.axis, 180), 0,
                uncertainty > 0 ? 0.3 : 1e-5);
}

/// Found is what rises above the threshold outside of the zero beam; a spot of some voxels needs a little
/// more.
void RunTruthTest::expectReflections() const {
    const double threshold = number("/parameters/threshold");
    const auto brighterThan = [&](double counts) {
        double count = 0;
        for (const Json& one : truth["reflections"]) {
            const auto p = one["position"].get<std::array<double, 3>>();
            if (std::hypot(p[0], p[1], p[2]) > number("/parameters/zero_beam") && one["peak_counts"] > counts)
                ++count;
        }
        return count;
    };
    EXPECT_GT(number("/reflections/found"), 0.9 * brighterThan(2 * threshold));
    EXPECT_LT(number("/reflections/found"), 1.1 * brighterThan(threshold));
    EXPECT_GT(number("/reflections/fraction_indexed"), 0.93);
    EXPECT_LE(number("/reflections/fraction_indexed"), 1);
    EXPECT_NEAR(number("/reflections/resolution") * GetParam().scale, truth["settings"]["dmin"], 0.02);
    EXPECT_GT(number("/reflections/residual_px"), 0.2);
    EXPECT_LT(number("/reflections/residual_px"), 1.0);
}

void RunTruthTest::expectCells() const {
    const double scale = GetParam().scale;
    const double volume = found["cell"]["conventional"]["volume"];
    EXPECT_NEAR(volume / number("/cell/reduced/volume"), GetParam().multiplicity, 0.01);
    EXPECT_EQ(found["cell"]["conventional"]["bravais"], GetParam().bravais);
    EXPECT_LT(number("/cell/conventional/misfit_deg"), 0.1);

    // The tied cell is the true one, edge by edge and angle by angle, to the uncertainty of the fit.
    const Json& known = truth["cell"]["conventional"];
    auto edges = cellOf(found["cell"]["conventional"]), trueEdges = cellOf(known);
    std::sort(edges.begin(), edges.begin() + 3);
    std::sort(trueEdges.begin(), trueEdges.begin() + 3);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_NEAR(edges[i] * scale / trueEdges[i], 1, 0.001);
    for (int i = 0; i < 3; ++i) {
        const bool fixed = known[kCellKeys[i + 3]] == 90 || known[kCellKeys[i + 3]] == 120;
        if (GetParam().bravais[0] == 'a') continue;
        EXPECT_EQ(found["cell"]["esd"]["conventional"][kCellKeys[i + 3]] == 0, fixed);
        const double apart = found["cell"]["conventional"][kCellKeys[i + 3]].get<double>() -
                             known[kCellKeys[i + 3]].get<double>();
        EXPECT_NEAR(apart, 0, fixed ? 0 : 0.05) << "degrees";
    }
}

/// The reciprocal vectors span the true lattice where it lies, and with it the reduced cell is the true one.
void RunTruthTest::expectLattice() const {
    const Matrix3d base = rows(found["cell"]["reciprocal_vectors_px"]);
    Matrix3d known = rows(truth["reciprocal_vectors_px"]["primitive"]);
    // Two ways round the axis show the crystal turned by half a turn.
    if (std::abs(std::remainder(number("/tilt_axis/angle_deg") - truth["tilt_axis_deg"].get<double>(), 360)) >
        90)
        known = -known;
    const Matrix3d connection = known * base.inverse();
    const Matrix3d whole = connection.array().round();
    EXPECT_NEAR(std::abs(whole.determinant()), 1, 1e-9) << connection;
    EXPECT_LT((whole * base - known).rowwise().norm().cwiseQuotient(known.rowwise().norm()).maxCoeff(), 0.006)
        << connection;
}

/// The lines of the HKL file are true reflections, once each, with their true intensities.
void RunTruthTest::expectIndices() const {
    const Matrix3d conventional = rows(found["cell"]["candidates"][0]["transformation"]).inverse() *
                                  rows(found["cell"]["reciprocal_vectors_px"]);
    const Matrix3d known = rows(truth["reciprocal_vectors_px"]["conventional"]);
    std::map<std::array<int, 3>, double> intensities;
    for (const Json& one : truth["reflections"])
        intensities[one["hkl"].get<std::array<int, 3>>()] = one["intensity"];
    const Matrix3d toTrue = conventional * known.inverse();
    const Matrix3d whole = toTrue.array().round();
    ASSERT_LT((toTrue - whole).cwiseAbs().maxCoeff(), 0.02);

    std::set<std::array<int, 3>> seen;
    std::vector<std::pair<double, double>> pairs;
    double true2 = 0, product = 0;
    std::size_t beyond = 0;
    std::istringstream lines(folder.read("out/reflections.hkl"));
    std::string line;
    while (std::getline(lines, line) && line.substr(0, 12) != "   0   0   0") {
        const Eigen::RowVector3d hkl(std::stoi(line.substr(0, 4)), std::stoi(line.substr(4, 4)),
                                     std::stoi(line.substr(8, 4)));
        const Eigen::RowVector3d h = hkl * whole;
        const std::array<int, 3> key = {int(std::lround(h[0])), int(std::lround(h[1])),
                                        int(std::lround(h[2]))};
        EXPECT_TRUE(seen.insert(key).second) << line;
        const auto entry = intensities.find(key);
        if (entry == intensities.end()) {
            // In the corners, beyond the finest that there is.
            EXPECT_LT(std::stod(line.substr(12, 8)), 5 * std::stod(line.substr(20, 8))) << line;
            ++beyond;
            continue;
        }
        pairs.emplace_back(entry->second, std::stod(line.substr(12, 8)));
        true2 += entry->second * entry->second;
        product += entry->second * pairs.back().second;
    }
    EXPECT_EQ(line, "   0   0   0    0.00    0.00");
    EXPECT_EQ(number("/intensities/reflections/observations"),
              number("/intensities/reflections/outliers") + static_cast<double>(pairs.size() + beyond));
    EXPECT_LT(beyond, pairs.size() / 20 + 1);
    EXPECT_GT(static_cast<double>(pairs.size()), 0.85 * number("/intensities/reflections/predicted"));
    double difference = 0, amplitudes = 0;
    for (const auto& [expected, measured] : pairs) {
        const double amplitude = std::sqrt(expected * product / true2);
        difference += std::abs(std::sqrt(std::max(measured, 0.0)) - amplitude);
        amplitudes += amplitude;
    }
    EXPECT_LT(difference / amplitudes, 0.05);
}

void RunTruthTest::expectConfidence() const {
    // No triclinic lattice tells how the frames are distorted.
    const bool isTriclinic = GetParam().bravais == std::string("aP");
    EXPECT_EQ(found["confidence"]["level"], isTriclinic ? "low" : "high");
    EXPECT_EQ(found["confidence"]["lattice"], isTriclinic ? "fair" : "high");
    const bool turned = std::abs(std::remainder(
                            number("/tilt_axis/angle_deg") - truth["tilt_axis_deg"].get<double>(), 360)) > 90;
    EXPECT_TRUE(found["handedness"]["decided"].get<bool>());
    EXPECT_EQ(number("/handedness/sense"), (turned ? -1 : 1) * truth["handedness"].get<int>());
}

/// The frames tell how they were made.
void RunTruthTest::expectIntensities() const {
    const Json& made = truth["settings"];
    const Json& measured = found["intensities"];
    EXPECT_EQ(measured["mode"]["name"], made["mode"]);
    if (made["mode"] == "continuous") {
        EXPECT_NEAR(measured["mode"]["rotation_deg"], made["frame_rotation_deg"], 0.01);
    } else if (made["mode"] == "precession") {
        EXPECT_NEAR(measured["mode"]["precession_deg"], made["precession_angle_deg"], 0.02);
    }
    EXPECT_NEAR(measured["rocking"]["width"], made["rocking_width"], 1e-4);
    EXPECT_NEAR(measured["detector"]["gain"], 1, 0.1);
    EXPECT_NEAR(measured["detector"]["spot_sigma_px"], made["spot_width_px"], 0.05);
    EXPECT_NEAR(measured["resolution"]["d_min"].get<double>() * GetParam().scale, made["dmin"], 0.02);
    EXPECT_LT(measured["geometry"]["residual_px"], 0.2);
    EXPECT_NEAR(std::remainder(measured["geometry"]["axis_deg"].get<double>() - GetParam().axis, 180), 0,
                0.02);
    std::map<double, Json> centres;
    for (std::size_t i = 0; i < truth["tilts"].size(); ++i)
        centres[truth["tilts"][i]] = truth["centres"][i];
    ASSERT_EQ(found["centres"].size(), measured["frames"].size());
    for (std::size_t i = 0; i < measured["frames"].size(); ++i) {
        const Json& one = found["centres"][i];
        EXPECT_NEAR(measured["frames"][i]["tilt"], one["tilt"], 0.02);
        EXPECT_NEAR(one["x"], centres.at(one["tilt"])[0], 0.1) << one["tilt"];
        EXPECT_NEAR(one["y"], centres.at(one["tilt"])[1], 0.1) << one["tilt"];
    }
}

void RunTruthTest::expectTheRest() const {
    EXPECT_NEAR(number("/parameters/voltage_kv"), GetParam().kiloVolts, 1e-3);
    double sum = 0;
    for (const auto& [stage, seconds] : found["seconds"].items()) {
        EXPECT_GE(seconds, 0) << stage;
        if (stage != "total") sum += seconds.get<double>();
    }
    EXPECT_GT(number("/seconds/preprocess"), 0);
    EXPECT_LE(sum, number("/seconds/total") * 1.001);
    EXPECT_GT(sum, number("/seconds/total") * 0.5);
    EXPECT_GT(number("/peak_memory_mib"), 10);
    EXPECT_LT(number("/peak_memory_mib"), 1000);
    EXPECT_EQ(found["warnings"].size(), *GetParam().warning ? 1U : 0U) << found["warnings"];
    EXPECT_TRUE(says(found["warnings"].dump(), GetParam().warning));
}

TEST_P(RunTruthTest, EveryNumberOfTheSummaryIsRight) {
    expectInput();
    expectReflections();
    expectCells();
    expectLattice();
    expectIndices();
    expectConfidence();
    expectIntensities();
    expectTheRest();
    EXPECT_NEAR(soFarOf(folder / "out"), GetParam().soFar, 1e-3);
}

INSTANTIATE_TEST_SUITE_P(
    Series, RunTruthTest,
    testing::Values(
        TruthCase{"--cell 7.4,9.1,11.3,75,82,68 --drift 2 --jump 4", "", "aP", 1, 0, "refined", 200,
                  1162017.2534, 61, 1.0, "jumped before pattern 32 (counted from 0)"},
        TruthCase{
            "--cell 15.1,8.9,9.8,90,104.2,90 --centring C --axis 35 --write-axis --handedness -1 --kv 300",
            "", "mC", 2, 35, "header", 300, 1087676.5774},
        TruthCase{"--cell 12,12,12,90,90,90 --centring I --kv 80 --state-kv 0 --axis -20 --mode precession "
                  "--missing 5 --blank 2",
                  "--tilt-axis -20 --voltage 80", "cI", 2, -20, "option", 80, 1318424.0632, 54, 1.0,
                  "nothing but zeros"},
        TruthCase{"--cell 9,9,14,90,90,120 --centring R --tilts 40:-50:-1.5 --mode stepwise --asymmetry 0.8",
                  "", "hR", 3, 0, "refined", 200, 379575.1315, 61, 1.0, "descend"},
        TruthCase{"--cell 13.1,16.2,19.4,90,90,90 --centring F --state-pixel 0 --state-kv 0 --state-axis 30",
                  "--pixel-size 8.225806e7 --tilt-axis none", "oF", 4, 0, "option", 200, 1742388.4851, 61,
                  1.02, "200 kV are assumed"},
        TruthCase{"--cell 4.1,4.1,5.6,90,90,120 --size 128 --axis 64", "--tilt-axis search --jobs 2", "hP", 1,
                  64, "search", 200, 1440605.2730}));

}  // namespace
