#include "pictures/IntensityPlots.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "pipeline/base/Angle.h"
#include "pipeline/base/NumberText.h"

namespace vrk::app {
namespace {

constexpr std::size_t kCurves = 8;       ///< of each kind
constexpr std::size_t kConditions = 12;  ///< that fit below their panel
constexpr const char* kFirstColour = "'#0072B2'";
constexpr const char* kSecondColour = "'#D55E00'";

std::string title(const std::string& text) {
    return "set title " + GnuplotScript::quoted(text);
}

std::string labels(const std::string& x, const std::string& y) {
    return "set xlabel " + GnuplotScript::quoted(x) + "; set ylabel " + GnuplotScript::quoted(y);
}

/// A piece of a plot command: two columns as a line with points.
std::string curve(const std::string& data, const char* columns, const char* colour, const std::string& name) {
    return data + " using " + columns + " with linespoints pt 7 ps 0.7 lc rgb " + colour + " title " +
           GnuplotScript::quoted(name);
}

}  // namespace

void addShells(GnuplotScript& plot, const MergingStatistics& statistics) {
    std::vector<double> rows;
    for (const ShellStatistics& shell : statistics.shells) {
        const double s = 0.5 * ((shell.dMax > 0 ? 1 / shell.dMax : 0) + 1 / shell.dMin);
        rows.insert(rows.end(), {s, 100 * shell.completeness(), shell.redundancy(), shell.iOverSigma,
                                 shell.rInt, shell.rMeas, shell.ccHalf});
    }
    const std::string data = plot.addData("1/d completeness redundancy I/sigma R_int R_meas CC1/2", rows, 7);
    const char* resolution = "1/d (1/Angstrom)";
    plot.addCommand(title("Completeness and redundancy"));
    plot.addCommand(labels(resolution, "completeness (%)"));
    plot.addCommand(
        "set yrange [0:105]; set y2range [0:*]; set y2tics; set ytics nomirror; set y2label 'redundancy'; "
        "set key bottom right");
    plot.addCommand("plot " + curve(data, "1:2", kFirstColour, "completeness") + ", " +
                    curve(data, "1:3 axes x1y2", kSecondColour, "redundancy"));
    plot.addCommand("unset y2tics; unset y2label; set ytics mirror; set yrange [0:*]; set key top right");
    plot.addCommand(title("Mean I/sigma"));
    plot.addCommand(labels(resolution, "I/sigma"));
    plot.addCommand("plot " + curve(data, "1:4", kFirstColour, "I/sigma") + ", 1 lc rgb 'grey' notitle");
    plot.addCommand(title("Agreement of equivalents"));
    plot.addCommand(labels(resolution, ""));
    plot.addCommand("set yrange [0:1.05]; set key center right");
    plot.addCommand("plot " + curve(data, "1:7", kFirstColour, "CC1/2") + ", " +
                    curve(data, "1:5", kSecondColour, "R int") + ", " +
                    curve(data, "1:6", "'#009E73'", "R meas"));
    plot.addCommand("set yrange [*:*]; set key top right");
}

void addWilson(GnuplotScript& plot, const WilsonPlot& wilson) {
    std::vector<double> rows;
    for (const WilsonBin& bin : wilson.bins)
        rows.insert(rows.end(), {bin.s2, bin.lnIntensity});
    plot.addCommand(title(formatted("Wilson plot, B = %.1f square Angstrom (atoms included)", wilson.b)));
    plot.addCommand(labels("1 / (2 d)^2 (1/Angstrom^2)", "ln of the mean intensity"));
    if (rows.empty()) return plot.addCommand("set multiplot next");
    const std::string data = plot.addData("s2 ln_I", rows, 2);
    plot.addCommand("plot " + curve(data, "1:2", kFirstColour, "unique reflections") +
                    formatted(", %.8g - 2 * (%.8g) * x lc rgb ", wilson.lnScale, wilson.b) + kSecondColour +
                    " title 'line'");
}

namespace {

void addScales(GnuplotScript& plot, const Intensities& intensities) {
    const ScaleModel& scales = intensities.reduction.scales;
    const double dMin = std::max(intensities.integration.dMin, 0.01);
    std::vector<double> rows;
    for (std::size_t f = 0; f < intensities.integration.fit.geometry.frames.size(); ++f) {
        const auto frame = static_cast<double>(f);
        rows.insert(rows.end(), {frame + 1, scales.factor(frame, 1e4), scales.factor(frame, dMin)});
    }
    plot.addCommand(title("Scale of the frames"));
    plot.addCommand(labels("frame", "observed / common intensity"));
    plot.addCommand("set yrange [0:1.1 < *]");
    const std::string data = plot.addData("frame at_low_resolution at_the_limit", rows, 3);
    const auto line = [&](const char* columns, const char* colour, const std::string& name) {
        return data + " using " + columns + " with lines lw 2 lc rgb " + colour + " title " +
               GnuplotScript::quoted(name);
    };
    plot.addCommand("plot " + line("1:2", kFirstColour, "at low resolution") + ", " +
                    line("1:3", kSecondColour, formatted("at %.2f Angstrom", dMin)));
    plot.addCommand("set yrange [*:*]");
}

void addConditions(GnuplotScript& plot, const SpaceGroupAnalysis& analysis) {
    std::vector<double> rows;
    std::string ticks;
    for (const ReflectionCondition& one : analysis.conditions) {
        if (one.violating == 0 || ticks.size() > 2000 || rows.size() >= 3 * kConditions) continue;
        const std::size_t place = rows.size() / 3;
        rows.insert(rows.end(), {static_cast<double>(place), one.evidence > 0 ? one.ratio : std::nan(""),
                                 one.evidence > 0 ? std::nan("") : one.ratio});
        ticks += (ticks.empty() ? "" : ", ") + GnuplotScript::quoted(one.reflections + ": " + one.condition) +
                 formatted(" %zu", place);
    }
    plot.addCommand(title("Reflections that a condition forbids"));
    plot.addCommand(labels("", "mean intensity / ordinary one"));
    if (rows.empty()) {
        plot.addCommand("set label 1 'none was measured' at graph 0.5, 0.5 center");
        plot.addCommand("set xrange [0:1]; set yrange [0:1.05]; plot NaN notitle; unset label 1");
        return;
    }
    plot.addCommand("set xtics (" + ticks +
                    ") rotate by -45 font ',9'; set style fill solid 0.7; set boxwidth 0.7");
    const std::size_t bars = rows.size() / 3;
    plot.addCommand(formatted("set xrange [-0.7:%g]; set yrange [0:*]", static_cast<double>(bars) - 0.3));
    const std::string data = plot.addData("number holds fails", rows, 3);
    plot.addCommand("plot " + data + " using 1:2 with boxes lc rgb " + kFirstColour + " title 'holds', " +
                    data + " using 1:3 with boxes lc rgb " + kSecondColour +
                    " title 'does not', 1 lc rgb 'grey' notitle");
}

bool writeStatistics(const Intensities& intensities, const std::filesystem::path& folder) {
    GnuplotScript plot(folder.string(), "intensities", 1500, 900);
    const std::string group =
        intensities.reduction.spaceGroups.candidates.empty()
            ? std::string()
            : ", space group " + intensities.reduction.spaceGroups.candidates.front().symbol;
    plot.addCommand("set grid lc rgb '#dddddd'; set key below samplen 2");
    plot.addCommand(
        "set multiplot layout 2,3 title " +
        GnuplotScript::quoted("Laue class " + intensities.reduction.laue.best().laueClass + group));
    addShells(plot, intensities.reduction.statistics);
    addWilson(plot, intensities.reduction.wilson);
    addScales(plot, intensities);
    addConditions(plot, intensities.reduction.spaceGroups);
    plot.addCommand("unset multiplot");
    return plot.render();
}

/// The strongest reflections, and as many others.
std::vector<const IntegratedReflection*> chosenReflections(const IntegrationResult& integration) {
    std::vector<const IntegratedReflection*> good;
    for (const IntegratedReflection& one : integration.reflections)
        if (one.good() && integration.prediction.reflections[one.predicted].spotCount > 2)
            good.push_back(&one);
    const std::size_t strong = std::min(kCurves, good.size());
    std::partial_sort(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(strong), good.end(),
                      [](const auto* one, const auto* other) { return one->intensity > other->intensity; });
    std::vector<const IntegratedReflection*> chosen(good.begin(),
                                                    good.begin() + static_cast<std::ptrdiff_t>(strong));
    // The same draw for the same data.
    std::sample(good.begin() + static_cast<std::ptrdiff_t>(strong), good.end(), std::back_inserter(chosen),
                kCurves, std::mt19937(1));
    return chosen;
}

void addRockingCurve(GnuplotScript& plot, const IntegrationResult& integration,
                     const IntegratedReflection& one) {
    const PredictedReflection& predicted = integration.prediction.reflections[one.predicted];
    std::vector<double> rows;
    for (std::uint32_t n = predicted.firstSpot; n < predicted.firstSpot + predicted.spotCount; ++n) {
        const PredictedSpot& spot = integration.prediction.spots[n];
        const FittedSpot& fitted = integration.fitted[n];
        const bool known = fitted.variance > 0;
        rows.insert(rows.end(), {integration.fit.geometry.frames[spot.frame].tilt / kDegree,
                                 known ? fitted.counts : std::nan(""),
                                 known ? std::sqrt(static_cast<double>(fitted.variance)) : std::nan(""),
                                 one.intensity * static_cast<double>(spot.share)});
    }
    plot.addCommand(title(formatted("%d %d %d   %.2f Angstrom   I/sigma %.1f", one.h, one.k, one.l,
                                    one.spacing, one.intensity / one.sigma)));
    const std::string data = plot.addData("tilt counts sigma fitted", rows, 4);
    plot.addCommand("plot " + data + " using 1:4 with lines lw 2 lc rgb " + kSecondColour + " notitle, " +
                    data + " using 1:2:3 with yerrorbars pt 7 ps 0.8 lc rgb " + kFirstColour + " notitle");
}

bool writeRockingCurves(const IntegrationResult& integration, const std::filesystem::path& folder) {
    const std::vector<const IntegratedReflection*> chosen = chosenReflections(integration);
    GnuplotScript plot(folder.string(), "rocking_curves", 1600, 1100);
    plot.addCommand("set grid lc rgb '#dddddd'; set xtics font ',9'; set ytics font ',9'");
    plot.addCommand("set multiplot layout 4,4 title 'Counts over the tilt (degrees) and the fitted curves'");
    for (const IntegratedReflection* one : chosen)
        addRockingCurve(plot, integration, *one);
    plot.addCommand("unset multiplot");
    return plot.render();
}

}  // namespace

bool writeIntensityPlots(const Intensities& intensities, const std::filesystem::path& folder) {
    const bool statistics = writeStatistics(intensities, folder);
    return writeRockingCurves(intensities.integration, folder) && statistics;
}

}  // namespace vrk::app
