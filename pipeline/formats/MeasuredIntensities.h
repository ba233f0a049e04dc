/// \file
/// Unmerged intensities with where they were measured, in the formats of programs that scale, merge or refine
/// dynamically: unmerged MTZ, XDS_ASCII, a table of single frames and the cif_pets form.
#pragma once

#include <Eigen/Core>
#include <array>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace vrk {

/// The experiment as these files describe it. Frames and signs are those of docs/conventions.md.
struct ExperimentDescription {
    std::string title;
    std::array<double, 6> cell{};    ///< Angstrom, degrees
    std::string spaceGroup = "P 1";  ///< extended Hermann-Mauguin symbol, in a setting that gemmi knows
    Eigen::Matrix3d reciprocal;      ///< columns a*, b*, c* at zero tilt in the volume frame, 1/Angstrom
    double wavelength = 0;           ///< Angstrom
    int handedness = 1;              ///< side of the Ewald sphere: 1 or -1
    double pixelSize = 0;            ///< 1/Angstrom per pixel
    std::array<int, 2> size{};       ///< columns and rows of a frame
    double axisAngle = 0;            ///< degrees from y
    double axisPitch = 0;            ///< angle between axis and image plane, degrees
    std::vector<double> tilts;       ///< of the middle of the frames, degrees
    std::vector<std::array<double, 2>> centres;  ///< of the frames, pixels
    std::vector<double> scales;                  ///< of the frames
    double rotation = 0;                         ///< that a frame stands for, degrees
    bool continuous = true;                      ///< the crystal turns during the exposure
    double precession = 0;                       ///< half angle of the cone, degrees; 0: none
    double rockingWidth = 0;                     ///< standard deviation, 1/Angstrom
    double mosaicity = 0;                        ///< standard deviation, degrees
    int saturation = 0;                          ///< counts; 0: not known
    double dMin = 0;                             ///< Angstrom
    std::array<double, 2> errorModel = {1, 0};   ///< variance = a (sigma^2 + (b I)^2)

    /// Columns: the axes of a right-handed laboratory frame in the volume frame. x is along the tilt axis and
    /// z against the beam, so that the crystal turns about x by the tilt.
    Eigen::Matrix3d laboratory() const;
};

/// The intensity of a reflection, all frames together.
struct MeasuredIntensity {
    int h = 0;
    int k = 0;
    int l = 0;
    double intensity = 0;
    double sigma = 0;
    double x = 0;  ///< where it crosses the Ewald sphere, pixels from 0
    double y = 0;
    double frame = 0;     ///< number from 0, with fraction
    double tilt = 0;      ///< degrees
    double recorded = 1;  ///< share of its rocking curve
    bool rejected = false;
};

/// The counts of a reflection on one frame.
struct FrameIntensity {
    int h = 0;
    int k = 0;
    int l = 0;
    int frame = 0;  ///< from 0
    double intensity = 0;
    double sigma = 0;
    double excitation = 0;  ///< distance from the Ewald sphere at the frame's tilt, 1/Angstrom
    double rate = 0;        ///< its change with the tilt, 1/Angstrom per radian
    double x = 0;           ///< pixels
    double y = 0;
};

/// \name Writers
/// Each replaces the file. They throw Failure when it cannot be written completely.
/// @{

/// Columns H K L M/ISYM BATCH I SIGI FRACTIONCALC XDET YDET ROT, one batch a frame, indices in the asymmetric
/// unit with the operation that took them there. Rejected intensities are left out.
void writeUnmergedMtz(const ExperimentDescription& experiment, std::span<const MeasuredIntensity> intensities,
                      const std::filesystem::path& path);

/// The 12 columns of the format with MERGE=FALSE; rejected intensities have a negative sigma. The detector is
/// given pixels of 0.05 mm and the distance that belongs to them; the space group is that of the file's axes
/// where a number says it, P1 otherwise.
void writeXdsAscii(const ExperimentDescription& experiment, std::span<const MeasuredIntensity> intensities,
                   const std::filesystem::path& path);

/// Comma-separated: h, k, l, frame (from 1), intensity, sigma, excitation_error, x, y.
void writeFrameTable(std::span<const FrameIntensity> intensities, const std::filesystem::path& path);

/// The form in which programs for dynamical refinement take intensities by virtual frames: sums over several
/// frames, each with the direction of the beam in the crystal (u, v, w of the direct lattice, the largest of
/// them 1 or -1), half the rotation that it covers, and the angles of the crystal. The UB matrix belongs to
/// the laboratory frame, x along the tilt axis and z against the beam; on a frame, whose horizontal is x, the
/// crystal stands as Rz(omega) Rx(alpha) Ry(beta) times the matrix says. So omega is where the tilt axis lies
/// in the frame, and readers that rock the crystal about that axis turn it the way that it turned. A
/// reflection is listed in the virtual frames in which it passes the Ewald sphere; those that are not well
/// inside are for the refinement to leave out. (P. B. Klar et al., Nature Chemistry 15 (2023) 848,
/// doi:10.1038/s41557-023-01186-1, for virtual frames.)
/// \param merged  frames in a virtual one
/// \param step    between virtual frames, in frames
void writeDynamicalCif(const ExperimentDescription& experiment, std::span<const FrameIntensity> intensities,
                       int merged, int step, const std::filesystem::path& path);
/// @}

}  // namespace vrk
