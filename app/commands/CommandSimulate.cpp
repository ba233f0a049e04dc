#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <memory>
#include <numbers>

#include "commands/Commands.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/simulation/Simulation.h"

namespace vrk::app {
namespace {

struct Options {
    std::string output;
    std::string cell;
    std::string centring = "P";
    std::string tilts = "-60:60:1";
    std::string orientation = "random";
    bool json = false;
    SimulationSettings settings;
};

Matrix3 product(const Matrix3& a, const Matrix3& b) {
    Matrix3 result{};
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            for (std::size_t k = 0; k < 3; ++k)
                result[i][j] += a[i][k] * b[k][j];
    return result;
}

/// Rz(first) Rx(second) Rz(third), degrees.
Matrix3 eulerRotation(const std::vector<double>& angles) {
    const auto aboutZ = [](double degrees) {
        const double angle = degrees * std::numbers::pi / 180;
        return Matrix3{
            {{std::cos(angle), -std::sin(angle), 0}, {std::sin(angle), std::cos(angle), 0}, {0, 0, 1}}};
    };
    const double angle = angles[1] * std::numbers::pi / 180;
    const Matrix3 aboutX{
        {{1, 0, 0}, {0, std::cos(angle), -std::sin(angle)}, {0, std::sin(angle), std::cos(angle)}}};
    return product(product(aboutZ(angles[0]), aboutX), aboutZ(angles[2]));
}

/// "random", three Euler angles or the nine elements of a rotation matrix.
std::optional<Matrix3> orientationOf(const std::string& text) {
    if (text == "random") return std::nullopt;
    const std::vector<double> numbers = numbersOf(text, ',', "--orientation");
    if (numbers.size() == 3) return eulerRotation(numbers);
    if (numbers.size() != 9)
        throw Failure(
            "--orientation takes \"random\", three Euler angles or nine matrix elements, not " + text,
            FailureKind::Usage);
    Matrix3 matrix{};
    for (std::size_t i = 0; i < 9; ++i)
        matrix[i / 3][i % 3] = numbers[i];
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j <= i; ++j) {
            double dot = 0;
            for (std::size_t k = 0; k < 3; ++k)
                dot += matrix[i][k] * matrix[j][k];
            if (std::abs(dot - (i == j ? 1 : 0)) > 1e-3)
                throw Failure("--orientation: the rows of the matrix are not perpendicular unit vectors",
                              FailureKind::Usage);
        }
    return matrix;
}

std::vector<double> tiltsOf(const std::string& text) {
    const std::vector<double> range = numbersOf(text, ':', "--tilts");
    if (range.size() != 3 || range[2] == 0 || (range[1] - range[0]) * range[2] < 0)
        throw Failure("--tilts takes FIRST:LAST:STEP in degrees, for instance -60:60:1, not " + text,
                      FailureKind::Usage);
    const double count = std::floor((range[1] - range[0]) / range[2] + 1e-6) + 1;
    if (!(count <= mrcH::kMaxSlices))
        throw Failure("--tilts " + text + " has more than " + std::to_string(mrcH::kMaxSlices) +
                          " frames; choose a larger step",
                      FailureKind::Usage);
    std::vector<double> tilts;
    tilts.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < static_cast<int>(count); ++i)
        tilts.push_back(range[0] + i * range[2]);
    return tilts;
}

SimulationSettings settingsOf(const Options& options) {
    SimulationSettings settings = options.settings;
    if (options.cell.empty() == settings.cif.empty())
        throw Failure("give either --cell or --cif", FailureKind::Usage);
    if (!options.cell.empty()) {
        const std::vector<double> cell = numbersOf(options.cell, ',', "--cell");
        if (cell.size() != 6)
            throw Failure("--cell takes six numbers, a,b,c,alpha,beta,gamma, not " + options.cell,
                          FailureKind::Usage);
        std::copy(cell.begin(), cell.end(), settings.cell.begin());
    }
    if (options.centring.size() != 1)
        throw Failure("--centring is one of P A B C I F R, not " + options.centring, FailureKind::Usage);
    settings.centring = options.centring[0];
    settings.orientation = orientationOf(options.orientation);
    settings.tilts = tiltsOf(options.tilts);
    return settings;
}

