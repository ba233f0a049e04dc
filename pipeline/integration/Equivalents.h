/// \file
/// Groups of symmetry-equivalent observations and their means.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "pipeline/integration/LaueGroup.h"
#include "pipeline/integration/Observation.h"

namespace vrk {

/// Numbers of the observations of every unique reflection, by its representative indices; outliers belong to
/// none.
std::vector<std::vector<std::uint32_t>> equivalents(std::span<const Observation> observations,
                                                    const LaueRotations& rotations);

struct WeightedMean {
    double intensity = 0;
    double sigma = 0;
};
WeightedMean weightedMean(std::span<const Observation> observations, std::span<const std::uint32_t> group);

/// The mean of squared deviates that would be 1 for normal ones, without the largest twentieth.
double trimmedMeanSquare(std::vector<double> squares);

}  // namespace vrk
