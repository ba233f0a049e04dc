#include "indexing/detail/IndexingPlots.h"

#include <Eigen/LU>
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <map>
#include <string_view>
#include <utility>

#include "foundation/detail/Log.h"
#include "indexing/detail/IndexedFit.h"
#include "reflections/Reflex.h"
#include "reflections/ReflexVector.h"
#include "visualisation/GnuplotScript.h"

namespace VRK::detail {
namespace {

constexpr std::array<int, 3> kNoIndices = {Reflex::kNotIndexed, Reflex::kNotIndexed, Reflex::kNotIndexed};
constexpr std::array<const char*, 3> kIndexNames = {"h", "k", "l"};
constexpr std::array<const char*, 3> kAxisNames = {"x", "y", "z"};

/// Counts over equal bins from `from` to `to`, as rows of bin centre and count.
std::vector<double> histogram(const std::vector<double>& values, double from, double to, std::size_t bins) {
    std::vector<double> rows(2 * bins, 0.0);
    const double width = (to - from) / static_cast<double>(bins);
    for (std::size_t bin = 0; bin < bins; ++bin)
        rows[2 * bin] = from + (static_cast<double>(bin) + 0.5) * width;
    for (const double value : values) {
        const double place = (value - from) / width;
        if (place >= 0.0 && place < static_cast<double>(bins))
            rows[2 * static_cast<std::size_t>(place) + 1] += 1.0;
    }
    return rows;
}

/// The value that a share of the values does not exceed.
double quantile(std::vector<double> values, double share) {
    if (values.empty()) return 0.0;
    const auto place = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + place, values.end());
    return values[static_cast<std::size_t>(place)];
}

std::string title(std::string_view text) {
    return "set title " + GnuplotScript::quoted(text);
}

std::string labels(std::string_view x, std::string_view y) {
    return "set xlabel " + GnuplotScript::quoted(x) + "; set ylabel " + GnuplotScript::quoted(y);
}

}  // namespace

std::optional<IndexingPlots> IndexingPlots::of(ReflexVector* reflections) {
    const auto refuse = [](const char* text) {
        log(text, VRK::Error);
        return std::nullopt;
    };
    if (!reflections) return refuse("Error during plotting. No reflections available");
    std::vector<IndexedPosition> places;
    std::vector<IndexedPosition> indexed;
    for (Reflex* reflex : *reflections) {
        IndexedPosition place{};
        place.position.setConstant(std::numeric_limits<double>::quiet_NaN());
        for (int axis = 0; reflex && axis < 3; ++axis)
            place.position(axis) = reflex->getCenter(axis, 3);
        const bool isIndexed = reflex && reflex->isIndicated() && place.position.allFinite();
        place.hkl =
            isIndexed ? std::array<int, 3>{reflex->getH(), reflex->getK(), reflex->getL()} : kNoIndices;
        if (isIndexed) indexed.push_back(place);
        places.push_back(place);
    }
    const std::optional<IndexedFit> lattice = fitIndexed(indexed);
    if (!lattice)
        return refuse(
            "Error during plotting. Fewer than six reflections are indexed, or their indices lie in a plane");

    IndexingPlots plots;
    const Eigen::Matrix3d inverse = lattice->basis.inverse();
    for (std::size_t i = 0; i < places.size(); ++i) {
        if (!places[i].position.allFinite()) continue;
        const Eigen::Vector3d relative = places[i].position - lattice->origin;
        const Eigen::Vector3d fractional = inverse * relative;
        Spot spot;
        spot.hkl = places[i].hkl;
        spot.indexed = spot.hkl != kNoIndices;
        spot.intensity = (*reflections)[i]->getIntensity();
        spot.distance = relative.norm();
        const Eigen::Vector3d node = spot.indexed ? Eigen::Vector3d(spot.hkl[0], spot.hkl[1], spot.hkl[2])
                                                  : Eigen::Vector3d(fractional.array().round());
        spot.displacement = relative - lattice->basis * node;
        spot.deviation = fractional - node;
        plots.m_spots.push_back(spot);
    }
    return plots;
}

