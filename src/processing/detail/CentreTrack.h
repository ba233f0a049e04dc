/// \file
/// The centres of a series from what its patterns offer.
#pragma once

#include <span>
#include <vector>

#include "processing/PatternCentre.h"

namespace VRK::detail {

/// A place where a pattern may have its centre.
struct CentreCandidate {
    PatternCentre centre;
    double evidence = 0;  ///< share of the pattern that is symmetric about it, up to 1
};

/// The candidates of all patterns together that make the best track: the sum of their evidence is highest
/// when the cost of the beam's moves is taken off. A drift costs by its size, a step no more than a constant.
/// A pattern may be left out, which costs its evidence. The track is found by dynamic programming, so that no
/// pattern decides by itself: one that is symmetric about a place between its reflections as well would need
/// two steps for it.
class CentreTrack {
public:
    /// \param patterns  candidates of each pattern in the order of the series
    explicit CentreTrack(std::span<const std::vector<CentreCandidate>> patterns);

    /// Candidate of each pattern; -1 for those that are left out.
    const std::vector<int>& chosen() const { return m_chosen; }
    /// Patterns that take part.
    int count() const { return m_count; }
    double score() const { return m_score; }
    /// The score of the best track that stays clear of this one, over this one's: close to 1, the series
    /// cannot tell them apart.
    double rivalry() const;

private:
    CentreTrack() = default;
    void find(std::span<const std::vector<CentreCandidate>> patterns);

    std::vector<int> m_chosen;
    int m_count = 0;
    double m_score = 0;
    double m_rivalScore = 0;
};

/// Whether the beam moved abruptly between two patterns so many patterns apart.
bool isStep(const PatternCentre& from, const PatternCentre& to, std::size_t patterns);

}  // namespace VRK::detail
