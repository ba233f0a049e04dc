#include "processing/VoxMRCstemProcessing.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <numeric>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

#include "foundation/SharedLoop.h"
#include "foundation/detail/LargePages.h"
#include "foundation/detail/Log.h"
#include "foundation/detail/Selection.h"
#include "foundation/detail/SingleThreadedOpenCV.h"
#include "processing/RecordedPixels.h"
#include "processing/SamplingGeometry.h"
#include "processing/ShadowMask.h"
#include "processing/detail/CentreSearch.h"
#include "processing/detail/Frame.h"
#include "processing/detail/HotSpots.h"
#include "processing/detail/RadialBackground.h"
#include "processing/detail/ReciprocalVolume.h"
#include "processing/detail/Resampling.h"

namespace {

using VRK::detail::CentreSearch;
using VRK::detail::Frame;
using VRK::detail::line;
using VRK::detail::log;

constexpr unsigned short kHistogramBins = 256;
constexpr std::size_t kBlocksOfALane = 4;
constexpr const char* kRule = " ---------------------------------------------------- ";

/// What keeps a series from being processed, nothing when it can be.
std::optional<std::string> problemOf(const VoxMRCData* series) {
    if (!series) return "there is no series";
    if (series->GetDimCount() != 3 || series->GetDataSize() == 0) return "the series holds no patterns";
    if (series->GetStorageMethod() != Storage_BySlice) return "the series is not stored pattern by pattern";
    return std::nullopt;
}

/// The same for operations on images.
std::optional<std::string> problemOfImages(const VoxMRCData* series) {
    if (std::optional<std::string> problem = problemOf(series)) return problem;
    constexpr unsigned kLargest = std::numeric_limits<short>::max();
    if (std::max(series->GetWidth(), series->GetHeight()) > kLargest)
        return line("patterns of ", series->GetWidth(), " x ", series->GetHeight(),
                    " pixels are too large; bin them");
    return std::nullopt;
}

/// Logs what kept an operation from its result.
VoxMRCData* refuse(const char* name, const std::string& problem) {
    log(line(name, "(): ", problem), VRK::Error);
    return nullptr;
}

Frame patternOf(const VoxMRCData& series, unsigned pattern) {
    return VRK::detail::readOnly(series.GetChunkPointer(pattern), static_cast<int>(series.GetWidth()),
                                 static_cast<int>(series.GetHeight()));
}

/// Follows the values of a series while its patterns are written, in any order.
class Densities {
public:
    explicit Densities(unsigned patterns) : m_ofPattern(patterns) {}

