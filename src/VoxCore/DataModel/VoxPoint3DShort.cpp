#include "VoxCore/DataModel/VoxPoint3DShort.h"

#include <cmath>
#include <cstdint>
#include <sstream>

int VoxPoint3DShort::ScalProd(const VoxPoint3DShort& other) const {
    std::int64_t sum = 0;
    for (int i = 0; i < kDimensions; ++i)
        sum += std::int64_t{(*this)[i]} * other[i];
    return static_cast<int>(sum);
}

double VoxPoint3DShort::Distance(const VoxPoint3DShort& other) const {
    double sum = 0;
    for (int i = 0; i < kDimensions; ++i) {
        const double difference = (*this)[i] - other[i];
        sum += difference * difference;
    }
    return std::sqrt(sum);
}

bool VoxPoint3DShort::NearBy(const VoxPoint3DShort& other, int distance) const {
    for (int i = 0; i < kDimensions; ++i)
        if (std::fabs(static_cast<float>((*this)[i] - other[i])) > static_cast<float>(distance)) return false;
    return true;
}

std::string VoxPoint3DShort::Print() const {
    std::ostringstream text;
    text << '(' << x << ',' << y << ',' << z << ')';
    return text.str();
}
