/// \file
/// The size of a pixel as the curvature of the Ewald sphere tells it.
#pragma once

#include <Eigen/Core>
#include <span>

#include "pipeline/latticesearch/Lattice.h"

namespace vrk {

/// The sphere leaves a pattern by |g|^2 lambda / 2, in pixels in proportion to the size of a pixel:
/// reflections that lie on both of its sides tell that size whatever the cell is.
struct CurvatureScale {
    double factor = 1.0;  ///< true over stated product of pixel size and wavelength
    double sigma = 0.0;   ///< its standard uncertainty; 0 where the reflections do not tell it

    /// Whether the reflections contradict what is stated, beyond errors that they have in common.
    bool contradicts() const;

    /// Refines the factor together with a lattice without ties by robust least squares. Displacements by the
    /// lens, the axis and the tilts have the opposite sign at the opposite reflection, the curvature has the
    /// same: they need not be refined with it.
    ///
    /// \param positions  corrected for curvature and instrument, voxels; not finite where there is none
    /// \param tilts      at which each was seen, radians
    /// \param lattice    with its origin
    /// \param curvature  with which the positions were corrected (EwaldCurvature), 1/voxel
    /// \param tolerance  of the fractional indices
    static CurvatureScale of(std::span<const Eigen::Vector3d> positions, std::span<const double> tilts,
                             const Lattice& lattice, double curvature, double tolerance);
};

}  // namespace vrk