    void set(unsigned pattern, const Frame& frame) {
        Values& values = m_ofPattern[pattern];
        const VRK::detail::Extremes extremes = VRK::detail::extremesOf({frame[0], frame.total()});
        values.lowest = extremes.lowest;
        values.highest = extremes.highest;
        values.sum = cv::sum(frame)[0];
        values.count = static_cast<double>(frame.total());
    }
    void writeTo(mrcH& header) const {
        Values all{std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()};
        for (const Values& values : m_ofPattern) {
            all.lowest = std::min(all.lowest, values.lowest);
            all.highest = std::max(all.highest, values.highest);
            all.sum += values.sum;
            all.count += values.count;
        }
        header.amin = static_cast<float>(all.lowest);
        header.amax = static_cast<float>(all.highest);
        header.amean = static_cast<float>(all.sum / all.count);
    }

private:
    struct Values {
        double lowest = 0;
        double highest = 0;
        double sum = 0;
        double count = 0;
    };
    std::vector<Values> m_ofPattern;
};

void setSize(mrcH& header, unsigned width, unsigned height) {
    header.nx = header.mx = static_cast<std::int32_t>(width);
    header.ny = header.my = static_cast<std::int32_t>(height);
}

void scalePixelSizes(mrcH& header, float factor) {
    header.m_pixelsize *= factor;
    for (float& size : header.sliceValues[static_cast<std::size_t>(SliceValue::PixelSize)])
        size *= factor;
}

/// The axis angles of the records after a rotation; 0 means that a record has none.
void turnAxis(mrcH& header, double angleDegrees) {
    for (float& axis : header.sliceValues[static_cast<std::size_t>(SliceValue::TiltAxis)])
        if (axis != 0)
            axis = static_cast<float>(std::remainder(static_cast<double>(axis) - angleDegrees, 360.0));
}

const char* nameOf(PatternCentre::Source source) {
    switch (source) {
        case PatternCentre::Source::Beam:
            return "direct beam and halo";
        case PatternCentre::Source::Pattern:
            return "symmetry of the pattern";
        case PatternCentre::Source::Neighbours:
            return "taken from the neighbouring patterns";
        case PatternCentre::Source::Given:
            return "given";
        case PatternCentre::Source::Lattice:
            return "spots and lattice";
        case PatternCentre::Source::None:
            break;
    }
    return "not found";
}

void logCentres(const std::vector<PatternCentre>& centres) {
    for (std::size_t i = 0; i < centres.size(); ++i) {
        const PatternCentre& c = centres[i];
        if (c.source == PatternCentre::Source::None) continue;
        log(line("Centre of pattern ", i, ": ", c.x, " ", c.y, " (", nameOf(c.source), ", +- ", c.error,
                 c.jumped ? ", after a jump)" : ")"));
    }
}

void logShadows(const ShadowMask& shadows) {
    for (const ShadowMask::Bar& bar : shadows.bars())
        log(line("Shadow of a bar of ", bar.width, " pixels from ", bar.x0, " ", bar.y0, " to ", bar.x1, " ",
                 bar.y1, "."));
    for (const ShadowMask::Disc& disc : shadows.discs())
        log(line("Shadow of a disc of ", disc.radius, " pixels radius at ", disc.x, " ", disc.y, "."));
    if (!shadows.rows().empty() || !shadows.columns().empty())
        log(line("The detector has a cross of ", shadows.rows().size(), " rows and ",
                 shadows.columns().size(), " columns."));
    if (!shadows.empty())
        log(line("Pixels in the shadow of the beam stop or on the cross: ",
                 std::count(shadows.pixels(),
                            shadows.pixels() + std::size_t(shadows.width()) * std::size_t(shadows.height()),
                            255)));
}

/// What keeps patterns from being moved to the middle.
std::optional<std::string> problemOf(const std::vector<PatternCentre>& centres, const VoxMRCData& series) {
    const double width = series.GetWidth();
    const double height = series.GetHeight();
    for (std::size_t i = 0; i < centres.size(); ++i) {
        const PatternCentre& c = centres[i];
        if (c.source == PatternCentre::Source::None) continue;
        const bool near = c.x > -width && c.x < 2 * width && c.y > -height && c.y < 2 * height;
        if (!near) return line("the centre ", c.x, " ", c.y, " of pattern ", i, " lies far outside of it");
    }
    return std::nullopt;
}

/// What keeps patterns from being turned and rid of a distortion.
std::optional<std::string> problemOf(const VoxMRCData& series, double angleDegrees,
                                     const FrameDistortion& distortion) {
    if (!std::isfinite(angleDegrees)) return line("the angle ", angleDegrees, " is not a number");
    // At the corner, where the radial term is largest.
    const double square = 0.25 * (std::pow(series.GetWidth(), 2.0) + std::pow(series.GetHeight(), 2.0));
    const double strength = std::hypot(distortion.ellipseCosine, distortion.ellipseSine);
    if (strength < 0.5 && std::abs(distortion.radial) * square < 0.5) return std::nullopt;
    return line("an ellipse of ", strength, " and a radial term of ", distortion.radial * square,
                " at the corner are no distortion by lenses");
}

void logTurn(double angleDegrees, const FrameDistortion& distortion) {
    if (!distortion.isNone())
        log(line("An ellipse of ", std::hypot(distortion.ellipseCosine, distortion.ellipseSine),
                 " is taken out."));
    log(line("Rotation of the tilt axis at ", angleDegrees, " degrees to the y axis."));
}

/// What keeps tilts from being reconstructed.
std::optional<std::string> problemOf(std::span<const float> tilts) {
    const auto notFinite =
        std::find_if(tilts.begin(), tilts.end(), [](float t) { return !std::isfinite(t); });
    if (notFinite != tilts.end())
        return line("the tilt angle of pattern ", notFinite - tilts.begin(), " is not a number (", *notFinite,
                    ")");
    const auto descent = std::is_sorted_until(tilts.begin(), tilts.end());
    if (descent != tilts.end())
        return line("the tilt angles do not ascend: pattern ", descent - tilts.begin(), " has ", *descent,
                    " after ", *(descent - 1), " degrees; sort the series by tilt");
    return std::nullopt;
}

void warnOfUselessTilts(std::span<const float> tilts) {
    if (tilts.size() == 1)
        log("A series of one pattern brackets no tilt: the reconstructed volume is empty.", VRK::Warning);
    if (tilts.front() < -90.0F || tilts.back() > 90.0F)
        log(line("The tilts reach from ", tilts.front(), " to ", tilts.back(),
                 " degrees: patterns beyond +-90 degrees are not used."),
            VRK::Warning);
}

void logLimits(const VoxMRCData& input, short lowest, short highest) {
    log("check for min max values  ... ");
    log(line("input (mrc_stack) MinValue ", input.GetMinValue({}), " MaxValue ", input.GetMaxValue({})));
    log(line("output (mrcVol)   MinValue ", lowest, " MaxValue ", highest));
}

/// The sources of every column of a layer, and the values that its topmost voxel was formed from.
void logSources(const SamplingGeometry& geometry, const VoxMRCData& series, unsigned layer) {
    for (unsigned x = 0; x < geometry.width(); ++x) {
        const SamplingGeometry::Sample s = geometry.sample(x, layer);
        std::string text = line(" Pix ", x, " in ", s.inner, "/", s.innerColumn, " out ", s.outer, "/",
                                s.outerColumn, " high  ", s.upper, "low ", s.lower, " n_j ", layer);
        if (s.inside()) {
            const short* upper = series.GetChunkPointer(static_cast<unsigned>(s.upper));
            const short* lower = series.GetChunkPointer(static_cast<unsigned>(s.lower));
            text += line(" values ", upper[s.innerColumn], ' ', lower[s.innerColumn], ' ',
                         upper[s.outerColumn], ' ', lower[s.outerColumn]);
        }
        log(text, VRK::Debug, VRK::LoopControl);
    }
}

std::unique_ptr<VoxMRCData> createVolume(unsigned width, unsigned height, unsigned depth) {
    std::unique_ptr<VoxMRCData> volume(VoxMRCData::Create3D(width, height, depth));
    if (!volume) {
        const std::string text =
            depth == 0
                ? "All tilt angles are 0, which makes a volume without layers; give the series its tilt "
                  "angles."
                : line("The volume of ", width, " x ", height, " x ", depth,
                       " voxels could not be allocated; bin the series or use a larger machine.");
        log(text, VRK::Error);
        throw std::runtime_error(text);
    }
    // Between tilts of +-60 degrees two fifths of the voxels are never recorded.
    for (unsigned layer = 0; layer < depth; ++layer)
        VRK::detail::preferSmallPages(volume->GetChunkPointer(layer), volume->GetChunkSize() * sizeof(short));
    return volume;
}

/// The header of the volume that a series becomes.
mrcH volumeHeader(const mrcH& series, unsigned depth, double fineCalibratedPixelSize, bool quiet) {
    mrcH header = series;
    header.nz = static_cast<std::int32_t>(depth);
    header.mz = header.nz;
    header.type = MRCType::MRCVOLUME;
    header.next = 0;
    if (fineCalibratedPixelSize != 0.0) {
        header.m_pixelsize = static_cast<float>(fineCalibratedPixelSize);
        if (!quiet) log("Fine calibration used.");
    } else {
        header.m_pixelsize = series.value(SliceValue::PixelSize, 0);
        if (!quiet) log("No fine calibration useable.", VRK::Warning);
    }
    return header;
}

}  // namespace

