#include "pipeline/integration/WilsonPlot.h"

#include <algorithm>
#include <cmath>

#include "pipeline/integration/BySpacing.h"

namespace vrk {
namespace {

constexpr std::size_t kFewest = 20;
constexpr std::size_t kMostBins = 20;

double s2Of(const MergedReflection& one) {
    return 1 / (4 * one.spacing * one.spacing);
}

void fitLine(WilsonPlot& plot) {
    const auto count = static_cast<double>(plot.bins.size());
    if (count < 3) return;
    double meanX = 0, meanY = 0, sumXX = 0, sumXY = 0;
    for (const WilsonBin& bin : plot.bins) {
        meanX += bin.s2 / count;
        meanY += bin.lnIntensity / count;
    }
    for (const WilsonBin& bin : plot.bins) {
        sumXX += (bin.s2 - meanX) * (bin.s2 - meanX);
        sumXY += (bin.s2 - meanX) * (bin.lnIntensity - meanY);
    }
    if (!(sumXX > 0)) return;
    const double slope = sumXY / sumXX;
    plot.b = -0.5 * slope;
    plot.lnScale = meanY - slope * meanX;
}

}  // namespace

WilsonPlot wilsonPlot(std::span<const MergedReflection> merged) {
    std::vector<MergedReflection> sorted(merged.begin(), merged.end());
    sortBySpacing(sorted, [](const MergedReflection& one) { return one.spacing; });
    const std::size_t count = std::clamp<std::size_t>(sorted.size() / kFewest, 1, kMostBins);
    WilsonPlot plot;
    for (std::size_t b = 0; b < count; ++b) {
        const std::size_t first = b * sorted.size() / count;
        const std::size_t last = (b + 1) * sorted.size() / count;
        if (last - first < kFewest) continue;
        WilsonBin bin;
        bin.reflections = static_cast<int>(last - first);
        double sum = 0;
        for (std::size_t i = first; i < last; ++i) {
            bin.s2 += s2Of(sorted[i]) / bin.reflections;
            sum += sorted[i].intensity / bin.reflections;
        }
        if (!(sum > 0)) continue;
        bin.lnIntensity = std::log(sum);
        plot.bins.push_back(bin);
    }
    fitLine(plot);
    return plot;
}

}  // namespace vrk
