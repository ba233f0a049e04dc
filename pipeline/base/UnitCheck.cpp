#include "pipeline/base/UnitCheck.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <sstream>
#include <string>

#include "pipeline/base/Failure.h"

namespace vrk {
namespace {

constexpr double kLowestTension = 10.0;  // kV
constexpr double kHighestTension = 3000.0;

template <typename... Parts>
[[noreturn]] void refuse(const Parts&... parts) {
    std::ostringstream text;
    text.precision(4);
    (text << ... << parts);
    throw Failure(text.str(), FailureKind::Usage);
}

struct EdgeRange {
    double shortest;  // Angstrom
    double longest;
};
constexpr EdgeRange kPossible = {1.0, 2000.0};
constexpr EdgeRange kUsual = {2.5, 300.0};

bool areWithin(const EdgeRange& range, const std::array<double, 3>& edges, double scale) {
    const auto [shortest, longest] = std::minmax_element(edges.begin(), edges.end());
    return *longest * scale >= range.shortest && *shortest * scale <= range.longest;
}

}  // namespace

void refuseImpossibleScale(const std::array<double, 3>& edges, double pixelSize) {
    if (areWithin(kPossible, edges, 1.0)) return;
    const struct {
        const char* name;
        double value;
    } readings[] = {{"1/Angstrom", 1e10 * pixelSize},
                    {"1/nm", 1e9 * pixelSize},
                    {"Angstrom", 1e10 / pixelSize},
                    {"nm", 1e9 / pixelSize},
                    {"m", 1.0 / pixelSize}};
    const std::array<double, 3>& e = edges;
    for (const EdgeRange& range : {kUsual, kPossible})
        for (const auto& [name, value] : readings)
            if (areWithin(range, edges, pixelSize / value))
                refuse("with a pixel size of ", pixelSize, " 1/m the edges of the cell are ", e[0], ", ",
                       e[1], " and ", e[2], " Angstrom; ", pixelSize, " looks like ", name,
                       " per pixel, which is --pixel-size ", value);
    refuse("with a pixel size of ", pixelSize, " 1/m the edges of the cell are ", e[0], ", ", e[1], " and ",
           e[2],
           " Angstrom, as no crystal has them; give --pixel-size in 1/m per pixel, 1e7 to 2e8 for most "
           "cameras");
}

void refuseImpossibleVoltage(double kiloVolts, std::optional<double> stated) {
    const auto isTension = [](double value) { return value >= kLowestTension && value <= kHighestTension; };
    if (!isTension(kiloVolts)) {
        if (isTension(kiloVolts / 1000.0))
            refuse("a high tension of ", kiloVolts, " kV looks like volts: give --voltage ",
                   kiloVolts / 1000.0);
        refuse("no microscope has a high tension of ", kiloVolts, " kV; give --voltage in kV, ",
               kLowestTension, " to ", kHighestTension);
    }
    constexpr double mostTimesOff = 5.0;
    if (!stated || !isTension(*stated)) return;
    if (kiloVolts < mostTimesOff * *stated && *stated < mostTimesOff * kiloVolts) return;
    refuse("a high tension of ", kiloVolts, " kV was given, but the series states ", *stated,
           " kV; correct --voltage, or put the series right with 'vrk import --voltage'");
}

void refuseRadians(const std::array<double, 3>& degrees) {
    constexpr double most = std::numbers::pi;
    if (!std::all_of(degrees.begin(), degrees.end(), [](double a) { return a > 0.0 && a < most; })) return;
    constexpr double degree = 180.0 / std::numbers::pi;
    refuse("angles of ", degrees[0], ", ", degrees[1], " and ", degrees[2],
           " degrees look like radians; in degrees they are ", degrees[0] * degree, ", ", degrees[1] * degree,
           " and ", degrees[2] * degree);
}

}  // namespace vrk
