/// \file
/// The pictures that a run leaves behind: projections of the volume and sections of the lattice.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/DataModel/VoxVolumeData.h"
#include "crystallography/UnitCell.h"
#include "pictures/PictureSheet.h"
#include "visualisation/PlaneImage.h"

namespace vrk::app {

struct SectionOptions {
    /// Names such as "hk0" or "h-1l".
    std::vector<std::string> planes = {"hk0", "h0l", "0kl"};
    /// Thickness in voxels.
    double thickness = 2.0;
    /// Edge of the pictures in pixels.
    int size = 1024;
    /// Rings round the lattice nodes.
    bool nodes = false;
    /// Also write TGA files.
    bool tga = false;
};

/// Writes a picture. Throws Failure when it cannot be written.
void savePicture(const PlaneImage& image, const ImageOverlay& overlay, const std::filesystem::path& path);

/// Throws Failure on the first name that is no plane.
void checkPlanes(const std::vector<std::string>& planes);

/// Writes `<plane>.png` for every plane. Returns the paths; throws Failure on a name that is no plane and
/// when a picture cannot be written.
/// \param notes  with the pixel size of the volume
std::vector<std::filesystem::path> writeSections(const VoxMRCData& volume, const UnitCell& cell,
                                                 const SectionOptions& options, const PictureNotes& notes,
                                                 const std::filesystem::path& folder);
/// \param cell  in voxels of the volume that the view shows
std::vector<std::filesystem::path> writeSections(const VoxVolumeData& view, const UnitCell& cell,
                                                 const SectionOptions& options, const PictureNotes& notes,
                                                 const std::filesystem::path& folder);

/// Writes `projection_x.png`, `projection_y.png` and `projection_z.png`, as large as the sections. Returns
/// the paths; throws Failure when a picture cannot be written.
std::vector<std::filesystem::path> writeProjections(const VoxMRCData& volume, const SectionOptions& options,
                                                    const PictureNotes& notes,
                                                    const std::filesystem::path& folder);
std::vector<std::filesystem::path> writeProjections(const VoxVolumeData& view, const SectionOptions& options,
                                                    const PictureNotes& notes,
                                                    const std::filesystem::path& folder);

/// One of them. \param axis  0 to 2, along which it looks
std::vector<std::filesystem::path> writeProjection(const VoxMRCData& volume, int axis,
                                                   const SectionOptions& options, const PictureNotes& notes,
                                                   const std::filesystem::path& folder);

/// Draws one pattern of a series with the pixel frame's x and y in a corner and an arrow along the tilt axis
/// through the middle. Throws Failure when the picture cannot be written.
/// \param axis    degrees, along (-sin t, cos t); not drawn when absent
/// \param source  name of the series
void writePattern(const VoxMRCData& series, int slice, std::optional<double> axis, const std::string& source,
                  const std::filesystem::path& path);

}  // namespace vrk::app
