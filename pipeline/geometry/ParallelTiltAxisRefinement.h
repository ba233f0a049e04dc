/// \file
/// The tilt-axis search with the candidates of a range shared by processes.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "pipeline/base/Session.h"
#include "tiltaxis/VRKTiltAxisRefinement.h"

namespace vrk {

/// Forks for every range of angles: the prepared series is shared memory then, and the processes send the
/// scores back through pipes. Scores are recorded in the order of the angles, so the answer is that of one
/// process. Angles whose process failed are evaluated by the process of the search.
class ParallelTiltAxisRefinement : public VRKTiltAxisRefinement {
public:
    /// Reports to the session, which must live as long, and stops when it is canceled.
    ParallelTiltAxisRefinement(int jobs, Session& session);

protected:
    bool stopRequested() const override { return m_session.canceled(); }
    void evaluateAngles(const std::vector<float>& angles, const std::string& name, bool mode3D) override;

private:
    struct Worker;
    using Scores = std::vector<std::optional<TiltAxisScore>>;

    Worker startWorker(const std::vector<float>& angles, std::size_t first, std::size_t stride, bool mode3D);
    /// Waits for the next scores. False when all processes have ended.
    static bool collect(std::vector<Worker>& workers, Scores& scores);

    std::size_t m_jobs;
    const Session& m_session;
};

}  // namespace vrk
