#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "commands/Commands.h"
#include "console/JobsOption.h"
#include "console/MemoryOption.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/Workers.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/geometry/TiltAxisSearch.h"
#include "pipeline/run/MemoryNeed.h"
#include "pipeline/run/Preprocessing.h"

namespace vrk::app {
namespace {

struct TiltAxisArguments {
    std::string series;
    std::string folder;
    LogOptions log;
    std::string method = "2d";
    std::vector<double> range;
    double accuracy = 0.1;
    int jobs = 0;
    bool preprocessed = false;
    bool json = false;
};

TiltAxisResult search(const TiltAxisArguments& options, const VoxMRCData& series, Host& host) {
    const TiltAxisMethod method = options.method == "2d" ? TiltAxisMethod::TwoD : TiltAxisMethod::ThreeD;
    if (options.range.empty())
        return findTiltAxis(series, method, options.accuracy, options.folder, host.session());
    const TiltAxisRange range{options.range[0], options.range[1], options.range[2]};
    return findTiltAxis(series, method, range, options.folder, host.session());
}

void checkRange(const std::vector<double>& range) {
    if (range.empty()) return;
    if (!(range[2] > 0.0) || !(range[0] <= range[1]))
        throw Failure("--range takes START END STEP in degrees with START not above END and a positive STEP",
                      FailureKind::Usage);
}

void printJson(std::ostream& out, const TiltAxisArguments& options, const TiltAxisResult& result) {
    nlohmann::ordered_json scores = nlohmann::ordered_json::array();
    for (const TiltAxisScore& score : result.scores)
        scores.push_back({{"angle_deg", score.angle},
                          {"evaluated", score.evaluated},
                          {"variance", score.variance},
                          {"relative_variance", score.relativeVariance},
                          {"max", score.maxValue},
                          {"compactness", score.compactness},
                          {"reflections", score.reflexes},
                          {"difference_vectors", score.diffVectors}});
    const nlohmann::ordered_json json = {{"input", options.series},
                                         {"method", options.method},
                                         {"angle_deg", result.angle},
                                         {"uncertainty_deg", result.uncertainty},
                                         {"grid_angle_deg", result.gridAngle},
                                         {"significance", result.significance},
                                         {"reliable", result.reliable},
                                         {"plots", result.plots.string()},
                                         {"scores", scores}};
    out << jsonText(json, 2) << '\n';
}

void printTable(std::ostream& out, const TiltAxisResult& result) {
    const auto print = [&](const char* format, auto... values) {
        std::array<char, 200> text{};
        std::snprintf(text.data(), text.size(), format, values...);
        out << text.data();
    };
    print("tilt axis     %.2f +- %.2f degrees (best angle tried: %.6g)\n", result.angle, result.uncertainty,
          result.gridAngle);
    print("angles tried  %zu, plots in %s\n\n", result.scores.size(), result.plots.c_str());
    std::vector<TiltAxisScore> best = result.scores;
    std::stable_sort(best.begin(), best.end(),
                     [](const TiltAxisScore& a, const TiltAxisScore& b) { return a.variance > b.variance; });
    // The schedule meets the middle of a range in every iteration.
    best.erase(std::unique(best.begin(), best.end(),
                           [](const TiltAxisScore& a, const TiltAxisScore& b) { return a.angle == b.angle; }),
               best.end());
    best.resize(std::min<std::size_t>(best.size(), 5));
    print("%9s  %10s  %5s  %11s\n", "angle", "variance", "max", "reflections");
    for (const TiltAxisScore& score : best)
        print("%9.6g  %10.4f  %5d  %11d\n", static_cast<double>(score.angle), score.variance, score.maxValue,
              score.reflexes);
}

void runTiltAxisCommand(const TiltAxisArguments& options, Host& host) {
    checkRange(options.range);
    host.openLog(options.log);
    const Workers workers(options.jobs);
    std::unique_ptr<VoxMRCData> series = readSeries(options.series, host.session());
    requireMemoryForSeries(series->m_Header, 2);
    if (!options.preprocessed) series = preprocessed(std::move(series), {}, host.session()).frames;
    const TiltAxisResult result = search(options, *series, host);
    if (options.json)
        printJson(host.out(), options, result);
    else
        printTable(host.out(), result);
}

}  // namespace

void addTiltAxisCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<TiltAxisArguments>();
    Command command = line.command(
        "tilt-axis",
        "Find the angle of the tilt axis, for 'vrk preprocess --rotate' and 'vrk run --tilt-axis'");
    command.option("series", options->series, "Tilt series (.mrc), not rotated")
        .required()
        .typeName("SERIES.mrc");
    command.option("-o,--output", options->folder, "Folder for histogram images and plots")
        .required()
        .typeName("DIR");
    command.option("--accuracy", options->accuracy, "Finest step between angles, degrees")
        .range(1e-4, 90.0)
        .showDefault();
    command
        .option("--method", options->method,
                "2d: place the spots of the patterns in space for every angle; 3d: reconstruct a volume for "
                "every angle, which is slower")
        .oneOf({"2d", "3d"})
        .showDefault();
    command.option("--range", options->range, "Try these angles instead of the automatic schedule")
        .values(3)
        .typeName("START END STEP");
    addJobsOption(command, options->jobs);
    command.flag("--preprocessed", options->preprocessed,
                 "The series comes from 'vrk preprocess'; take it as it is");
    command.flag("--json", options->json, "Print the result as JSON");
    addLogOptions(command, options->log);
    addMemoryOption(command, &host);
    command.footer("Example:\n  vrk tilt-axis series.mrc -o axis --accuracy 0.1");
    command.action([options, &host] { runTiltAxisCommand(*options, host); });
}

}  // namespace vrk::app
