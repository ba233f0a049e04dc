#include "foundation/detail/SingleThreadedOpenCV.h"

#include <mutex>
#include <opencv2/core/utility.hpp>

namespace VRK::detail {
namespace {

/// The setting is the process' own; threads that work at the same time share one change of it.
std::mutex mutex;
int holders = 0;
int before = 0;

}  // namespace

SingleThreadedOpenCV::SingleThreadedOpenCV() {
    const std::lock_guard lock(mutex);
    if (holders++ > 0) return;
    before = cv::getNumThreads();
    cv::setNumThreads(1);
}

SingleThreadedOpenCV::~SingleThreadedOpenCV() {
    const std::lock_guard lock(mutex);
    if (--holders == 0) cv::setNumThreads(before);
}

}  // namespace VRK::detail
