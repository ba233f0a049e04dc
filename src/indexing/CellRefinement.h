/// \file
/// Least-squares refinement of a reciprocal lattice against the reflections that it indexes.
#pragma once

#include "VRKCoreExport.h"
#include "crystallography/BravaisTypes.h"

class ReflexVector;
class UnitCell;

/// Refines the three reciprocal vectors and the origin against all reflections near a node, and gives the
/// direct cell with standard uncertainties.
///
/// The displacement of every reflection from its node is taken to be equally uncertain in x, y and z. A
/// robust fit (weights after Huber, then Tukey's bisquare with the limit at 6.3 standard deviations of one
/// coordinate, estimated from the median displacement) keeps wrongly indexed and split reflections from
/// pulling. Fitting and indexing alternate until no index changes. Reflections near the origin go first and
/// the circle widens, so that a starting cell that is wrong by a fraction of a percent does not misindex the
/// far ones. The reflection 000, the rest of the direct beam, is indexed but not fitted.
///
/// Ties of a Bravais type apply to the parameters of the conventional direct cell. The tied lattice is the
/// one nearest to the free solution in the metric of the fit, which equals least squares under the ties.
///
/// Uncertainties are those of an M-estimate (P. J. Huber, Robust Statistics, Wiley 1981, chapter 7.6, DOI
/// 10.1002/0471725250), propagated to the direct cell. They describe scatter, not a wrong scale: an error of
/// the camera length is not in them.
class VRKCORE_EXPORT CellRefinement {
public:
    struct Result {
        double basis[3][3];     ///< a*, b*, c* one after the other, in voxels, volume frame
        double origin[3];       ///< the place of 000, voxels
        double originSigma[3];  ///< standard uncertainties, voxels
        double cell[6];       ///< conventional direct cell: a, b, c (Angstrom), alpha, beta, gamma (degrees)
        double cellSigma[6];  ///< standard uncertainties; 0 for what the ties fix
        double volume;        ///< of the conventional cell, cubic Angstrom
        double volumeSigma;   ///< standard uncertainty
        double sigma;         ///< robust standard deviation of one coordinate of a reflection, voxels
        double rms;           ///< root mean square displacement of the indexed reflections, voxels
        int reflections;      ///< all reflections of the list
        int indexed;          ///< those within the tolerance of a node
        int rounds;           ///< rounds of indexing and fitting
        bool stable;          ///< false when the indices still changed after the last round
    };

    /// Greatest distance of each fractional index from an integer; 0.25 at first.
    void setTolerance(double tolerance) { m_tolerance = tolerance; }

    /// Ties the parameters of the conventional direct cell to those of a Bravais type (monoclinic: b unique;
    /// hP and hR: hexagonal axes). NoBravaisType and aP, the state at first, tie nothing.
    /// \param toConventional  conventional direct cell = refined direct cell * this matrix, the conventional
    ///                        vectors being its columns; null for the refined cell itself. A singular matrix
    ///                        makes refine() fail.
    void setConstraint(LATTICE::BravaisTypes type, const double toConventional[3][3] = nullptr);

    /// Refines a cell in place and indexes the list with the result.
    ///
    /// \param reflections  receives the h, k, l of the refined cell; a reflection that is not near a node, at
    ///                     no finite position or beyond the range of int becomes "not indexed"
    /// \param cell         a primitive reciprocal cell in voxels; it receives the refined vectors and keeps
    ///                     its pixel size, by which voxels become inverse Angstrom (lengths are in 1/voxel
    ///                     when that is not positive)
    /// \param origin       place of 000 in voxels; it receives the refined place
    /// \returns false, with an error logged and nothing changed, when something is missing, the cell is
    ///          singular or not reciprocal, the tolerance is not in (0, 0.5], or fewer than six reflections
    ///          can be indexed, or only ones in a plane
    bool refine(ReflexVector* reflections, UnitCell* cell, double origin[3]);

    /// What the last successful refine() found.
    const Result& result() const { return m_result; }

private:
    double m_tolerance = 0.25;
    LATTICE::BravaisTypes m_type = LATTICE::NoBravaisType;
    double m_toConventional[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    Result m_result{};
};
