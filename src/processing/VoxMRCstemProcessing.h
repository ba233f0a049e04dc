/// \file
/// From the raw tilt series to the reciprocal volume: preprocessing of the patterns and reconstruction.
#pragma once

#include <memory>
#include <vector>

#include "VRKCoreExport.h"
#include "VoxCore/DataModel/VoxMRCData.h"
#include "foundation/VoxProgressObserver.h"
#include "processing/FrameDistortion.h"
#include "processing/PatternCentre.h"
#include "processing/ReplacedPixel.h"

class RecordedPixels;
class SamplingGeometry;
class ShadowMask;
namespace VRK::detail {
class FrameRotation;
}

/// The operations on a tilt series.
///
/// Every operation but those in place leaves its input untouched and returns new data that the caller owns,
/// or null after a log line that says why: no data, a shape that the operation cannot take, no memory, or
/// cancellation by the progress observer, which is asked once per pattern (per layer in the reconstruction).
/// Progress is announced in the same steps. Header, tilt angles and pixel sizes of the result follow what was
/// done to the pixels; amin, amax and amean are those of the result. Results of the preprocessing carry no
/// histogram.
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

    /// \name Preprocessing
    /// @{

    /// Replaces isolated outliers and dead pixels by the median of their neighbours.
    ///
    /// A pixel that stands out by seven times the noise of its level is a hot spot or a zinger when its
    /// neighbours do not rise with it; a reflection, however sharp, also lifts a neighbour by a tenth of
    /// its height and is kept. A pixel that lies below its neighbours in the same measure, none of them being
    /// as low, is dead. So is one that never changes through five or more patterns while its neighbours' sums
    /// show that it should. Groups of outliers are left alone: they cannot be told from reflections.
    VoxMRCData* HotSpotFilterImageStack(VoxMRCData* series);

    /// Subtracts the background of every pattern.
    ///
    /// First the radial part: for every ring of one pixel's width about the frame's centre ((W - 1) / 2, (H -
    /// 1) / 2), ring k being the pixels at a distance in [k - 1/2, k + 1/2), a mean after iterative clipping,
    /// which reflections do not reach; between rings it is interpolated. Then what varies slowly over the
    /// pattern: the median of cells of about 32 pixels. Last, every ring's median: in the result it is 0 in
    /// every ring.
    ///
    /// Negative values are kept. Pixels of exactly 0 where the ring's background makes a 0 impossible (beam
    /// stop, dead areas, padding) do not take part and are 0 in the result.
    ///
    /// The centre does not have to lie in the frame's centre for this to work, the local part takes up some
    /// of the difference; a steep halo is only removed well after step2_CenterShift().
    VoxMRCData* step1_BackgroundSubstraction(VoxMRCData* series);
    /// The same of a series part of which was not recorded: the border that the centring brought in, shadows.
    /// Such pixels do not take part, whatever they hold, and are 0 in the result. Null also when \p recorded
    /// belongs to a series of another shape.
    VoxMRCData* step1_BackgroundSubstraction(VoxMRCData* series, const RecordedPixels& recorded);

    /// Gaussian smoothing.
    /// \param sigma in pixels; 0 copies. Negative, not finite, or larger than a quarter of the frame: null.
    VoxMRCData* smooth(VoxMRCData* series, double sigma = 0.7);

    /// Moves the direct beam of every pattern to ((W - 1) / 2, (H - 1) / 2), where the reconstruction
    /// takes it from.
    ///
    /// The beam is the point about which its surroundings are most symmetric under inversion, found by
    /// iteratively reweighted least squares on the square root of the counts: a saturated beam, a beam stop,
    /// a detector gap and reflections in the halo do not shift it. Where the beam and its halo do not show
    /// enough of themselves, the point about which the whole pattern is symmetric is taken (Friedel pairs),
    /// found by correlating the pattern with its own inversion. Patterns that show neither take the centre
    /// interpolated between the nearest patterns that do; when no pattern does, nothing is moved and a
    /// warning says so. One log line per pattern tells the centre that was found, how, and its standard
    /// uncertainty.
    ///
    /// Patterns are moved by cubic convolution (R. G. Keys, IEEE Trans. ASSP 29 (1981) 1153,
    /// doi:10.1109/TASSP.1981.1163711, with a = -3/5), which keeps sharp reflections sharp where linear
    /// interpolation would flatten them; its undershoots are limited to the values around. Patterns that are
    /// centred to 0.05 pixel, and the pixels of shifts that are whole, stay as they are. Pixels
    /// from beyond the frame are 0.
    VoxMRCData* step2_CenterShift(VoxMRCData* series);

    /// \name Its two halves
    /// @{

    /// Finds the centre of every pattern.
    /// \param centres  one for each pattern; of source None, all of them, when no pattern shows anything,
    /// after
    ///                 a warning. Untouched on failure.
    /// \param shadows  receives the shadows of beam stop and detector cross; may be null
    /// \returns false when the series is refused or the observer canceled
    bool findCentres(const VoxMRCData* series, std::vector<PatternCentre>& centres,
                     ShadowMask* shadows = nullptr);

    /// Moves the patterns so that these centres come to lie in the middle; patterns with a centre of source
    /// None stay.
    /// \param centres  as many as there are patterns
    VoxMRCData* moveToCentre(const VoxMRCData* series, const std::vector<PatternCentre>& centres);
    /// @}

    /// \name In place
    /// HotSpotFilterImageStack(), moveToCentre() and step1_BackgroundSubstraction() for a series that is not
    /// wanted any more: what they return is written over it, so that no second one takes memory. Where they
    /// return null the series is gone. A histogram that it has is left as it is.
    /// @{

    /// \param replaced  receives the pixels of each pattern that were replaced; may be null
    VoxMRCData* removeHotSpots(std::unique_ptr<VoxMRCData> series,
                               std::vector<std::vector<ReplacedPixel>>* replaced = nullptr);
    VoxMRCData* centreInPlace(std::unique_ptr<VoxMRCData> series, const std::vector<PatternCentre>& centres);
    VoxMRCData* subtractBackground(std::unique_ptr<VoxMRCData> series, const RecordedPixels& recorded);
    /// @}

    /// Turns every pattern about its centre so that the tilt axis lies along y.
    ///
    /// \param quiet         no remark on the rotation in the log
    /// \param angleDegrees  angle of the axis, which lies along (-sin t, cos t), x to the right and y down;
    ///                      that direction becomes +y. 0 copies, multiples of 90 degrees permute the pixels
    ///                      of square frames. Not finite: null.
    /// \param verbosity     above 0: one line per pattern
    ///
    /// Axis angles in the slices' records (0: none) are turned along. Cubic convolution as in
    /// step2_CenterShift(), positions to 1/32 pixel. Corners that come from beyond the frame are 0.
    VoxMRCData* step3_Rotation2TiltAxis(VoxMRCData* series, bool quiet, double angleDegrees, int verbosity);

    /// The same, and takes the distortion by the lenses out in the same interpolation. The beam has to be in
    /// the middle. Counts per pixel stay as they are: a pixel keeps its height while its area changes.
    /// \param distortion  about the centre, in the frames before they are turned. Not finite, or so large
    /// that
    ///                    it folds the frame over: null.
    VoxMRCData* turnUndistorted(const VoxMRCData* series, double angleDegrees,
                                const FrameDistortion& distortion);

    /// Halves the size of every pattern by averaging 2 x 2 pixels, rounded to the nearest count. The
    /// pixel sizes double. Along an axis of odd size, (size - 1) / 2 pixels are left, each of the weights
    /// 1/4, 1/2, 1/4 of three, so that the middle pixel stays the centre. Frames below 2 x 2 pixels: null.
    /// \param quiet      no remark on the sizes in the log
    /// \param verbosity  above 0: one line per pattern
    VoxMRCData* DownsampleImageStack(VoxMRCData* series, bool quiet, int verbosity);

    /// The same by summing, limited to what 16 bits hold; a warning counts the pixels that reached the limit.
    VoxMRCData* RebinImageStack(VoxMRCData* series, bool quiet = false, int verbosity = 0);

    /// Makes every pattern a square of the longer (shorter) side about its centre; new pixels are 0. Where
    /// the sides differ by an odd number the pattern is moved by half a pixel along the axis that changes, so
    /// that its centre stays the centre.
    VoxMRCData* PadToSquare(VoxMRCData* series);
    VoxMRCData* CropToSquare(VoxMRCData* series);
    /// @}

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
    ///         that do not ascend or are not finite, and after cancellation.
    /// \throw std::runtime_error when the volume cannot be created, after an error in the log: no memory, or
    ///        no layers, as the tilts are all 0
    ///
    /// Beside the input and the volume it needs about as much memory as three patterns.
    VoxMRCData* recoByAngle(VoxMRCData* input, double fineCalibratedPixelSize, int verbosity, bool quiet);

    /// The volume that turnUndistorted() and recoByAngle() make one after the other, without the turned
    /// series in between: patterns are turned when their turn comes. Refuses what either refuses. The
    /// header's densities are those of the series before it was turned. \param series  not changed
    VoxMRCData* recoTurned(const VoxMRCData* series, double angleDegrees, const FrameDistortion& distortion,
                           double fineCalibratedPixelSize);

    /// Does nothing and returns null.
    VoxMRCData* reco_oldMatlab(VoxMRCData* series);
    /// @}

