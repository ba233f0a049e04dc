/// \file
/// The header record of an MRC file: main header, per-slice values of the extended header and the
/// bookkeeping of the pipeline.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/// What a file or data object holds. The name of 0 is spelled as it appears in messages.
enum class MRCType : std::int32_t {
    UNKOWN = 0,
    TILT_SERIES = 1,   ///< diffraction patterns, one per slice, x fastest within a slice
    MRCVOLUME = 2,     ///< a reciprocal volume, y fastest within a slice
    UNINITIALISED = 3  ///< a header that is still being read
};

/// The values of a slice's extended-header record in the order of the file: the enumerator's number is
/// the value's place counted from 0. Stage positions, defocus and exposure are informative; the
/// pipeline uses the tilt, the tilt axis, the pixel size and the high tension. Where a value is unknown
/// it is 0.
///
/// The printout of the extended header (VoxMRCData::print_Extended_MRCHeader()) shows the pixel size
/// right after the tilt axis, kSliceValuePrintOrder gives its column order; in the file the pixel size
/// is the twelfth value.
enum class SliceValue : std::size_t {
    TiltAngle = 0,          ///< a_tilt: goniometer tilt of the pattern, degrees
    SecondTilt = 1,         ///< b_tilt: tilt about the holder's second axis, degrees
    StageX = 2,             ///< x_stage: stage position, metres
    StageY = 3,             ///< y_stage: stage position, metres
    StageZ = 4,             ///< z_stage: stage position, metres
    Defocus = 5,            ///< defocus of the microscope, metres
    ExposureTime = 6,       ///< exp_time: exposure of the pattern, seconds
    MeanIntensity = 7,      ///< mean_int: mean grey value of the pattern, counts
    TiltAxis = 8,           ///< direction of the tilt axis in the image, degrees: the axis lies along
                            ///< (-sin t, cos t) in pixel coordinates, x to the right and y down the file
    Magnification = 9,      ///< magnification, or the camera length where the microscope stores that
    MicroscopeType = 10,    ///< manufacturer's code of the microscope type
    PixelSize = 11,         ///< size of a detector pixel in reciprocal space, 1/metre per pixel
    GunType = 12,           ///< manufacturer's code of the electron gun
    LensType = 13,          ///< manufacturer's code of the objective lens
    MicroscopeNumber = 14,  ///< the manufacturer's "D number" of the microscope
    HighTension = 15,       ///< acceleration voltage, kilovolts
    DiffractionLens = 16,   ///< setting of the diffraction lens, percent
};

/// Columns of the extended-header printout, left to right.
inline constexpr std::array<SliceValue, 17> kSliceValuePrintOrder = {
    SliceValue::TiltAngle,    SliceValue::SecondTilt,     SliceValue::StageX,
    SliceValue::StageY,       SliceValue::StageZ,         SliceValue::Defocus,
    SliceValue::ExposureTime, SliceValue::MeanIntensity,  SliceValue::TiltAxis,
    SliceValue::PixelSize,    SliceValue::Magnification,  SliceValue::MicroscopeType,
    SliceValue::GunType,      SliceValue::LensType,       SliceValue::MicroscopeNumber,
    SliceValue::HighTension,  SliceValue::DiffractionLens};

/// One fixed, plainly copyable block that starts zeroed. VoxMRCData holds one by value.
///
/// Not every field has a place in the file: VoxMRCFileHandler.h gives the layout on disk.
struct mrcH {
    static constexpr int kMaxSlices = 300;  ///< slices that the per-slice tables have room for
    static constexpr std::size_t kSliceValueCount = 17;
    static constexpr std::size_t kUnusedBlock1 = 30;
    static constexpr std::size_t kUnusedBlock2 = 28;

    MRCType type = MRCType::UNKOWN;
    /// Pixel size in reciprocal space, 1/metre per pixel: a spacing of n pixels is 1e10 / (m_pixelsize n)
    /// Angstrom. 0 when it is unknown or differs between slices.
    float m_pixelsize = 0;

    std::int32_t nx = 0;  ///< columns (width of a slice)
    std::int32_t ny = 0;  ///< rows (height of a slice)
    std::int32_t nz = 0;  ///< sections (slices)
    std::int32_t mode = 0;
    std::int32_t nxstart = 0;
    std::int32_t nystart = 0;
    std::int32_t nzstart = 0;
    std::int32_t mx = 0;  ///< intervals along X, Y, Z
    std::int32_t my = 0;
    std::int32_t mz = 0;
    float xlen = 0;  ///< cell dimensions, Angstrom; xlen/nx is the pixel size of files without slice values
    float ylen = 0;
    float zlen = 0;
    float alpha = 0;  ///< cell angles, degrees
    float beta = 0;
    float gamma = 0;
    std::int32_t mapc = 0;  ///< which axis the columns, rows and sections run along
    std::int32_t mapr = 0;
    std::int32_t maps = 0;
    float amin = 0;  ///< minimum, maximum and mean density as the file states them
    float amax = 0;
    float amean = 0;
    std::int16_t ispg = 0;
    std::int16_t nsymbt = 0;
    std::int32_t next = 0;  ///< size of the extended header in bytes
    std::int16_t creatid = 0;
    std::array<char, kUnusedBlock1> unused1{};
    std::int16_t nint = 0;
    std::int16_t nreal = 0;
    std::array<char, kUnusedBlock2> unused2{};
    std::int16_t idtype = 0;
    std::int16_t lens = 0;
    std::int16_t nd1 = 0;
    std::int16_t nd2 = 0;
    std::int16_t vd1 = 0;
    std::int16_t vd2 = 0;
    std::array<float, 6> tiltangles{};
    std::int16_t extraShort = 0;                ///< file bytes 96 and 97, carried unread
    std::array<std::uint32_t, 9> extraWords{};  ///< file bytes 98 to 133, carried unread
    float xorgin = 0;
    float yorgin = 0;
    float zorgin = 0;
    std::array<char, 4> cmap{};
    std::array<char, 4> stamp{};
    float rms = 0;
    std::int32_t nlabl = 0;
    std::array<char, 800> labl{};  ///< ten labels of 80 characters, without terminating zeros

    /// sliceValues[value][slice]; use value() and setValue(), which check the slice number.
    std::array<std::array<float, kMaxSlices>, kSliceValueCount> sliceValues{};

    /// One value of a slice's record. 0 outside of 0 ... kMaxSlices - 1: volumes have more layers than
    /// there are records, and none of them has any.
    float value(SliceValue which, int slice) const {
        if (slice < 0 || slice >= kMaxSlices) return 0;
        return sliceValues[static_cast<std::size_t>(which)][static_cast<std::size_t>(slice)];
    }
    /// Sets one value of a slice's record; ignored outside of 0 ... kMaxSlices - 1.
    void setValue(SliceValue which, int slice, float newValue) {
        if (slice < 0 || slice >= kMaxSlices) return;
        sliceValues[static_cast<std::size_t>(which)][static_cast<std::size_t>(slice)] = newValue;
    }
    /// The tilt angle of a slice in degrees.
    float tilt(int slice) const { return value(SliceValue::TiltAngle, slice); }
};
