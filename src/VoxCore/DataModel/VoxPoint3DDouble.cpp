#include "VoxCore/DataModel/VoxPoint3DDouble.h"

#include <sstream>

std::string VoxPoint3DDouble::toString() const {
    std::ostringstream text;
    text << x << ' ' << y << ' ' << z;
    return text.str();
}
