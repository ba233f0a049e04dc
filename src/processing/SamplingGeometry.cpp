#include "processing/SamplingGeometry.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace {

constexpr float kPiFloat = 3.1415927F;

}  // namespace

SamplingGeometry::SamplingGeometry(unsigned width, std::span<const float> tilts, unsigned depth)
    : m_width(width),
      m_depth(depth),
      m_centreX((static_cast<float>(width) - 1.0F) * 0.5F),
      m_centreZ((static_cast<float>(depth) - 1.0F) * 0.5F),
      m_tilts(tilts.begin(), tilts.end()) {}

unsigned SamplingGeometry::depthOf(unsigned width, std::span<const float> tilts) {
    if (tilts.empty()) return 0;
    const float largest = std::max(std::abs(tilts.back()), std::abs(tilts.front()));
    const float radians = largest / 180.0F * kPiFloat;
    return static_cast<unsigned>(std::ceil(std::abs(std::sin(radians) * static_cast<float>(width))));
}

SamplingGeometry::Sample SamplingGeometry::sample(unsigned x, unsigned layer) const {
    Sample result;
    if (x >= m_width || layer >= m_depth) return result;
    const float dx = static_cast<float>(x) - m_centreX;
    const float dz = static_cast<float>(layer) - m_centreZ;
    const float angle = std::atan(dz / dx);
    const float degrees = static_cast<float>(angle * 180.0 / std::numbers::pi);
    getLowerAndUpperTiltSliceNr(degrees, m_tilts, &result.lower, &result.upper);
    getInnerAndOuterPixelIndex(angle, m_width, static_cast<int>(dx), &result.inner, &result.outer);

    const bool recorded = result.lower >= 0 && result.upper >= 0 && result.outer >= 0;
    if (!recorded || std::isnan(angle) || dx == 0.0F) return result;
    const int innerColumn = columnAt(result.inner, dx > 0.0F);
    const int outerColumn = columnAt(result.outer, dx > 0.0F);
    const int columns = static_cast<int>(m_width);
    if (std::min(innerColumn, outerColumn) < 0 || std::max(innerColumn, outerColumn) >= columns)
        return result;
    result.innerColumn = innerColumn;
    result.outerColumn = outerColumn;
    return result;
}

int SamplingGeometry::columnAt(int distance, bool right) const {
    return static_cast<int>(static_cast<float>(right ? distance : -distance) + m_centreX);
}

double SamplingGeometry::meanRadius(const Sample& sample) const {
    if (!sample.inside()) return 0.0;
    return 0.5 * (sample.innerColumn + sample.outerColumn) - 0.5 * (static_cast<double>(m_width) - 1.0);
}

double SamplingGeometry::meanTilt(const Sample& sample) const {
    if (!sample.inside()) return 0.0;
    const double lower = m_tilts[static_cast<std::size_t>(sample.lower)];
    const double upper = m_tilts[static_cast<std::size_t>(sample.upper)];
    return 0.5 * (lower + upper) * std::numbers::pi / 180.0;
}

bool SamplingGeometry::getLowerAndUpperTiltSliceNr(float angleDegrees, std::span<const float> tilts,
                                                   int* lower, int* upper) {
    const auto first = std::lower_bound(tilts.begin(), tilts.end(), angleDegrees);
    if (first == tilts.end()) {
        *lower = static_cast<int>(tilts.size());
        *upper = -1;
    } else {
        *upper = static_cast<int>(first - tilts.begin());
        *lower = *upper - 1;
    }
    return true;
}

bool SamplingGeometry::getInnerAndOuterPixelIndex(float angleRadians, unsigned width, int offset, int* inner,
                                                  int* outer) {
    const int half = static_cast<int>(width / 2);
    const float distance =
        std::floor(static_cast<float>(std::abs(offset)) / std::cos(std::abs(angleRadians)));
    const bool within = static_cast<float>(half) >= distance + 1.0F;
    *inner = within ? static_cast<int>(distance) : half;
    *outer = within ? *inner + 1 : -1;
    return true;
}
