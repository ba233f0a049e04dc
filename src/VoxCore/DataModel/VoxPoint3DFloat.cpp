#include "VoxCore/DataModel/VoxPoint3DFloat.h"

#include <sstream>

std::string VoxPoint3DFloat::toString() const {
    std::ostringstream text;
    text << x << ' ' << y << ' ' << z;
    return text.str();
}
