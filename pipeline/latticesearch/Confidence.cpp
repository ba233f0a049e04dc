#include "pipeline/latticesearch/Confidence.h"

namespace vrk {
namespace {

/// Evidence, in nats, that thousands of candidate cells do not reach on random points.
constexpr double kLeastEvidence = 60.0;
constexpr double kLeastFraction = 0.15;
/// A rival with this share of the evidence leaves the choice open.
constexpr double kRival = 0.8;

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

bool isConvincing(const LatticeScore& score) {
    return score.evidence >= kLeastEvidence && score.fraction() >= kLeastFraction;
}

Confidence confidenceOf(const LatticeEvidence& known) {
    const LatticeScore& score = known.score;
    const bool rivalled = known.rivalEvidence > kRival * score.evidence;
    const bool mostIndexed = score.fraction() > 0.6 && known.indexedShare.value_or(1.0) > 0.75;
    const bool halfIndexed = score.fraction() > 0.4 && known.indexedShare.value_or(1.0) > 0.5;
    if (mostIndexed && score.evidence > 300.0 && !rivalled) return Confidence::High;
    return halfIndexed && score.evidence > 120.0 ? Confidence::Fair : Confidence::Low;
}

}  // namespace vrk
