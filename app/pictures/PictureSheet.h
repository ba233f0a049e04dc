/// \file
/// The layout that all pictures of reciprocal space share.
#pragma once

#include <array>
#include <filesystem>
#include <string>

#include "visualisation/PlaneImage.h"

namespace vrk::app {

/// What a picture says of its origin.
struct PictureNotes {
    std::string source;      ///< name of the file that it was made of
    std::string cell;        ///< empty: none is known
    double pixelSize = 0.0;  ///< 1/m per pixel or voxel of the source; 0: not known
};

/// "mP  6.099  7.200  8.296 Angstrom ..." in the letters of pictures.
std::string cellText(const std::string& lattice, const std::array<double, 6>& cell);

/// A square panel, in which an image is fitted as large as it goes, with captions above, and ticks, rings of
/// resolution and a bar by which lengths can be read. Small images are enlarged pixel by pixel; of large ones
/// the brightest pixel of each block shows.
class PictureSheet {
public:
    static constexpr int kEdge = 1024;

    /// \param edge  of the panel in pixels
    explicit PictureSheet(const PlaneImage& image, int edge = kEdge);

    /// \name Places and lengths in the panel, of pixels of the image
    /// @{
    double x(double pixel) const { return m_left + (pixel + 0.5) * m_zoom - 0.5; }
    double y(double pixel) const { return m_top + (pixel + 0.5) * m_zoom - 0.5; }
    double zoom() const { return m_zoom; }
    /// @}

    const PlaneImage& panel() const { return m_panel; }
    /// What is drawn over the panel, in its places.
    ImageOverlay& overlay() { return m_overlay; }

    /// Captions: a title with the name of the source, the cell, and a line more.
    void describe(const std::string& title, const PictureNotes& notes, const std::string& remark = "");
    /// Ticks and a bar, in 1/Angstrom where the pixel size is known and in voxels otherwise.
    /// \param scale      of the panel, in voxels of the source
    /// \param pixelSize  1/m per voxel; 0: not known
    /// \param rings      also rings of resolution, for pictures whose origin is known
    void setScale(const ImageOverlay::Scale& scale, double pixelSize, bool rings = true);
    /// The length that setScale() chose for the bar, pixels of the panel.
    double barLength() const { return m_overlay.bar ? m_overlay.bar->length : 0.0; }

    /// Throws Failure when the picture cannot be written.
    void save(const std::filesystem::path& path) const;

private:
    void addRings(const ImageOverlay::Scale& scale);

    PlaneImage m_panel;
    ImageOverlay m_overlay;
    double m_zoom;
    double m_left = 0.0, m_top = 0.0;
};

}  // namespace vrk::app
