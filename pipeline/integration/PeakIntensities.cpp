#include "pipeline/integration/PeakIntensities.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "pipeline/base/Median.h"

namespace vrk {
namespace {

double integrate(const VoxMRCData& volume, const std::array<double, 3>& at, double radius) {
    constexpr double kShell = 2.0;
    std::array<int, 3> from{};
    std::array<int, 3> to{};
    for (unsigned axis = 0; axis < 3; ++axis) {
        const double last = volume.GetDimSize(axis) - 1.0;
        if (!(at[axis] >= 0.0 && at[axis] <= last)) return 0.0;
        from[axis] = static_cast<int>(std::max(std::ceil(at[axis] - radius - kShell), 0.0));
        to[axis] = static_cast<int>(std::min(std::floor(at[axis] + radius + kShell), last));
    }
    double sum = 0.0;
    int inside = 0;
    std::vector<short> shell;
    for (int z = from[2]; z <= to[2]; ++z)
        for (int x = from[0]; x <= to[0]; ++x)
            for (int y = from[1]; y <= to[1]; ++y) {
                const double distance = std::hypot(x - at[0], y - at[1], z - at[2]);
                const short value = volume.GetValue(static_cast<unsigned>(x), static_cast<unsigned>(y),
                                                    static_cast<unsigned>(z));
                if (distance <= radius) {
                    sum += value;
                    ++inside;
                } else if (distance <= radius + kShell) {
                    shell.push_back(value);
                }
            }
    return std::max(sum - inside * medianOf(shell), 0.0);
}

}  // namespace

void integrateIntensities(const VoxMRCData& volume, ReflexVector& reflections, double radius) {
    for (Reflex* reflex : reflections) {
        if (!reflex) continue;
        const std::array<double, 3> at = {reflex->getCenterInX(), reflex->getCenterInY(),
                                          reflex->getCenterInZ()};
        reflex->setIntensity(integrate(volume, at, radius));
    }
}

}  // namespace vrk
