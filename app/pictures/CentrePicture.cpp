#include "pictures/CentrePicture.h"

#include <algorithm>
#include <cmath>

#include "pictures/PictureSheet.h"
#include "pipeline/base/NumberText.h"

namespace vrk::app {
namespace {

constexpr double kPanel = 0.5 * PictureSheet::kEdge;
constexpr double kMargin = 30.0;

/// Two panels, one above the other, over the same tilts.
class Plot {
public:
    /// \param range  largest distance from the mean that is shown, pixels
    Plot(double firstTilt, double lastTilt, double range)
        : sheet(PlaneImage(1, 1)), m_firstTilt(firstTilt), m_lastTilt(lastTilt), m_range(range) {}

    void connect(int panel, double tilt, double value, double nextTilt, double nextValue) {
        sheet.overlay().lines.push_back(
            {placeX(tilt), placeY(panel, value), placeX(nextTilt), placeY(panel, nextValue), "", false});
    }
    void ring(int panel, double tilt, double value) {
        sheet.overlay().nodes.push_back({placeX(tilt), placeY(panel, value)});
    }
    /// The mean as a line, its value, and ticks.
    void frame(int panel, const char* name, double mean) {
        ImageOverlay& overlay = sheet.overlay();
        overlay.lines.push_back({0.0, kPanel * panel, 2.0 * kPanel, kPanel * panel, "", false, true});
        overlay.texts.push_back(
            {kMargin, kPanel * panel + 26.0, formatted("%s, mean %.2f pixels", name, mean)});
        ImageOverlay::Border& border = *overlay.border;
        for (const double value : {-1.0, -0.5, 0.0, 0.5, 1.0})
            border.left.push_back({placeY(panel, value * m_range),
                                   formatted(value == 0.0 ? "%.3g" : "%+.3g", value * m_range)});
    }
    void addTilts() {
        ImageOverlay::Border& border = *sheet.overlay().border;
        constexpr int kTicks = 6;
        for (int i = 0; i <= kTicks; ++i) {
            const double tilt = m_firstTilt + i * (m_lastTilt - m_firstTilt) / kTicks;
            border.bottom.push_back({placeX(tilt), formatted("%.1f", tilt)});
        }
        border.bottomName = "tilt (degrees)";
        border.leftName = "pixels from the mean";
    }

    PictureSheet sheet;

private:
    double placeX(double tilt) const {
        const double span = std::max(m_lastTilt - m_firstTilt, 1e-6);
        return kMargin + 2.0 * (kPanel - kMargin) * (tilt - m_firstTilt) / span;
    }
    double placeY(int panel, double value) const {
        return kPanel * (panel + 0.5) - 0.40 * kPanel * value / m_range;
    }

    double m_firstTilt, m_lastTilt, m_range;
};

}  // namespace

void writeCentrePicture(const std::vector<double>& tilts, const std::vector<PatternCentre>& centres,
                        const std::string& source, const std::filesystem::path& path) {
    if (centres.empty() || tilts.size() != centres.size()) return;
    const auto count = static_cast<double>(centres.size());
    double meanX = 0.0, meanY = 0.0, range = 0.5;
    for (const PatternCentre& centre : centres) {
        meanX += centre.x / count;
        meanY += centre.y / count;
    }
    for (const PatternCentre& centre : centres)
        range = std::max({range, std::abs(centre.x - meanX), std::abs(centre.y - meanY)});
    Plot plot(tilts.front(), tilts.back(), range);
    plot.sheet.describe("direct beam", {source, "", 0.0}, "ringed: doubtful");
    for (const int panel : {0, 1}) {
        const auto value = [&](std::size_t i) {
            return panel == 0 ? centres[i].x - meanX : centres[i].y - meanY;
        };
        plot.frame(panel, panel == 0 ? "x" : "y", panel == 0 ? meanX : meanY);
        for (std::size_t i = 0; i < centres.size(); ++i) {
            if (i + 1 < centres.size()) plot.connect(panel, tilts[i], value(i), tilts[i + 1], value(i + 1));
            if (centres[i].doubtful) plot.ring(panel, tilts[i], value(i));
        }
    }
    plot.addTilts();
    plot.sheet.save(path);
}

}  // namespace vrk::app
