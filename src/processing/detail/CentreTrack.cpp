#include "processing/detail/CentreTrack.h"

#include <algorithm>
#include <cmath>

namespace VRK::detail {
namespace {

/// Of the drift from one pattern to the next, standard deviation of each coordinate in pixels.
constexpr double kDrift = 0.4;
/// What a step costs, in evidence: more than half of what a pattern may offer, so that one pattern alone
/// never pays for two steps.
constexpr double kStepCost = 1.2;
/// Places of one track and of another one are at least so far apart, pixels.
constexpr double kApart = 3.0;

/// The squared length of a move in units of what drift and uncertainties make likely.
double moveOf(const PatternCentre& from, const PatternCentre& to, std::size_t patterns) {
    const double variance =
        kDrift * kDrift * static_cast<double>(patterns) + from.error * from.error + to.error * to.error;
    return ((to.x - from.x) * (to.x - from.x) + (to.y - from.y) * (to.y - from.y)) / variance;
}

double costOf(const PatternCentre& from, const PatternCentre& to, std::size_t patterns) {
    constexpr double kCostOfMove = 0.1;
    return std::min(kCostOfMove * moveOf(from, to, patterns), kStepCost);
}

struct State {
    double score;
    int pattern = -1, candidate = -1;  ///< before this one
};

}  // namespace

CentreTrack::CentreTrack(std::span<const std::vector<CentreCandidate>> patterns) {
    find(patterns);
    if (m_count == 0) return;
    std::vector<std::vector<CentreCandidate>> others(patterns.begin(), patterns.end());
    PatternCentre last;
    for (std::size_t i = 0; i < others.size(); ++i) {
        if (m_chosen[i] < 0) continue;
        last = patterns[i][static_cast<std::size_t>(m_chosen[i])].centre;
        std::erase_if(others[i], [&](const CentreCandidate& candidate) {
            return std::hypot(candidate.centre.x - last.x, candidate.centre.y - last.y) < kApart;
        });
    }
    CentreTrack rival;
    rival.find(others);
    m_rivalScore = rival.m_score;
}

double CentreTrack::rivalry() const {
    return m_score > 0 ? m_rivalScore / m_score : 1;
}

void CentreTrack::find(std::span<const std::vector<CentreCandidate>> patterns) {
    std::vector<std::vector<State>> states(patterns.size());
    State best{0};
    int last = -1, lastCandidate = -1;
    for (std::size_t i = 0; i < patterns.size(); ++i)
        for (std::size_t k = 0; k < patterns[i].size(); ++k) {
            const CentreCandidate& here = patterns[i][k];
            State state{here.evidence};
            for (std::size_t j = 0; j < i; ++j)
                for (std::size_t m = 0; m < patterns[j].size(); ++m) {
                    const double score = states[j][m].score + here.evidence -
                                         costOf(patterns[j][m].centre, here.centre, i - j);
                    if (score <= state.score) continue;
                    state = {score, static_cast<int>(j), static_cast<int>(m)};
                }
            states[i].push_back(state);
            if (state.score <= best.score) continue;
            best = state;
            last = static_cast<int>(i);
            lastCandidate = static_cast<int>(k);
        }
    m_score = best.score;
    m_chosen.assign(patterns.size(), -1);
    while (last >= 0) {
        const auto pattern = static_cast<std::size_t>(last);
        const auto candidate = static_cast<std::size_t>(lastCandidate);
        m_chosen[pattern] = lastCandidate;
        ++m_count;
        last = states[pattern][candidate].pattern;
        lastCandidate = states[pattern][candidate].candidate;
    }
}

bool isStep(const PatternCentre& from, const PatternCentre& to, std::size_t patterns) {
    constexpr double kLikely = 16;   // four deviations
    constexpr double kSmallest = 2;  // pixels
    return moveOf(from, to, patterns) > kLikely && std::hypot(to.x - from.x, to.y - from.y) > kSmallest;
}

}  // namespace VRK::detail
