#include "console/MergeReport.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "console/RunReport.h"
#include "pipeline/base/NumberText.h"

namespace vrk::app {
namespace {

constexpr std::size_t kMostCrystals = 40;

/// Rounded to so many decimals, without the sign of a zero.
double plain(double value, int decimals) {
    const double factor = std::pow(10.0, decimals);
    return std::round(value * factor) / factor + 0.0;
}

void printShells(std::ostream& out, const MergingStatistics& statistics) {
    out << "\nresolution (A)  observations  unique  complete  redundancy  I/sigma  R_int  R_meas  CC1/2\n";
    const auto print = [&](const ShellStatistics& shell) {
        out << formatted("%6.2f - %-5.2f  %12d  %6d  %6.1f %%  %10.1f  %7.1f  %5.3f  %6.3f  %5.3f\n",
                         shell.dMax, shell.dMin, shell.observations, shell.unique, 100 * shell.completeness(),
                         shell.redundancy(), shell.iOverSigma, shell.rInt, shell.rMeas, shell.ccHalf);
    };
    for (const ShellStatistics& shell : statistics.shells)
        print(shell);
    print(statistics.overall);
}

/// In the order in which they make the data complete, then those that were left out.
void printCrystals(std::ostream& out, const CrystalMerge& merge) {
    std::size_t width = 7;
    for (const MergedCrystal& one : merge.crystals)
        width = std::min<std::size_t>(std::max(width, one.name.size()), 40);
    const auto column = static_cast<int>(width);
    out << formatted("\n%-*s  observations  scale      B  correlation  other way  dCC1/2  complete\n", column,
                     "crystal");
    std::size_t printed = 0;
    for (const GrowthStep& step : merge.growth) {
        if (++printed > kMostCrystals && printed < merge.growth.size()) continue;
        if (printed > kMostCrystals + 1) out << "...\n";
        const MergedCrystal& one = merge.crystals[step.crystal];
        out << formatted("%-*s  %12d  %5.2f  %5.2f  %11.3f  ", column, one.name.c_str(), one.observations,
                         std::exp(one.scale.k), plain(one.scale.b, 2), plain(one.indexing.correlation, 3))
            << (one.indexing.ways > 1 ? formatted("%9.3f", plain(one.indexing.runnerUp, 3)) : "        -")
            << formatted("  %6.3f  %6.1f %%\n", plain(one.deltaCcHalf, 3), 100 * step.completeness);
    }
    for (const MergedCrystal& one : merge.crystals)
        if (!one.reason.empty())
            out << one.name << (one.used ? " was kept: " : " is left out: ") << one.reason << '\n';
}

}  // namespace

void printMerge(std::ostream& out, const CrystalMerge& merge) {
    const DataReduction& data = merge.data;
    const ShellStatistics& all = data.statistics.overall;
    out << formatted("crystals      %zu of %zu merged", merge.growth.size(), merge.crystals.size())
        << formatted(", cells within %.2f %%\n",
                     100 * std::max_element(merge.crystals.begin(), merge.crystals.end(),
                                            [](const MergedCrystal& a, const MergedCrystal& b) {
                                                return a.used && b.used ? a.fromMiddle < b.fromMiddle
                                                                        : b.used;
                                            })
                               ->fromMiddle);
    out << "cell          " << merge.bravais;
    for (std::size_t i = 0; i < 6; ++i)
        out << "  " << withUncertainty(merge.cell.cell[i], merge.cellSigma[i]);
    out << formatted(", to %.2f A\n", merge.dMin);
    out << "symmetry      " << symmetryText(data) << '\n';
    out << formatted("intensities   %d observations, %d unique, %.1f %% complete, redundancy %.1f\n",
                     all.observations, all.unique, 100 * all.completeness(), all.redundancy());
    out << formatted("quality       I/sigma %.1f, R_int %.3f, R_meas %.3f, CC1/2 %.3f, of crystals %.3f\n",
                     all.iOverSigma, all.rInt, all.rMeas, all.ccHalf, merge.ccHalf);
    out << formatted("error model   a %.2f, b %.3f; %d outliers\n", data.errors.a, data.errors.b,
                     data.outliers);
    printShells(out, data.statistics);
    printCrystals(out, merge);
}

}  // namespace vrk::app
