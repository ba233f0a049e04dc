#include "pipeline/report/SectionViews.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <iterator>
#include <numeric>
#include <utility>
#include <vector>

#include "foundation/SharedLoop.h"
#include "pipeline/base/Angle.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/report/PackedArray.h"
#include "visualisation/ReciprocalSection.h"

namespace vrk {
namespace {

using Eigen::Vector3d;

constexpr int kMostSize = 360;
constexpr int kMostLevel = 6;
constexpr int kReach = 1;  ///< voxels on either side of a layer, of which the brightest counts
/// Pixels between those of which it is asked whether they were recorded; where neighbours differ, all are.
constexpr int kMaskStep = 4;
/// Of the packed pictures together: with reflections and program the page stays below 3 MB.
constexpr std::size_t kMostSectionBytes = 1'700'000;
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
    GreyScale(double noise, double top) {
        const double factor = kBrightest / std::log1p(top / noise);
        // Counts before which a grey ends.
        const auto endOf = [&](int grey) {
            return static_cast<float>(noise * std::expm1((grey + 0.5) / factor));
        };
        int grey = 0;
        float end = endOf(grey);
        for (std::size_t counts = 0; counts < m_grey.size(); ++counts) {
            while (grey < static_cast<int>(kBrightest) && !(static_cast<float>(counts) < end))
                end = endOf(++grey);
            m_grey[counts] = static_cast<unsigned char>(1 + grey);
        }
    }

    /// \param counts  not negative
    unsigned char of(short counts) const { return m_grey[static_cast<std::size_t>(counts)]; }

private:
    std::array<unsigned char, 32768> m_grey{};
};

/// The voxels of a volume, slice by slice, y fastest.
struct VolumeSlices {
    std::vector<const short*> voxels;
    unsigned width, height;
    Vector3d origin;  ///< half a voxel on, so that the whole part of a place is that of the nearest voxel

    explicit VolumeSlices(const ReciprocalVolume& volume)
        : width(volume.voxels->GetWidth()),
          height(volume.voxels->GetHeight()),
          origin(volume.centre() + Vector3d::Constant(0.5)) {
        for (unsigned z = 0; z < volume.voxels->GetDepth(); ++z)
            voxels.push_back(volume.voxels->GetChunkPointer(z));
    }

    /// The nearest voxel; 0 outside.
    short nearest(const Vector3d& place) const {
        // What is negative becomes too large.
        const auto x = static_cast<unsigned>(static_cast<int>(place.x()));
        const auto y = static_cast<unsigned>(static_cast<int>(place.y()));
        const auto z = static_cast<unsigned>(static_cast<int>(place.z()));
        if (x >= width || y >= height || z >= voxels.size()) return 0;
        return voxels[z][static_cast<std::size_t>(x) * height + y];
    }
};

class SectionWriter {
public:
    explicit SectionWriter(const RunResult& result)
        : m_volume(result.volume),
          m_base(result.indexed.lattice().basis * result.indexed.toConventional().inverse().transpose()),
          m_radius(radiusOf(result)),
          m_size(sizeOf(m_radius)),
          m_noise(result.volume.noise.typicalVoxelSigma()),
          m_top(topOf(result.indexed.level)),
          m_grey(m_noise, m_top),
          m_slices(m_volume) {
        for (std::size_t i = 0; i < kPlanes.size(); ++i)
            ReciprocalSection::parsePlane(kPlanes[i], m_planes[i]);
    }

