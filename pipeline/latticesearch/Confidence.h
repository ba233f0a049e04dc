/// \file
/// How far a lattice can be trusted: the one rule, for the run and for lists of reflections.
#pragma once

#include <Eigen/Core>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "pipeline/latticesearch/Completeness.h"
#include "pipeline/latticesearch/LatticeScore.h"

namespace vrk {

/// Microscopes have ellipses of one to one and a half per cent. A larger one makes a lattice of a type that
/// it is not.
inline constexpr double kMostEllipse = 0.018;

enum class Confidence { High, Fair, Low };
const char* nameOf(Confidence confidence);

/// What is known of a lattice.
struct LatticeEvidence {
    LatticeScore score;          ///< of the search
    double rivalEvidence = 0.0;  ///< of the second best lattice; 0 when there is none
    std::string rival;           ///< that lattice in words; may be empty
    /// Share of all reflections, curved ones included, on the refined lattice; nothing when none was refined.
    std::optional<double> indexedShare;
    /// Share of all reflections that other crystals explain: it does not speak against this one.
    double elsewhere = 0.0;
    /// Of the nodes in the recorded part of reciprocal space; nothing when that is not known.
    std::optional<Completeness> completeness;
    /// That part is known from the reflections alone.
    bool spaceEstimated = false;
    /// Extent of the reflections in the direction in which they reach least over that in which they reach
    /// most (thinnessOf()); nothing when it is not known.
    std::optional<double> thinness;
    /// Root mean square distance of the indexed reflections from their nodes, voxels, and over the shortest
    /// reciprocal edge; nothing when no lattice was refined.
    std::optional<double> residual;
    std::optional<double> relativeResidual;
    /// Largest standard uncertainty of an edge of the freely refined cell over the edge; nothing when no
    /// lattice was refined.
    std::optional<double> edgeUncertainty;
    /// Of the indexed reflections, Angstrom; 0 when the pixel size is not known.
    double finestSpacing = 0.0;
    /// What the refined instrument asks for: strength of the ellipse and scale of the tilts less 1.
    double ellipse = 0.0;
    double tiltScale = 0.0;
    /// Largest standard uncertainty of an edge under the ties over the edge, with what the instrument does to
    /// it.
    double tiedUncertainty = 0.0;
    /// The lattice is triclinic, which an ellipse turns into another one that fits as well, and no
    /// calibration tells of the ellipse.
    bool ellipseUnknown = false;
    /// Strength of that part of the ellipse without which the lattice would have lower symmetry, and fit as
    /// well.
    double ellipseUnproven = 0.0;
    /// The lattice nearly has this type of higher symmetry, as nearly as errors of the reflections may hide
    /// it; empty where it has none.
    std::string higherType;
    /// The ties of its type move its edges by more than their standard uncertainties allow.
    bool tiesStrain = false;
    /// The lattice was found without a distortion, and its symmetry is not so high that one would show.
    bool distortionUnseen = false;
    /// The axis was neither stated nor found: the volume may be sheared.
    bool axisAssumed = false;
    /// By which the sphere's curvature makes the pixels larger than they were stated to be; 1 where it
    /// agrees.
    double pixelFactor = 1.0;
    /// The reflections contradict what was told of the instrument.
    bool instrumentContradicted = false;
};

struct Verdict {
    Confidence level = Confidence::Low;
    /// Of the lattice, whatever an ellipse that nobody knows may have done to its edges and angles: whether
    /// there is a crystal, and where its axes lie. Nowhere below the level.
    Confidence lattice = Confidence::Low;
    /// Why it is not higher, one clause each, in the words of a report; empty for High.
    std::vector<std::string> reasons;
};

/// Ratio of the smallest to the largest root mean square distance of places from an origin along any
/// direction: 0.1 for tilts of 20 degrees in all, 0.64 for 120. Errors of the geometry that are small along
/// the patterns are larger by its inverse across them. 1 for fewer than three places.
double thinnessOf(std::span<const Eigen::Vector3d> places, const Eigen::Vector3d& origin);

/// Whether a lattice is worth showing: random points do not reach it.
bool isConvincing(const LatticeScore& score);

/// High: nearly all reflections lie on the lattice, far beyond chance, no other lattice comes near, and the
/// nodes that the series recorded are there, those of every parity class alike. A wrong axis, a doubled cell
/// and noise index reflections too, but leave nodes empty, or whole classes of them. Fair: half of all that.
/// Reflections that lie far off their nodes, as with tilts or an axis that are wrong, make the lattice a
/// guess. An axis that was assumed, a calibration that the reflections contradict, a distortion that they
/// determine only in part or by the symmetry alone, ties that the free edges contradict, a higher symmetry
/// that is refused by a hair, a distortion or a scale of the tilts that no sound instrument has, tilts that
/// hardly tell the cell across the patterns, an unknown or estimated completeness or a rival within a tenth
/// of the evidence keep the answer from being more than fair. A distortion that was not looked for, or that a
/// triclinic lattice takes up without a trace, and three doubts at once make it low.
Verdict verdictOn(const LatticeEvidence& evidence);

}  // namespace vrk