VoxMRCstemProcessing::VoxMRCstemProcessing() {
    log(">> Constructor VoxMRCstemProcessing", VRK::Debug, VRK::ObjectControl);
    log("<< Constructor VoxMRCstemProcessing", VRK::Debug, VRK::ObjectControl);
}

VoxMRCstemProcessing::~VoxMRCstemProcessing() {
    log(">> Destructor VoxMRCstemProcessing", VRK::Debug, VRK::ObjectControl);
    log("<< Destructor VoxMRCstemProcessing", VRK::Debug, VRK::ObjectControl);
}

template <typename Visit>
bool VoxMRCstemProcessing::forEachPattern(unsigned count, unsigned firstStep, const char* name, Visit visit) {
    const bool complete = VRK::shareItems(
        count, [&](std::size_t pattern, std::size_t lane) { visit(static_cast<unsigned>(pattern), lane); },
        [&](std::size_t done) {
            updateStep(static_cast<int>(firstStep + done));
            return !canceled();
        });
    if (!complete) log(line(" ", name, "() canceled ..."));
    return complete;
}

struct VoxMRCstemProcessing::Work {
    const VoxMRCData* series = nullptr;
    std::unique_ptr<VoxMRCData> result = {};  ///< none yet: patterns of the same size are made

    /// Over the series itself.
    static Work inPlace(std::unique_ptr<VoxMRCData> series) {
        const VoxMRCData* const own = series.get();
        return {own, std::move(series)};
    }
};

