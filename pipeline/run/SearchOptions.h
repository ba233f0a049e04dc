/// \file
/// The settings of the reflection search that a user may give.
#pragma once

#include <optional>

class Parameter;

namespace vrk {

/// What a user may set of the reflection search. Values that were not given are empty.
struct SearchOptions {
    std::optional<double> threshold;
    std::optional<int> minVoxels;
    std::optional<int> maxVoxels;
    std::optional<double> zeroBeam;    ///< radius in voxels; 0 switches the cut off
    std::optional<double> resolution;  ///< radius in voxels; 0 switches the limit off
    std::optional<int> centre;

    /// Sets the values that were given; the others stay as they are. Throws Failure when a lower limit is
    /// then above its upper one.
    void applyTo(Parameter& parameter) const;
};

}  // namespace vrk
