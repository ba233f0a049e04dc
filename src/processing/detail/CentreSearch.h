/// \file
/// The search for the centres of a series.
#pragma once

#include <functional>
#include <vector>

#include "foundation/SharedLoop.h"
#include "processing/ShadowMask.h"
#include "processing/detail/BeamCentre.h"
#include "processing/detail/CentreTrack.h"
#include "processing/detail/Frame.h"
#include "processing/detail/SeriesMean.h"

namespace VRK::detail {

/// Looks at every pattern three times: for its direct beam; where the beams of the series do not make a
/// track, for every place about which the pattern is symmetric; and, when the series has decided, closely at
/// the place where the centre has to be.
class CentreSearch {
public:
    CentreSearch(int width, int height, unsigned patterns, const SeriesMean& mean, const ShadowMask& shadows);

    static constexpr unsigned kLooks = 3;
    /// \param look     0 to kLooks - 1, in this order, each for all patterns in any order
    /// \param pattern  its number
    /// \param lane     calls at the same time have different ones (WorkSharing)
    void look(unsigned look, unsigned pattern, const Frame& frame, std::size_t lane = 0);
    /// When a look has seen all patterns. Patterns that still have no centre are looked at here, one after
    /// the other: where their neighbours' centres came to lie tells where to look. \param frameOf  the frame
    /// of a pattern
    void finishLook(unsigned look, const std::function<Frame(unsigned)>& frameOf);

    /// The centres, when all is done; of source None, all of them, when nothing was found.
    std::vector<PatternCentre> finish();
    /// Whether the series shows enough to tell its centre from others.
    bool isAmbiguous() const { return m_ambiguous; }

private:
    void findBeam(unsigned pattern, const Frame& frame, BeamCentreFinder& finder);
    void addPattern(unsigned pattern, const Frame& frame, BeamCentreFinder& finder);
    void refine(unsigned pattern, const Frame& frame, BeamCentreFinder& finder);
    void decideByBeams();
    void decideByAll();
    void mark();
    /// Makes the centres between two steps doubtful where no beam confirms them, when others have theirs.
    void doubtUnconfirmed();

    BeamCentreFinder m_finder;  ///< has seen the mean of the series
    PerLane<BeamCentreFinder> m_finders;
    std::vector<std::vector<CentreCandidate>> m_candidates;
    std::vector<PatternCentre> m_centres;
    std::vector<PatternCentre> m_refined;  ///< by the last look, where there was a centre before
    std::vector<char> m_sawBeam;           ///< the series decided for the beam that the pattern shows
    bool m_beamsDecide = false;
    bool m_ambiguous = false;
};

}  // namespace VRK::detail
