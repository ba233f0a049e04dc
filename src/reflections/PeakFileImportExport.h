/// \file
/// The peak file: a list of reflections as text, so that a search need not be repeated.
#pragma once

#include <string>

#include "VRKCoreExport.h"

class ReflexVector;

/// Reads and writes peak files of version 2. Lines end with a line feed, numbers are in the default format
/// of the streams (six significant digits), separated by single blanks:
///
///     #VRKPEAKSVERSION 2 (written by VRKCore library 1.3.1)
///     #nx ny nz tilt_position_1 tilt_position_N
///     size of the volume in voxels along x, y, z; tilt of the first and of the last image
///     #pix_size(m) CL(camera length, mm) DiffLens(%)
///     pixel size, camera length, setting of the diffraction lens
///     #N_peaks
///     number of the lines that follow the next one
///     #x y z
///     x - nx / 2, y - ny / 2, z - nz / 2 (integer divisions) of one reflection a line
///
/// Positions only: Miller indices are not stored, intensities on request, as a fourth column "#x y z
/// intensity", which loadPeakFile() passes over. Every failure gives false and an error in the log, but a
/// file whose lines 1, 6 and 8 do not begin with "#" gives false without a message.
class VRKCORE_EXPORT PeakFileImportExport {
public:
    /// \param centerType     which centre of a reflection is written, see Reflex::getCenter()
    /// \param nx,ny,nz       size of the volume in voxels along x, y and z
    /// \param pixelSize      see docs/conventions.md
    /// \param cameraLength   in millimetres
    /// \param diffLens       in percent
    /// \param onlyIndicated  only reflections with Miller indices; when there are none, a file without peaks
    ///                       and a warning
    /// \return false when the file cannot be written; without a list the file is left empty
    static bool writePeakFile_version_2(const std::string& path, const ReflexVector* reflexes, int centerType,
                                        int nx, int ny, int nz, double tiltPosition1, double tiltPositionN,
                                        double pixelSize, double cameraLength, double diffLens,
                                        bool onlyIndicated);

    /// The same with the intensity of each reflection in a fourth column.
    static bool writePeakFileWithIntensities(const std::string& path, const ReflexVector* reflexes,
                                             int centerType, int nx, int ny, int nz, double tiltPosition1,
                                             double tiltPositionN, double pixelSize, double cameraLength,
                                             double diffLens, bool onlyIndicated);

    /// Checks that the first line begins with "#VRKPEAKSVERSION 2" and loads the file.
    static bool loadPeakFile(const std::string& path, ReflexVector* reflexes);

    /// Loads without the check of the version. The list's pointers are dropped first, the reflections that
    /// it held are not deleted; then it receives one new reflection a peak line, without indices and with
    /// intensity 1. Of a file that ends early the list keeps what was read.
    ///
    /// A line has at most 255 characters, and each must end with a line feed; a longer line makes the rest
    /// of the file unreadable. A field that is no finite number reads as 0, and so do those after it in its
    /// line.
    static bool loadPeakFile_version_2(const std::string& path, ReflexVector* reflexes);

    /// Gives the reflections that were loaded from a file the intensities in its fourth column; what is no
    /// intensity there becomes 0. False, without a message and with nothing changed, when the file has no
    /// such column or fewer lines than the list has reflections.
    static bool loadIntensities(const std::string& path, ReflexVector* reflexes);
};
