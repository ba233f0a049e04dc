#include "processing/detail/DetectorCross.h"

#include <algorithm>
#include <cmath>

#include "VoxCore/DataModel/detail/Transposed.h"
#include "foundation/detail/Median.h"

namespace VRK::detail {
namespace {

/// Pixels of a row that are taken together.
constexpr int kSegment = 8;
/// Of a gap, pixels.
constexpr int kWidest = 6;
/// Natural logarithm of a row's counts over those of its neighbours.
constexpr double kLeastStep = 0.1;
constexpr double kSignificantStep = 8.0;  // standard deviations

/// Natural logarithms of the counts in the segments of each row.
std::vector<std::vector<double>> segmentsOf(const std::vector<float>& values, int width, int height,
                                            double counts) {
    std::vector<std::vector<double>> rows(static_cast<std::size_t>(height));
    const float* begin = values.data();
    for (std::vector<double>& row : rows) {
        for (int segment = 0; segment < width / kSegment; ++segment) {
            double sum = 1;  // no logarithm of nothing
            for (int x = segment * kSegment; x < (segment + 1) * kSegment; ++x)
                sum += double{begin[x]} * counts;
            row.push_back(std::log(sum));
        }
        begin += width;
    }
    return rows;
}

/// How a row differs from two others, the smaller of the two differences; 0 when they contradict each other.
/// Unlike a row of reflections, a gap does so in about the same measure all along.
double stepOf(const std::vector<std::vector<double>>& rows, std::size_t y, std::size_t before,
              std::size_t after) {
    constexpr double kAlike = 0.75;
    std::vector<double> steps;
    for (std::size_t segment = 0; segment < rows[y].size(); ++segment) {
        const double up = rows[y][segment] - rows[before][segment];
        const double down = rows[y][segment] - rows[after][segment];
        steps.push_back(up * down <= 0 ? 0 : std::abs(up) < std::abs(down) ? up : down);
    }
    const double middle = medianOf(steps);
    const auto alike = std::count_if(steps.begin(), steps.end(), [middle](double step) {
        return step * middle > 0.5 * middle * middle && step * middle < 2 * middle * middle;
    });
    return static_cast<double>(alike) >= kAlike * static_cast<double>(steps.size()) ? middle : 0;
}

std::vector<int> outstandingRows(const std::vector<float>& values, int width, int height, double counts) {
    std::vector<int> found;
    if (width < 4 * kSegment || height < 4 * kWidest) return found;
    const std::vector<std::vector<double>> rows = segmentsOf(values, width, height, counts);
    std::vector<double> steps(rows.size());
    std::vector<double> sizes;
    for (std::size_t y = kWidest; y + kWidest < rows.size(); ++y) {
        steps[y] = stepOf(rows, y, y - kWidest, y + kWidest);
        sizes.push_back(std::abs(steps[y]));
    }
    const double limit = std::max(kLeastStep, kSignificantStep * 1.4826 * medianOf(sizes));
    for (std::size_t y = 0; y < steps.size(); ++y)
        if (std::abs(steps[y]) > limit) found.push_back(static_cast<int>(y));
    // Where the row to compare with was in a gap itself, one next to it tells.
    const auto isFound = [&](std::size_t y) {
        return std::binary_search(found.begin(), found.end(), static_cast<int>(y));
    };
    std::vector<int> confirmed;
    for (const int row : found) {
        std::size_t before = static_cast<std::size_t>(row), after = before;
        while (before > 0 && isFound(before))
            --before;
        while (after + 1 < rows.size() && isFound(after))
            ++after;
        if (std::abs(stepOf(rows, static_cast<std::size_t>(row), before, after)) > limit)
            confirmed.push_back(row);
    }
    found = std::move(confirmed);
    // More than the gaps of a detector of many chips: the pattern itself is striped.
    if (found.size() > rows.size() / 16) found.clear();
    return found;
}

/// Draws straight lines from row to row over those that are left out.
void bridge(std::vector<float>& values, int width, int height, const std::vector<int>& rows) {
    for (std::size_t i = 0; i < rows.size(); ++i) {
        std::size_t last = i;
        while (last + 1 < rows.size() && rows[last + 1] == rows[last] + 1)
            ++last;
        const int before = std::max(rows[i] - 1, 0);
        const int after = std::min(rows[last] + 1, height - 1);
        for (int y = before + 1; y < after; ++y)
            for (int x = 0; x < width; ++x) {
                const auto at = [&](int row) -> float& {
                    return values[static_cast<std::size_t>(row) * static_cast<std::size_t>(width) +
                                  static_cast<std::size_t>(x)];
                };
                const float part = static_cast<float>(y - before) / static_cast<float>(after - before);
                at(y) = at(before) + part * (at(after) - at(before));
            }
        i = last;
    }
}

std::vector<float> transposed(const std::vector<float>& values, int width, int height) {
    std::vector<float> result(values.size());
    transpose(values.data(), static_cast<std::size_t>(height), static_cast<std::size_t>(width),
              result.data());
    return result;
}

}  // namespace

DetectorCross::DetectorCross(const SeriesMean& mean)
    : rows(outstandingRows(mean.values, mean.width, mean.height, mean.counts)),
      columns(outstandingRows(transposed(mean.values, mean.width, mean.height), mean.height, mean.width,
                              mean.counts)) {}

void DetectorCross::removeFrom(SeriesMean& mean) const {
    bridge(mean.values, mean.width, mean.height, rows);
    if (columns.empty()) return;
    std::vector<float> turned = transposed(mean.values, mean.width, mean.height);
    bridge(turned, mean.height, mean.width, columns);
    mean.values = transposed(turned, mean.height, mean.width);
}

}  // namespace VRK::detail