    std::string text() const {
        std::array<std::string, kPlanes.size()> layers;
        addLayers(layers);
        std::string text = formatted("{\"size\":%d,\"radius\":%.6g,\"top\":%.6g,\"noise\":%.6g,\"planes\":[",
                                     m_size, m_radius * m_volume.facts.pixelSize * 1e-10, m_top, m_noise);
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
    /// No finer than the voxels.
    static int sizeOf(double radius) {
        const int voxels = static_cast<int>(2.0 * radius);
        return std::clamp(voxels - voxels % kMaskStep, 16 * kMaskStep, kMostSize);
    }
    /// Brighter than all but few reflections.
    static double topOf(const Level& level) { return std::max(40.0 * level.threshold, 100.0); }

    struct Picture {
        std::size_t plane;
        int level;
        std::string data = {};
    };

    /// The layers through the origin, then those on either side, of every plane that has them.
    std::vector<Picture> picturesToDraw() const {
        std::vector<Picture> pictures;
        for (int level = 0; level <= kMostLevel; ++level)
            for (std::size_t i = 0; i < kPlanes.size(); ++i) {
                const PlaneFrame frame(m_base, m_planes[i]);
                if (level * std::abs(frame.layer) > 0.9 * m_radius) continue;
                pictures.push_back({i, level});
                if (level > 0) pictures.push_back({i, -level});
            }
        return pictures;
    }

    /// As many as there is room for.
    void addLayers(std::array<std::string, kPlanes.size()>& layers) const {
        std::vector<Picture> pictures = picturesToDraw();
        std::vector<std::atomic<std::size_t>> sizes(pictures.size());
        const auto isFull = [&](std::size_t i) {
            return std::accumulate(sizes.begin(), sizes.begin() + static_cast<std::ptrdiff_t>(i),
                                   std::size_t{0}) > kMostSectionBytes;
        };
        VRK::shareItems(pictures.size(), [&](std::size_t i, std::size_t) {
            // Those before that are still being drawn count as nothing: what there is room for is never left
            // out.
            if (isFull(i)) return;
            Picture& picture = pictures[i];
            picture.data = packedBytes(greyValues(picture.level, PlaneFrame(m_base, m_planes[picture.plane])),
                                       PackedContent::Picture);
            sizes[i] = picture.data.size();
        });
        for (std::size_t i = 0; i < pictures.size() && !isFull(i); ++i) {
            std::string& text = layers[pictures[i].plane];
            text += formatted("%s{\"level\":%d,\"data\":\"", text.empty() ? "" : ",", pictures[i].level) +
                    pictures[i].data + "\"}";
        }
    }

    /// The places of the pixels of a layer.
    struct Layer {
        const PlaneFrame& frame;
        Vector3d centre;
        double step;
        double middle;

        Vector3d at(int column, int row) const {
            return centre + step * ((column - middle) * frame.right + (middle - row) * frame.up);
        }
    };

    std::vector<unsigned char> greyValues(int level, const PlaneFrame& frame) const {
        const Layer layer = {frame, level * frame.layer * frame.normal, 2.0 * m_radius / m_size,
                             0.5 * (m_size - 1)};
        std::vector<unsigned char> grey(pixels(m_size), 0);
        const int cells = m_size / kMaskStep;
        std::vector<bool> above = cornersOf(layer, 0), below;
        for (int row = 0; row < cells; ++row, above = std::move(below)) {
            below = cornersOf(layer, row + 1);
            for (std::size_t i = 0; i + 1 < above.size(); ++i) {
                const int recorded = above[i] + above[i + 1] + below[i] + below[i + 1];
                if (recorded > 0)
                    fillCell(layer, static_cast<int>(i) * kMaskStep, row * kMaskStep, recorded < 4, grey);
            }
        }
        return grey;
    }

    /// Of so many rows.
    std::size_t pixels(int rows) const {
        return static_cast<std::size_t>(rows) * static_cast<std::size_t>(m_size);
    }

    /// Whether the corners of the cells along a row were recorded.
    std::vector<bool> cornersOf(const Layer& layer, int row) const {
        std::vector<bool> corners;
        for (int column = 0; column <= m_size; column += kMaskStep)
            corners.push_back(isRecorded(layer.at(column, row * kMaskStep)));
        return corners;
    }

    void fillCell(const Layer& layer, int left, int top, bool askEach,
                  std::vector<unsigned char>& grey) const {
        for (int row = top; row < top + kMaskStep; ++row)
            for (int column = left; column < left + kMaskStep; ++column) {
                const Vector3d place = layer.at(column, row);
                if (askEach && !isRecorded(place)) continue;
                grey[pixels(row) + static_cast<std::size_t>(column)] =
                    m_grey.of(brightestAt(place, layer.frame.normal));
            }
    }

    /// The brightest of the voxels that a short line along the normal passes.
    short brightestAt(const Vector3d& fromOrigin, const Vector3d& normal) const {
        const Vector3d start = m_slices.origin + fromOrigin - kReach * normal;
        short brightest = 0;
        for (int i = 0; i <= 2 * kReach; ++i)
            brightest = std::max(brightest, m_slices.nearest(start + i * normal));
        return brightest;
    }

    bool isRecorded(const Vector3d& fromOrigin) const {
        const double radius = std::hypot(fromOrigin.x(), fromOrigin.z());
        const double half = 0.5 * m_slices.width;
        if (radius > half || std::abs(fromOrigin.y()) > half) return false;
        // The axis itself every pattern shows.
        const double tilt = radius < 1.5 ? 0.0 : std::atan(fromOrigin.z() / fromOrigin.x());
        const std::vector<double>& tilts = m_volume.tilts;
        const auto upper = std::lower_bound(tilts.begin(), tilts.end(), tilt / kDegree);
        if (radius >= 1.5 && (upper == tilts.end() || tilt / kDegree < m_volume.facts.tiltFirst))
            return false;
        const Eigen::Vector2d place = m_volume.onFrame(fromOrigin, tilt);
        if (std::max(std::abs(place.x()), std::abs(place.y())) > half) return false;
        const auto pattern = static_cast<unsigned>(std::min(upper, std::prev(tilts.end())) - tilts.begin());
        const double middle = 0.5 * (m_volume.recorded.width() - 1.0);
        return !m_volume.recorded.isCut(pattern, place.x() + middle, place.y() + middle, 0.0);
    }

    const ReciprocalVolume& m_volume;
    Eigen::Matrix3d m_base;  ///< conventional, voxels
    double m_radius;         ///< voxels
    int m_size;              ///< pixels of an edge
    double m_noise;
    double m_top;
    GreyScale m_grey;
    VolumeSlices m_slices;
    std::array<ReciprocalSection::Settings, kPlanes.size()> m_planes;
};

}  // namespace

std::string sectionViews(const RunResult& result) {
    return SectionWriter(result).text();
}

}  // namespace vrk
