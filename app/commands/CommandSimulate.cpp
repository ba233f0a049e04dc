#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <map>
#include <memory>

#include "commands/Commands.h"
#include "console/MemoryOption.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/formats/CellInput.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/simulation/Simulation.h"

namespace vrk::app {
namespace {

struct SimulateArguments {
    std::string output;
    std::string cell;
    std::string centring = "P";
    std::string tilts = "-60:60:1";
    std::string orientation = "random";
    BeamStopSettings beamStop;
    bool hasBeamStop = false;
    bool json = false;
    SimulationSettings settings;
};

/// "random", three Euler angles or the nine elements of a rotation matrix.
std::optional<Matrix3> matrixOf(const std::string& text) {
    if (text == "random") return std::nullopt;
    const std::vector<double> numbers = numbersOf(text, ',', "--orientation");
    if (numbers.size() == 3) return eulerRotation({numbers[0], numbers[1], numbers[2]});
    if (numbers.size() != 9)
        throw Failure(
            "--orientation takes \"random\", three Euler angles or nine matrix elements, not " + text,
            FailureKind::Usage);
    Matrix3 matrix{};
    for (std::size_t i = 0; i < 9; ++i)
        matrix[i / 3][i % 3] = numbers[i];
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j <= i; ++j)
            if (std::abs(dot(matrix[i], matrix[j]) - (i == j ? 1 : 0)) > 1e-3)
                throw Failure("--orientation: the rows of the matrix are not perpendicular unit vectors",
                              FailureKind::Usage);
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

SimulationSettings simulationSettingsOf(const SimulateArguments& options) {
    SimulationSettings settings = options.settings;
    if (options.cell.empty() == settings.cif.empty())
        throw Failure("give either --cell or --cif", FailureKind::Usage);
    if (!options.cell.empty()) settings.cell = cellNumbers(options.cell, "--cell");
    if (options.centring.size() != 1)
        throw Failure("--centring is one of P A B C I F R, not " + options.centring, FailureKind::Usage);
    settings.centring = options.centring[0];
    settings.orientation.matrix = matrixOf(options.orientation);
    settings.tilts = tiltsOf(options.tilts);
    if (options.hasBeamStop) settings.beamStop = options.beamStop;
    return settings;
}

std::filesystem::path truthPath(std::filesystem::path series) {
    return series.replace_extension(".truth.json");
}

void report(Host& host, const SimulateArguments& options, const SimulatedSeries& result) {
    const SimulationTruth& truth = result.truth;
    if (options.json) {
        host.out() << truth.toJson() << '\n';
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
               << "tilt axis " << truth.axis << " degrees, pixel " << pixelSizeText(truth.pixelSize) << "\n"
               << truth.reflectionsRecorded << " of " << truth.reflectionsInSphere
               << " reflections recorded; the truth is in " << truthPath(options.output).string() << '\n';
}

void simulate(Host& host, const SimulateArguments& options) {
    const SimulationSettings settings = simulationSettingsOf(options);
    OutputFile truthFile(truthPath(options.output));
    const SimulatedSeries result = [&] {
        const Stage stage(host.session(), "simulate");
        return simulateSeries(settings, &host.session().progress());
    }();
    host.session().checkCanceled();

    std::ofstream truth(truthFile.path());
    truth << result.truth.toJson() << '\n';
    truth.close();
    if (!truth)
        throw Failure("cannot write " + truthPath(options.output).string() + "; check the free space");
    writeData(*result.series, options.output, host.session());
    truthFile.commit();
    report(host, options, result);
}

/// SimulateArguments of one heading of the help text.
class OptionGroup {
public:
    OptionGroup(Command& command, const char* title) : m_command(command), m_title(title) {}

    template <class Value>
    CommandOption add(const std::string& name, Value& target, const std::string& text) {
        return m_command.option(name, target, text).showDefault().group(m_title);
    }
    /// Without a fixed default; the text tells it.
    template <class Value>
    CommandOption addFree(const std::string& name, Value& target, const std::string& text) {
        return m_command.option(name, target, text).group(m_title);
    }
    void addFlag(const std::string& name, bool& target, const std::string& text) {
        m_command.flag(name, target, text).group(m_title);
    }
    /// Numbers with commas between them, for an array or an optional array.
    template <std::size_t N>
    CommandOption addNumbers(const std::string& name, const std::string& type, const std::string& text,
                             std::function<void(const std::array<double, N>&)> set) {
        const auto parse = [name, type, set = std::move(set)](const std::string& value) {
            const std::vector<double> numbers = numbersOf(value, ',', name);
            if (numbers.size() != N)
                throw Failure(name + " takes " + type + ", not " + value, FailureKind::Usage);
            std::array<double, N> result{};
            std::copy(numbers.begin(), numbers.end(), result.begin());
            set(result);
        };
        return m_command.parsedOption(name, parse, text).typeName(type).group(m_title);
    }
    /// One of several names.
    template <class Value>
    void addChoice(const std::string& name, Value& target, const std::map<std::string, Value>& choices,
                   const std::string& type, const std::string& text) {
        const auto take = [name, &target, choices](const std::string& value) {
            const auto choice = choices.find(value);
            if (choice == choices.end()) {
                std::string names;
                for (const auto& [one, _] : choices)
                    names += (names.empty() ? "" : ", ") + one;
                throw Failure(name + " takes one of " + names + ", not " + value, FailureKind::Usage);
            }
            target = choice->second;
        };
        m_command.parsedOption(name, take, text).typeName(type).group(m_title);
    }

private:
    Command& m_command;
    const char* m_title;
};

void addCrystalOptions(Command& command, SimulateArguments& options) {
    SimulationSettings& settings = options.settings;
    OrientationSettings& orientation = settings.orientation;
    OptionGroup group(command, "Crystal");
    group.add("--cell", options.cell, "Cell a,b,c,alpha,beta,gamma in Angstrom and degrees");
    group.add("--centring", options.centring, "Centring, one of P A B C I F R; R in hexagonal axes");
    group.add("--cif", settings.cif, "Take cell, centring and intensities from a structure");
    group.add("--orientation", options.orientation,
              "Orientation: random, three Euler angles (z x z, degrees) or nine elements of the matrix from "
              "the crystal's frame (a along x, b in the plane of x and y) to the volume's");
    group.addNumbers<3>("--beam-along", "U,V,W", "Zone axis along the beam at zero tilt, direct lattice",
                        [&orientation](const Vector3& uvw) { orientation.beamAlong = uvw; });
    group.addNumbers<3>("--axis-along", "H,K,L",
                        "Reciprocal vector along the tilt axis, as near as --beam-along lets it [random]",
                        [&orientation](const Vector3& hkl) { orientation.axisAlong = hkl; });
    group.add("--off-zone", orientation.offZone, "Degrees that the crystal is turned from --beam-along");
    group.add("--dmin", settings.dmin, "Resolution at the frame's edge, Angstrom");
    group.add("--b-factor", settings.bFactor, "Isotropic displacement B, square Angstrom");
    group.add("--rocking", settings.rockingWidth, "Rocking width (standard deviation), 1/Angstrom");
    group.addFlag("--even", settings.evenIntensities, "All reflections as bright as the mean, without --cif");
    group.add("--asymmetry", settings.asymmetry,
              "Standard deviation of ln(intensity), drawn for each of two opposite spots");
    group.add("--second-crystal", settings.secondCrystal,
              "Intensity of a second crystal in random orientation, relative to the first");
    group.addFree("--second-turn", settings.secondTurn,
                  "Degrees that the second crystal is turned from the first, about a random axis [random]");
    group.addNumbers<6>("--second-cell", "A,B,C,ALPHA,BETA,GAMMA",
                        "Primitive cell of the second crystal [that of the first]",
                        [&settings](const std::array<double, 6>& cell) { settings.secondCell = cell; });
    group.add("--handedness", settings.handedness, "Side of the Ewald sphere, 1 or -1");
}

void addSeriesOptions(Command& command, SimulateArguments& options) {
    SimulationSettings& settings = options.settings;
    TiltErrors& errors = settings.tiltErrors;
    OptionGroup group(command, "Series");
    group.add("--tilts", options.tilts, "Tilts as FIRST:LAST:STEP in degrees");
    group.add("--tilt-offset", errors.offset, "Degrees by which the true tilts are off");
    group.add("--tilt-scale", errors.scale, "Factor by which the true tilts are off");
    group.add("--tilt-jitter", errors.jitter, "Standard deviation of the true tilts, degrees");
    group.addChoice<RotationMode>("--mode", settings.mode,
                                  {{nameOf(RotationMode::Continuous), RotationMode::Continuous},
                                   {nameOf(RotationMode::Stepwise), RotationMode::Stepwise},
                                   {nameOf(RotationMode::Precession), RotationMode::Precession}},
                                  "MODE", "Rotation: continuous, stepwise or precession [continuous]");
    group.addFree("--frame-rotation", settings.frameRotation,
                  "Degrees that a continuous frame covers [the step of the tilts]");
    group.add("--precession-angle", settings.precessionAngle, "Precession angle, degrees");
    group.add("--axis", settings.axis, "Direction of the tilt axis in the frame, degrees from y");
    group.add("--axis-tilt", settings.axisTilt,
              "Degrees by which the tilt axis leaves the plane of the frame");
    group.add("--kv", settings.kilovolts, "High tension in kV");
    group.add("--missing", settings.missing, "Frames left out at random");
    group.add("--blank", settings.blank, "Empty frames at random");
    group.add("--seed", settings.seed, "Seed of everything random");
}

void addHeaderOptions(Command& command, SimulateArguments& options) {
    StatedValues& stated = options.settings.stated;
    OptionGroup group(command, "What the file states");
    group.addFlag("--write-axis", stated.axis, "State the tilt axis");
    group.addFree("--state-axis", stated.axisAngle, "State this tilt axis, degrees");
    group.addFree("--state-step", stated.tiltStep, "State tilts with this step from the first one on");
    group.add("--state-pixel", stated.pixelFactor, "Stated over true pixel size, 0 for none");
    group.addFree("--state-kv", stated.kilovolts, "State this high tension, 0 for none");
    group.addFree("--state-rotation", stated.rotation,
                  "State that a frame turns by this many degrees, 0 for none");
}

void addCentreOptions(Command& command, SimulateArguments& options) {
    CentreSettings& centre = options.settings.centre;
    OptionGroup group(command, "Centre of the patterns");
    group.addNumbers<2>("--centre-offset", "X,Y", "Pixels from the middle of the frame",
                        [&centre](const std::array<double, 2>& offset) { centre.offset = offset; });
    group.add("--drift", centre.drift, "Pixels that the centre wanders");
    group.add("--jump", centre.jump, "Length of the steps of the centre, pixels");
    group.add("--jumps", centre.jumps, "Number of such steps, at random frames");
    group.add("--centre-jitter", centre.jitter, "Standard deviation from frame to frame, pixels");
}

void addBeamStopOptions(Command& command, SimulateArguments& options) {
    BeamStopSettings& stop = options.beamStop;
    OptionGroup group(command, "Beam stop (any of these puts one in)");
    group.addFlag("--beam-stop", options.hasBeamStop, "A bar from the left edge and a disc over the centre");
    const auto present = [&options](const std::string&) {
        options.hasBeamStop = true;
        return std::string();
    };
    group.add("--stop-direction", stop.direction, "In which the bar leaves, degrees from x towards y")
        .check(present);
    group.addFree("--stop-width", stop.width, "Width of the bar, pixels; 0 for none [a fiftieth of the size]")
        .check(present);
    group.addFree("--stop-disc", stop.disc, "Radius of the disc, pixels; 0 for none [a fiftieth of the size]")
        .check(present);
    group
        .addNumbers<2>("--stop-offset", "X,Y", "Of the disc from the middle of the frame, pixels",
                       [&stop](const std::array<double, 2>& offset) { stop.offset = offset; })
        .check(present);
    group.add("--stop-transmission", stop.transmission, "Part of the counts that passes").check(present);
    group.add("--stop-pedestal", stop.pedestal, "Counts that are recorded behind it all the same")
        .check(present);
}

void addRecordingOptions(Command& command, SimulateArguments& options) {
    SimulationSettings& settings = options.settings;
    BackgroundSettings& background = settings.background;
    DistortionSettings& distortion = settings.distortion;
    OptionGroup group(command, "What is recorded");
    group.addChoice<CountModel>("--counts", settings.counts,
                                {{"time", CountModel::Time}, {"sphere", CountModel::Sphere}}, "MODEL",
                                "Counts follow the time in the diffracting condition (time), or strong "
                                "reflections on the sphere reach --peak in any frame (sphere) [time]");
    group.add("--dose", settings.dose, "Factor on the exposure of every frame");
    group.add("--peak", settings.peakCounts, "Height of strong reflections, counts per exposure");
    group.add("--spot", settings.spotWidth, "Width of a spot (standard deviation), pixels");
    group.add("--direct-beam", background.directBeam, "Height of the direct beam, counts per exposure");
    group.add("--background", background.halo, "Factor on halo and diffuse background");
    group.add("--halo-gradient", background.gradient, "Change of the halo at half a width, 0.3 for 30 %");
    group.add("--halo-azimuth", background.gradientAzimuth,
              "Direction in which the halo grows, degrees from x towards y");
    group.add("--ice", background.ice, "Height of the strongest ring of ice, counts per exposure");
    group.add("--ellipse", distortion.ellipse, "Elliptical distortion, 0.01 for 1 %");
    group.add("--ellipse-azimuth", distortion.ellipseAzimuth,
              "Direction that the ellipse stretches, degrees from x towards y");
    group.add("--radial", distortion.radial, "Radial distortion at half a width, 0.01 for 1 %");
}

void addCameraOptions(Command& command, SimulateArguments& options) {
    DetectorSettings& detector = options.settings.detector;
    OptionGroup group(command, "Camera");
    group.add("--size", detector.size, "Pixels along each edge");
    group.add("--noise", detector.noise, "Noise: 0 none, 1 counting statistics, n times their deviation");
    group.add("--saturation", detector.saturation, "Highest count");
    group.add("--hot-pixels", detector.hotPixels, "Pixels bright in every frame");
    group.add("--zingers", detector.zingers, "Pixels per frame bright in that frame alone");
    group.addFlag("--cross", detector.cross, "Dead rows and columns in the middle");
}

}  // namespace

void addSimulateCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<SimulateArguments>();
    Command command =
        line.command("simulate", "Make a tilt series of a known crystal, with its truth as JSON");
    command.option("-o,--output", options->output, "Series to write; the truth goes beside it")
        .required()
        .typeName("SERIES.mrc");
    command.flag("--json", options->json, "Print the truth as JSON");
    command.flag("--list-reflections", options->settings.keepReflections,
                 "List every reflection with its position in the truth");
    addCrystalOptions(command, *options);
    addSeriesOptions(command, *options);
    addHeaderOptions(command, *options);
    addCentreOptions(command, *options);
    addRecordingOptions(command, *options);
    addBeamStopOptions(command, *options);
    addCameraOptions(command, *options);
    addMemoryOption(command, &host);
    command.footer(
        "Example:\n  vrk simulate -o garnet.mrc --cell 11.9,11.9,11.9,90,90,90 --centring I --tilts "
        "-50:50:0.5\n"
        "makes garnet.mrc and garnet.truth.json.");
    command.action([options, &host] { simulate(host, *options); });
}

}  // namespace vrk::app