template <typename Operation>
VoxMRCData* VoxMRCstemProcessing::overPatterns(Work work, const char* name, unsigned stepsBefore,
                                               Operation operation) {
    const VoxMRCData& series = *work.series;
    if (!work.result)
        return eachPattern(series, name, series.GetWidth(), series.GetHeight(), stepsBefore, operation);
    VoxMRCData& result = *work.result;
    result.m_Header = series.m_Header;
    setSize(result.m_Header, result.GetWidth(), result.GetHeight());
    const unsigned count = series.GetDepth();
    Densities densities(count);
    const bool complete = forEachPattern(count, stepsBefore, name, [&](unsigned pattern, std::size_t lane) {
        Frame out = patternOf(result, pattern);
        operation(patternOf(series, pattern), out, pattern, lane);
        densities.set(pattern, out);
    });
    if (!complete) return nullptr;
    densities.writeTo(result.m_Header);
    return work.result.release();
}

template <typename Operation>
VoxMRCData* VoxMRCstemProcessing::eachPattern(const VoxMRCData& series, const char* name, unsigned width,
                                              unsigned height, unsigned stepsBefore, Operation operation) {
    const unsigned count = series.GetDepth();
    Work work{&series, std::unique_ptr<VoxMRCData>(VoxMRCData::Create3D(width, height, count))};
    if (!work.result)
        return refuse(name, line("no memory for ", count, " patterns of ", width, " x ", height, " pixels"));
    return overPatterns(std::move(work), name, stepsBefore, operation);
}

VoxMRCData* VoxMRCstemProcessing::HotSpotFilterImageStack(VoxMRCData* series) {
    std::vector<std::vector<ReplacedPixel>> replaced;
    return replaceHotSpots({series}, "HotSpotFilterImageStack", replaced);
}

VoxMRCData* VoxMRCstemProcessing::removeHotSpots(std::unique_ptr<VoxMRCData> series,
                                                 std::vector<std::vector<ReplacedPixel>>* replaced) {
    std::vector<std::vector<ReplacedPixel>> unwanted;
    return replaceHotSpots(Work::inPlace(std::move(series)), "removeHotSpots",
                           replaced ? *replaced : unwanted);
}

VoxMRCData* VoxMRCstemProcessing::replaceHotSpots(Work work, const char* name,
                                                  std::vector<std::vector<ReplacedPixel>>& replaced) {
    if (const auto problem = problemOfImages(work.series)) return refuse(name, *problem);
    const VoxMRCData& series = *work.series;
    const VRK::detail::SingleThreadedOpenCV singleThreaded;
    const unsigned count = series.GetDepth();
    VRK::detail::HotSpotFilter observer(static_cast<int>(series.GetWidth()),
                                        static_cast<int>(series.GetHeight()));
    setSteps(static_cast<int>(2 * count), "Hot spots");
    std::vector<const short*> patterns(count);
    for (unsigned i = 0; i < count; ++i)
        patterns[i] = series.GetChunkPointer(i);
    // As many bands of rows as there are patterns, and each through all patterns: what is kept of a band
    // stays in the cache. So little is done that threads would only wait for the memory.
    const auto rowsBefore = [&](unsigned band) {
        return static_cast<int>(std::uint64_t{series.GetHeight()} * band / count);
    };
    {
        const VRK::SharedWork alone(nullptr);
        if (!forEachPattern(count, 0, name, [&](unsigned band, std::size_t) {
                observer.observe(patterns, rowsBefore(band), rowsBefore(band + 1));
            }))
            return nullptr;
    }
    observer.finishObservation(count);
    VRK::PerLane<VRK::detail::HotSpotFilter> filters([&] { return observer.another(); });
    replaced.assign(count, {});
    VoxMRCData* result = overPatterns(std::move(work), name, count,
                                      [&](const Frame& in, Frame& out, unsigned i, std::size_t lane) {
                                          filters[lane].apply(in, out, replaced[i]);
                                      });
    std::size_t pixels = 0;
    for (const std::vector<ReplacedPixel>& ofPattern : replaced)
        pixels += ofPattern.size();
    if (result) log(line("Hot spots and dead pixels replaced: ", pixels, " in ", count, " patterns."));
    return result;
}

VoxMRCData* VoxMRCstemProcessing::step1_BackgroundSubstraction(VoxMRCData* series) {
    return step1_BackgroundSubstraction(series, RecordedPixels());
}

VoxMRCData* VoxMRCstemProcessing::step1_BackgroundSubstraction(VoxMRCData* series,
                                                               const RecordedPixels& recorded) {
    return subtractBackground(Work{series}, "step1_BackgroundSubstraction", recorded);
}

VoxMRCData* VoxMRCstemProcessing::subtractBackground(std::unique_ptr<VoxMRCData> series,
                                                     const RecordedPixels& recorded) {
    return subtractBackground(Work::inPlace(std::move(series)), "subtractBackground", recorded);
}

