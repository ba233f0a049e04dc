/// \file
/// From the raw tilt series to the reciprocal volume: preprocessing of the patterns and reconstruction.
#pragma once

#include "VRKCoreExport.h"
#include "VoxCore/DataModel/VoxMRCData.h"
#include "foundation/VoxProgressObserver.h"

class SamplingGeometry;

/// The operations on a tilt series.
///
/// Every operation leaves its input untouched and returns new data that the caller owns, or null after a
/// log line that says why: no data, a shape that the operation cannot take, no memory, or cancellation by the
/// progress observer, which is asked once per pattern (per layer in the reconstruction). Progress is
/// announced in the same steps. Header, tilt angles and pixel sizes of the result follow what was done to the
/// pixels; amin, amax and amean are those of the result. Results of the preprocessing carry no histogram.
///
/// A series holds patterns of 16-bit counts, x fastest (docs/conventions.md). The order that serves a usual
/// series best, and that of `vrk preprocess`:
///
///     PadToSquare            when the frames are not square
///     HotSpotFilterImageStack
///     step2_CenterShift      the background below is taken about the frame's centre
///     step1_BackgroundSubstraction
///     smooth                 optional
///     step3_Rotation2TiltAxis
///     DownsampleImageStack or RebinImageStack, optional
///     recoByAngle
///
/// The pair of arguments `quiet` and `verbosity` of some operations is that of recoByAngle(): quiet keeps the
/// remarks on what was done out of the log, verbosity above 0 adds more of them. Neither changes the
/// result.
class VRKCORE_EXPORT VoxMRCstemProcessing : public VoxProgressObservable {
public:
    VoxMRCstemProcessing();
    virtual ~VoxMRCstemProcessing();
    VoxMRCstemProcessing(const VoxMRCstemProcessing&) = delete;
    VoxMRCstemProcessing& operator=(const VoxMRCstemProcessing&) = delete;

    /// \name Reconstruction
    /// @{

    /// Builds the reciprocal volume from a preprocessed series: background removed, direct beam in the middle
    /// of every row, tilt axis along y, tilts ascending.
    ///
    /// Every layer perpendicular to z is filled by polar regridding: a voxel gets the plain average,
    /// truncated towards zero, of four samples: the two pixel columns that bracket its distance from the axis
    /// in the two patterns that bracket its tilt (SamplingGeometry.h). Voxels outside of the tilt range or
    /// beyond the half width of the frame are 0, and so are negative averages.
    ///
    /// \param input       W x H pixels, N patterns, x fastest. One pattern and tilts beyond +-90 degrees are
    ///                    taken, with a warning: such patterns bracket nothing.
    /// \param fineCalibratedPixelSize  pixel size of the volume in 1/m per pixel; 0 takes that of the first
    ///                    pattern's header record
    /// \param verbosity   above 0: limits of the values are logged; above 2: the sources of every column too
    /// \param quiet       no remark on the pixel size in the log
    /// \return W x H x D voxels, y fastest, D from SamplingGeometry::depthOf(); header of type MRCVOLUME,
    ///         without extended header, the pixel size in m_pixelsize; with a histogram of 256 bins. Null,
    ///         with an error in the log, for no input, for more patterns than a header has records, for tilts
    ///         that do not ascend or are not finite, for tilts that are all 0, and after cancellation.
    /// \throw std::runtime_error when the volume cannot be allocated
    ///
    /// Beside the input and the volume it needs one transposed copy of the input.
    VoxMRCData* recoByAngle(VoxMRCData* input, double fineCalibratedPixelSize, int verbosity, bool quiet);

    /// Does nothing and returns null.
    VoxMRCData* reco_oldMatlab(VoxMRCData* series);
    /// @}

private:
    bool fillVolume(const VoxMRCData& input, const SamplingGeometry& geometry, int verbosity,
                    VoxMRCData& volume);
};
