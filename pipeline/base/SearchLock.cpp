#include "pipeline/base/SearchLock.h"

namespace vrk {

std::unique_lock<std::mutex> lockSearch() {
    static std::mutex mutex;
    return std::unique_lock(mutex);
}

}  // namespace vrk
