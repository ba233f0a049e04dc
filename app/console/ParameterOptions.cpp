#include "console/ParameterOptions.h"

#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>

#include "pipeline/base/Failure.h"
#include "pipeline/latticesearch/CellSteps.h"

namespace vrk::app {
namespace {

constexpr double kLargest = 1e9;
constexpr int kLargestCount = std::numeric_limits<int>::max();

/// What is wrong with a value that has to lie problemOutside two numbers. NaN does not.
template <typename Number>
std::function<std::string(const std::string&)> problemOutside(Number lowest, Number highest) {
    return [=](const std::string& text) {
        char* end = nullptr;
        const double value = std::strtod(text.c_str(), &end);
        const bool number = !text.empty() && *end == '\0';
        const bool whole = !std::is_integral_v<Number> || value == std::floor(value);
        if (number && whole && value >= static_cast<double>(lowest) && value <= static_cast<double>(highest))
            return std::string();
        std::ostringstream message;
        message << text << " is not a number from " << lowest << " to " << highest;
        return message.str();
    };
}

/// Adds options to one group, with the default value behind the description.
class Group {
public:
    Group(Command& command, std::string name, bool showDefaults)
        : m_command(command), m_name(std::move(name)), m_showDefaults(showDefaults) {}

    template <typename Number>
    void add(const std::string& option, std::optional<Number>& target, const std::string& text, Number lowest,
             std::type_identity_t<Number> highest, Number standard) {
        std::ostringstream description;
        description << text;
        if (m_showDefaults) description << " [" << standard << "]";
        m_command.option(option, target, description.str())
            .check(problemOutside<Number>(lowest, highest))
            .typeName(std::is_integral_v<Number> ? "INT" : "NUMBER")
            .group(m_name);
    }

private:
    Command& m_command;
    std::string m_name;
    bool m_showDefaults;
};

nlohmann::ordered_json valueOrNull(bool used, double value) {
    return used ? nlohmann::ordered_json(value) : nlohmann::ordered_json(nullptr);
}

}  // namespace

void addSearchOptions(Command& command, SearchOptions& options, bool showDefaults) {
    const Parameter p;
    Group group(command, "Reflection search", showDefaults);
    group.add("--threshold", options.threshold, "Voxels at or above this value belong to reflections",
              -kLargest, kLargest, p.getThreshold());
    group.add("--min-voxels", options.minVoxels, "Smallest reflection, voxels", 0, kLargestCount,
              p.getMinCountOfVoxel());
    group.add("--max-voxels", options.maxVoxels, "Largest reflection, voxels", 1, kLargestCount,
              p.getMaxCountOfVoxel());
    group.add("--zero-beam", options.zeroBeam, "Drop reflections closer to the centre, voxels; 0: keep all",
              0.0, kLargest, p.getMinDistToZeroBeam());
    group.add("--resolution", options.resolution,
              "Drop reflections farther from the centre, voxels; 0: keep all", 0.0, kLargest, 0.0);
    // A run takes --centre for that of the patterns.
    group.add(showDefaults ? "--centre" : "--reflection-centre", options.centre,
              "Position of a reflection: 1 brightest voxel, 2 mean of its voxels, 3 their weighted mean", 1,
              3, p.getWhichReflectionMiddleShouldUsed());
}

void addCellOptions(Command& command, CellOptions& options, bool showDefaults) {
    const Parameter p;
    Group group(command, "Cell finding", showDefaults);
    group.add("--min-length", options.minLength, "Shortest difference vector, voxels", 0.0, kLargest,
              p.getMinLength());
    group.add("--max-length", options.maxLength, "Longest difference vector, voxels",
              std::numeric_limits<double>::min(), kLargest, p.getMaxLength());
    group.add("--eps", options.eps, "Radius of the clustering, voxels", std::numeric_limits<double>::min(),
              kLargest, p.getDBSCANEps());
    group.add("--min-points", options.minPoints, "Difference vectors that make a cluster", 1, kLargestCount,
              p.getDBSCANMinPts());
    group.add("--refine-clusters", options.refineClusters, "Percent of each cluster to go on with; 0: all",
              0.0, 100.0, 0.0);
    group.add("--angle-a", options.angleA, "Smallest angle of the first two base vectors, radians", 0.0,
              180.0, p.getAngleA());
    group.add("--angle-b", options.angleB, "Smallest angle of the second and third base vector, radians", 0.0,
              180.0, p.getAngleB());
    group.add("--det-limit", options.detLimit, "Smallest determinant of three base vectors", -kLargest,
              kLargest, p.getDetLimit());
    group.add("--grid-size", options.gridSize,
              "Steps along each base vector in the search for the reduced cell", 1, 50,
              p.getGridSizeNiggliCell());
    command.flag("--full-space", options.fullSpace, "Use both of each pair of opposite difference vectors")
        .group("Cell finding");
    const std::map<std::string, ClusteringMethod> methods = {{"dbscan", ClusteringMethod::DBSCAN},
                                                             {"ddsc", ClusteringMethod::DDSC},
                                                             {"fsc", ClusteringMethod::FSC}};
    command
        .parsedOption(
            "--clustering",
            [&options, methods](const std::string& name) { options.clustering = methods.at(name); },
            "Clusters of difference vectors by one density (dbscan), by even density (ddsc), or by fuzzy "
            "subtraction, which needs no radius (fsc) [dbscan]")
        .oneOf({"dbscan", "ddsc", "fsc"})
        .group("Cell finding");
}

nlohmann::ordered_json searchSettings(const Parameter& p) {
    return {{"threshold", p.getThreshold()},
            {"min_voxels", p.getMinCountOfVoxel()},
            {"max_voxels", p.getMaxCountOfVoxel()},
            {"zero_beam", valueOrNull(p.getCutOffZeroBeam(), p.getMinDistToZeroBeam())},
            {"resolution", valueOrNull(p.getLimitResolution(), p.getLimitOfResolution())},
            {"centre", p.getWhichReflectionMiddleShouldUsed()}};
}

nlohmann::ordered_json cellSettings(const Parameter& p, ClusteringMethod clustering) {
    const bool hasRadius = clustering != ClusteringMethod::FSC;
    return {{"min_length", p.getMinLength()},
            {"max_length", p.getMaxLength()},
            {"clustering", nameOf(clustering)},
            {"eps", valueOrNull(hasRadius, p.getDBSCANEps())},
            {"min_points", hasRadius ? nlohmann::ordered_json(p.getDBSCANMinPts()) : nullptr},
            {"refine_clusters", valueOrNull(p.getRefineCluster(), p.getClusterRefinementPercent())},
            {"angle_a", p.getAngleA()},
            {"angle_b", p.getAngleB()},
            {"det_limit", p.getDetLimit()},
            {"grid_size", p.getGridSizeNiggliCell()},
            {"full_space", !p.useHalfDiffVectorSpace()}};
}

}  // namespace vrk::app
