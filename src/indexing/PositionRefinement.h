/// \file
/// From found reflections to exact positions, a refined lattice and the sense of the tilt.
#pragma once

#include <memory>
#include <span>

#include "VRKCoreExport.h"
#include "indexing/CellRefinement.h"

class ReflexVector;
class SamplingGeometry;
class UnitCell;

/// Corrects the positions of reflections for sampling and for the curvature of the Ewald sphere and refines
/// the lattice on them, once for each sense of the tilt; the sense that leaves the smaller residual is kept.
///
/// \code
/// PositionRefinement refinement;
/// refinement.setWavelength(EwaldCurvature::wavelength(kiloVolts));
/// ReflexVectorPtr corrected(refinement.refine(found, geometry, &cell, origin));
/// \endcode
///
/// Reflections so close to the tilt axis that the sphere hardly crosses them (their distance from the axis is
/// not large against the curvature's step) have no well-defined tilt: their weight in the fit is
/// d^2 / (d^2 + 4 step^2).
class VRKCORE_EXPORT PositionRefinement {
public:
    struct Result {
        CellRefinement::Result lattice;  ///< refined on the positions that were kept
        int sense;                       ///< +1 or -1, s of EwaldCurvature; 0 when there was no wavelength
        /// Whether the two senses differ beyond noise. When not, the handedness of h, k, l is undecided.
        bool decided;
        /// Residuals for sense +1 and -1: root mean square distance (voxels) from the nearest node over the
        /// reflections that either sense indexes, every distance limited to six standard deviations of the
        /// better fit. Equal without a wavelength.
        double residual[2];
        /// By how many of its standard errors the mean squared distance of the other sense is larger. Decided
        /// from 4 on.
        double significance;
    };

    /// Wavelength in Angstrom; 0, at first, means unknown: positions are not corrected for curvature then.
    void setWavelength(double angstrom) { m_wavelength = angstrom; }
    /// As CellRefinement::setTolerance().
    void setTolerance(double tolerance) { m_tolerance = tolerance; }
    /// As CellRefinement::setConstraint().
    void setConstraint(LATTICE::BravaisTypes type, const double toConventional[3][3] = nullptr);

    /// \param found     reflections as the search left them, unchanged
    /// \param geometry  of the reconstruction that made their volume
    /// \param cell      primitive reciprocal cell in voxels with its pixel size (1/m per voxel) set; receives
    ///                  the refined vectors
    /// \param origin    place of 000 in voxels, at first the centre of the volume; receives the refined one
    /// \returns a new list of plain reflections at their corrected positions, in the order of the old one,
    ///          with the old intensities and the indices of the refined lattice (the caller owns it,
    ///          ReflexVector::destroy() frees it); null, with an error logged and nothing changed, in the
    ///          cases in which CellRefinement::refine() fails
    ReflexVector* refine(const ReflexVector* found, const SamplingGeometry& geometry, UnitCell* cell,
                         double origin[3]);

    /// The same for reflections whose positions are exact but for the curvature.
    /// \param tilts  at which each reflection was seen, radians (ReflectionPositions)
    ReflexVector* refine(const ReflexVector* positions, std::span<const double> tilts, UnitCell* cell,
                         double origin[3]);

    /// What the last successful refine() found.
    const Result& result() const { return m_result; }

private:
    double m_wavelength = 0.0;
    double m_tolerance = 0.25;
    LATTICE::BravaisTypes m_type = LATTICE::NoBravaisType;
    double m_toConventional[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    Result m_result{};
};
