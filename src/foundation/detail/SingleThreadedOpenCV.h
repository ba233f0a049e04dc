/// \file
/// OpenCV with one thread, for as long as an operation runs.
#pragma once

namespace VRK::detail {

/// The library works in its caller's thread only; the caller's own setting comes back at the end, when
/// several threads hold one with the last of them.
class SingleThreadedOpenCV {
public:
    SingleThreadedOpenCV();
    ~SingleThreadedOpenCV();
    SingleThreadedOpenCV(const SingleThreadedOpenCV&) = delete;
    SingleThreadedOpenCV& operator=(const SingleThreadedOpenCV&) = delete;
};

}  // namespace VRK::detail
