#include "pictures/DifferenceVectorPicture.h"

#include <array>
#include <cmath>
#include <string>

#include "pictures/PictureSheet.h"
#include "pipeline/base/NumberText.h"

namespace vrk::app {
namespace {

using Eigen::Vector3d;

constexpr int kVectorPanel = PictureSheet::kEdge / 2;
/// So many points make a clear picture and no long wait.
constexpr std::size_t kMostPoints = 4000;

/// The axes that run to the right and downwards in each panel.
constexpr std::array<std::array<int, 2>, 3> kPanels = {{{0, 1}, {0, 2}, {2, 1}}};
constexpr std::array<const char*, 3> kAxes = {"x", "y", "z"};
constexpr std::array<const char*, 3> kEdges = {"a*", "b*", "c*"};

/// Three panels, and a text in the place of a fourth.
class Picture {
public:
    explicit Picture(double maxLength)
        : image(2 * kVectorPanel, 2 * kVectorPanel), m_scale(0.48 * kVectorPanel / maxLength) {}

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
    void arrow(const Vector3d& vector, const char* name) {
        for (std::size_t panel = 0; panel < kPanels.size(); ++panel)
            overlay.lines.push_back({placeX(panel, Vector3d::Zero()), placeY(panel, Vector3d::Zero()),
                                     placeX(panel, vector), placeY(panel, vector), name});
    }
    void labelAxes() {
        for (std::size_t panel = 0; panel < kPanels.size(); ++panel) {
            const double left = leftOf(panel) + 12.0;
            const double top = topOf(panel) + kVectorPanel - 62.0;
            overlay.lines.push_back(
                {left, top, left + 40.0, top, kAxes[static_cast<std::size_t>(kPanels[panel][0])]});
            overlay.lines.push_back(
                {left, top, left, top + 40.0, kAxes[static_cast<std::size_t>(kPanels[panel][1])]});
        }
        overlay.lines.push_back({kVectorPanel, 0.0, kVectorPanel, 2.0 * kVectorPanel, "", false, true});
        overlay.lines.push_back({0.0, kVectorPanel, 2.0 * kVectorPanel, kVectorPanel, "", false, true});
    }
    /// \param line  counted from the middle of the picture downwards
    void write(int line, const std::string& text) {
        overlay.texts.push_back({kVectorPanel + 24.0, kVectorPanel + 40.0 + 28.0 * line, text});
    }
    double voxelsPerPixel() const { return 1.0 / m_scale; }

    PlaneImage image;
    ImageOverlay overlay;

private:
    static double leftOf(std::size_t panel) { return panel == 1 ? kVectorPanel : 0.0; }
    static double topOf(std::size_t panel) { return panel == 2 ? kVectorPanel : 0.0; }
    double placeX(std::size_t panel, const Vector3d& v) const {
        return leftOf(panel) + 0.5 * kVectorPanel + m_scale * v[kPanels[panel][0]];
    }
    double placeY(std::size_t panel, const Vector3d& v) const {
        return topOf(panel) + 0.5 * kVectorPanel + m_scale * v[kPanels[panel][1]];
    }

    double m_scale;
};

void describe(Picture& picture, const Lattice& lattice, double pixelSize) {
    int line = 0;
    picture.write(line++, "base vectors of the lattice as found:");
    for (std::size_t i = 0; i < 3; ++i) {
        const Vector3d edge = lattice.basis.col(static_cast<Eigen::Index>(i));
        picture.arrow(edge, kEdges[i]);
        picture.write(
            line++,
            std::string(kEdges[i]) + formatted("   %.2f voxels", edge.norm()) +
                (pixelSize > 0.0 ? formatted("   %.4f 1/\u00c5", edge.norm() * pixelSize * 1e-10) : ""));
    }
    picture.write(++line, "spots: where differences of reflections pile up");
    picture.write(++line, "rings: vectors of the lattice that was found");
    picture.write(++line, "spots without rings: another lattice, or a larger cell");
    picture.write(++line, "rings without spots: a smaller cell, or a centring");
}

}  // namespace

void writeDifferenceVectorPicture(const Points& points, const Lattice& lattice, double maxLength,
                                  const PictureNotes& notes, const std::filesystem::path& path) {
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
    describe(picture, lattice, notes.pixelSize);
    PictureSheet sheet(picture.image);
    sheet.overlay() = picture.overlay;
    sheet.setScale({0.0, 0.0, picture.voxelsPerPixel()}, notes.pixelSize, false);
    sheet.overlay().border.reset();
    sheet.describe("difference vectors", notes, "seen along z, along y (the tilt axis) and along x");
    sheet.save(path);
}

}  // namespace vrk::app
