#include "processing/detail/CentreSearch.h"

#include <algorithm>
#include <cmath>

#include "foundation/detail/Median.h"

namespace VRK::detail {
namespace {

/// The beams decide when so many patterns show theirs on one track.
constexpr double kBeamsThatDecide = 0.7;
/// Less symmetric surroundings are those of a reflection: on a zone axis one may stay bright all along.
constexpr double kSymmetryOfBeams = 0.7;
/// A beam off the track has really moved when it is about as symmetric as those on it.
constexpr double kAsSymmetric = 0.8;
/// The series does not tell two tracks apart when one has so much of the other's evidence.
constexpr double kAmbiguous = 0.9;

}  // namespace

CentreSearch::CentreSearch(int width, int height, unsigned patterns, const SeriesMean& mean,
                           const ShadowMask& shadows)
    : m_finder(width, height, shadows),
      m_finders([this] { return m_finder.another(); }),
      m_candidates(patterns),
      m_centres(patterns) {
    m_finder.learnHalo(mean);
}

void CentreSearch::look(unsigned look, unsigned pattern, const Frame& frame, std::size_t lane) {
    BeamCentreFinder& finder = m_finders[lane];
    if (look == 0)
        findBeam(pattern, frame, finder);
    else if (look == 2)
        refine(pattern, frame, finder);
    else if (!m_beamsDecide)
        addPattern(pattern, frame, finder);
}

void CentreSearch::finishLook(unsigned look, const std::function<Frame(unsigned)>& frameOf) {
    if (look == 0) decideByBeams();
    if (look == 1 && !m_beamsDecide) decideByAll();
    if (look < 2) {
        m_refined = m_centres;
        m_sawBeam.clear();
        for (const PatternCentre& centre : m_centres)
            m_sawBeam.push_back(centre.source == PatternCentre::Source::Beam ? 1 : 0);
        return;
    }
    for (unsigned pattern = 0; pattern < m_centres.size(); ++pattern) {
        PatternCentre& centre = m_centres[pattern];
        if (centre.found())
            centre = m_refined[pattern];
        else if (const auto expected = interpolatedCentre(m_centres, pattern))
            centre = m_finder.findPatternNear(frameOf(pattern), *expected);
    }
}

void CentreSearch::findBeam(unsigned pattern, const Frame& frame, BeamCentreFinder& finder) {
    const BeamCentre beam = finder.findBeam(frame);
    if (beam.found() && beam.symmetry > 0) m_candidates[pattern].push_back({beam, beam.symmetry});
}

void CentreSearch::addPattern(unsigned pattern, const Frame& frame, BeamCentreFinder& finder) {
    constexpr double kSame = 3.0;  // pixels
    std::vector<CentreCandidate>& known = m_candidates[pattern];
    for (const CentreCandidate& candidate : finder.patternCandidates(frame)) {
        const auto same = std::find_if(known.begin(), known.end(), [&](const CentreCandidate& other) {
            return std::hypot(other.centre.x - candidate.centre.x, other.centre.y - candidate.centre.y) <
                   kSame;
        });
        if (same == known.end())
            known.push_back(candidate);
        else
            same->evidence += candidate.evidence;
    }
}

void CentreSearch::decideByBeams() {
    const CentreTrack track(m_candidates);
    std::vector<double> symmetries;
    for (std::size_t i = 0; i < m_centres.size(); ++i)
        if (track.chosen()[i] >= 0) symmetries.push_back(m_candidates[i].front().centre.symmetry);
    const double typical = symmetries.empty() ? 0.0 : medianOf(symmetries);
    m_beamsDecide = track.count() > kBeamsThatDecide * static_cast<double>(m_centres.size()) &&
                    typical > kSymmetryOfBeams;
    if (!m_beamsDecide) return;
    for (std::size_t i = 0; i < m_centres.size(); ++i)
        if (track.chosen()[i] >= 0) m_centres[i] = m_candidates[i].front().centre;
    for (std::size_t i = 0; i < m_centres.size(); ++i) {
        if (m_centres[i].found() || m_candidates[i].empty()) continue;
        const PatternCentre& beam = m_candidates[i].front().centre;
        if (beam.symmetry > kAsSymmetric * typical) m_centres[i] = beam;
    }
}

void CentreSearch::decideByAll() {
    const CentreTrack track(m_candidates);
    for (std::size_t i = 0; i < m_centres.size(); ++i)
        if (const int chosen = track.chosen()[i]; chosen >= 0)
            m_centres[i] = m_candidates[i][static_cast<std::size_t>(chosen)].centre;
    m_ambiguous = track.rivalry() > kAmbiguous;
}

void CentreSearch::refine(unsigned pattern, const Frame& frame, BeamCentreFinder& finder) {
    PatternCentre& centre = m_refined[pattern];
    constexpr double kGood = 0.045;  // pixels
    if (centre.source != PatternCentre::Source::Beam) {
        if (centre.found()) centre = finder.findPatternNear(frame, {centre.x, centre.y});
    } else if (centre.error > kGood) {
        centre = finder.improveWithPattern(frame, centre);
    }
}

std::vector<PatternCentre> CentreSearch::finish() {
    if (completeFromNeighbours(m_centres)) mark();
    return m_centres;
}

void CentreSearch::mark() {
    constexpr double kSure = 0.5;  // pixels
    constexpr std::size_t kFarNeighbour = 3;
    std::optional<std::size_t> before;
    for (std::size_t i = 0; i < m_centres.size(); ++i) {
        PatternCentre& centre = m_centres[i];
        centre.doubtful = m_ambiguous || centre.error > kSure;
        if (!centre.found()) continue;
        const bool far = before ? i - *before > kFarNeighbour : i > kFarNeighbour;
        const bool step = before && isStep(m_centres[*before], centre, i - *before);
        centre.jumped = step;
        for (std::size_t k = before ? *before + 1 : 0; k < i; ++k)
            m_centres[k].doubtful = m_centres[k].doubtful || far || step;
        before = i;
    }
    for (std::size_t k = before ? *before + 1 : 0; k < m_centres.size(); ++k)
        if (k - before.value_or(0) > kFarNeighbour) m_centres[k].doubtful = true;
    doubtUnconfirmed();
}

void CentreSearch::doubtUnconfirmed() {
    if (std::count(m_sawBeam.begin(), m_sawBeam.end(), 1) == 0) return;
    for (std::size_t begin = 0; begin < m_centres.size();) {
        std::size_t end = begin + 1;
        while (end < m_centres.size() && !m_centres[end].jumped)
            ++end;
        const auto saw = m_sawBeam.begin() + static_cast<std::ptrdiff_t>(begin);
        const bool confirmed = std::count(saw, saw + static_cast<std::ptrdiff_t>(end - begin), 1) > 0;
        for (; begin < end; ++begin)
            m_centres[begin].doubtful = m_centres[begin].doubtful || !confirmed;
    }
}

}  // namespace VRK::detail