VoxMRCData* VoxMRCstemProcessing::subtractBackground(Work work, const char* name,
                                                     const RecordedPixels& recorded) {
    const VoxMRCData* const series = work.series;
    if (const auto problem = problemOfImages(series)) return refuse(name, *problem);
    const VRK::detail::SingleThreadedOpenCV singleThreaded;
    if (!recorded.empty() && !recorded.fits(*series))
        return refuse(name, "the recorded pixels are those of another series");
    struct Lane {
        VRK::detail::RadialBackground background;
        std::vector<unsigned char> lost;
    };
    const VRK::detail::RadialBackground background(static_cast<int>(series->GetWidth()),
                                                   static_cast<int>(series->GetHeight()));
    VRK::PerLane<Lane> lanes([&] {
        return Lane{background.another(),
                    std::vector<unsigned char>(recorded.empty() ? 0 : series->GetChunkSize())};
    });
    setSteps(static_cast<int>(series->GetDepth()), "Background");
    return overPatterns(std::move(work), name, 0,
                        [&](const Frame& in, Frame& out, unsigned i, std::size_t number) {
                            Lane& lane = lanes[number];
                            if (!recorded.empty()) recorded.notRecorded(i, lane.lost.data());
                            lane.background.subtract(in, lane.lost, out);
                        });
}

VoxMRCData* VoxMRCstemProcessing::smooth(VoxMRCData* series, double sigma) {
    static constexpr const char* kName = "smooth";
    if (const auto problem = problemOfImages(series)) return refuse(kName, *problem);
    if (!(sigma >= 0) || sigma > std::min(series->GetWidth(), series->GetHeight()) / 4.0)
        return refuse(kName, line("a Gaussian of ", sigma, " pixels cannot smooth these patterns"));
    const VRK::detail::SingleThreadedOpenCV singleThreaded;
    setSteps(static_cast<int>(series->GetDepth()), "Smoothing");
    return eachPattern(*series, kName, series->GetWidth(), series->GetHeight(), 0,
                       [&](const Frame& in, Frame& out, unsigned, std::size_t) {
                           if (sigma > 0)
                               cv::GaussianBlur(in, out, cv::Size(), sigma, sigma, cv::BORDER_REPLICATE);
                           else
                               in.copyTo(out);
                       });
}

VoxMRCData* VoxMRCstemProcessing::step2_CenterShift(VoxMRCData* series) {
    static constexpr const char* kName = "step2_CenterShift";
    if (const auto problem = problemOfImages(series)) return refuse(kName, *problem);
    const unsigned count = series->GetDepth();
    setSteps(static_cast<int>((CentreSearch::kLooks + 1) * count), "Centre");
    std::vector<PatternCentre> centres;
    if (!searchCentres(*series, kName, centres, nullptr)) return nullptr;
    return move({series}, centres, kName, CentreSearch::kLooks * count);
}

bool VoxMRCstemProcessing::findCentres(const VoxMRCData* series, std::vector<PatternCentre>& centres,
                                       ShadowMask* shadows) {
    static constexpr const char* kName = "findCentres";
    if (const auto problem = problemOfImages(series)) {
        refuse(kName, *problem);
        return false;
    }
    setSteps(static_cast<int>(CentreSearch::kLooks * series->GetDepth()), "Centre");
    return searchCentres(*series, kName, centres, shadows);
}

VoxMRCData* VoxMRCstemProcessing::moveToCentre(const VoxMRCData* series,
                                               const std::vector<PatternCentre>& centres) {
    return moveChecked({series}, "moveToCentre", centres);
}

VoxMRCData* VoxMRCstemProcessing::centreInPlace(std::unique_ptr<VoxMRCData> series,
                                                const std::vector<PatternCentre>& centres) {
    return moveChecked(Work::inPlace(std::move(series)), "centreInPlace", centres);
}

VoxMRCData* VoxMRCstemProcessing::moveChecked(Work work, const char* name,
                                              const std::vector<PatternCentre>& centres) {
    if (const auto problem = problemOfImages(work.series)) return refuse(name, *problem);
    const unsigned count = work.series->GetDepth();
    if (centres.size() != count)
        return refuse(name, line(centres.size(), " centres for ", count, " patterns"));
    if (const auto problem = problemOf(centres, *work.series)) return refuse(name, *problem);
    setSteps(static_cast<int>(count), "Centre");
    return move(std::move(work), centres, name, 0);
}

