#include "pipeline/latticesearch/Confidence.h"

#include <algorithm>
#include <cmath>

#include "pipeline/base/NumberText.h"
#include "pipeline/base/SmallMatrices.h"

namespace vrk {
namespace {

/// Evidence, in nats, that thousands of candidate cells do not reach on random points.
constexpr double kLeastEvidence = 60.0;
constexpr double kLeastFraction = 0.15;
/// A rival with this share of the evidence leaves the choice open.
constexpr double kRival = 0.9;
/// Below this an error of the tilts, the centres or the lens becomes one of a percent or more across the
/// patterns; 40 degrees of tilt have it.
constexpr double kThin = 0.2;

/// Residuals above both are those of a lattice that does not fit: reflections at random places that are
/// indexed with a tolerance of a quarter have a quarter of the edge.
constexpr double kLargeResidual = 1.5;  // voxels
constexpr double kLargeShare = 0.12;
/// Stages turn by what they say.
constexpr double kMostTiltScale = 0.05;

/// Ellipses below this give a lattice ties that it has not too rarely, and move too little, to matter.
constexpr double kSmallEllipse = 0.006;
constexpr const char* kCalibrationTells =
    "'vrk calibrate' of another crystal and 'vrk run --distortion' with its file tell";
/// Edges that an instrument leaves this uncertain are those of an ellipse that is there and half known.
constexpr double kMostTiedUncertainty = 0.004;
/// Angstrom. Crystals that show nothing finer are no use, a pixel size ten times off is a common mistake.
constexpr double kCoarse = 5.0;

/// What one level of confidence asks for.
struct Demands {
    double evidence;
    double fraction;      ///< of the points of the search
    double indexedShare;  ///< of all reflections
    double bestShell;     ///< completeness of the most complete shell
    double evenness;
    double edgeUncertainty;  ///< at most
};
constexpr Demands kHigh{300.0, 0.6, 0.8, 0.45, 0.55, 0.002};
constexpr Demands kFair{120.0, 0.4, 0.5, 0.25, 0.2, 0.002};
/// So many doubts at once, none of which decides alone, leave little.
constexpr std::size_t kManyDoubts = 3;

std::string percent(double share) {
    return std::to_string(std::lround(100.0 * share)) + " %";
}

std::vector<std::string> shortcomings(const LatticeEvidence& known, const Demands& demands) {
    std::vector<std::string> reasons;
    const LatticeScore& score = known.score;
    if (score.evidence < demands.evidence) reasons.push_back("few reflections support it");
    // Of what does not belong to other crystals.
    const double own = std::max(1.0 - known.elsewhere, 1e-9);
    const double indexed = std::min(known.indexedShare.value_or(1.0) / own, 1.0);
    const double near = std::min(score.fraction() / own, 1.0);
    if (indexed < demands.indexedShare)
        reasons.push_back("only " + percent(indexed) + " of the reflections are indexed");
    else if (near < demands.fraction)
        reasons.push_back("only " + percent(near) + " of the reflections lie near its nodes");
    // Reflections of other crystals that are indexed by chance lie far off.
    if (known.elsewhere == 0.0 && known.residual.value_or(0.0) > kLargeResidual &&
        known.relativeResidual.value_or(0.0) > kLargeShare)
        reasons.push_back("the reflections lie far off its nodes, as with wrong tilts or a wrong axis");
    if (known.edgeUncertainty.value_or(0.0) > demands.edgeUncertainty)
        reasons.push_back("too few reflections, or too scattered ones, determine its edges");
    if (!known.completeness) return reasons;
    const Completeness& nodes = *known.completeness;
    if (nodes.bestShell() < demands.bestShell)
        reasons.push_back("only " + percent(nodes.bestShell()) +
                          " of the nodes that the series recorded were found where most were");
    if (nodes.evenness() < demands.evenness)
        reasons.push_back(
            "some classes of nodes are nearly empty: the cell may be a multiple of the true one");
    return reasons;
}

}  // namespace

const char* nameOf(Confidence confidence) {
    switch (confidence) {
        case Confidence::High:
            return "high";
        case Confidence::Fair:
            return "fair";
        case Confidence::Low:
            break;
    }
    return "low";
}

double thinnessOf(std::span<const Eigen::Vector3d> places, const Eigen::Vector3d& origin) {
    if (places.size() < 3) return 1.0;
    Eigen::Matrix3d moments = Eigen::Matrix3d::Zero();
    for (const Eigen::Vector3d& place : places)
        moments += (place - origin) * (place - origin).transpose();
    const Eigen::Vector3d squares = principalAxes(moments).moments;
    return squares[2] > 0.0 ? std::sqrt(std::max(squares[0], 0.0) / squares[2]) : 1.0;
}

bool isConvincing(const LatticeScore& score) {
    return score.evidence >= kLeastEvidence && score.fraction() >= kLeastFraction;
}

Verdict verdictOn(const LatticeEvidence& known) {
    Verdict verdict;
    verdict.reasons = shortcomings(known, kFair);
    if (!verdict.reasons.empty()) return verdict;
    verdict.reasons = shortcomings(known, kHigh);
    if (known.rivalEvidence > kRival * known.score.evidence)
        verdict.reasons.push_back("another lattice" + (known.rival.empty() ? "" : " (" + known.rival + ")") +
                                  " has " + percent(known.rivalEvidence / known.score.evidence) +
                                  " of its evidence");
    if (known.ellipse > kMostEllipse)
        verdict.reasons.push_back("the frames would have to be distorted by " + percent(known.ellipse));
    if (std::abs(known.tiltScale) > kMostTiltScale)
        verdict.reasons.push_back("the tilts would have to be " + percent(std::abs(known.tiltScale)) +
                                  (known.tiltScale > 0.0 ? " larger" : " smaller") + " than stated");
    if (known.axisAssumed) verdict.reasons.push_back("the direction of the tilt axis was assumed");
    if (known.tiedUncertainty > kMostTiedUncertainty)
        verdict.reasons.push_back("a distortion that is determined only in part leaves its edges uncertain");
    else if (known.ellipseUnproven > kSmallEllipse)
        verdict.reasons.push_back(formatted(
            "its symmetry is lower unless the frames are distorted by %.1f %%, for which nothing else "
            "speaks; %s",
            100.0 * known.ellipseUnproven, kCalibrationTells));
    if (known.tiesStrain)
        verdict.reasons.push_back(
            "the ties of its type move its edges by more than their uncertainties: the symmetry may be "
            "lower");
    if (!known.higherType.empty())
        verdict.reasons.push_back("the reflections lie nearly as close to the nodes of a lattice of type " +
                                  known.higherType + ": the symmetry may be higher");
    if (known.ellipseUnknown)
        verdict.reasons.push_back(
            "a triclinic lattice does not show whether the frames are distorted, and an ellipse of 1.4 %, as "
            "many microscopes have, moves its angles by up to 1.6 degrees; " +
            std::string(kCalibrationTells));
    if (known.finestSpacing > kCoarse)
        verdict.reasons.push_back(
            formatted("its reflections end at %.1f Angstrom, as when the pixel size is too "
                      "small, and with it every edge too long",
                      known.finestSpacing));
    if (known.pixelFactor != 1.0)
        verdict.reasons.push_back(formatted(
            "the curvature of the Ewald sphere asks for %.2f times the pixel size, which makes all edges "
            "%s, or for another high tension",
            known.pixelFactor, known.pixelFactor > 1.0 ? "shorter" : "longer"));
    if (known.instrumentContradicted)
        verdict.reasons.push_back("the reflections contradict the calibration that was given");
    if (known.thinness.value_or(1.0) < kThin)
        verdict.reasons.push_back("so narrow a range of tilts leaves the cell uncertain across the patterns");
    if (!known.completeness)
        verdict.reasons.push_back("it is not known which part of reciprocal space was recorded");
    if (known.distortionUnseen)
        verdict.reasons.push_back(
            "positions alone do not show whether the frames are distorted where it is not known how the "
            "crystal turned; a peak file tells that");
    // An axis that is guessed from the reflections and a distortion that they do not tell are two unknowns.
    const bool isOpen = known.ellipseUnknown || known.tiedUncertainty > kMostTiedUncertainty;
    const bool isGuess =
        verdict.reasons.size() >= kManyDoubts || known.distortionUnseen || (known.spaceEstimated && isOpen);
    // What a list cannot tell speaks neither for nor against the lattice.
    if (known.spaceEstimated)
        verdict.reasons.push_back(
            "the reflections alone tell which part of reciprocal space was recorded; a peak file of vrk "
            "knows");
    if (!isGuess) verdict.lattice = verdict.reasons.empty() ? Confidence::High : Confidence::Fair;
    verdict.level = known.ellipseUnknown ? Confidence::Low : verdict.lattice;
    return verdict;
}

}  // namespace vrk
