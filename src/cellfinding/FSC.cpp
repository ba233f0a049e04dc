#include "cellfinding/FSC.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <span>
#include <sstream>
#include <string>

#include "cellfinding/detail/CellList.h"
#include "cellfinding/detail/ClusterResult.h"
#include "cellfinding/detail/DistanceCounts.h"
#include "cellfinding/detail/PotentialGrid.h"
#include "cellfinding/detail/Trace.h"

namespace {

using VRK::detail::CellList;
using VRK::detail::PotentialGrid;
using Position = CellList::Position;
using Positions = std::vector<Position>;

constexpr double kSmallestRadius = 1.5;  // a voxel blurs every position
constexpr double kLargestRadius = 16.0;
constexpr double kNoiseDistance = 0.75;  // in radii
constexpr double kReach = 1.5;           // of the kernel, in radii

bool refuseFsc(const std::string& why) {
    VRKLogger::getInstance()->log("No FSC clustering: " + why, VRK::Error, VRK::Information);
    return false;
}

Positions positionsOf(CubicGrid<ClusterPoint<double>>& grid) {
    Positions positions;
    positions.reserve(grid.getPoints()->size());
    for (const ClusterPoint<double>* point : *grid.getPoints())
        positions.push_back({point->getData(0), point->getData(1), point->getData(2)});
    return positions;
}

bool isFinite(const Position& p) {
    return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
}

double unitBall(int axes) {
    return axes == 2 ? std::numbers::pi : 4.0 / 3.0 * std::numbers::pi;
}

double extentAlong(const Positions& points, std::size_t axis) {
    double least = points.front()[axis];
    double most = least;
    for (const Position& point : points) {
        least = std::min(least, point[axis]);
        most = std::max(most, point[axis]);
    }
    return most - least;
}

/// How many pairs have which distance, for a selection of the points.
struct Distances {
    static constexpr std::size_t kBins = VRK::detail::DistanceCounts::kBins;
    std::array<double, kBins> pairs{};  // per point
    double reach = 0.0;

    Distances(const Positions& points, double largest, int axes) {
        constexpr std::size_t kSelected = 1000;
        constexpr double kNeighbours = 8000.0;
        double volume = 1.0;
        for (std::size_t axis = 0; axis < static_cast<std::size_t>(axes); ++axis)
            volume *= std::max(1.0, extentAlong(points, axis));
        reach = std::pow(kNeighbours * volume / (unitBall(axes) * static_cast<double>(points.size())),
                         1.0 / axes);
        reach = std::min(reach, largest);
        const CellList cells(points.size(), reach / 5.0, [&](std::size_t i) { return points[i]; });
        VRK::detail::DistanceCounts counts(reach);
        const std::size_t step = std::max<std::size_t>(1, points.size() / kSelected);
        double selected = 0.0;
        for (std::size_t i = 0; i < points.size(); i += step, selected += 1.0)
            counts.addFrom(cells, points[i]);
        for (std::size_t bin = 0; bin < kBins; ++bin)
            pairs[bin] = static_cast<double>(counts.counts()[bin]) / selected;
    }
    double middleOf(std::size_t bin) const { return (static_cast<double>(bin) + 0.5) / kBins * reach; }
};

/// The pairs that a cloud without clusters would have: a density that falls evenly with the distance, as the
/// bounds of a cloud let it, fitted to the distances beyond a fourth of the reach.
std::array<double, Distances::kBins> pairsWithoutClusters(const Distances& distances, int axes) {
    std::array<double, Distances::kBins> volumes{};
    double s0 = 0.0, s1 = 0.0, s2 = 0.0, t0 = 0.0, t1 = 0.0;
    for (std::size_t bin = 0; bin < Distances::kBins; ++bin) {
        const double d = distances.middleOf(bin);
        volumes[bin] = std::pow(d, axes - 1);  // in some unit
        if (bin < Distances::kBins / 4) continue;
        s0 += volumes[bin];
        s1 += volumes[bin] * d;
        s2 += volumes[bin] * d * d;
        t0 += distances.pairs[bin];
        t1 += distances.pairs[bin] * d;
    }
    const double slope = (s0 * t1 - s1 * t0) / (s0 * s2 - s1 * s1);
    const double start = (t0 - slope * s1) / s0;
    for (std::size_t bin = 0; bin < Distances::kBins; ++bin)
        volumes[bin] *= std::max(0.0, start + slope * distances.middleOf(bin));
    return volumes;
}

/// How far, in units of its standard deviation by chance, the mean potential of the points exceeds that of a
/// cloud without clusters; up to a factor.
double contrastAt(const Distances& distances, const std::array<double, Distances::kBins>& even, double radius,
                  int axes) {
    double excess = 0.0;
    for (std::size_t bin = 0; bin < Distances::kBins; ++bin) {
        const double radii = distances.middleOf(bin) / radius;
        excess += (distances.pairs[bin] - even[bin]) * std::exp(-4.0 * radii * radii);
    }
    return excess / std::pow(radius, 0.5 * axes);
}

double bestRadius(const Positions& points, int axes) {
    constexpr double kStep = 1.06;
    const Distances distances(points, kReach * kLargestRadius, axes);
    const auto even = pairsWithoutClusters(distances, axes);
    double best = kSmallestRadius;
    double highest = contrastAt(distances, even, best, axes);
    // The first maximum: large radii see how the density changes over the whole cloud.
    for (double radius = best * kStep; radius <= std::min(kLargestRadius, distances.reach / kReach);
         radius *= kStep) {
        const double contrast = contrastAt(distances, even, radius, axes);
        if (contrast <= highest) break;
        highest = contrast;
        best = radius;
    }
    return best;
}

/// Fuzzy c-means with exponent 2 and a noise class.
class Memberships {
public:
    Memberships(const Positions& points, Positions centres, double radius)
        : m_points(points),
          m_cells(points.size(), 2.0 * radius, [&](std::size_t i) { return points[i]; }),
          m_centres(std::move(centres)),
          m_radius(radius),
          m_sharesOf(points.size()) {}

