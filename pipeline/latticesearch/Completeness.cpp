#include "pipeline/latticesearch/Completeness.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <set>

namespace vrk {
namespace {

/// A class of nodes is judged from so many on.
constexpr int kFewestNodes = 25;
/// More nodes than this tell nothing new; the limit is drawn in.
constexpr double kMostCounted = 2e6;
/// The box around a sphere of so many.
constexpr double kMostInBox = 5.0 * kMostCounted;
/// Places whose way through the sphere takes longer than this part of a turn per step are blind.
constexpr double kBlindSine = 0.5;

double limitOf(const Lattice& lattice, const std::set<Indices>& found) {
    std::vector<double> lengths;
    lengths.reserve(found.size());
    for (const Indices& hkl : found)
        lengths.push_back((lattice.node(hkl) - lattice.origin).norm());
    if (lengths.empty()) return 0.0;
    const auto place =
        lengths.begin() + static_cast<std::ptrdiff_t>(0.98 * static_cast<double>(lengths.size() - 1));
    std::nth_element(lengths.begin(), place, lengths.end());
    const double most = std::cbrt(kMostCounted * lattice.cellVolume() * 3.0 / (4.0 * std::numbers::pi));
    return nodeBox(lattice.basis.inverse(), std::min(*place, most), kMostInBox).radius;
}

std::size_t shellOf(double length, double limit) {
    const double volume = std::pow(length / limit, 3);
    return std::min(static_cast<std::size_t>(volume * static_cast<double>(Completeness::kShells)),
                    Completeness::kShells - 1);
}

/// Calls back with indices and place of every node but 000 within a radius.
template <typename Use>
void forEachNode(const Lattice& lattice, double radius, Use use) {
    const Indices most = nodeBox(lattice.basis.inverse(), radius, kMostInBox).most;
    for (int h = -most[0]; h <= most[0]; ++h)
        for (int k = -most[1]; k <= most[1]; ++k)
            for (int l = -most[2]; l <= most[2]; ++l) {
                const Eigen::Vector3d place = lattice.basis * Eigen::Vector3d(h, k, l);
                if ((h || k || l) && place.norm() <= radius) use(Indices{h, k, l}, place);
            }
}

void add(NodeCount& count, bool found) {
    ++count.nodes;
    count.found += found ? 1 : 0;
}

double halfRadiusOf(const Completeness& result) {
    for (std::size_t i = Completeness::kShells; i-- > 0;)
        if (result.shells[i].nodes > 0 && result.shells[i].share() >= 0.5)
            return result.limit * std::cbrt(static_cast<double>(i + 1) / Completeness::kShells);
    return 0.0;
}

/// How many shells from the inside belong to the core.
std::size_t coreShells(const Completeness& result) {
    const double best = result.bestShell();
    std::size_t count = 1;
    for (std::size_t i = 0; i < Completeness::kShells; ++i)
        if (result.shells[i].share() >= 0.5 * best) count = i + 1;
    return count;
}

}  // namespace

double RecordedSpace::tiltOf(const Eigen::Vector3d& place, double pixelSize) const {
    constexpr double kNever = std::numeric_limits<double>::quiet_NaN();
    const double perVoxel = pixelSize > 0.0 ? pixelSize * 1e-10 : 0.0;
    const double step = -sense * 0.5 * place.squaredNorm() * wavelength * perVoxel;
    const double fromAxis = std::hypot(place.x(), place.z());
    if (!(std::abs(step) < kBlindSine * fromAxis)) return kNever;
    // Of the two tilts half a turn apart in effect, the one within the reach of a stage.
    const double lift = std::asin(step / fromAxis);
    double tilt = std::atan2(place.z(), place.x()) - lift;
    if (std::cos(tilt) < 0.0) tilt = std::atan2(place.z(), place.x()) - std::numbers::pi + lift;
    tilt = std::remainder(tilt, 2.0 * std::numbers::pi);
    const double u = place.x() * std::cos(tilt) + place.z() * std::sin(tilt);
    const bool onFrame = std::abs(u) < halfWidth - 2.0 && std::abs(place.y()) < halfWidth - 2.0;
    return tilt >= tiltFirst && tilt <= tiltLast && onFrame && place.norm() > zeroBeam ? tilt : kNever;
}

double Completeness::evenness() const {
    double least = 1.0;
    double most = 0.0;
    int judged = 0;
    for (const NodeCount& parity : parities) {
        if (parity.nodes < kFewestNodes) continue;
        ++judged;
        least = std::min(least, parity.share());
        most = std::max(most, parity.share());
    }
    if (judged < 2) return 1.0;
    return most > 0.0 ? least / most : 0.0;
}

double Completeness::bestShell() const {
    double best = 0.0;
    for (const NodeCount& shell : shells)
        if (shell.nodes >= kFewestNodes) best = std::max(best, shell.share());
    return best > 0.0 ? best : all.share();
}

Completeness completenessOf(const Lattice& lattice, std::span<const Indices> indices,
                            const RecordedSpace& space) {
    std::set<Indices> found;
    for (const Indices& hkl : indices)
        if (hkl[0] != kNotIndexed) found.insert(hkl);
    Completeness result;
    result.limit = limitOf(lattice, found);
    if (!(result.limit > 0.0)) return result;

    struct Node {
        std::size_t shell;
        std::size_t parity;
        bool found;
    };
    std::vector<Node> nodes;
    forEachNode(lattice, result.limit, [&](const Indices& hkl, const Eigen::Vector3d& place) {
        if (std::isnan(space.tiltOf(place, lattice.pixelSize))) return;
        const auto parity = static_cast<std::size_t>(4 * (hkl[0] & 1) + 2 * (hkl[1] & 1) + (hkl[2] & 1));
        nodes.push_back({shellOf(place.norm(), result.limit), parity, found.contains(hkl)});
    });
    for (const Node& node : nodes) {
        add(result.shells[node.shell], node.found);
        add(result.all, node.found);
    }
    const std::size_t core = coreShells(result);
    for (const Node& node : nodes) {
        if (node.shell >= core) continue;
        add(result.parities[node.parity], node.found);
        add(result.core, node.found);
    }
    result.halfRadius = halfRadiusOf(result);
    return result;
}

}  // namespace vrk
