#include "processing/VoxMRCstemProcessing.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <optional>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>

#include "foundation/VRKLogger.h"
#include "processing/ReciprocalVolumeInternal.h"
#include "processing/SamplingGeometry.h"
#include "processing/SingleThreadedOpenCVInternal.h"

namespace {

constexpr unsigned short kHistogramBins = 256;
constexpr const char* kRule = " ---------------------------------------------------- ";

void log(const std::string& text, VRK::MessageType type = VRK::Normal,
         VRK::DebugMessageType debugType = VRK::Information) {
    VRKLogger::getInstance()->log(text, type, debugType);
}

/// The parts of a line one after another.
template <typename... Parts>
std::string line(const Parts&... parts) {
    std::ostringstream text;
    (text << ... << parts);
    return text.str();
}

/// What keeps a series from being processed, nothing when it can be.
std::optional<std::string> problemOf(const VoxMRCData* series) {
    if (!series) return "there is no series";
    if (series->GetDimCount() != 3 || series->GetDataSize() == 0) return "the series holds no patterns";
    if (series->GetStorageMethod() != Storage_BySlice) return "the series is not stored pattern by pattern";
    return std::nullopt;
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
void logSources(const SamplingGeometry& geometry, const VRK::detail::TransposedSeries& series,
                unsigned layer) {
    for (unsigned x = 0; x < geometry.width(); ++x) {
        const SamplingGeometry::Sample s = geometry.sample(x, layer);
        std::string text = line(" Pix ", x, " in ", s.inner, "/", s.innerColumn, " out ", s.outer, "/",
                                s.outerColumn, " high  ", s.upper, "low ", s.lower, " n_j ", layer);
        if (s.inside())
            text += line(" values ", *series.column(s.upper, s.innerColumn), ' ',
                         *series.column(s.lower, s.innerColumn), ' ', *series.column(s.upper, s.outerColumn),
                         ' ', *series.column(s.lower, s.outerColumn));
        log(text, VRK::Debug, VRK::LoopControl);
    }
}

std::unique_ptr<VoxMRCData> createVolume(unsigned width, unsigned height, unsigned depth) {
    std::unique_ptr<VoxMRCData> volume(VoxMRCData::Create3D(width, height, depth));
    if (!volume) {
        const std::string text =
            line("The volume of ", width, " x ", height, " x ", depth,
                 " voxels could not be allocated; bin the series or use a larger machine.");
        log(text, VRK::Error);
        throw std::runtime_error(text);
    }
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

VoxMRCData* VoxMRCstemProcessing::recoByAngle(VoxMRCData* input, double fineCalibratedPixelSize,
                                              int verbosity, bool quiet) {
    std::optional<std::string> problem = problemOf(input);
    if (!problem && input->GetDepth() > mrcH::kMaxSlices)
        problem = line("the series has ", input->GetDepth(), " patterns, its header has tilt angles of ",
                       mrcH::kMaxSlices, "; sum neighbouring patterns");
    if (problem) {
        log("recoByAngle(): " + *problem, VRK::Error);
        return nullptr;
    }
    const unsigned width = input->GetWidth();
    const unsigned height = input->GetHeight();
    std::vector<float> tilts(input->GetDepth());
    for (std::size_t i = 0; i < tilts.size(); ++i)
        tilts[i] = input->m_Header.tilt(static_cast<int>(i));

    log(kRule);
    log(" ----  reco MRC file : tilt series to 3d-volume ----- ");
    log(kRule);
    log(line(" input tilts from", tilts.front(), " to  ", tilts.back()));
    problem = problemOf(tilts);
    const unsigned depth = problem ? 0 : SamplingGeometry::depthOf(width, tilts);
    if (!problem && depth == 0) problem = "all tilt angles are 0; give the series its tilt angles";
    if (problem) {
        log("recoByAngle(): " + *problem, VRK::Error);
        return nullptr;
    }
    warnOfUselessTilts(tilts);
    const float maxTilt = std::max(std::abs(tilts.back()), std::abs(tilts.front()));
    log(line(" max_tilt ", maxTilt));
    log(line(" max_tilt_rad ", maxTilt / 180.0F * 3.1415927F));
    log(line(" volsize_z ", depth));
    log(line(" new Volsize: ", width, " ", height, " ", depth));

    std::unique_ptr<VoxMRCData> volume = createVolume(width, height, depth);
    volume->m_Header = volumeHeader(input->m_Header, depth, fineCalibratedPixelSize, quiet);
    if (!fillVolume(*input, SamplingGeometry(width, tilts, depth), verbosity, *volume)) {
        log(" recoByAngle() canceled ...");
        return nullptr;
    }
    return volume.release();
}

bool VoxMRCstemProcessing::fillVolume(const VoxMRCData& input, const SamplingGeometry& geometry,
                                      int verbosity, VoxMRCData& volume) {
    const VRK::detail::SingleThreadedOpenCV singleThreaded;
    const VRK::detail::TransposedSeries series(input);
    VRK::detail::ReciprocalVolumeFiller filler(series, geometry, volume);
    log("Volume layer processing: ");
    setSteps(static_cast<int>(geometry.depth()), "Reconstruction");
    for (unsigned layer = 0; layer < geometry.depth(); ++layer) {
        updateStep(static_cast<int>(layer));
        if (canceled()) return false;
        filler.fillLayer(layer);
        if (verbosity > 2) logSources(geometry, series, layer);
    }

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
