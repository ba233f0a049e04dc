// What a command prints says the same as its JSON.

#include <regex>

#include "app/RunVrk.h"
#include "support/SoFar.h"

namespace {

/// A command line and lines that it prints, blanks counting as one. In braces:
///   /path          the value there in the JSON that the command prints with --json, or in the file
///   /path*1e-10    so many times that value
///   /path~/other   the value with its uncertainty in brackets, where there is one
///   /path/a,b,c    values of these names there, a blank between them, also with ~/path of uncertainties
///   =40,8          a number within 8 of 40
///   ?              any number
struct Printed {
    const char* line;
    const char* file;  ///< empty: --json
    std::vector<const char*> lines;
    const char* printed = nullptr;  ///< a file that stands for what is printed
};

const std::vector<Printed> kRun = {
    {"run series.mrc -o out --no-pictures",
     "out/summary.json",
     {"series {/input/nz} frames of {/input/nx} x {/input/ny}, tilts {/input/tilt_first} to "
      "{/input/tilt_last} degrees",
      "pixel size {/input/pixel_size*1e-10} 1/Angstrom ({/input/pixel_size} 1/m), "
      "{/parameters/voltage_kv} kV",
      "tilt axis {/tilt_axis/refined_deg~/tilt_axis/refined_esd_deg} degrees (header)",
      "reduced {/cell/reduced/a,b,c,alpha,beta,gamma~/cell/esd/reduced}",
      "conventional {/cell/conventional/a,b,c~/cell/esd/conventional} {/cell/conventional/alpha} "
      "{/cell/conventional/beta~/cell/esd/conventional/beta} {/cell/conventional/gamma}",
      "lattice {/cell/conventional/bravais}, misfit {/cell/conventional/misfit_deg} degrees, volume "
      "{/cell/conventional/volume} A^3, confidence {/confidence/level}",
      "or {/cell/candidates/1/bravais}, misfit {/cell/candidates/1/misfit_deg} degrees: "
      "{/cell/candidates/1/a,b,c,alpha,beta,gamma}",
      "reflections {/reflections/found} found, {/reflections/indexed} indexed "
      "({/reflections/fraction_indexed*100} %), {/reflections/different_indices} different, to "
      "{/completeness/half_limit} A",
      "residual {/reflections/residual_px} voxels", "handedness +{/handedness/sense}",
      "intensities {/intensities/reflections/observations} of {/intensities/reflections/predicted} "
      "reflections, {/intensities/overall/unique} unique, {/intensities/overall/completeness*100} % complete "
      "to {/intensities/overall/d_min} A, {/intensities/mode/name}",
      "quality I/sigma {/intensities/overall/i_over_sigma}, R_int {/intensities/overall/r_int}, R_meas "
      "{/intensities/overall/r_meas}, CC1/2 {/intensities/overall/cc_half}",
      "symmetry {/intensities/laue/class} (then {/intensities/laue/candidates/1/class}, by "
      "{/intensities/laue/candidates/1/evidence*-1} nats), space group "
      "{/intensities/space_groups/candidates/0/symbol} or {/intensities/space_groups/candidates/1/symbol}",
      "parameters threshold {/parameters/threshold} (lattice at {/parameters/cell_threshold}), zero beam "
      "{/parameters/zero_beam}, vectors {/parameters/min_length} to {/parameters/max_length}, dbscan, eps "
      "{/parameters/eps}, {/parameters/min_points} points",
      "seconds read {/seconds/read}, preprocess {/seconds/preprocess}, axis {/seconds/tilt_axis}, "
      "reconstruct {/seconds/reconstruct}, search {/seconds/search}, cell {/seconds/cell}, index "
      "{/seconds/index}, integrate {/seconds/integrate}, total {/seconds/total}; {?} MiB"}},
};

const std::vector<Printed> kBent = {
    {"run bent.mrc -o bent --no-pictures --no-integration",
     "bent/summary.json",
     {"tilt axis {/tilt_axis/refined_deg~/tilt_axis/refined_esd_deg} degrees (refined, stated as "
      "{/tilt_axis/stated_deg})",
      "instrument ellipse {=1.2,0.2}({?}) % along {=40,8} degrees, tilts {=1,0.4}({?}) % larger than stated",
      "2: {/crystals/1/strong_share*100} % of the strong reflections, {/crystals/1/bravais} "
      "{/crystals/1/cell/a,b,c,alpha,beta,gamma}, confidence {/crystals/1/confidence}, turned by "
      "{/crystals/1/turn_deg} degrees",
      "crystals 1: {/crystals/0/strong_share*100} % of the strong reflections, cI {/crystals/0/cell/a,b,c} "
      "90.00 90.00 90.00, confidence {/crystals/0/confidence}"}},
    {"calibrate bent bent.mrc -o c.json",
     "",
     {"bent: cI, {/series/0/indexed} reflections indexed, residual {/series/0/residual_before_px} -> "
      "{/series/0/residual_px} voxels",
      "ellipse {/ellipse/value~/ellipse/su} {/scatter/ellipse/series} series, scatter "
      "{/scatter/ellipse/deviation} correlation up to {/ellipse/correlation}"}},
};

const std::vector<Printed> kStages = {
    {"import series.mrc -o i.mrc --sum 2",
     "",
     {"i.mrc: {/nz} slices of {/nx} x {/ny} pixels from {/frames_used} of {/frames_found} frames, {/sum} "
      "added up at a time, counts x {/scale}",
      "tilts {/tilt_first} to {/tilt_last} degrees",
      "pixel size {/pixel_size*1e-10} 1/Angstrom ({/pixel_size} 1/m), voltage {/kilovolts} kV, tilt axis "
      "{/tilt_axis} degrees"}},
    {"info series.mrc",
     "",
     {"tilts {/tilt/first} to {/tilt/last} degrees, regular steps of {/tilt/step}",
      "pixel size {/pixel_size*1e-10} 1/Angstrom ({/pixel_size} 1/m) per pixel; d = {=0.9375,0.001} Angstrom "
      "at the edge",
      "no warnings"}},
    {"preprocess series.mrc -o clean.mrc --rotate header",
     "",
     {"{/dims/2} patterns of {/dims/0} x {/dims/1} pixels, written to clean.mrc"}},
    {"reconstruct clean.mrc -o volume.mrc",
     "",
     {"volume of {/dims/0} x {/dims/1} x {/dims/2} voxels, written to volume.mrc",
      "pixel size {/pixel_size*1e-10} 1/Angstrom ({/pixel_size} 1/m), largest value {/max}, {?} s"}},
    {"peaks volume.mrc -o p.txt",
     "",
     {"{/reflections} reflections at threshold {/parameters/threshold} ({/foreground_voxels} of {?} voxels "
      "reach it), written to p.txt",
      "voxels {/voxels/min} {/voxels/p10} {/voxels/median} {/voxels/p90} {/voxels/max}",
      "intensity {/intensity/min} {/intensity/p10} {/intensity/median} {/intensity/p90} {/intensity/max}"}},
    {"cell p.txt -o c.txt",
     "",
     {"reduced cell, A {/cell/a,b,c,alpha,beta,gamma,volume}",
      "lattice {/lattice/bravais}, A {/lattice/conventional/a,b,c,alpha,beta,gamma}",
      "lattice {/lattice/bravais}, misfit {/lattice/misfit_deg} degrees",
      "indexed {/reflections/indexed} of {/reflections/found} reflections "
      "({/reflections/fraction_indexed*100} %; {/confidence/fraction_by_chance*100} % by chance) within "
      "{/reflections/radius_px} voxels",
      "confidence {/confidence/level}"}},
    {"index p.txt c.txt -o x.hkl --voltage 200 --lattice auto",
     "",
     {"{/reflections/indexed} of {/reflections/found} reflections indexed "
      "({/reflections/fraction_indexed*100} %), displacement {/reflections/mean_displacement} voxels in the "
      "mean, {/reflections/rms_displacement} rms",
      "cell {/cell/bravais}: {/cell/parameters/0,1,2~/cell/esd} 90 {/cell/parameters/4~/cell/esd/4} 90 "
      "volume "
      "{/cell/volume~/cell/volume_esd}",
      "handedness +{/refinement/sense}, residual {/refinement/residual_plus} voxels with +1, "
      "{/refinement/residual_minus} with -1"}},
    {"tilt-axis series.mrc -o ax --range 4 8 2",
     "",
     {"tilt axis {/angle_deg} +- {/uncertainty_deg} degrees (best angle tried: {/grid_angle_deg})",
      "angle variance max reflections",
      "{/scores/1/angle_deg} {/scores/1/variance} {/scores/1/max} {/scores/1/reflections}"}},
    {"cell-info 5 5.1 7 90.3 90.4 90.2",
     "",
     {"Reduced (Niggli) A {/reduced/a,b,c,alpha,beta,gamma,volume}",
      "Reciprocal cell 1/A {/reciprocal/a,b,c,alpha,beta,gamma,volume}",
      "* {/lattices/0/character} tP {/lattices/0/misfit_deg} {/lattices/0/misfit_length*100} "
      "{/lattices/0/conventional/a,b,c,alpha,beta,gamma} {=178.49,0.01}",
      "{/metric/0/0,1,2}", "{/metric/1/0,1,2}", "{/metric/2/0,1,2}"}},
    {"cell-info 5 5 7 90 90 120 --centring R",
     "",
     {"Cell, R-lattice A 5.0000 5.0000 7.0000 90.000 90.000 120.000 151.55", "25.0000 -12.5000 0.0000",
      "-12.5000 25.0000 0.0000", "0.0000 0.0000 49.0000", "a' = 2/3 a + 1/3 b + 1/3 c",
      "b' = -1/3 a + 1/3 b + 1/3 c", "c' = -1/3 a - 2/3 b + 1/3 c",
      "10 mC 0.00 0.00 5.4874 5.0000 3.7118 90.000 97.208 90.000 101.04",
      "* {/lattices/0/character} hR 0.00 0.00 5.0000 5.0000 7.0000 90.000 90.000 120.000 151.55",
      "* hR symmetrised 5.0000 5.0000 7.0000 90.000 90.000 120.000"}},
    {"simulate -o s.mrc --cell 4,5,6,80,95,100 --size 64 --dmin 2 --tilts -9:9:3 --axis 20",
     "s.truth.json",
     {"s.mrc: 7 frames of 64 x 64 pixels, tilts {/tilts/0} to {/tilts/6} degrees",
      "tilt axis {/tilt_axis_deg} degrees, pixel {/pixel_size*1e-10} 1/Angstrom ({/pixel_size} 1/m)"}},
    {"demo -o demo --size 128 --step 3 --cell 5,6,7,90,95,90 --centring C --seed 2",
     "",
     {"simulated: 41 frames of 128 x 128, cell 5 6 7 90 95 90, centring C",
      "a {/truth/a} A {/found/a} A {?} %", "beta {/truth/beta} deg {/found/beta} deg {?} deg",
      "volume {/truth/volume} A^3 {/found/volume} A^3 {?} %", "lattice the same",
      "Bravais type mC {/found/bravais}", "tilt axis 37.00 deg {/found/tilt_axis_deg} deg {?} deg",
      "handedness +1 +{/found/handedness}", "reflections {?} recorded {?} found {/percent_indexed} % indexed",
      "ok"}},
};

const std::vector<Printed> kMerge = {
    {"run series.mrc -o a --no-pictures", "a/summary.json", {}},
    {"simulate -o second.mrc --cell 5.2,6.1,4.6,90,105,90 --centring C --size 128 --dmin 1 --seed 4 --tilts "
     "-60:60:2 --axis 6 --write-axis --peak 5000",
     "second.truth.json",
     {}},
    {"run second.mrc -o b --no-pictures", "b/summary.json", {}},
    {"merge a b -o m",
     "m/merge.json",
     {"crystals 2 of 2 merged, cells within {/cells/clusters/0/spread*100} %",
      "cell {/cell/bravais} {/cell/a,b,c~/cell/esd} 90 "
      "{/cell/beta~/cell/esd/beta} 90, to {/intensities/d_min} A",
      "intensities {/intensities/overall/observations} observations, {/intensities/overall/unique} unique, "
      "{/intensities/overall/completeness*100} % complete, redundancy {/intensities/overall/redundancy}",
      "quality I/sigma {/intensities/overall/i_over_sigma}, R_int {/intensities/overall/r_int}, R_meas "
      "{/intensities/overall/r_meas}, CC1/2 {/intensities/overall/cc_half}, of crystals "
      "{/intensities/cc_half_of_crystals}",
      "error model a {/intensities/error_model/a}, b {/intensities/error_model/b}; {/intensities/outliers} "
      "outliers",
      "{/intensities/shells/0/d_max} - {/intensities/shells/0/d_min,observations,unique} "
      "{/intensities/shells/0/completeness*100} % "
      "{/intensities/shells/0/redundancy,i_over_sigma,r_int,r_meas,cc_half}",
      "a {/crystals/0/observations,scale,b,correlation,runner_up,delta_cc_half} "
      "{/growth/0/completeness*100} %",
      "b {/crystals/1/observations,scale,b,correlation,runner_up,delta_cc_half} "
      "{/growth/1/completeness*100} %"}},
};

const std::vector<Printed> kPlots = {
    {"run series.mrc -o out",
     "out/summary.json",
     {"set multiplot layout 2,3 title 'Laue class {/intensities/laue/class}, space group "
      "{/intensities/space_groups/candidates/0/symbol}'",
      "set title 'Wilson plot, B = {/intensities/wilson/b} square Angstrom (atoms included)'",
      "plot 'intensities_2.dat' using 1:2 with linespoints pt 7 ps 0.7 lc rgb '#0072B2' title 'unique "
      "reflections', {/intensities/wilson/ln_scale} - 2 * ({/intensities/wilson/b}) * x lc rgb '#D55E00' "
      "title 'line'"},
     "out/plots/intensities.plt"},
};

class PrintedTest : public VrkTest {
protected:
    void expectWhatTheJsonSays(const std::vector<Printed>& all);

