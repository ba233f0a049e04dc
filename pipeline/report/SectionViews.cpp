#include "pipeline/report/SectionViews.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "pipeline/base/NumberText.h"
#include "pipeline/report/PackedArray.h"
#include "visualisation/ReciprocalSection.h"

namespace vrk {
namespace {

using Eigen::Vector3d;

constexpr int kSize = 400;
constexpr int kMostLevel = 12;
/// Of the packed pictures together: with reflections and program the page stays below 3 MB.
constexpr std::size_t kMostBytes = 1'700'000;
constexpr double kBrightest = 62.0;
constexpr std::array<const char*, 3> kPlanes = {"hk0", "h0l", "0kl"};

/// The axes of a picture in the volume.
struct PlaneFrame {
    Vector3d right, up, normal;
    double layer = 0.0;  ///< distance between layers, voxels

    PlaneFrame(const Eigen::Matrix3d& base, const ReciprocalSection::Settings& plane) {
        const auto node = [&](const std::array<int, 3>& hkl) -> Vector3d {
            return base * Vector3d(hkl[0], hkl[1], hkl[2]);
        };
        right = node(plane.u).normalized();
        normal = node(plane.u).cross(node(plane.v)).normalized();
        up = normal.cross(right);
        layer = normal.dot(node(plane.w));
    }
};

/// Counts as the grey values of a byte.
class GreyScale {
public:
    GreyScale(double noise, double top) : m_noise(noise), m_factor(kBrightest / std::log1p(top / noise)) {}

    unsigned char of(float counts) const {
        const double value = m_factor * std::log1p(std::max(static_cast<double>(counts), 0.0) / m_noise);
        return static_cast<unsigned char>(1 + std::lround(std::min(value, kBrightest)));
    }

private:
    double m_noise;
    double m_factor;
};

class SectionWriter {
public:
    explicit SectionWriter(const RunResult& result)
        : m_volume(result.volume),
          m_base(result.indexed.lattice().basis * result.indexed.toConventional().inverse().transpose()),
          m_radius(radiusOf(result)),
          m_noise(std::max(result.volume.noise.typicalVoxelSigma(), 0.5)),
          m_top(topOf(result.indexed.level)),
          m_grey(m_noise, m_top),
          m_section(*m_volume.voxels, result.indexed.conventionalCell(), originOf(m_volume)) {
        for (std::size_t i = 0; i < kPlanes.size(); ++i)
            ReciprocalSection::parsePlane(kPlanes[i], m_planes[i]);
    }

    std::string text() {
        std::array<std::string, kPlanes.size()> layers;
        for (int level = 0; level <= kMostLevel; ++level)
            for (std::size_t i = 0; i < kPlanes.size(); ++i)
                addLayers(m_planes[i], level, layers[i]);
        std::string text = formatted("{\"size\":%d,\"radius\":%.6g,\"top\":%.6g,\"noise\":%.6g,\"planes\":[",
                                     kSize, m_radius * m_volume.facts.pixelSize * 1e-10, m_top, m_noise);
        for (std::size_t i = 0; i < kPlanes.size(); ++i) {
            const ReciprocalSection::Settings& plane = m_planes[i];
            const auto indices = [](const std::array<int, 3>& hkl) {
                return formatted("[%d,%d,%d]", hkl[0], hkl[1], hkl[2]);
            };
            text += (i > 0 ? ",{\"name\":\"" : "{\"name\":\"") + std::string(kPlanes[i]) +
                    "\",\"u\":" + indices(plane.u) + ",\"v\":" + indices(plane.v) +
                    ",\"w\":" + indices(plane.w) + ",\"layers\":[" + layers[i] + "]}";
        }
        return text + "]}";
    }

private:
    /// A little beyond the farthest reflections.
    static double radiusOf(const RunResult& result) {
        const double edge = 0.5 * result.volume.voxels->GetWidth();
        if (!(result.indexed.resolution > 0.0)) return edge;
        return std::min(edge, 1.06 * 1e10 / (result.indexed.resolution * result.facts().pixelSize));
    }
    /// Brighter than all but few reflections.
    static double topOf(const Level& level) { return std::max(40.0 * level.threshold, 100.0); }
    static std::array<double, 3> originOf(const ReciprocalVolume& volume) {
        const Vector3d centre = volume.centre();
        return {centre.x(), centre.y(), centre.z()};
    }

    /// The layers on either side.
    void addLayers(ReciprocalSection::Settings plane, int level, std::string& layers) {
        const PlaneFrame frame(m_base, plane);
        if (level * std::abs(frame.layer) > 0.9 * m_radius) return;
        for (const int side : {1, -1}) {
            if ((level == 0 && side < 0) || m_bytes > kMostBytes) continue;
            plane.level = side * level;
            plane.size = kSize;
            plane.radius = m_radius;
            const std::string data = packedBytes(greyValues(plane, frame), PackedContent::Picture);
            m_bytes += data.size();
            layers += formatted("%s{\"level\":%d,\"data\":\"", layers.empty() ? "" : ",", plane.level) +
                      data + "\"}";
        }
    }

    std::vector<unsigned char> greyValues(const ReciprocalSection::Settings& plane,
                                          const PlaneFrame& frame) const {
        const PlaneImage image = m_section.sample(plane);
        std::vector<unsigned char> grey(static_cast<std::size_t>(kSize) * kSize, 0);
        if (image.width != kSize) return grey;
        const double step = 2.0 * m_radius / kSize;
        const double middle = 0.5 * (kSize - 1);
        const Vector3d centre = m_volume.centre() + plane.level * frame.layer * frame.normal;
        for (int row = 0; row < kSize; ++row)
            for (int column = 0; column < kSize; ++column) {
                const float counts = image.at(column, row);
                const Vector3d place =
                    centre + step * ((column - middle) * frame.right + (middle - row) * frame.up);
                if (std::isfinite(counts) && isRecorded(place))
                    grey[static_cast<std::size_t>(row) * kSize + static_cast<std::size_t>(column)] =
                        m_grey.of(counts);
            }
        return grey;
    }

    bool isRecorded(const Vector3d& place) const {
        const double x = place.x() - m_volume.centre().x();
        const double z = place.z() - m_volume.centre().z();
        if (std::hypot(x, z) > 0.5 * m_volume.voxels->GetWidth()) return false;
        // Close to the axis every tilt is.
        if (std::hypot(x, z) < 1.5) return true;
        const double tilt = std::atan(z / x) * 180.0 / 3.14159265358979;
        return tilt >= m_volume.facts.tiltFirst && tilt <= m_volume.facts.tiltLast;
    }

    const ReciprocalVolume& m_volume;
    Eigen::Matrix3d m_base;  ///< conventional, voxels
    double m_radius;         ///< voxels
    double m_noise;
    double m_top;
    GreyScale m_grey;
    ReciprocalSection m_section;
    std::array<ReciprocalSection::Settings, kPlanes.size()> m_planes;
    std::size_t m_bytes = 0;
};

}  // namespace

std::string sectionViews(const RunResult& result) {
    return SectionWriter(result).text();
}

}  // namespace vrk
