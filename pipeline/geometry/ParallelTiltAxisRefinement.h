/// \file
/// The tilt-axis search with the candidates of a range shared by threads.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "pipeline/base/Session.h"
#include "tiltaxis/VRKTiltAxisRefinement.h"

namespace vrk {

/// Scores the angles of a range in the lanes of the calling thread (Workers.h). Scores are recorded in the
/// order of the angles, so the answer is that of one lane.
class ParallelTiltAxisRefinement : public VRKTiltAxisRefinement {
public:
    /// Reports to the session, which must live as long, and stops when it is canceled.
    explicit ParallelTiltAxisRefinement(Session& session);

protected:
    bool stopRequested() const override;
    void evaluateAngles(const std::vector<float>& angles, const std::string& name, bool mode3D) override;

private:
    const Session& m_session;
    std::atomic<bool> m_shares = false;  ///< angles are shared by threads, which must not ask the session
    std::atomic<bool> m_stops = false;
};

}  // namespace vrk