    /// Moves the centres to the means of their points; how far the farthest moved.
    double update() {
        Positions sums(m_centres.size(), Position{});
        std::vector<double> weights(m_centres.size(), 0.0);
        forEachPoint([&](std::size_t i, std::span<const Share> shares) {
            for (const auto& [centre, membership] : shares) {
                const double weight = membership * membership;
                for (std::size_t k = 0; k < 3; ++k)
                    sums[centre][k] += weight * m_points[i][k];
                weights[centre] += weight;
            }
        });
        double farthest = 0.0;
        for (std::size_t c = 0; c < m_centres.size(); ++c) {
            if (!(weights[c] > 0.0)) continue;
            Position moved = sums[c];
            for (double& x : moved)
                x /= weights[c];
            farthest = std::max(farthest, std::hypot(moved[0] - m_centres[c][0], moved[1] - m_centres[c][1],
                                                     moved[2] - m_centres[c][2]));
            m_centres[c] = moved;
        }
        return farthest;
    }

    const Positions& centres() const { return m_centres; }

    /// The place of the largest membership of every point in the list of centres, counted from 1, or 0 for
    /// the noise; and that membership.
    void classify(std::vector<int>& classes, std::vector<double>& memberships) {
        classes.assign(m_points.size(), 0);
        memberships.assign(m_points.size(), 1.0);
        forEachPoint([&](std::size_t i, std::span<const Share> shares) {
            double noise = 1.0;
            double largest = 0.0;
            for (const auto& [centre, membership] : shares) {
                noise -= membership;
                if (membership <= largest) continue;
                largest = membership;
                classes[i] = static_cast<int>(centre) + 1;
            }
            if (noise >= largest) classes[i] = 0;
            memberships[i] = std::max(noise, largest);
        });
    }

private:
    struct Share {
        std::size_t centre;
        double membership;
    };
    struct SharesOfPoint {
        std::size_t begin;
        std::size_t count;
    };

