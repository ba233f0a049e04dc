/// \file
/// Systematic absences and the space groups that they leave.
#pragma once

#include <Eigen/Core>
#include <span>
#include <string>
#include <vector>

#include "pipeline/integration/LaueGroup.h"
#include "pipeline/integration/Merging.h"

namespace vrk {

/// A reflection condition of a screw axis or a glide plane.
struct ReflectionCondition {
    std::string reflections;   ///< "0k0"
    std::string condition;     ///< "k = 2n"
    int obeying = 0;           ///< unique reflections of the class that are allowed
    int violating = 0;         ///< and that the condition forbids
    double obeyingISigma = 0;  ///< mean I / sigma
    double violatingISigma = 0;
    double ratio = 0;  ///< mean of the forbidden intensities over that of all reflections at their spacing
    /// Logarithm of the likelihood of the forbidden reflections being absent against being like all others;
    /// positive speaks for the condition.
    double evidence = 0;
};

struct SpaceGroupCandidate {
    int number = 0;
    std::string symbol;  ///< extended Hermann-Mauguin symbol, for these axes
    std::string hall;
    bool centrosymmetric = false;
    int extinguished = 0;  ///< measured unique reflections that it forbids
    double evidence = 0;   ///< as ReflectionCondition::evidence, of all that it forbids
};

struct SpaceGroupAnalysis {
    std::vector<ReflectionCondition> conditions;  ///< those that some group of the Laue group imposes
    std::vector<SpaceGroupCandidate> candidates;  ///< the most likely first
    /// Mean |E^2 - 1|: 0.97 for a centrosymmetric crystal, 0.74 for one that is not, less when it is twinned.
    /// Orders groups that forbid the same reflections; multiple scattering makes it a weak argument.
    double eSquareMinusOne = 0;
    bool centricByStatistics = false;
};

/// Ranks the space groups with the Laue group and centring by what they forbid. A forbidden reflection is
/// taken to have, by multiple scattering, some per cent of an ordinary intensity, up to a third in thick
/// crystals at a price; an ordinary one follows the acentric distribution of A. J. C. Wilson, Acta Cryst. 2
/// (1949) 318, doi:10.1107/S0365110X49000813. No single reflection counts for more than four nats. Of groups
/// that forbid the same measured reflections those come first that fit the distribution of the intensities,
/// and of these the ones that are common. Space groups and their operations are those of the gemmi library.
SpaceGroupAnalysis analyseSpaceGroups(std::span<const MergedReflection> merged,
                                      const LaueRotations& rotations, char centring);

/// Amplitudes by the distribution that the most likely space group has: centric or acentric, about a mean
/// that is a multiple of the ordinary one where operations keep the indices. Forbidden reflections are taken
/// for ordinary ones. Without candidates all are acentric.
void estimateAmplitudes(std::span<MergedReflection> merged, const SpaceGroupAnalysis& analysis);

}  // namespace vrk
