/// \file
/// OpenCV with one thread, for as long as an operation runs.
#pragma once

#include <opencv2/core/utility.hpp>

namespace VRK::detail {

/// The library works in its caller's thread only; the caller's own setting comes back at the end.
class SingleThreadedOpenCV {
public:
    SingleThreadedOpenCV() : m_threads(cv::getNumThreads()) { cv::setNumThreads(1); }
    ~SingleThreadedOpenCV() { cv::setNumThreads(m_threads); }
    SingleThreadedOpenCV(const SingleThreadedOpenCV&) = delete;
    SingleThreadedOpenCV& operator=(const SingleThreadedOpenCV&) = delete;

private:
    int m_threads;
};

}  // namespace VRK::detail
