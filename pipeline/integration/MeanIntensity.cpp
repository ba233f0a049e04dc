#include "pipeline/integration/MeanIntensity.h"

#include <algorithm>
#include <cstddef>
#include <functional>

#include "pipeline/integration/BySpacing.h"

namespace vrk {
namespace {

constexpr std::size_t kMeanShellSize = 60;

}  // namespace

MeanIntensity::MeanIntensity(std::vector<Sample> samples) {
    sortBySpacing(samples, [](const Sample& one) { return one.spacing; });
    const std::size_t shells = std::max<std::size_t>(1, samples.size() / kMeanShellSize);
    for (std::size_t shell = 0; shell < shells; ++shell) {
        const std::size_t first = samples.size() * shell / shells;
        const std::size_t last = samples.size() * (shell + 1) / shells;
        if (first == last) continue;
        double mean = 0, error = 0;
        for (std::size_t i = first; i < last; ++i) {
            mean += samples[i].intensity / static_cast<double>(last - first);
            error += samples[i].sigma / static_cast<double>(last - first);
        }
        m_end.push_back(comparableSpacing(samples[last - 1].spacing));
        m_mean.push_back(std::max(mean, 0.1 * error));
    }
}

double MeanIntensity::at(double spacing) const {
    if (m_mean.empty()) return 1;
    const auto shell =
        std::lower_bound(m_end.begin(), m_end.end(), comparableSpacing(spacing), std::greater<>());
    return shell == m_end.end() ? m_mean.back() : m_mean[static_cast<std::size_t>(shell - m_end.begin())];
}

}  // namespace vrk