bool VoxMRCstemProcessing::searchCentres(const VoxMRCData& series, const char* name,
                                         std::vector<PatternCentre>& result, ShadowMask* found) {
    const VRK::detail::SingleThreadedOpenCV singleThreaded;
    const unsigned count = series.GetDepth();
    const int width = static_cast<int>(series.GetWidth());
    const int height = static_cast<int>(series.GetHeight());
    const VRK::detail::SeriesMean mean(series);
    const ShadowMask shadows = ShadowMask::of(mean);
    logShadows(shadows);
    VRK::detail::CentreSearch search(width, height, count, mean, shadows);
    for (unsigned look = 0; look < CentreSearch::kLooks; ++look) {
        if (!forEachPattern(count, look * count, name, [&](unsigned i, std::size_t lane) {
                search.look(look, i, patternOf(series, i), lane);
            }))
            return false;
        search.finishLook(look, [&](unsigned i) { return patternOf(series, i); });
    }
    result = search.finish();
    if (found) *found = shadows;
    if (std::none_of(result.begin(), result.end(), [](const PatternCentre& c) { return c.found(); }))
        log("The direct beam was found in no pattern: the series is left where it is. Centre it before, or "
            "check that the patterns show the beam or Friedel pairs.",
            VRK::Warning);
    else if (search.isAmbiguous())
        log("The patterns are as symmetric about other places as about the centre that was taken: nothing of "
            "the direct beam shows. Give the centre when it is known.",
            VRK::Warning);
    return true;
}

VoxMRCData* VoxMRCstemProcessing::move(Work work, const std::vector<PatternCentre>& centres, const char* name,
                                       unsigned stepsBefore) {
    const VRK::detail::SingleThreadedOpenCV singleThreaded;
    logCentres(centres);
    VRK::PerLane<VRK::detail::FrameShift> shifts([] { return VRK::detail::FrameShift(); });
    const cv::Point2d target = VRK::detail::centreOf(static_cast<int>(work.series->GetWidth()),
                                                     static_cast<int>(work.series->GetHeight()));
    return overPatterns(std::move(work), name, stepsBefore,
                        [&](const Frame& in, Frame& out, unsigned i, std::size_t lane) {
                            const double dx = target.x - centres[i].x;
                            const double dy = target.y - centres[i].y;
                            const bool known = centres[i].source != PatternCentre::Source::None;
                            if (known && !VRK::detail::isCentred(dx, dy))
                                shifts[lane].apply(in, dx, dy, out);
                            else if (out.data != in.data)
                                in.copyTo(out);
                        });
}

VoxMRCData* VoxMRCstemProcessing::step3_Rotation2TiltAxis(VoxMRCData* series, bool quiet, double angleDegrees,
                                                          int verbosity) {
    static constexpr const char* kName = "step3_Rotation2TiltAxis";
    if (const auto problem = problemOfImages(series)) return refuse(kName, *problem);
    if (!std::isfinite(angleDegrees))
        return refuse(kName, line("the angle ", angleDegrees, " is not a number"));
    if (!quiet) log(line("Rotation of the tilt axis at ", angleDegrees, " degrees to the y axis."));
    return turn(*series, kName, angleDegrees, {}, verbosity);
}

VoxMRCData* VoxMRCstemProcessing::turnUndistorted(const VoxMRCData* series, double angleDegrees,
                                                  const FrameDistortion& distortion) {
    static constexpr const char* kName = "turnUndistorted";
    if (const auto problem = problemOfImages(series)) return refuse(kName, *problem);
    if (const auto problem = problemOf(*series, angleDegrees, distortion)) return refuse(kName, *problem);
    logTurn(angleDegrees, distortion);
    return turn(*series, kName, angleDegrees, distortion, 0);
}

VoxMRCData* VoxMRCstemProcessing::turn(const VoxMRCData& series, const char* name, double angleDegrees,
                                       const FrameDistortion& distortion, int verbosity) {
    const VRK::detail::SingleThreadedOpenCV singleThreaded;
    const bool turns = angleDegrees != 0 || !distortion.isNone();
    std::optional<VRK::detail::FrameRotation> rotation;
    if (turns)
        rotation.emplace(static_cast<int>(series.GetWidth()), static_cast<int>(series.GetHeight()),
                         angleDegrees, distortion);
    VRK::PerLane<VRK::detail::FrameRotation> rotations([&] { return rotation->another(); });
    setSteps(static_cast<int>(series.GetDepth()), "Rotation");
    VoxMRCData* result = eachPattern(series, name, series.GetWidth(), series.GetHeight(), 0,
                                     [&](const Frame& in, Frame& out, unsigned i, std::size_t lane) {
                                         if (verbosity > 0) log(line("rotating pattern ", i));
                                         if (turns)
                                             rotations[lane].apply(in, out);
                                         else
                                             in.copyTo(out);
                                     });
    if (result) turnAxis(result->m_Header, angleDegrees);
    return result;
}