std::vector<double> IndexingPlots::sharesByDistance() const {
    constexpr std::size_t kShells = 20;
    std::vector<double> allDistances, indexedDistances;
    for (const Spot& spot : m_spots) {
        allDistances.push_back(spot.distance);
        if (spot.indexed) indexedDistances.push_back(spot.distance);
    }
    const double farthest = *std::max_element(allDistances.begin(), allDistances.end());
    const double end = std::max(farthest * 1.0001, 1e-6);
    const std::vector<double> all = histogram(allDistances, 0.0, end, kShells);
    const std::vector<double> indexed = histogram(indexedDistances, 0.0, end, kShells);
    std::vector<double> rows;
    for (std::size_t i = 0; i < all.size(); i += 2)
        rows.insert(rows.end(), {all[i], all[i + 1], 100.0 * indexed[i + 1] / all[i + 1]});
    return rows;
}

void IndexingPlots::plotDistances(GnuplotScript& plot) const {
    std::vector<double> indexed, others;
    for (const Spot& spot : m_spots) {
        std::vector<double>& rows = spot.indexed ? indexed : others;
        rows.insert(rows.end(), {spot.distance, spot.displacement.norm()});
    }
    const char* const columns = "distance(voxels) displacement(voxels)";
    std::string command =
        "plot " + plot.addData(columns, indexed, 2) + " using 1:2 with points pt 7 ps 0.4 title 'indexed'";
    if (!others.empty())
        command += ", " + plot.addData(columns, others, 2) +
                   " using 1:2 with points pt 7 ps 0.4 lc rgb '#cc4444' title 'not indexed'";
    plot.addCommand(title("displacement and distance from the origin"));
    plot.addCommand(labels("distance from the origin (voxels)", "displacement (voxels)"));
    plot.addCommand(command);
}

void IndexingPlots::plotComponents(GnuplotScript& plot, double range) const {
    std::string command = "plot ";
    for (std::size_t axis = 0; axis < 3; ++axis) {
        std::vector<double> values;
        for (const Spot& spot : m_spots)
            if (spot.indexed) values.push_back(spot.displacement(static_cast<Eigen::Index>(axis)));
        const std::string data =
            plot.addData("displacement(voxels) reflections", histogram(values, -range, range, 41), 2);
        command += std::string(axis > 0 ? ", " : "") + data + " using 1:2 with histeps lw 2 title '" +
                   kAxisNames[axis] + "'";
    }
    plot.addCommand(title("displacement along the axes of the volume"));
    plot.addCommand(labels("displacement (voxels)", "reflections") + "; set yrange [0:*]");
    plot.addCommand(command);
}

bool IndexingPlots::evaluation(const std::string& folder) const {
    std::vector<double> lengths;
    for (const Spot& spot : m_spots)
        if (spot.indexed) lengths.push_back(spot.displacement.norm());
    const double range = std::max(1.1 * quantile(lengths, 0.99), 1e-6);

    GnuplotScript plot(folder, "indicateEvaluation", 1200, 900);
    const std::string summary =
        std::to_string(lengths.size()) + " of " + std::to_string(m_spots.size()) + " reflections indexed";
    plot.addCommand("set multiplot layout 2,2 title " + GnuplotScript::quoted(summary));
    plot.addCommand("set style fill solid 0.6; set boxwidth 0.95 relative; set grid; set key top right");

    const std::string lengthData =
        plot.addData("displacement(voxels) reflections", histogram(lengths, 0.0, range, 40), 2);
    plot.addCommand(title("displacement of indexed reflections from their nodes"));
    plot.addCommand(labels("displacement (voxels)", "reflections") + "; set yrange [0:*]");
    plot.addCommand("plot " + lengthData + " using 1:2 with boxes notitle");

    plotDistances(plot);

    const std::string shareData =
        plot.addData("distance(voxels) reflections indexed(%)", sharesByDistance(), 3);
    plot.addCommand(title("indexed share in shells"));
    plot.addCommand(labels("distance from the origin (voxels)", "indexed (%)") + "; set yrange [0:105]");
    plot.addCommand("plot " + shareData + " using 1:3 with boxes notitle");

    plotComponents(plot, range);
    plot.addCommand("unset multiplot");
    return plot.render();
}

