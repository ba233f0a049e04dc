#include "pictures/CentrePicture.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "pictures/Pictures.h"

namespace vrk::app {
namespace {

constexpr int kWidth = 900;
constexpr int kPanel = 240;
constexpr int kMargin = 60;

class Picture {
public:
    Picture(double firstTilt, double lastTilt, double range)
        : image(kWidth, 2 * kPanel), m_firstTilt(firstTilt), m_lastTilt(lastTilt), m_range(range) {}

    /// \param value  distance from the mean, pixels
    void connect(int panel, double tilt, double value, double nextTilt, double nextValue) {
        overlay.lines.push_back(
            {placeX(tilt), placeY(panel, value), placeX(nextTilt), placeY(panel, nextValue), "", false});
    }
    void ring(int panel, double tilt, double value) {
        overlay.nodes.push_back({placeX(tilt), placeY(panel, value)});
    }
    void frame(int panel, const char* name) {
        std::ostringstream range;
        range.precision(3);
        range << name << " +- " << m_range << " px";
        const double top = placeY(panel, m_range);
        overlay.lines.push_back({placeX(m_firstTilt), top, placeX(m_lastTilt), top, "", false});
        overlay.lines.push_back(
            {placeX(m_firstTilt), placeY(panel, -m_range), placeX(m_firstTilt), top, range.str()});
        overlay.lines.push_back(
            {placeX(m_firstTilt), placeY(panel, 0), placeX(m_lastTilt), placeY(panel, 0), "tilt"});
    }

    PlaneImage image;
    ImageOverlay overlay;

private:
    double placeX(double tilt) const {
        const double span = std::max(m_lastTilt - m_firstTilt, 1e-6);
        return kMargin + (kWidth - 2 * kMargin) * (tilt - m_firstTilt) / span;
    }
    double placeY(int panel, double value) const {
        return kPanel * (panel + 0.5) - 0.38 * kPanel * value / m_range;
    }

    double m_firstTilt, m_lastTilt, m_range;
};

}  // namespace

void writeCentrePicture(const std::vector<double>& tilts, const std::vector<PatternCentre>& centres,
                        const std::filesystem::path& path) {
    if (centres.empty() || tilts.size() != centres.size()) return;
    const auto count = static_cast<double>(centres.size());
    double meanX = 0.0, meanY = 0.0, range = 0.5;
    for (const PatternCentre& centre : centres) {
        meanX += centre.x / count;
        meanY += centre.y / count;
    }
    for (const PatternCentre& centre : centres)
        range = std::max({range, std::abs(centre.x - meanX), std::abs(centre.y - meanY)});
    Picture picture(tilts.front(), tilts.back(), range);
    for (const int panel : {0, 1}) {
        const auto value = [&](std::size_t i) {
            return panel == 0 ? centres[i].x - meanX : centres[i].y - meanY;
        };
        picture.frame(panel, panel == 0 ? "x" : "y");
        for (std::size_t i = 0; i < centres.size(); ++i) {
            if (i + 1 < centres.size())
                picture.connect(panel, tilts[i], value(i), tilts[i + 1], value(i + 1));
            if (centres[i].doubtful) picture.ring(panel, tilts[i], value(i));
        }
    }
    picture.overlay.title = "direct beam";
    savePicture(picture.image, picture.overlay, path);
}

}  // namespace vrk::app
