#include "pipeline/integration/RockingModel.h"

#include <cmath>
#include <numbers>

namespace vrk {
namespace {

constexpr double kReach = 3.2;  ///< widths
const double kAreaOfUnitWidth = std::sqrt(2 * std::numbers::pi);

double gauss(double x) {
    return std::exp(-x * x / 2);
}

/// A mean of the normal curve exp(-x^2/2), x = s / w, with its derivatives by s / w (at constant w) and by w
/// (times w, at constant s).
struct Mean {
    double value = 0;
    double byPlace = 0;
    double byScale = 0;
};

Mean at(double x) {
    const double value = gauss(x);
    return {value, -x * value, x * x * value};
}

/// Over x - half ... x + half.
Mean overInterval(double x, double half) {
    if (half < 1e-3) return at(x);
    const double low = x - half;
    const double high = x + half;
    const double area = std::sqrt(std::numbers::pi / 2) *
                        (std::erf(high / std::numbers::sqrt2) - std::erf(low / std::numbers::sqrt2));
    const double gLow = gauss(low);
    const double gHigh = gauss(high);
    const double norm = 1 / (2 * half);
    return {area * norm, (gHigh - gLow) * norm, (area + low * gLow - high * gHigh) * norm};
}

/// Over the circle x + amplitude cos(phase).
Mean overCircle(double x, double amplitude) {
    constexpr int kSteps = 48;
    Mean sum;
    for (int i = 0; i < kSteps; ++i) {
        const Mean one = at(x + amplitude * std::cos((i + 0.5) * std::numbers::pi / kSteps));
        sum.value += one.value / kSteps;
        sum.byPlace += one.byPlace / kSteps;
        sum.byScale += one.byScale / kSteps;
    }
    return sum;
}

}  // namespace

double RockingModel::widthAt(double length) const {
    return std::hypot(width, mosaicity * length);
}

RockingModel::Share RockingModel::share(double excitation, double rate, double length,
                                        double rotation) const {
    const double w = widthAt(length);
    const double x = excitation / w;
    const Mean mean =
        mode == RotationMode::Continuous
            ? overInterval(x, std::abs(rate) * rotation / (2 * w))
            : (mode == RotationMode::Precession ? overCircle(x, length * precession / w) : at(x));
    const double height = width / w;
    const double byW = height / w * (mean.byScale - mean.value);
    return {height * mean.value, height / w * mean.byPlace, mean.value / w + byW * width / w,
            byW * mosaicity * length * length / w};
}

double RockingModel::reach(double rate, double length, double rotation) const {
    double sweep = 0;
    if (mode == RotationMode::Continuous) sweep = std::abs(rate) * rotation / 2;
    if (mode == RotationMode::Precession) sweep = length * precession;
    return kReach * widthAt(length) + sweep;
}

double RockingModel::coverage(double share, double rate, double rotation) const {
    return share * std::abs(rate) * rotation / (width * kAreaOfUnitWidth);
}

}  // namespace vrk
