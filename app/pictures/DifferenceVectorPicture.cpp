#include "pictures/DifferenceVectorPicture.h"

#include <array>
#include <cmath>

#include "pictures/Pictures.h"

namespace vrk::app {
namespace {

using Eigen::Vector3d;

constexpr int kPanel = 420;
/// So many points make a clear picture and no long wait.
constexpr std::size_t kMostPoints = 4000;

/// The axes that run to the right and downwards in each panel.
constexpr std::array<std::array<int, 2>, 3> kPanels = {{{0, 1}, {0, 2}, {2, 1}}};
constexpr std::array<const char*, 3> kAxes = {"x", "y", "z"};

class Picture {
public:
    explicit Picture(double maxLength)
        : image(kPanel * static_cast<int>(kPanels.size()), kPanel), m_scale(0.48 * kPanel / maxLength) {}

    void add(const Vector3d& vector) {
        for (std::size_t panel = 0; panel < kPanels.size(); ++panel) {
            const int x = static_cast<int>(std::lround(placeX(panel, vector)));
            const int y = static_cast<int>(std::lround(placeY(panel, vector)));
            if (x >= 0 && y >= 0 && x < image.width && y < image.height) image.at(x, y) += 1.0F;
        }
    }
    void mark(const Vector3d& vector) {
        for (std::size_t panel = 0; panel < kPanels.size(); ++panel)
            overlay.nodes.push_back({placeX(panel, vector), placeY(panel, vector)});
    }
    void labelAxes() {
        for (std::size_t panel = 0; panel < kPanels.size(); ++panel) {
            const double left = kPanel * static_cast<double>(panel) + 12.0;
            const double top = kPanel - 62.0;
            overlay.lines.push_back(
                {left, top, left + 40.0, top, kAxes[static_cast<std::size_t>(kPanels[panel][0])]});
            overlay.lines.push_back(
                {left, top, left, top + 40.0, kAxes[static_cast<std::size_t>(kPanels[panel][1])]});
        }
    }

    PlaneImage image;
    ImageOverlay overlay;

private:
    double placeX(std::size_t panel, const Vector3d& v) const {
        return kPanel * (static_cast<double>(panel) + 0.5) + m_scale * v[kPanels[panel][0]];
    }
    double placeY(std::size_t panel, const Vector3d& v) const {
        return 0.5 * kPanel + m_scale * v[kPanels[panel][1]];
    }

    double m_scale;
};

}  // namespace

void writeDifferenceVectorPicture(const Points& points, const Lattice& lattice, double maxLength,
                                  const std::filesystem::path& path) {
    Picture picture(maxLength);
    const std::size_t count = std::min(points.size(), kMostPoints);
    for (std::size_t i = 0; i < count; ++i)
        for (std::size_t j = i + 1; j < count; ++j) {
            const Vector3d difference = points[j] - points[i];
            if (difference.squaredNorm() >= maxLength * maxLength) continue;
            picture.add(difference);
            picture.add(-difference);
        }
    const int most = std::min(40, static_cast<int>(maxLength / lattice.shortestEdge()) + 2);
    for (int h = -most; h <= most; ++h)
        for (int k = -most; k <= most; ++k)
            for (int l = -most; l <= most; ++l) {
                const Vector3d node = lattice.basis * Vector3d(h, k, l);
                if (node.norm() < maxLength && (h || k || l)) picture.mark(node);
            }
    picture.labelAxes();
    picture.overlay.title = "difference vectors";
    savePicture(picture.image, picture.overlay, path);
}

}  // namespace vrk::app
