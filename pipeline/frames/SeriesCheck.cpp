#include "pipeline/frames/SeriesCheck.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/SharedLoop.h"
#include "pipeline/base/Failure.h"

namespace vrk {
namespace {

struct RecordedFrame {
    int slice;
    float tilt;
};

bool isEmpty(const VoxMRCData& series, int slice) {
    const short* pixels = series.GetChunkPointer(static_cast<unsigned>(slice));
    return std::all_of(pixels, pixels + series.GetChunkSize(), [](short value) { return value == 0; });
}

bool isFlat(const VoxMRCData& series, int slice) {
    const short* pixels = series.GetChunkPointer(static_cast<unsigned>(slice));
    return std::all_of(pixels, pixels + series.GetChunkSize(),
                       [&](short value) { return value == pixels[0]; });
}

std::vector<RecordedFrame> usableFrames(const VoxMRCData& series, Session& session) {
    std::vector<RecordedFrame> frames;
    int empty = 0;
    for (int slice = 0; slice < series.m_Header.nz; ++slice) {
        const float tilt = series.m_Header.tilt(slice);
        if (!std::isfinite(tilt))
            throw Failure("the tilt angle of slice " + std::to_string(slice) +
                          " is not a number; give the angles anew with 'vrk import --tilts'");
        if (std::abs(tilt) > 90.0F)
            throw Failure("the tilt angle of slice " + std::to_string(slice) + " is " + std::to_string(tilt) +
                          " degrees, beyond 90; give the angles anew with 'vrk import --tilts'");
        if (isEmpty(series, slice))
            ++empty;
        else
            frames.push_back({slice, tilt});
    }
    if (empty > 0) session.warn(std::to_string(empty) + " frames hold nothing but zeros and are left out");
    return frames;
}

void sortByTilt(std::vector<RecordedFrame>& frames, Session& session) {
    const auto byTilt = [](const RecordedFrame& a, const RecordedFrame& b) { return a.tilt < b.tilt; };
    if (!std::is_sorted(frames.begin(), frames.end(), byTilt)) {
        const bool descending = std::is_sorted(frames.rbegin(), frames.rend(), byTilt);
        session.warn(descending ? "the tilt angles descend; the frames were put into ascending order"
                                : "the tilt angles are not in order; the frames were sorted by them");
        std::stable_sort(frames.begin(), frames.end(), byTilt);
    }
    const auto last =
        std::unique(frames.begin(), frames.end(),
                    [](const RecordedFrame& a, const RecordedFrame& b) { return a.tilt == b.tilt; });
    const auto repeated = frames.end() - last;
    frames.erase(last, frames.end());
    if (repeated > 0 && frames.size() > 1)
        session.warn(std::to_string(repeated) + " frames repeat the tilt angle of another and are left out");
}

void refuseTooLittle(const std::vector<RecordedFrame>& frames) {
    if (frames.empty())
        throw Failure("every frame of the series holds nothing but zeros; check how the file was made");
    const float range = frames.back().tilt - frames.front().tilt;
    // Twenty degrees to half a turn.
    const bool mayBeRadians = range > 0.35F && range <= 3.15F;
    std::ostringstream text;
    if (frames.size() < 3)
        text << "the series has " << frames.size()
             << (frames.size() == 1 ? " frame that can be used or one tilt angle for all frames"
                                    : " frames that can be used")
             << "; a volume needs three different tilts at least, a cell some twenty degrees";
    else if (range < 2.0F || mayBeRadians) {
        text << "the tilts cover " << range
             << " degrees; that is no volume. Check the angles with 'vrk info --slices'";
        if (mayBeRadians)
            text << "; they may be radians, which would be " << range * 57.29578F
                 << " degrees: give them anew with 'vrk import --tilts'";
    }
    if (!text.str().empty()) throw Failure(text.str());
}

std::unique_ptr<VoxMRCData> select(const VoxMRCData& series, const std::vector<RecordedFrame>& frames) {
    const unsigned count = static_cast<unsigned>(frames.size());
    std::unique_ptr<VoxMRCData> result(VoxMRCData::Create3D(series.GetWidth(), series.GetHeight(), count));
    if (!result) throw Failure("not enough memory for the series");
    result->m_Header = series.m_Header;
    result->m_Header.nz = result->m_Header.mz = static_cast<int>(count);
    for (unsigned to = 0; to < count; ++to) {
        const int from = frames[to].slice;
        const short* pixels = series.GetChunkPointer(static_cast<unsigned>(from));
        std::copy(pixels, pixels + series.GetChunkSize(), result->GetChunkPointer(to));
        for (std::size_t value = 0; value < mrcH::kSliceValueCount; ++value)
            result->m_Header.sliceValues[value][to] =
                series.m_Header.sliceValues[value][static_cast<std::size_t>(from)];
    }
    return result;
}

void warnOfOddities(const VoxMRCData& series, const std::vector<RecordedFrame>& frames, Session& session) {
    std::vector<std::uint8_t> isSaturated(frames.size(), 0);
    VRK::shareItems(frames.size(), [&](std::size_t i, std::size_t) {
        const short* pixels = series.GetChunkPointer(static_cast<unsigned>(frames[i].slice));
        // A saturated direct beam is usual, a saturated pattern is not.
        isSaturated[i] = std::count(pixels, pixels + series.GetChunkSize(), short{32767}) >
                         static_cast<std::ptrdiff_t>(series.GetChunkSize() / 100);
    });
    const auto saturated = std::count(isSaturated.begin(), isSaturated.end(), 1);
    if (saturated > 0)
        session.warn(
            std::to_string(saturated) +
            " frames have more than 1 % of their pixels at the limit of 32767; intensities there are lost");
    float widest = 0.0F;
    for (std::size_t i = 1; i < frames.size(); ++i)
        widest = std::max(widest, frames[i].tilt - frames[i - 1].tilt);
    const float mean = (frames.back().tilt - frames.front().tilt) / static_cast<float>(frames.size() - 1);
    if (widest > 5.0F * mean)
        session.warn("there is a gap of " + std::to_string(widest) + " degrees between two frames");
}

}  // namespace

std::unique_ptr<VoxMRCData> checkedSeries(std::unique_ptr<VoxMRCData> series, Session& session) {
    std::vector<RecordedFrame> frames = usableFrames(*series, session);
    sortByTilt(frames, session);
    refuseTooLittle(frames);
    if (std::all_of(frames.begin(), frames.end(),
                    [&](const RecordedFrame& f) { return isFlat(*series, f.slice); }))
        throw Failure("every frame has the same value in all its pixels: there is no pattern in the series",
                      FailureKind::NothingFound);
    warnOfOddities(*series, frames, session);
    bool unchanged = static_cast<int>(frames.size()) == series->m_Header.nz;
    for (std::size_t i = 0; unchanged && i < frames.size(); ++i)
        unchanged = frames[i].slice == static_cast<int>(i);
    return unchanged ? std::move(series) : select(*series, frames);
}

}  // namespace vrk
