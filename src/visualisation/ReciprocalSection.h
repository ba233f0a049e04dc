/// \file
/// Sections through a reciprocal volume along lattice planes, resampled in the frame of the crystal.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include "VRKCoreExport.h"
#include "visualisation/PlaneImage.h"

class UnitCell;
class VoxMRCData;
class VoxVolumeData;

/// Cuts planes such as hk0 or h1l out of a volume. Angles and lengths in the picture are true: it is a view
/// along the normal of the plane, with the first in-plane axis to the right.
class VRKCORE_EXPORT ReciprocalSection {
public:
    struct Settings {
        /// The plane holds the nodes level * w + i * u + j * v. u points to the right in the picture, v to
        /// the upper half.
        std::array<int, 3> u = {1, 0, 0};
        std::array<int, 3> v = {0, 1, 0};
        std::array<int, 3> w = {0, 0, 1};
        int level = 0;
        /// Thickness in voxels along the normal; the brightest value inside counts. 0 cuts a plane.
        double thickness = 2.0;
        /// Edge of the square picture in pixels.
        int size = 1024;
        /// Half edge of the picture in voxels; 0 takes half the largest edge of the volume.
        double radius = 0.0;
    };

    /// \param volume  a reconstructed volume (y fastest inside a slice); must outlive this object
    /// \param cell    the reciprocal cell in voxels of the volume; a direct cell is converted by its pixel
    ///                size
    /// \param origin  the voxel coordinates of the reciprocal origin
    ReciprocalSection(const VoxMRCData& volume, const UnitCell& cell, const std::array<double, 3>& origin);
    /// The same of a view of a volume, whose middle is the origin. Cell and settings count voxels of the
    /// volume, so that the same ones give the same picture at every reduction.
    ReciprocalSection(const VoxVolumeData& view, const UnitCell& cell);

    /// The picture; voxels outside the volume are not measured (NaN).
    /// Empty when u and v are parallel, the level's w lies in their plane, or the size is below 1.
    PlaneImage sample(const Settings& settings) const;

    /// Arrows as long as the base vectors of the plane on lines along them, the scale in voxels of the
    /// volume, title and, if asked for, a ring round every lattice node of the plane.
    ImageOverlay overlay(const Settings& settings, bool nodes) const;

    /// Settings of the plane through the origin or at a level, by its name: "hk0", "h0l", "0kl", "hk1",
    /// "h-2l"; with a letter instead of the number, "hhl", "h-hl", "hkk", a diagonal plane.
    /// \returns false for any other text; the settings are then untouched
    static bool parsePlane(const char* name, Settings& settings);
    static bool parsePlane(const std::string& name, Settings& settings) {
        return parsePlane(name.c_str(), settings);
    }

private:
    using Vector = std::array<double, 3>;
    /// Centre, unit axes and scale of the picture in the volume.
    struct PictureFrame {
        Vector centre, right, up, normal;
        double voxelsPerPixel;
        bool valid;
    };

    PictureFrame frameOf(const Settings& settings) const;
    Vector node(const std::array<int, 3>& hkl) const;
    float interpolate(float x, float y, float z) const;

    int m_width, m_height, m_depth;
    std::ptrdiff_t m_stepX, m_stepY;  ///< from voxel to voxel inside a slice
    double m_reduction;               ///< voxels of the volume along the edge of one that is looked at
    double m_halfExtent;              ///< half the largest edge, in voxels that are looked at
    std::vector<const short*> m_slices;
    std::array<Vector, 3> m_base;
    Vector m_origin;
};
