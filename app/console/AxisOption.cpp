#include "console/AxisOption.h"

#include <cmath>
#include <cstdlib>

namespace vrk::app {

namespace {

/// What is wrong with the value of the option; empty when nothing is.
std::string problemOfAxis(const std::string& text) {
    if (text == "search" || text == "none") return {};
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (!text.empty() && *end == '\0' && std::abs(value) <= 360.0) return {};
    return "the tilt axis is an angle in degrees, 'search' or 'none', not '" + text + "'";
}

}  // namespace

void addAxisOption(Command& command, std::string& text) {
    command
        .option("--tilt-axis", text,
                "Angle of the tilt axis from y in degrees, 'search', or 'none' for an axis along y "
                "[what the series says, otherwise along y]")
        .check(problemOfAxis)
        .typeName("DEG|search|none");
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
