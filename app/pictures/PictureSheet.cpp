#include "pictures/PictureSheet.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include "pictures/Pictures.h"
#include "pipeline/base/NumberText.h"

namespace vrk::app {
namespace {

constexpr const char* kAngstrom = "\u00c5";
constexpr int kTicks = 8;

/// 1, 2 or 5 with some zeros, not above the value.
double roundedDown(double value) {
    const double decade = std::pow(10.0, std::floor(std::log10(value)));
    for (const double step : {5.0, 2.0})
        if (step * decade <= value) return step * decade;
    return decade;
}

/// Pixels of the image that a pixel of the panel shows.
struct Block {
    int first, last;  // the last one included
};

std::vector<Block> blocksOf(int pixels, int edge, double zoom, double start) {
    std::vector<Block> blocks;
    for (int place = 0; place < edge; ++place) {
        const int first = static_cast<int>(std::floor((place - start) / zoom + 1e-9));
        const int last = static_cast<int>(std::ceil((place + 1 - start) / zoom - 1e-9)) - 1;
        blocks.push_back({std::max(first, 0), std::min(std::max(first, last), pixels - 1)});
    }
    return blocks;
}

float brightest(const PlaneImage& image, const Block& columns, const Block& rows) {
    float most = std::numeric_limits<float>::quiet_NaN();
    for (int y = rows.first; y <= rows.last; ++y)
        for (int x = columns.first; x <= columns.last; ++x)
            if (const float value = image.at(x, y); !(value <= most) && value == value) most = value;
    return most;
}

/// Ticks at multiples of a round step about a zero, named by their distance from it: some axes of pictures
/// run upwards, some downwards.
std::vector<ImageOverlay::Tick> ticksAbout(double zero, double perPixel, int edge) {
    std::vector<ImageOverlay::Tick> ticks;
    const double step = roundedDown(2.0 * perPixel * edge / kTicks);
    const double pixels = step / perPixel;
    for (int i = static_cast<int>(std::ceil(-zero / pixels)); zero + i * pixels <= edge - 1; ++i)
        ticks.push_back({zero + i * pixels, formatted("%.6g", std::abs(i) * step)});
    return ticks;
}

}  // namespace

std::string cellText(const std::string& lattice, const std::array<double, 6>& cell) {
    return lattice + formatted("  a %.3f  b %.3f  c %.3f ", cell[0], cell[1], cell[2]) + kAngstrom +
           formatted("  %.2f  %.2f  %.2f", cell[3], cell[4], cell[5]) + "\u00b0";
}

PictureSheet::PictureSheet(const PlaneImage& image, int edge)
    : m_panel(edge, edge), m_zoom(static_cast<double>(edge) / std::max({image.width, image.height, 1})) {
    m_left = 0.5 * (edge - m_zoom * image.width);
    m_top = 0.5 * (edge - m_zoom * image.height);
    const std::vector<Block> columns = blocksOf(image.width, edge, m_zoom, m_left);
    const std::vector<Block> rows = blocksOf(image.height, edge, m_zoom, m_top);
    for (int y = 0; y < edge; ++y)
        for (int x = 0; x < edge; ++x)
            m_panel.at(x, y) =
                brightest(image, columns[static_cast<std::size_t>(x)], rows[static_cast<std::size_t>(y)]);
}

void PictureSheet::describe(const std::string& title, const PictureNotes& notes, const std::string& remark) {
    m_overlay.title.clear();
    if (!m_overlay.border) m_overlay.border.emplace();
    std::vector<std::string>& captions = m_overlay.border->captions;
    captions = {title + (notes.source.empty() ? "" : "  -  " + notes.source)};
    for (const std::string& line : {notes.cell, remark})
        if (!line.empty()) captions.push_back(line);
}

void PictureSheet::setScale(const ImageOverlay::Scale& scale, double pixelSize, bool rings) {
    const bool isKnown = pixelSize > 0.0 && std::isfinite(pixelSize);
    const double unit = isKnown ? pixelSize * 1e-10 : 1.0;
    const ImageOverlay::Scale own = {scale.originX, scale.originY, scale.perPixel * unit,
                                     scale.height * unit};
    if (!(own.perPixel > 0.0) || !std::isfinite(own.perPixel)) return;
    const std::string name = isKnown ? std::string("1/") + kAngstrom : "voxels";
    if (!m_overlay.border) m_overlay.border.emplace();
    ImageOverlay::Border& border = *m_overlay.border;
    border.bottom = ticksAbout(own.originX, own.perPixel, m_panel.width);
    border.left = ticksAbout(own.originY, own.perPixel, m_panel.height);
    border.bottomName = border.leftName = name;
    const double length = roundedDown(0.25 * m_panel.width * own.perPixel);
    m_overlay.bar = {length / own.perPixel, formatted("%.6g ", length) + name};
    if (rings && isKnown) addRings(own);
}

void PictureSheet::addRings(const ImageOverlay::Scale& scale) {
    static constexpr std::array<double, 16> kSpacings = {20,  10,  5,   3,   2,   1.5, 1.2,  1.0,
                                                         0.8, 0.7, 0.6, 0.5, 0.4, 0.3, 0.25, 0.2};
    const double apart = 0.08 * m_panel.width;
    double last = 0.0;
    for (const double d : kSpacings) {
        const double radius =
            std::sqrt(std::max(0.0, 1.0 / (d * d) - scale.height * scale.height)) / scale.perPixel;
        if (radius < last + apart || radius > 0.7 * m_panel.width) continue;
        m_overlay.rings.push_back({scale.originX, scale.originY, radius, formatted("%.3g ", d) + kAngstrom});
        last = radius;
    }
}

void PictureSheet::save(const std::filesystem::path& path) const {
    savePicture(m_panel, m_overlay, path);
}

}  // namespace vrk::app
