/// \file
/// From found reflections to exact positions, a refined lattice and the sense of the tilt.
#pragma once

#include <Eigen/Core>
#include <optional>
#include <span>
#include <vector>

#include "pipeline/latticesearch/LatticeFit.h"

namespace vrk {

struct RefinementSettings {
    double wavelength = 0.0;  ///< Angstrom; 0 is unknown: positions are not corrected for curvature then
    double tolerance = 0.25;  ///< greatest distance of each fractional index from an integer, up to 0.5
    int sense = 0;            ///< of the tilt, +1 or -1, where it is known; 0: found
    CellTies ties;            ///< between the parameters of the conventional cell
};

struct RefinedPositions {
    RefinedLattice lattice;
    /// The positions corrected for curvature and their indices in the lattice, in the order of the input.
    std::vector<Eigen::Vector3d> positions;
    std::vector<Indices> indices;
    int sense = 0;  ///< +1 or -1, s of EwaldCurvature; 0 when there was no wavelength
    /// The side of the Ewald sphere on which the reflections lie, +1 or -1 as in SeriesGeometry and the
    /// simulation: that of the sphere and not, as the sense, of the positions seen from it. 0 when unknown.
    int handedness() const { return -sense; }
    /// Whether the two senses differ beyond noise. When not, the handedness of h, k, l is undecided.
    bool decided = false;
    /// Residuals for sense +1 and -1: root mean square distance (voxels) from the nearest node over the
    /// reflections that either sense indexes, every distance limited to six standard deviations of the
    /// better fit. Equal without a wavelength.
    std::array<double, 2> residual{};
    /// By how many of its standard errors the mean squared distance of the other sense is larger. Decided
    /// from 4 on.
    double significance = 0.0;
};

/// Corrects the positions of reflections for the curvature of the Ewald sphere and refines the lattice on
/// them, once for each sense of the tilt; the sense that leaves the smaller residual is kept.
///
/// Reflections so close to the tilt axis that the sphere hardly crosses them (their distance from the axis is
/// not large against the curvature's step) have no well-defined tilt: their weight in the fit is
/// d^2 / (d^2 + 4 step^2).
///
/// \param positions  as ReflectionPositions gives them, voxels; not finite where there is none
/// \param tilts      at which each was seen, radians; as many
/// \param start      its origin is the centre of the volume at first; without a pixel size positions are not
///                   corrected
/// \returns nothing when fewer than six reflections, or only ones in a plane, lie near the nodes of the
/// start,
///          when the start spans no lattice, the tolerance is not in (0, 0.5], or the sizes differ
std::optional<RefinedPositions> refinePositions(std::span<const Eigen::Vector3d> positions,
                                                std::span<const double> tilts, const Lattice& start,
                                                const RefinementSettings& settings);

}  // namespace vrk