bool IndexingPlots::projections(const std::string& folder) const {
    static constexpr std::array<std::array<std::size_t, 3>, 3> kViews = {{{1, 2, 0}, {0, 2, 1}, {0, 1, 2}}};
    GnuplotScript plot(folder, "hklPlot", 1500, 560);
    plot.addCommand(
        "set multiplot layout 1,3 title 'indexed reflections; colour: mean intensity of the column'");
    plot.addCommand(
        "set logscale cb; set palette defined (0 '#c8d8ff', 0.5 '#4060d0', 1 '#200040'); set grid");
    plot.addCommand("set size ratio -1; set offsets 1,1,1,1");
    for (const auto& [across, up, along] : kViews) {
        std::map<std::pair<int, int>, std::pair<double, double>> columns;  // sum of intensities, count
        for (const Spot& spot : m_spots) {
            if (!spot.indexed) continue;
            auto& [sum, count] = columns[{spot.hkl[across], spot.hkl[up]}];
            sum += spot.intensity;
            count += 1.0;
        }
        std::vector<double> rows;
        for (const auto& [place, column] : columns)
            rows.insert(rows.end(), {static_cast<double>(place.first), static_cast<double>(place.second),
                                     std::max(column.first / column.second, 1e-3), column.second});
        const std::string data = plot.addData(
            std::string(kIndexNames[across]) + " " + kIndexNames[up] + " mean-intensity reflections", rows,
            4);
        plot.addCommand(title(std::string("along ") + kIndexNames[along]));
        plot.addCommand(labels(kIndexNames[across], kIndexNames[up]));
        plot.addCommand("plot " + data + " using 1:2:3 with points pt 7 ps 0.6 palette notitle");
    }
    plot.addCommand("unset multiplot");
    return plot.render();
}

bool IndexingPlots::oneIndex(std::size_t index, const std::string& folder) const {
    struct Row {
        double count = 0.0, intensity = 0.0, deviation = 0.0;
    };
    std::map<int, Row> values;
    std::vector<double> points;
    for (const Spot& spot : m_spots) {
        if (!spot.indexed) continue;
        const double deviation = spot.deviation(static_cast<Eigen::Index>(index));
        Row& row = values[spot.hkl[index]];
        row.count += 1.0;
        row.intensity += spot.intensity;
        row.deviation += deviation;
        points.insert(points.end(), {static_cast<double>(spot.hkl[index]), deviation});
    }
    std::vector<double> rows;
    for (const auto& [value, row] : values)
        rows.insert(rows.end(), {static_cast<double>(value), row.count, row.intensity / row.count,
                                 row.deviation / row.count});

    const std::string name = kIndexNames[index];
    GnuplotScript plot(folder, name + "Plot");
    const std::string rowData = plot.addData(name + " reflections mean-intensity mean-deviation", rows, 4);
    const std::string pointData = plot.addData(name + " deviation", points, 2);
    plot.addCommand("set multiplot layout 2,1");
    plot.addCommand("set style fill solid 0.6; set grid; set lmargin 10; set rmargin 12");
    plot.addCommand("set xrange [" + std::to_string(values.begin()->first - 1.0) + ":" +
                    std::to_string(values.rbegin()->first + 1.0) + "]");
    plot.addCommand(title("reflections and their mean intensity for each " + name));
    plot.addCommand(labels(name, "reflections") + "; set yrange [0:*]; set ytics nomirror; set y2tics");
    plot.addCommand("set y2label 'mean intensity'; set y2range [0:*]");
    plot.addCommand("plot " + rowData + " using 1:2:(0.8) with boxes title 'reflections', " + rowData +
                    " using 1:3 axes x1y2 with linespoints pt 7 lc rgb '#cc4444' title 'mean intensity'");
    plot.addCommand("unset y2tics; unset y2label; set ytics mirror");
    plot.addCommand(title("deviation of the fractional index from " + name));
    plot.addCommand(labels(name, "deviation") + "; set yrange [*:*]");
    plot.addCommand("plot " + pointData + " using 1:2 with points pt 7 ps 0.3 title 'reflections', " +
                    rowData + " using 1:4 with linespoints pt 7 lc rgb '#cc4444' title 'mean'");
    plot.addCommand("unset multiplot");
    return plot.render();
}

}  // namespace VRK::detail
