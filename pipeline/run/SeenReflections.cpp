#include "pipeline/run/SeenReflections.h"

#include <Eigen/LU>
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <map>
#include <set>

#include "pipeline/base/Angle.h"

namespace vrk {
namespace {

using Eigen::Vector3d;

Indices conventionalIndices(const Indexed& indexed, const Indices& hkl) {
    const Vector3d turned = indexed.toConventional().transpose() * Vector3d(hkl[0], hkl[1], hkl[2]);
    return {static_cast<int>(std::lround(turned[0])), static_cast<int>(std::lround(turned[1])),
            static_cast<int>(std::lround(turned[2]))};
}

/// Where the frames show what lies in the volume.
class FramePlaces {
public:
    explicit FramePlaces(const ReciprocalVolume& volume) : m_volume(volume) {}

    /// Sets frame, column and row. \param fromOrigin  not corrected, voxels \param tilt  radians
    void set(ListedReflection& one, const Vector3d& fromOrigin, double tilt) const {
        one.tilt = tilt / kDegree;
        if (m_volume.tilts.empty()) return;
        const auto nearest = std::min_element(
            m_volume.tilts.begin(), m_volume.tilts.end(),
            [&](double a, double b) { return std::abs(a - one.tilt) < std::abs(b - one.tilt); });
        const auto frame = static_cast<std::size_t>(nearest - m_volume.tilts.begin());
        one.frame = static_cast<int>(frame) + 1;
        const Eigen::Vector2d place = centreOf(frame) + m_volume.onFrame(fromOrigin, tilt);
        one.column = place.x();
        one.row = place.y();
    }

private:
    Eigen::Vector2d centreOf(std::size_t frame) const {
        if (frame < m_volume.centres.size() && m_volume.centres[frame].source != PatternCentre::Source::None)
            return {m_volume.centres[frame].x, m_volume.centres[frame].y};
        return {0.5 * (m_volume.facts.size[0] - 1), 0.5 * (m_volume.facts.size[1] - 1)};
    }

    const ReciprocalVolume& m_volume;
};

/// One crystal's measured intensities by their indices.
class MeasuredByIndices {
public:
    explicit MeasuredByIndices(const std::optional<Intensities>& intensities) {
        if (!intensities) return;
        for (const Observation& one : intensities->reduction.observations)
            m_observations.emplace(one.hkl, &one);
    }

    /// Null where there is none. What is asked for is used.
    const Observation* use(const Indices& hkl) {
        const auto found = m_observations.find(hkl);
        if (found == m_observations.end()) return nullptr;
        m_used.insert(hkl);
        return found->second;
    }
    std::vector<const Observation*> unused() const {
        std::vector<const Observation*> rest;
        for (const auto& [hkl, observation] : m_observations)
            if (!m_used.contains(hkl)) rest.push_back(observation);
        return rest;
    }

private:
    std::map<Indices, const Observation*> m_observations;
    std::set<Indices> m_used;
};

struct Crystal {
    const Indexed& indexed;
    const std::optional<Intensities>& intensities;
    int number;
};

std::vector<Crystal> crystalsOf(const RunResult& result) {
    std::vector<Crystal> crystals = {{result.indexed, result.intensities, 1}};
    for (const FurtherCrystal& other : result.crystals.others)
        crystals.push_back({other.indexed, other.intensities, crystals.back().number + 1});
    return crystals;
}

/// The list as it grows crystal by crystal.
class ReflectionList {
public:
    explicit ReflectionList(const RunResult& result)
        : m_result(result), m_perVoxel(result.facts().pixelSize * 1e-10), m_places(result.volume) {
        const std::vector<FoundReflection>& found = result.indexed.level.reflections;
        m_list.resize(found.size());
        m_distance.assign(found.size(), std::numeric_limits<double>::infinity());
        for (std::size_t i = 0; i < found.size(); ++i) {
            const FoundReflection& one = found[i];
            m_number.emplace(keyOf(one), i);
            m_list[i].counts = one.intensity;
            m_list[i].cut = one.cut;
            setPlace(m_list[i], result.indexed.refined.positions[i] - result.indexed.lattice().origin);
            m_places.set(m_list[i], one.position - result.volume.centre(), one.tilt);
        }
    }

