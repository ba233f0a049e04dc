/// \file
/// How far a lattice can be trusted: the one rule, for the run and for lists of reflections.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "pipeline/latticesearch/Completeness.h"
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
    /// Of the nodes in the recorded part of reciprocal space; nothing when that is not known.
    std::optional<Completeness> completeness;
    /// The axis was neither stated nor found: the volume may be sheared.
    bool axisAssumed = false;
};

struct Verdict {
    Confidence level = Confidence::Low;
    /// Why it is not higher, one clause each, in the words of a report; empty for High.
    std::vector<std::string> reasons;
};

/// Whether a lattice is worth showing: random points do not reach it.
bool isConvincing(const LatticeScore& score);

/// High: nearly all reflections lie on the lattice, far beyond chance, no other lattice comes near, and the
/// nodes that the series recorded are there, those of every parity class alike. A wrong axis, a doubled cell
/// and noise index reflections too, but leave nodes empty, or whole classes of them. Fair: half of all that.
/// An axis that was assumed, an unknown completeness or a rival within a tenth of the evidence keep the
/// answer from being more than fair.
Verdict verdictOn(const LatticeEvidence& evidence);

}  // namespace vrk
