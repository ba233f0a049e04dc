#include "foundation/WorkSharing.h"

namespace VRK {
namespace {

thread_local WorkSharing* current = nullptr;

}  // namespace

WorkSharing::~WorkSharing() = default;

WorkSharing* WorkSharing::ofThisThread() {
    return current;
}

SharedWork::SharedWork(WorkSharing* sharing) : m_before(current) {
    current = sharing;
}

SharedWork::~SharedWork() {
    current = m_before;
}

}  // namespace VRK