    /// Gives the reflections near its nodes to a crystal.
    void index(const Crystal& crystal) {
        const RefinedPositions& refined = crystal.indexed.refined;
        const Lattice& lattice = crystal.indexed.lattice();
        const Eigen::Matrix3d inverse = lattice.basis.inverse();
        const std::vector<FoundReflection>& found = crystal.indexed.level.reflections;
        for (std::size_t i = 0; i < found.size(); ++i) {
            const auto number = m_number.find(keyOf(found[i]));
            if (number == m_number.end() || refined.indices[i][0] == kNotIndexed) continue;
            const double distance = distanceToNode(refined.positions[i], lattice, inverse);
            if (!(distance < m_distance[number->second])) continue;
            m_distance[number->second] = distance;
            ListedReflection& one = m_list[number->second];
            one.crystal = crystal.number;
            one.hkl = conventionalIndices(crystal.indexed, refined.indices[i]);
            setPlace(one, refined.positions[i] - lattice.origin);
        }
    }

    /// Adds the intensities of a crystal, and the reflections that have nothing but them.
    void measure(const Crystal& crystal) {
        MeasuredByIndices measured(crystal.intensities);
        for (ListedReflection& one : m_list)
            if (one.crystal == crystal.number)
                if (const Observation* observation = measured.use(one.hkl)) {
                    one.intensity = observation->intensity;
                    one.sigma = observation->sigma;
                }
        for (const Observation* observation : measured.unused())
            m_list.push_back(measuredAlone(crystal, *observation));
    }

    std::vector<ListedReflection> take() { return std::move(m_list); }

private:
    using Key = std::array<double, 3>;
    static Key keyOf(const FoundReflection& one) {
        return {one.voxelCentre.x(), one.voxelCentre.y(), one.voxelCentre.z()};
    }

    void setPlace(ListedReflection& one, const Vector3d& fromOrigin) const {
        one.place = fromOrigin * m_perVoxel;
        one.spacing = 1.0 / one.place.norm();
    }

    ListedReflection measuredAlone(const Crystal& crystal, const Observation& observation) const {
        const IntegratedReflection& measured =
            crystal.intensities->integration.reflections[observation.source];
        ListedReflection one;
        one.hkl = observation.hkl;
        one.crystal = crystal.number;
        one.place = reciprocalBase(crystal.indexed) *
                    Vector3d(observation.hkl[0], observation.hkl[1], observation.hkl[2]);
        one.spacing = observation.spacing;
        one.tilt = measured.tilt;
        const auto frames = static_cast<long>(m_result.volume.tilts.size());
        one.frame = static_cast<int>(std::clamp(std::lround(measured.frame) + 1, 1L, std::max(frames, 1L)));
        // The frames were padded to squares.
        const std::array<int, 3>& size = m_result.facts().size;
        const int edge = std::max(size[0], size[1]);
        one.column = measured.x - 0.5 * (edge - size[0]);
        one.row = measured.y - 0.5 * (edge - size[1]);
        one.intensity = observation.intensity;
        one.sigma = observation.sigma;
        return one;
    }

    const RunResult& m_result;
    double m_perVoxel;  ///< 1/Angstrom
    FramePlaces m_places;
    std::vector<ListedReflection> m_list;
    std::vector<double> m_distance;  ///< from the node, voxels
    std::map<Key, std::size_t> m_number;
};

}  // namespace

Eigen::Matrix3d reciprocalBase(const Indexed& indexed) {
    return indexed.lattice().basis * indexed.toConventional().inverse().transpose() *
           (indexed.lattice().pixelSize * 1e-10);
}

std::vector<ListedReflection> listedReflections(const RunResult& result) {
    ReflectionList list(result);
    const std::vector<Crystal> crystals = crystalsOf(result);
    for (const Crystal& crystal : crystals)
        list.index(crystal);
    for (const Crystal& crystal : crystals)
        list.measure(crystal);
    return list.take();
}

}  // namespace vrk
