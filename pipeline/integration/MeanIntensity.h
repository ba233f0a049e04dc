/// \file
/// The mean intensity of reflections by resolution.
#pragma once

#include <vector>

namespace vrk {

/// Means over shells of some sixty reflections each; of faint shells at least a tenth of the mean
/// uncertainty.
class MeanIntensity {
public:
    struct Sample {
        double spacing = 0;  ///< Angstrom
        double intensity = 0;
        double sigma = 0;
    };
    explicit MeanIntensity(std::vector<Sample> samples);

    /// Of all reflections around a spacing in Angstrom; 1 when there were no samples.
    double at(double spacing) const;

private:
    std::vector<float> m_end;  ///< smallest spacing of each shell, descending
    std::vector<double> m_mean;
};

}  // namespace vrk
