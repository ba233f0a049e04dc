#include "pipeline/base/NumberText.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace vrk {

std::string withUncertainty(double value, double sigma) {
    char text[400];
    if (!(sigma > 0.0) || !std::isfinite(sigma)) {
        std::snprintf(text, sizeof text, "%.6g", value);
        return text;
    }
    const int decimals = std::clamp(-static_cast<int>(std::floor(std::log10(sigma / 1.95))), 0, 9);
    const double digits = std::round(sigma * std::pow(10.0, decimals));
    std::snprintf(text, sizeof text, "%.*f(%.0f)", decimals, value, digits);
    return text;
}

std::string pixelSizeText(double perMetre) {
    return formatted("%.5g 1/Angstrom (%.6g 1/m)", 1e-10 * perMetre, perMetre);
}

}  // namespace vrk