    SoFar soFar;  ///< of all that was printed without what it cost
};

/// A crystal with a centring; and two, seen with distortion, wrong tilts and a wrong axis.
constexpr const char* kSeries =
    "simulate -o series.mrc --cell 5.2,6.1,4.6,90,105,90 --centring C --size 128 --dmin 1 --seed 4 --tilts "
    "-60:60:3 "
    "--axis 6 --write-axis --drift 3";
constexpr const char* kBentSeries =
    "simulate -o bent.mrc --cell 6.1,6.1,6.1,90,90,90 --centring I --size 128 --dmin 0.9 --tilts -60:60:2 "
    "--axis 29 "
    "--state-axis 30 --ellipse 0.012 --ellipse-azimuth 40 --tilt-scale 1.01 --peak 20000 --second-crystal "
    "0.4";

/// A number in front of a text, which loses it, and half a unit of its last digit.
struct Number {
    double value = std::nan("");
    double half = 0;
    int decimals = 0;

    explicit Number(std::string& text) {
        static const std::regex form(R"(^[-+]?\d+\.?(\d*)(?:e([-+]?\d+))?)");
        std::smatch found;
        if (!std::regex_search(text, found, form)) return;
        value = std::stod(found.str());
        decimals = static_cast<int>(found.length(1)) - (found.length(2) > 0 ? std::stoi(found.str(2)) : 0);
        half = 0.501 * std::pow(10, -decimals);
        text.erase(0, found.str().size());
    }
};

/// Takes what an item in braces stands for from the front of a text.
bool take(const std::string& item, std::string& text, const Json& document) {
    const auto at = [&](const std::string& path) { return document.at(Json::json_pointer(path)); };
    const std::size_t tilde = item.find('~');
    const std::size_t star = item.find('*');
    if (item[0] == '/' && at(item.substr(0, std::min(tilde, star))).is_string()) {
        const std::string expected = at(item);
        if (!text.starts_with(expected)) return false;
        text.erase(0, expected.size());
        return true;
    }
    const Number printed(text);
    if (std::isnan(printed.value)) return false;
    if (item == "?") return true;
    if (item[0] == '=') {
        const double expected = std::stod(item.substr(1));
        return std::abs(printed.value - expected) <= std::stod(item.substr(item.find(',') + 1));
    }
    const double factor = star == std::string::npos ? 1 : std::stod(item.substr(star + 1));
    const double value = factor * at(item.substr(0, std::min(tilde, star))).get<double>();
    // Pixel sizes are floats.
    if (std::abs(printed.value - value) > printed.half + 1e-7 * std::abs(value)) return false;
    if (tilde == std::string::npos || text[0] != '(') return true;
    text.erase(0, 1);
    const Number uncertainty(text);
    const double sigma = at(item.substr(tilde + 1)).get<double>() * std::pow(10, printed.decimals);
    const bool fits = std::abs(uncertainty.value - sigma) <= 0.501 && text[0] == ')';
    text.erase(0, 1);
    return fits;
}

/// An item in braces; of a list of names, one in braces for each.
std::string itemsOf(const std::string& item) {
    if (item[0] != '/' || item.find(',') == std::string::npos) return '{' + item + '}';
    const std::string place = item.substr(0, item.rfind('/', item.find(',')) + 1);
    const std::size_t tilde = std::min(item.find('~'), item.size());
    std::istringstream names(item.substr(place.size(), tilde - place.size()));
    std::string items;
    for (std::string name; std::getline(names, name, ',');)
        items += (items.empty() ? "{" : " {") + place + name +
                 (tilde < item.size() ? item.substr(tilde) + '/' + name : "") + '}';
    return items;
}

bool matches(std::string text, std::string form, const Json& document) {
    for (std::size_t i = 0; i < form.size(); ++i) {
        if (form[i] == '{') {
            form.replace(i, form.find('}', i) - i + 1,
                         itemsOf(form.substr(i + 1, form.find('}', i) - i - 1)));
            const std::size_t end = form.find('}', i);
            if (!take(form.substr(i + 1, end - i - 1), text, document)) return false;
            i = end;
        } else {
            if (text.empty() || text[0] != form[i]) return false;
            text.erase(0, 1);
        }
    }
    return text.empty();
}

void PrintedTest::expectWhatTheJsonSays(const std::vector<Printed>& all) {
    for (const Printed& one : all) {
        VrkResult printed{.exitCode = 0, .out = "", .err = ""};
        if (*one.line) printed = vrk(one.line);
        ASSERT_EQ(printed.exitCode, 0) << printed.err;
        if (one.printed) printed.out = folder.read(one.printed);
        const Json document = *one.file ? jsonFile(one.file) : jsonOf(one.line);
        soFar.addText(std::regex_replace(printed.out, std::regex("(seconds .*)?[0-9.]+ (s|MiB)\\b"), ""));
        for (const char* form : one.lines) {
            bool isThere = false;
            std::istringstream lines(printed.out);
            for (std::string line; !isThere && std::getline(lines, line);) {
                std::string plain;
                for (const std::string& word : words(line))
                    plain += (plain.empty() ? "" : " ") + word;
                isThere = matches(plain, form, document);
            }
            EXPECT_TRUE(isThere) << form << '\n' << printed.out;
        }
    }
}

TEST_F(PrintedTest, RunSaysWhatItsSummarySays) {
    jsonOf(kSeries);
    expectWhatTheJsonSays(kRun);
    EXPECT_NEAR(soFar.sum(), 1216.7868, 1e-3);
}

TEST_F(PrintedTest, PlotsShowWhatTheSummarySays) {
    jsonOf(kSeries);
    expectWhatTheJsonSays(kPlots);
    EXPECT_NEAR(soFarOf(folder / "out"), 9090323.4697, 1e-3);
}

TEST_F(PrintedTest, RunAndCalibrationTellTheInstrument) {
    jsonOf(kBentSeries);
    expectWhatTheJsonSays(kBent);
    const Json summary = jsonFile("bent/summary.json");
    for (const Json& term : summary["instrument"]["terms"])
        EXPECT_TRUE(term["esd"] > 0 && term["esd"] < 0.2) << term;
    EXPECT_NEAR(soFar.sum(), 2428.4786, 1e-3);
    EXPECT_NEAR(soFarOf(folder / "bent"), 80879.1226, 1e-3);
    EXPECT_NEAR(soFarOf(folder / "c.json"), 698.9644, 1e-3);
}

TEST_F(PrintedTest, MergeSaysWhatItsFileSays) {
    jsonOf(kSeries);
    expectWhatTheJsonSays(kMerge);
    EXPECT_NEAR(soFar.sum(), 3816.3055, 1e-3);
    EXPECT_NEAR(soFarOf(folder / "m"), 27776.0109, 1e-3);
}

TEST_F(PrintedTest, StagesSayWhatTheirJsonSays) {
    jsonOf(kSeries);
    expectWhatTheJsonSays(kStages);
    EXPECT_NEAR(soFar.sum(), 7723.9582, 1e-3);
    EXPECT_NEAR(soFarOf(folder / "."), 9703880.6453, 1e-3);
}

}  // namespace