VoxMRCData* VoxMRCstemProcessing::halve(const VoxMRCData* series, const char* name, bool sum, bool quiet,
                                        int verbosity) {
    if (const auto problem = problemOfImages(series)) return refuse(name, *problem);
    if (std::min(series->GetWidth(), series->GetHeight()) < 2)
        return refuse(name, line("patterns of ", series->GetWidth(), " x ", series->GetHeight(),
                                 " pixels cannot be halved"));
    const unsigned width = series->GetWidth() / 2;
    const unsigned height = series->GetHeight() / 2;
    std::vector<std::size_t> limitedOf(series->GetDepth());
    setSteps(static_cast<int>(series->GetDepth()), "Binning");
    VoxMRCData* result = eachPattern(*series, name, width, height, 0,
                                     [&](const Frame& in, Frame& out, unsigned i, std::size_t) {
                                         if (verbosity > 0) log(line("binning pattern ", i));
                                         limitedOf[i] = VRK::detail::halveFrame(in, sum, out);
                                     });
    if (!result) return nullptr;
    const std::size_t limited = std::accumulate(limitedOf.begin(), limitedOf.end(), std::size_t{0});
    scalePixelSizes(result->m_Header, 2);
    if (!quiet)
        log(line("Patterns binned from ", series->GetWidth(), " x ", series->GetHeight(), " to ", width,
                 " x ", height, " pixels."));
    if (limited > 0)
        log(line(limited, " pixels reached the limits of 16 bits when summed; average instead."),
            VRK::Warning);
    return result;
}

VoxMRCData* VoxMRCstemProcessing::DownsampleImageStack(VoxMRCData* series, bool quiet, int verbosity) {
    return halve(series, "DownsampleImageStack", false, quiet, verbosity);
}

VoxMRCData* VoxMRCstemProcessing::RebinImageStack(VoxMRCData* series, bool quiet, int verbosity) {
    return halve(series, "RebinImageStack", true, quiet, verbosity);
}

VoxMRCData* VoxMRCstemProcessing::makeSquare(const VoxMRCData& series, const char* name, unsigned size) {
    const VRK::detail::SingleThreadedOpenCV singleThreaded;
    setSteps(static_cast<int>(series.GetDepth()), "Square frames");
    return eachPattern(series, name, size, size, 0, [](const Frame& in, Frame& out, unsigned, std::size_t) {
        VRK::detail::reframe(in, out);
    });
}

VoxMRCData* VoxMRCstemProcessing::PadToSquare(VoxMRCData* series) {
    if (const auto problem = problemOfImages(series)) return refuse("PadToSquare", *problem);
    return makeSquare(*series, "PadToSquare", std::max(series->GetWidth(), series->GetHeight()));
}

VoxMRCData* VoxMRCstemProcessing::CropToSquare(VoxMRCData* series) {
    if (const auto problem = problemOfImages(series)) return refuse("CropToSquare", *problem);
    return makeSquare(*series, "CropToSquare", std::min(series->GetWidth(), series->GetHeight()));
}

VoxMRCData* VoxMRCstemProcessing::recoByAngle(VoxMRCData* input, double fineCalibratedPixelSize,
                                              int verbosity, bool quiet) {
    if (const auto problem = problemOf(input)) return refuse("recoByAngle", *problem);
    return reconstruct(*input, "recoByAngle", nullptr, fineCalibratedPixelSize, verbosity, quiet);
}

VoxMRCData* VoxMRCstemProcessing::recoTurned(const VoxMRCData* series, double angleDegrees,
                                             const FrameDistortion& distortion,
                                             double fineCalibratedPixelSize) {
    static constexpr const char* kName = "recoTurned";
    if (const auto problem = problemOfImages(series)) return refuse(kName, *problem);
    if (const auto problem = problemOf(*series, angleDegrees, distortion)) return refuse(kName, *problem);
    if (angleDegrees == 0 && distortion.isNone())
        return reconstruct(*series, kName, nullptr, fineCalibratedPixelSize, 0, true);
    logTurn(angleDegrees, distortion);
    const VRK::detail::SingleThreadedOpenCV singleThreaded;
    const VRK::detail::FrameRotation rotation(static_cast<int>(series->GetWidth()),
                                              static_cast<int>(series->GetHeight()), angleDegrees,
                                              distortion);
    VoxMRCData* volume = reconstruct(*series, kName, &rotation, fineCalibratedPixelSize, 0, true);
    if (volume) turnAxis(volume->m_Header, angleDegrees);
    return volume;
}