std::filesystem::path truthPath(std::filesystem::path series) {
    return series.replace_extension(".truth.json");
}

void report(Host& host, const Options& options, const SimulatedSeries& result) {
    const SimulationTruth& truth = result.truth;
    if (options.json) {
        host.out() << truth.toJson().dump(1) << '\n';
        return;
    }
    const auto cellText = [](const std::array<double, 6>& cell) {
        char text[120];
        std::snprintf(text, sizeof text, "%.4f %.4f %.4f  %.3f %.3f %.3f", cell[0], cell[1], cell[2], cell[3],
                      cell[4], cell[5]);
        return std::string(text);
    };
    host.out() << options.output << ": " << truth.tilts.size() << " frames of " << result.series->GetWidth()
               << " x " << result.series->GetHeight() << " pixels, tilts " << truth.tilts.front() << " to "
               << truth.tilts.back() << " degrees\n"
               << "cell " << truth.centring << ": " << cellText(truth.conventionalCell) << '\n'
               << "reduced: " << cellText(truth.primitiveCell) << '\n'
               << "tilt axis " << truth.axis << " degrees, pixel " << truth.pixelSize << " 1/m\n"
               << truth.reflectionsRecorded << " of " << truth.reflectionsInSphere
               << " reflections recorded; the truth is in " << truthPath(options.output).string() << '\n';
}

void simulate(Host& host, const Options& options) {
    const SimulationSettings settings = settingsOf(options);
    OutputFile truthFile(truthPath(options.output));
    const SimulatedSeries result = [&] {
        const Stage stage(host.session(), "simulate");
        return simulateSeries(settings, &host.session().progress());
    }();
    host.session().checkCanceled();

    std::ofstream truth(truthFile.path());
    truth << result.truth.toJson().dump(1) << '\n';
    truth.close();
    if (!truth)
        throw Failure("cannot write " + truthPath(options.output).string() + "; check the free space");
    writeData(*result.series, options.output, host.session());
    truthFile.commit();
    report(host, options, result);
}

void addCrystalOptions(CLI::App& command, Options& options) {
    SimulationSettings& settings = options.settings;
    const char* group = "Crystal";
    command.add_option("--cell", options.cell, "Cell a,b,c,alpha,beta,gamma in Angstrom and degrees")
        ->group(group);
    command.add_option("--centring", options.centring, "Centring, one of P A B C I F R; R in hexagonal axes")
        ->capture_default_str()
        ->group(group);
    command.add_option("--cif", settings.cif, "Take cell, centring and intensities from a structure")
        ->group(group);
    command
        .add_option(
            "--orientation", options.orientation,
            "Orientation: random, three Euler angles (z x z, degrees) or nine elements of the matrix from "
            "the crystal's frame (a along x, b in the plane of x and y) to the volume's")
        ->capture_default_str()
        ->group(group);
    command.add_option("--dmin", settings.dmin, "Resolution at the frame's edge, Angstrom")
        ->capture_default_str()
        ->group(group);
    command.add_option("--b-factor", settings.bFactor, "Isotropic displacement B, square Angstrom")
        ->capture_default_str()
        ->group(group);
    command.add_option("--rocking", settings.rockingWidth, "Rocking width (standard deviation), 1/Angstrom")
        ->capture_default_str()
        ->group(group);
    command
        .add_option("--second-crystal", settings.secondCrystal,
                    "Intensity of a second crystal in random orientation, relative to the first")
        ->capture_default_str()
        ->group(group);
}

