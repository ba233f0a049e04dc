#include "pipeline/geometry/ParallelTiltAxisRefinement.h"

#include <cstddef>

#include "foundation/SharedLoop.h"

namespace vrk {

ParallelTiltAxisRefinement::ParallelTiltAxisRefinement(Session& session) : m_session(session) {
    registerObserver(&session.progress());
}

bool ParallelTiltAxisRefinement::stopRequested() const {
    return m_shares ? m_stops.load() : m_session.canceled();
}

void ParallelTiltAxisRefinement::evaluateAngles(const std::vector<float>& angles, const std::string& name,
                                                bool mode3D) {
    if (VRK::lanes() < 2 || angles.size() < 2) {
        VRKTiltAxisRefinement::evaluateAngles(angles, name, mode3D);
        return;
    }
    std::vector<TiltAxisScore> scores(angles.size());
    std::size_t recorded = 0;
    const auto record = [&](std::size_t done) {
        for (; recorded < done; ++recorded) {
            if (!beginAngle(angles[recorded])) return false;
            recordScore(scores[recorded]);
        }
        return true;
    };
    const auto goesOn = [&](std::size_t done) {
        m_stops = m_session.canceled();
        return !m_stops && record(done);
    };
    m_shares = true;
    const bool complete = VRK::shareItems(
        angles.size(),
        [&](std::size_t item, std::size_t) { scores[item] = scoreAngle(angles[item], mode3D); }, goesOn);
    m_shares = false;
    // After a stop the one that beginAngle() notices.
    if (complete || m_session.canceled()) record(complete ? angles.size() : recorded + 1);
}

}  // namespace vrk
