#include "pipeline/run/Advice.h"

namespace vrk {

std::string whatToTry() {
    return "try --tilt-axis search if the axis angle is not certain, another --threshold, or check pattern "
           "centre and tilt angles";
}

}  // namespace vrk
