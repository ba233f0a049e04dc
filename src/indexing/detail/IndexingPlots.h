/// \file
/// The evaluation plots of an indexed list.
#pragma once

#include <Eigen/Core>
#include <array>
#include <optional>
#include <string>
#include <vector>

class GnuplotScript;
class ReflexVector;

namespace VRK::detail {

/// What the plots show of one list: reflections relative to the lattice that fits the indexed ones best.
class IndexingPlots {
public:
    /// Empty, with an error logged, when there is no list or the indexed reflections determine no lattice.
    static std::optional<IndexingPlots> of(ReflexVector* reflections);

    /// \name Each writes and renders one plot; see IndicateWithHKL.
    /// @{
    bool evaluation(const std::string& folder) const;
    bool projections(const std::string& folder) const;
    bool oneIndex(std::size_t index, const std::string& folder) const;
    /// @}

private:
    struct Spot {
        std::array<int, 3> hkl;
        bool indexed;
        double intensity;
        double distance;               ///< from the origin, voxels
        Eigen::Vector3d displacement;  ///< from the nearest node, voxels
        Eigen::Vector3d deviation;     ///< of the fractional indices from the nearest integers
    };

    /// Rows of a shell's middle, its reflections and the share in percent of those that are indexed.
    std::vector<double> sharesByDistance() const;
    void plotDistances(GnuplotScript& plot) const;
    /// \param range  largest displacement that is shown, voxels
    void plotComponents(GnuplotScript& plot, double range) const;

    std::vector<Spot> m_spots;  ///< at least the six that determine the lattice
};

}  // namespace VRK::detail