    /// Calls visit(point, its memberships in the centres within two noise distances), in the order of the
    /// list.
    template <typename Visit>
    void forEachPoint(Visit visit) {
        findShares();
        for (std::size_t i = 0; i < m_points.size(); ++i)
            visit(i, std::span<const Share>(m_shares).subspan(m_sharesOf[i].begin, m_sharesOf[i].count));
    }

    /// Box by box: the points of a box have the same few centres around them.
    void findShares() {
        const double reach = 2.0 * kNoiseDistance * m_radius;
        const double reach2 = VRK::detail::largestSquareWithin(reach);
        const CellList centres(m_centres.size(), reach, [&](std::size_t c) { return m_centres[c]; });
        m_shares.clear();
        for (const CellList::Box& box : m_cells.boxes()) {
            findCentresAround(box, centres, reach);
            for (std::size_t place = box.begin; place < box.end; ++place)
                shareOut(place, centres, reach2);
        }
    }

    /// The places of the centres that a point of a box may reach, ascending.
    void findCentresAround(const CellList::Box& box, const CellList& centres, double reach) {
        Position low = placeOf(box.begin);
        Position high = low;
        for (std::size_t place = box.begin; place < box.end; ++place)
            for (std::size_t k = 0; k < 3; ++k) {
                low[k] = std::min(low[k], placeOf(place)[k]);
                high[k] = std::max(high[k], placeOf(place)[k]);
            }
        m_near.clear();
        centres.forEachStretch(low, high, reach, [&](std::size_t begin, std::size_t end) {
            for (std::size_t place = begin; place < end; ++place) {
                const Position centre{centres.x()[place], centres.y()[place], centres.z()[place]};
                double gap2 = 0.0;
                for (std::size_t k = 0; k < 3; ++k) {
                    const double gap = std::max({0.0, low[k] - centre[k], centre[k] - high[k]});
                    gap2 += gap * gap;
                }
                // The margin exceeds what rounding takes off.
                if (gap2 <= reach * reach * (1.0 + 1e-9)) m_near.push_back(place);
            }
        });
    }

    void shareOut(std::size_t place, const CellList& centres, double reach2) {
        const double noise = kNoiseDistance * m_radius;
        const Position point = placeOf(place);
        const std::size_t begin = m_shares.size();
        double sum = 1.0 / (noise * noise);
        for (const std::size_t near : m_near) {
            const double square = centres.squareDistance(near, point);
            if (!(square <= reach2)) continue;
            const double closeness = 1.0 / std::max(square, 1e-12 * noise * noise);
            m_shares.push_back({centres.index(near), closeness});
            sum += closeness;
        }
        for (std::size_t i = begin; i < m_shares.size(); ++i)
            m_shares[i].membership /= sum;
        m_sharesOf[m_cells.index(place)] = {begin, m_shares.size() - begin};
    }

    Position placeOf(std::size_t place) const {
        return {m_cells.x()[place], m_cells.y()[place], m_cells.z()[place]};
    }

    const Positions& m_points;
    CellList m_cells;
    Positions m_centres;
    double m_radius;
    std::vector<Share> m_shares;
    std::vector<SharesOfPoint> m_sharesOf;  // by point
    std::vector<std::size_t> m_near;        // centres around a box
};

/// Numbers the classes that have points from 1, in their order, as far as labels go; the places of those
/// classes in the list of centres.
std::vector<std::size_t> numberClasses(std::vector<int>& classes, std::size_t count) {
    std::vector<int> labels(count + 1, 0);
    for (const int c : classes)
        labels[static_cast<std::size_t>(c)] = 1;
    std::vector<std::size_t> places;
    labels[0] = 0;
    for (std::size_t c = 1; c < labels.size(); ++c) {
        if (!labels[c]) continue;
        places.push_back(c - 1);
        labels[c] = static_cast<int>(places.size());
    }
    for (int& c : classes) {
        const int label = labels[static_cast<std::size_t>(c)];
        c = label <= VRK::detail::kMostClusters ? label : 0;
    }
    return places;
}

}  // namespace