private:
    /// Calls visit(pattern number, lane) for each, with progress and cancellation; patterns may be shared by
    /// threads (foundation/WorkSharing.h). False when it was canceled.
    template <typename Visit>
    bool forEachPattern(unsigned count, unsigned firstStep, const char* name, Visit visit);
    /// What an operation works on: the result is new, or the series itself.
    struct Work;
    /// Makes the result of an operation that takes pattern by pattern: operation(in, out, pattern number,
    /// lane), where both may be the same pixels. \p stepsBefore count for the progress.
    template <typename Operation>
    VoxMRCData* overPatterns(Work work, const char* name, unsigned stepsBefore, Operation operation);
    /// The same into new patterns of this size.
    template <typename Operation>
    VoxMRCData* eachPattern(const VoxMRCData& series, const char* name, unsigned width, unsigned height,
                            unsigned stepsBefore, Operation operation);
    VoxMRCData* reconstruct(const VoxMRCData& series, const char* name,
                            const VRK::detail::FrameRotation* rotation, double fineCalibratedPixelSize,
                            int verbosity, bool quiet);
    bool searchCentres(const VoxMRCData& series, const char* name, std::vector<PatternCentre>& centres,
                       ShadowMask* shadows);
    VoxMRCData* replaceHotSpots(Work work, const char* name,
                                std::vector<std::vector<ReplacedPixel>>& replaced);
    VoxMRCData* moveChecked(Work work, const char* name, const std::vector<PatternCentre>& centres);
    VoxMRCData* move(Work work, const std::vector<PatternCentre>& centres, const char* name,
                     unsigned stepsBefore);
    VoxMRCData* subtractBackground(Work work, const char* name, const RecordedPixels& recorded);
    VoxMRCData* turn(const VoxMRCData& series, const char* name, double angleDegrees,
                     const FrameDistortion& distortion, int verbosity);
    VoxMRCData* halve(const VoxMRCData* series, const char* name, bool sum, bool quiet, int verbosity);
    VoxMRCData* makeSquare(const VoxMRCData& series, const char* name, unsigned size);
    bool fillVolume(const VoxMRCData& input, const SamplingGeometry& geometry,
                    const VRK::detail::FrameRotation* rotation, int verbosity, VoxMRCData& volume);
};
