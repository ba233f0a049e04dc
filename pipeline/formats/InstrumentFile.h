/// \file
/// The geometry of an instrument as a file keeps it: one microscope, many crystals.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "processing/FrameDistortion.h"

namespace vrk {

/// A number of the geometry.
struct CalibratedValue {
    double value = 0.0;
    double sigma = 0.0;        ///< standard uncertainty
    double correlation = 0.0;  ///< largest with another number that was refined with it, 0 to 1
};

/// What was found of an instrument. What is absent was not determined.
///
/// The frame is the pattern as it was recorded: x to the right, y down, azimuths from x towards y, the tilt
/// axis along (-sin t, cos t). Signs are those of docs/conventions.md.
struct InstrumentCalibration {
    int width = 0;           ///< longer side of the frames that it was found on, pixels
    double pixelSize = 0.0;  ///< that their series stated, 1/m per pixel

    std::optional<CalibratedValue> ellipse;         ///< e: half the relative difference of the axes
    std::optional<CalibratedValue> ellipseAzimuth;  ///< of the long axis, degrees; present with `ellipse`
    std::optional<CalibratedValue> radial;          ///< relative displacement outwards at half the width
    std::optional<CalibratedValue> tiltScale;       ///< true over stated tilts
    std::optional<CalibratedValue> axisAngle;       ///< degrees
    std::optional<CalibratedValue> axisTilt;        ///< out of the frame towards z, degrees
    std::optional<CalibratedValue> pixelScale;      ///< true over stated pixel size

    std::vector<std::pair<std::string, std::string>> notDetermined;  ///< key of the file, reason
    std::vector<std::string> madeFrom;                               ///< series or folders
    std::filesystem::path file;                                      ///< that it was read from

    /// The distortion of frames that state this pixel size. Binning changes it and leaves the distortion as
    /// it is in 1/m.
    FrameDistortion distortionAt(double statedPixelSize) const;
    /// Whether a series that states this pixel size was recorded at the same camera length, perhaps binned.
    bool hasCameraLengthOf(double statedPixelSize) const;
};

/// The values that are there, under the keys of the file.
std::vector<std::pair<std::string, CalibratedValue>> valuesOf(const InstrumentCalibration& calibration);

/// Reads one. Throws Failure that names the key and what to do when the file is no such file, of a newer
/// version, has keys that are not known, or values that no instrument has.
InstrumentCalibration readInstrumentFile(const std::filesystem::path& path);
/// \param path  for messages
InstrumentCalibration readInstrument(std::string_view text, const std::filesystem::path& path);

/// Writes one that readInstrumentFile() takes. Throws Failure when it cannot be written.
void writeInstrumentFile(const std::filesystem::path& path, const InstrumentCalibration& calibration);

/// The text of the file.
std::string instrumentText(const InstrumentCalibration& calibration);

}  // namespace vrk