void addSeriesOptions(CLI::App& command, Options& options) {
    SimulationSettings& settings = options.settings;
    const char* group = "Series";
    const std::map<std::string, RotationMode> modes = {{"continuous", RotationMode::Continuous},
                                                       {"stepwise", RotationMode::Stepwise},
                                                       {"precession", RotationMode::Precession}};
    command.add_option("--tilts", options.tilts, "Tilts as FIRST:LAST:STEP in degrees")
        ->capture_default_str()
        ->group(group);
    command.add_option("--mode", settings.mode, "Rotation: continuous, stepwise or precession [continuous]")
        ->transform(CLI::CheckedTransformer(modes).description(""))
        ->type_name("MODE")
        ->group(group);
    command
        .add_option("--frame-rotation", settings.frameRotation,
                    "Degrees that a continuous frame covers [the step of the tilts]")
        ->group(group);
    command.add_option("--precession-angle", settings.precessionAngle, "Precession angle, degrees")
        ->capture_default_str()
        ->group(group);
    command.add_option("--axis", settings.axis, "Direction of the tilt axis in the frame, degrees from y")
        ->capture_default_str()
        ->group(group);
    command.add_flag("--write-axis", settings.writeAxis, "State the tilt axis in the file")->group(group);
    command.add_option("--kv", settings.kilovolts, "High tension in kV")->capture_default_str()->group(group);
    command.add_option("--handedness", settings.handedness, "Side of the Ewald sphere, 1 or -1")
        ->capture_default_str()
        ->group(group);
    command.add_option("--drift", settings.drift, "Pixels that the centre wanders")
        ->capture_default_str()
        ->group(group);
    command.add_option("--jump", settings.jump, "Step of the centre at a random frame, pixels")
        ->capture_default_str()
        ->group(group);
    command.add_option("--missing", settings.missing, "Frames left out at random")
        ->capture_default_str()
        ->group(group);
    command.add_option("--blank", settings.blank, "Empty frames at random")
        ->capture_default_str()
        ->group(group);
    command.add_option("--seed", settings.seed, "Seed of everything random")
        ->capture_default_str()
        ->group(group);
}

void addCameraOptions(CLI::App& command, Options& options) {
    DetectorSettings& detector = options.settings.detector;
    const char* group = "Camera";
    command.add_option("--size", detector.size, "Pixels along each edge")
        ->capture_default_str()
        ->group(group);
    command.add_option("--peak", options.settings.peakCounts, "Peak counts of strong reflections")
        ->capture_default_str()
        ->group(group);
    command.add_option("--spot", options.settings.spotWidth, "Width of a spot (standard deviation), pixels")
        ->capture_default_str()
        ->group(group);
    command
        .add_option("--noise", detector.noise,
                    "Noise: 0 none, 1 counting statistics, n times their deviation")
        ->capture_default_str()
        ->group(group);
    command.add_option("--background", detector.background, "Factor on halo and diffuse background")
        ->capture_default_str()
        ->group(group);
    command.add_option("--saturation", detector.saturation, "Highest count")
        ->capture_default_str()
        ->group(group);
    command.add_option("--hot-pixels", detector.hotPixels, "Pixels bright in every frame")
        ->capture_default_str()
        ->group(group);
    command.add_option("--zingers", detector.zingers, "Pixels per frame bright in that frame alone")
        ->capture_default_str()
        ->group(group);
    command.add_flag("--beam-stop", detector.beamStop, "A bar from the left edge over the centre")
        ->group(group);
    command.add_flag("--cross", detector.cross, "Dead rows and columns in the middle")->group(group);
}

}  // namespace

void addSimulateCommand(CLI::App& app, Host& host) {
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("simulate", "Make a tilt series of a known crystal, with its truth as JSON");
    command->add_option("-o,--output", options->output, "Series to write; the truth goes beside it")
        ->required()
        ->type_name("SERIES.mrc");
    command->add_flag("--json", options->json, "Print the truth as JSON");
    command->add_flag("--list-reflections", options->settings.keepReflections,
                      "List every reflection with its position in the truth");
    addCrystalOptions(*command, *options);
    addSeriesOptions(*command, *options);
    addCameraOptions(*command, *options);
    command->footer(
        "Example:\n  vrk simulate -o garnet.mrc --cell 11.9,11.9,11.9,90,90,90 --centring I --tilts "
        "-50:50:0.5\n"
        "makes garnet.mrc and garnet.truth.json.");
    command->callback([options, &host] { simulate(host, *options); });
}

}  // namespace vrk::app
