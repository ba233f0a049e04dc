/// \file
/// How far a lattice can be trusted: the one rule, for the run and for lists of reflections.
#pragma once

#include <optional>

#include "pipeline/latticesearch/LatticeScore.h"

namespace vrk {

enum class Confidence { High, Fair, Low };
const char* nameOf(Confidence confidence);

/// What is known of a lattice.
struct LatticeEvidence {
    LatticeScore score;          ///< of the search
    double rivalEvidence = 0.0;  ///< of the second best lattice; 0 when there is none
    /// Share of all reflections, curved ones included, on the refined lattice; nothing when none was refined.
    std::optional<double> indexedShare;
};

/// Whether a lattice is worth showing: random points do not reach it.
bool isConvincing(const LatticeScore& score);

/// High: most reflections lie on the lattice, far beyond chance, and no other lattice comes near. Fair: half
/// of them. Low otherwise.
Confidence confidenceOf(const LatticeEvidence& evidence);

}  // namespace vrk
