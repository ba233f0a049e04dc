#include "pipeline/run/Preprocessing.h"

#include <algorithm>
#include <sstream>
#include <string>
#include <utility>

#include "pipeline/base/Failure.h"
#include "pipeline/base/LibraryStage.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/formats/CentreFile.h"
#include "processing/FineCalibrationImport.h"
#include "processing/ShadowMask.h"
#include "processing/VoxMRCstemProcessing.h"

namespace vrk {

namespace {

/// "3, 4, 5 and 8 more"
std::string listOf(const std::vector<std::size_t>& numbers) {
    constexpr std::size_t kMost = 6;
    std::ostringstream text;
    for (std::size_t i = 0; i < std::min(numbers.size(), kMost); ++i)
        text << (i > 0 ? ", " : "") << numbers[i];
    if (numbers.size() > kMost) text << " and " << numbers.size() - kMost << " more";
    return text.str();
}

void tellOf(const std::vector<PatternCentre>& centres, Session& session) {
    std::vector<std::size_t> jumped, doubtful;
    for (std::size_t i = 0; i < centres.size(); ++i) {
        if (centres[i].jumped) jumped.push_back(i);
        if (centres[i].doubtful) doubtful.push_back(i);
    }
    if (!jumped.empty())
        session.warn("the direct beam jumped before pattern " + listOf(jumped) +
                     " (counted from 0); the patterns were centred with it");
    if (!doubtful.empty())
        session.warn("the centre of pattern " + listOf(doubtful) +
                     " (counted from 0) is doubtful: too little of the direct beam shows; --centre gives it");
}

std::vector<PatternCentre> givenCentres(const mrcH& header, const CentreChoice& choice) {
    if (choice.source == CentreChoice::Source::File) return readCentreFile(choice.file, header);
    PatternCentre centre;
    if (choice.source == CentreChoice::Source::Given) {
        centre.x = choice.x;
        centre.y = choice.y;
        centre.source = PatternCentre::Source::Given;
    }
    return std::vector<PatternCentre>(static_cast<std::size_t>(header.nz), centre);
}

std::unique_ptr<VoxMRCData> madeSquare(std::unique_ptr<VoxMRCData> series, Session& session) {
    VoxMRCstemProcessing processing;
    processing.registerObserver(&session.progress());
    return runStage(session, "pad to square", [&] { return processing.PadToSquare(series.get()); });
}

/// The part of square frames that frames of another shape fill about their centre. Where the sides differ by
/// an odd number, half a pixel of each end is mixed with the padding.
RecordedPixels::Area areaOf(const FrameSize& frames, int size) {
    const auto begin = [size](int edge) { return edge < size ? (size - edge + 1) / 2 : 0; };
    const int left = begin(frames.width);
    const int top = begin(frames.height);
    return {left, top, size - 2 * left, size - 2 * top};
}

}  // namespace

void RecordedCounts::restore(Session& session) {
    if (frames || !again) return;
    std::unique_ptr<VoxMRCData> series = again(session);
    if (series->GetWidth() != series->GetHeight()) series = madeSquare(std::move(series), session);
    if (!replaced.replaceIn(*series))
        throw Failure("the series has another size than when it was read first");
    frames = std::move(series);
    again = nullptr;
}

MovedSeries movedToCentre(std::unique_ptr<VoxMRCData> frames, const FrameSize& before,
                          const CentreChoice& choice, Session& session, std::unique_ptr<VoxMRCData>* kept) {
    VoxMRCstemProcessing processing;
    processing.registerObserver(&session.progress());
    const int size = static_cast<int>(frames->GetWidth());
    // Option, file and results count in the frames as they came.
    const double left = 0.5 * (size - before.width);
    const double top = 0.5 * (size - before.height);
    MovedSeries result;
    ShadowMask& shadows = result.shadows;
    if (choice.source == CentreChoice::Source::Search) {
        const Stage stage(session, "centre");
        const bool found = processing.findCentres(frames.get(), result.centres, &shadows);
        session.checkCanceled();
        if (!found) throw Failure("the centres could not be searched: " + session.lastError());
        tellOf(result.centres, session);
    } else {
        result.centres = givenCentres(frames->m_Header, choice);
        for (PatternCentre& centre : result.centres) {
            centre.x += left;
            centre.y += top;
        }
        shadows = ShadowMask(frames.get());
    }
    result.recorded = RecordedPixels(size, size, areaOf(before, size), shadows, result.centres);
    result.frames = runStage(session, "centre", [&] {
        return kept ? processing.moveToCentre(frames.get(), result.centres)
                    : processing.centreInPlace(std::move(frames), result.centres);
    });
    if (kept) *kept = std::move(frames);
    for (PatternCentre& centre : result.centres) {
        centre.x -= left;
        centre.y -= top;
    }
    return result;
}

MovedSeries preprocessed(std::unique_ptr<VoxMRCData> series, const CentreChoice& choice, Session& session,
                         RecordedCounts* counts) {
    VoxMRCstemProcessing processing;
    processing.registerObserver(&session.progress());
    const FrameSize before(*series);
    if (series->GetWidth() != series->GetHeight()) {
        session.warn("the frames are not square; they were padded about their centre");
        series = madeSquare(std::move(series), session);
    }
    std::vector<std::vector<ReplacedPixel>> replaced;
    series = runStage(session, "hot spots",
                      [&] { return processing.removeHotSpots(std::move(series), &replaced); });
    const bool keep = counts && !counts->again;
    if (counts && counts->again) counts->replaced = ReplacedPixels(series->m_Header, std::move(replaced));
    MovedSeries moved =
        movedToCentre(std::move(series), before, choice, session, keep ? &counts->frames : nullptr);
    if (counts) counts->shadows = std::move(moved.shadows);
    moved.frames = runStage(session, "background", [&] {
        return processing.subtractBackground(std::move(moved.frames), moved.recorded);
    });
    return moved;
}

bool hasCameraLength(const InstrumentCalibration& known, double statedPixelSize, Session& session) {
    if (known.hasCameraLengthOf(statedPixelSize)) return true;
    session.warn(
        known.file.string() +
        formatted(" was made at %.4g 1/m per pixel, the series states %.4g: at another camera length "
                  "lenses distort otherwise, and the scale of the pixel size was not applied",
                  known.pixelSize, statedPixelSize));
    return false;
}

FrameDistortion applyInstrument(const InstrumentCalibration& known, mrcH& header, Session& session) {
    if (known.tiltScale)
        for (int i = 0; i < header.nz; ++i)
            header.setValue(SliceValue::TiltAngle, i,
                            static_cast<float>(header.tilt(i) * known.tiltScale->value));
    const float ofSlice = header.value(SliceValue::PixelSize, 0);
    const auto stated = static_cast<double>(ofSlice > 0 ? ofSlice : header.m_pixelsize);
    if (!(stated > 0)) {
        session.warn("the series does not state its pixel size; it is taken for that of " +
                     known.file.string());
        return known.distortionAt(known.pixelSize);
    }
    if (hasCameraLength(known, stated, session) && known.pixelScale) {
        const auto scale = static_cast<float>(known.pixelScale->value);
        header.m_pixelsize *= scale;
        for (int i = 0; i < header.nz; ++i)
            header.setValue(SliceValue::PixelSize, i, header.value(SliceValue::PixelSize, i) * scale);
    }
    return known.distortionAt(stated);
}

double fineCalibratedPixelSize(const std::filesystem::path& path, double stated, Session& session) {
    int count = 0;
    QuietLog quiet(session, QuietLog::Keep::UntilReleased);
    const std::unique_ptr<double[]> table(FineCalibrationImport::initFineCalibration(path.string(), &count));
    if (!table) throw Failure(path.string() + ": " + session.lastError());
    quiet.release();
    const double size = FineCalibrationImport::calibratedPixelSize(table.get(), count, stated);
    if (!(size > 0.0))
        session.warn(path.string() + " has no line for the pixel size " + std::to_string(stated) +
                     " 1/m of the series; the size is taken as stated");
    return size;
}

}  // namespace vrk