bool FSC::cluster(CubicGrid<ClusterPoint<double>>* grid, double radius,
                  std::vector<Cluster<Point<double>>*>* clusters, std::vector<ClusterPoint<double>*>* noise,
                  std::vector<double>* memberships, std::vector<DiffVector3D>* centres) {
    const VRK::detail::Trace trace(">> FSC::cluster", "<< FSC::cluster");
    if (!grid || !clusters || !noise) return refuseFsc("there is no grid or no list for the result.");
    if (grid->getNumberOfPoints() < 2) return refuseFsc("there are fewer than two points.");
    const int axes = grid->getDimension();
    if (axes != 2 && axes != 3) return refuseFsc("points need two or three coordinates.");
    if (!(radius >= 0.0) || !std::isfinite(radius)) return refuseFsc("the radius must be 0 or above.");
    const Positions points = positionsOf(*grid);
    if (!std::all_of(points.begin(), points.end(), isFinite))
        return refuseFsc("a point has a coordinate that is no number.");

    constexpr int kSteps = 100, kPotentials = 20, kCentres = 50;
    setSteps(kSteps, "FSC clustering");
    const auto isCanceled = [this] {
        if (!canceled()) return false;
        VRKLogger::getInstance()->log("FSC clustering canceled.", VRK::Warning, VRK::Information);
        return true;
    };
    const bool flat = axes == 2;
    const double smallest = PotentialGrid::smallestRadius(points, flat);
    if (radius == 0.0) radius = std::max(smallest, bestRadius(points, axes));
    if (radius < smallest) {
        std::ostringstream text;
        text << "a radius of " << radius << " is too small for the extent of the points; use at least "
             << smallest << '.';
        return refuseFsc(text.str());
    }
    if (isCanceled()) return false;
    PotentialGrid potentials(points, radius, flat);
    updateStep(kPotentials);

    Positions peaks;
    int step = kPotentials;
    for (PotentialGrid::Peak peak; potentials.nextPeak(peak);) {
        if (isCanceled()) return false;
        peaks.push_back(peak.place);
        // Their number is not known before; the steps come closer and closer to the last of this part.
        const auto share = static_cast<double>(peaks.size()) / (static_cast<double>(peaks.size()) + 50.0);
        const int reached = kPotentials + static_cast<int>(share * (kCentres - kPotentials));
        while (step < reached)
            updateStep(++step);
    }
    Memberships fuzzy(points, std::move(peaks), radius);
    constexpr int kRounds = 10;
    for (int round = 1; round <= kRounds; ++round) {
        if (isCanceled()) return false;
        const double moved = fuzzy.update();
        updateStep(kCentres + round * (kSteps - 1 - kCentres) / kRounds);
        if (moved < 0.01 * radius) break;
    }
    if (isCanceled()) return false;
    std::vector<int> classes;
    std::vector<double> shares;
    fuzzy.classify(classes, shares);
    const std::vector<std::size_t> numbered = numberClasses(classes, fuzzy.centres().size());
    const int count = static_cast<int>(numbered.size());
    VRK::detail::warnOfClusterLimit(count);
    for (std::size_t i = 0; i < classes.size(); ++i)
        (*grid->getPoints())[i]->setClusterID(static_cast<short>(classes[i]));
    VRK::detail::fillClusters(*grid, std::min(count, VRK::detail::kMostClusters), *clusters, *noise);
    if (memberships) *memberships = std::move(shares);
    if (centres) {
        centres->clear();
        for (std::size_t label = 0; label < clusters->size(); ++label) {
            const Position& centre = fuzzy.centres()[numbered[label]];
            centres->emplace_back(centre[0], centre[1], centre[2]);
        }
    }
    updateStep(kSteps);
    return true;
}

double FSC::findRadius(CubicGrid<ClusterPoint<double>>* grid) {
    if (!grid || grid->getNumberOfPoints() < 2) return 0.0;
    const int axes = grid->getDimension();
    const Positions points = positionsOf(*grid);
    if ((axes != 2 && axes != 3) || !std::all_of(points.begin(), points.end(), isFinite)) return 0.0;
    return std::max(PotentialGrid::smallestRadius(points, axes == 2), bestRadius(points, axes));
}