VoxMRCData* VoxMRCstemProcessing::reconstruct(const VoxMRCData& input, const char* name,
                                              const VRK::detail::FrameRotation* rotation,
                                              double fineCalibratedPixelSize, int verbosity, bool quiet) {
    if (input.GetDepth() > mrcH::kMaxSlices)
        return refuse(name,
                      line("the series has ", input.GetDepth(), " patterns, its header has tilt angles of ",
                           mrcH::kMaxSlices, "; sum neighbouring patterns"));
    const unsigned width = input.GetWidth();
    const unsigned height = input.GetHeight();
    std::vector<float> tilts(input.GetDepth());
    for (std::size_t i = 0; i < tilts.size(); ++i)
        tilts[i] = input.m_Header.tilt(static_cast<int>(i));

    log(kRule);
    log(" ----  reco MRC file : tilt series to 3d-volume ----- ");
    log(kRule);
    log(line(" input tilts from ", tilts.front(), " to  ", tilts.back()));
    if (const auto problem = problemOf(tilts)) return refuse(name, *problem);
    warnOfUselessTilts(tilts);
    const unsigned depth = SamplingGeometry::depthOf(width, tilts);
    const float maxTilt = std::max(std::abs(tilts.back()), std::abs(tilts.front()));
    log(line(" max_tilt ", maxTilt));
    log(line(" max_tilt_rad ", maxTilt / 180.0F * 3.1415927F));
    log(line(" volsize_z ", depth));
    log(line(" new Volsize: ", width, " ", height, " ", depth));

    std::unique_ptr<VoxMRCData> volume = createVolume(width, height, depth);
    volume->m_Header = volumeHeader(input.m_Header, depth, fineCalibratedPixelSize, quiet);
    if (!fillVolume(input, SamplingGeometry(width, tilts, depth), rotation, verbosity, *volume)) {
        log(line(" ", name, "() canceled ..."));
        return nullptr;
    }
    return volume.release();
}

bool VoxMRCstemProcessing::fillVolume(const VoxMRCData& input, const SamplingGeometry& geometry,
                                      const VRK::detail::FrameRotation* rotation, int verbosity,
                                      VoxMRCData& volume) {
    VRK::detail::ReciprocalVolumeFiller filler(input, geometry, rotation, volume);
    log("Volume layer processing: ");
    const unsigned layers = geometry.depth();
    setSteps(static_cast<int>(layers), "Reconstruction");
    // The work goes from one pair of patterns to the next; it is told and asked about in layers.
    const auto pairsBefore = [&](std::size_t layer) {
        return static_cast<unsigned>((std::uint64_t{filler.pairs()} * layer + layers - 1) / layers);
    };
    // Neighbouring pairs have a pattern in common, which is prepared by every lane that needs it.
    const std::size_t lanes = VRK::lanes();
    const std::size_t block = lanes > 1 ? std::max<std::size_t>(layers / (kBlocksOfALane * lanes), 1) : 1;
    const bool complete =
        VRK::shareItems((layers + block - 1) / block,
                        [&](std::size_t item, std::size_t lane) {
                            const std::size_t end = std::min<std::size_t>((item + 1) * block, layers);
                            for (unsigned pair = pairsBefore(item * block); pair < pairsBefore(end); ++pair)
                                filler.fillPair(pair, lane);
                            for (std::size_t layer = item * block; verbosity > 2 && layer < end; ++layer)
                                logSources(geometry, input, static_cast<unsigned>(layer));
                        },
                        [&](std::size_t done) {
                            updateStep(static_cast<int>(done * block));
                            return !canceled();
                        });
    if (!complete) return false;
    filler.finish();

    if (verbosity > 0) logLimits(input, filler.lowest(), filler.highest());
    // The layers were cleared as they were stored.
    log("negative Werte immer auf null setzen ...");
    const short lowest = std::max<short>(filler.lowest(), 0);
    const short highest = std::max<short>(filler.highest(), 0);
    if (verbosity > 0) logLimits(input, lowest, highest);

    log(" Create histogram on data ... ");
    auto histogram = std::make_unique<VoxHistogram<short>>(&volume, kHistogramBins, std::vector<short>{});
    histogram->UpdateFromCounts(filler.counts());
    volume.m_Histogram = histogram.release();
    log(" ... done.");
    return true;
}

VoxMRCData* VoxMRCstemProcessing::reco_oldMatlab(VoxMRCData*) {
    return nullptr;
}
