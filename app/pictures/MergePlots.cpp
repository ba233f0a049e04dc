#include "pictures/MergePlots.h"

#include <cmath>
#include <string>
#include <vector>

#include "pictures/IntensityPlots.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"

namespace vrk::app {
namespace {

/// Crystals are counted in whole numbers.
const char* ticsOf(std::size_t crystals) {
    return crystals <= 12 ? "set xtics 1" : "set xtics autofreq";
}

void addGrowth(GnuplotScript& plot, const CrystalMerge& merge) {
    std::vector<double> rows;
    for (std::size_t i = 0; i < merge.growth.size(); ++i) {
        const GrowthStep& step = merge.growth[i];
        rows.insert(rows.end(), {static_cast<double>(i + 1), 100 * step.completeness, step.redundancy,
                                 i > 0 ? 100 * step.ccHalf : std::nan("")});
    }
    const std::string data = plot.addData("crystals completeness redundancy CC1/2", rows, 4);
    plot.addCommand("set title 'What the crystals add, the most useful first'");
    plot.addCommand(ticsOf(merge.growth.size()));
    plot.addCommand("set xlabel 'crystals'; set ylabel 'per cent'; set y2label 'redundancy'");
    plot.addCommand(
        "set yrange [0:105]; set y2range [0:*]; set y2tics; set ytics nomirror; set key bottom right");
    plot.addCommand("plot " + data +
                    " using 1:2 with linespoints pt 7 lc rgb '#0072B2' title 'completeness', " + data +
                    " using 1:4 with linespoints pt 7 lc rgb '#009E73' title 'CC1/2 of crystals', " + data +
                    " using 1:3 axes x1y2 with linespoints pt 7 lc rgb '#D55E00' title 'redundancy'");
    plot.addCommand("unset y2tics; unset y2label; set ytics mirror");
}

void addCrystals(GnuplotScript& plot, const CrystalMerge& merge) {
    std::vector<double> rows;
    for (std::size_t i = 0; i < merge.crystals.size(); ++i) {
        const MergedCrystal& one = merge.crystals[i];
        const double delta = one.deltaCcHalf, gap = std::nan("");
        rows.insert(rows.end(), {static_cast<double>(i + 1), one.used ? delta : gap, one.used ? gap : delta,
                                 one.used ? std::exp(one.scale.k) : gap, one.used ? one.scale.b : gap});
    }
    const std::string data = plot.addData("crystal delta_of_used delta_of_others scale b", rows, 5);
    plot.addCommand(formatted("set xrange [0.5:%g]", static_cast<double>(merge.crystals.size()) + 0.5));
    plot.addCommand(ticsOf(merge.crystals.size()));
    plot.addCommand("set title 'delta CC1/2'; set xlabel 'crystal'; set ylabel ''");
    plot.addCommand("set yrange [*<-0.01:0.01<*]");
    plot.addCommand("plot 0 lc rgb 'grey' notitle, " + data +
                    " using 1:2 with points pt 7 lc rgb '#0072B2' title 'used', " + data +
                    " using 1:3 with points pt 7 lc rgb '#D55E00' title 'left out'");
    plot.addCommand(
        "set title 'Scale and relative B'; set ylabel 'scale'; set y2label 'B (square Angstrom)'");
    plot.addCommand("set y2tics; set ytics nomirror; set y2range [*<-1:1<*]; set yrange [0:*]");
    plot.addCommand("plot " + data + " using 1:4 with points pt 7 lc rgb '#0072B2' title 'scale', " + data +
                    " using 1:5 axes x1y2 with points pt 5 lc rgb '#D55E00' title 'B'");
}

}  // namespace

bool writeMergePlots(const CrystalMerge& merge, const std::filesystem::path& folder) {
    const std::filesystem::path plots = folder / "plots";
    makeFolder(plots);
    GnuplotScript plot(plots.string(), "merging", 1500, 900);
    plot.addCommand("set grid lc rgb '#dddddd'; set multiplot layout 2,3");
    addShells(plot, merge.data.statistics);
    addGrowth(plot, merge);
    addCrystals(plot, merge);
    plot.addCommand("unset multiplot");
    return plot.render();
}

}  // namespace vrk::app
