#include "console/AxisOption.h"

#include <cmath>
#include <cstdlib>

namespace vrk::app {

std::string axisProblem(const std::string& text) {
    if (text == "search" || text == "none") return {};
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (!text.empty() && *end == '\0' && std::abs(value) <= 360.0) return {};
    return "the tilt axis is an angle in degrees, 'search' or 'none', not '" + text + "'";
}

void setAxis(AxisChoice& choice, const std::string& text) {
    if (text.empty()) return;
    if (text == "search") {
        choice.source = AxisChoice::Source::Search;
    } else if (text == "none") {
        choice.source = AxisChoice::Source::AlongY;
    } else {
        choice.source = AxisChoice::Source::Given;
        choice.angle = std::strtod(text.c_str(), nullptr);
    }
}

}  // namespace vrk::app
