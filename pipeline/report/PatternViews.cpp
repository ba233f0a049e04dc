#include "pipeline/report/PatternViews.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <random>
#include <span>
#include <utility>
#include <vector>

#include "foundation/SharedLoop.h"
#include "pipeline/base/Angle.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/integration/DetectorModel.h"
#include "pipeline/report/PackedArray.h"

namespace vrk {
namespace {

/// Of all pictures together, before and after they are packed.
constexpr std::size_t kMostPixels = 9'000'000;
constexpr std::size_t kMostPatternBytes = 5'900'000;  ///< with the spots
/// Predicted spots with less than this share of their full brightness are left out.
constexpr float kDrawnShare = 0.05F;
constexpr double kPlaceUnit = 16.0;  ///< of the places, in a pixel
constexpr std::size_t kCurves = 8;   ///< of each kind

/// Pictures of the frames at one reduction.
class ReducedFrames {
public:
    /// \param brightest   pixel of all frames
    /// \param coarseness  of the grey values
    ReducedFrames(const RunResult& result, short brightest, int bin, double coarseness)
        : m_frames(*result.counts.frames),
          m_edge(static_cast<int>(m_frames.GetWidth())),
          m_bin(bin),
          m_left((m_edge - result.facts().size[0]) / 2),
          m_top((static_cast<int>(m_frames.GetHeight()) - result.facts().size[1]) / 2),
          m_width(result.facts().size[0] / bin),
          m_height(result.facts().size[1] / bin),
          m_gain(std::max(result.intensities->integration.noise.gain, 1e-3)) {
        // Noise has the standard deviation 1 on this scale before pixels are averaged.
        constexpr double kNoiseStep = 2.0;
        constexpr double kLargest = 253.0;
        m_step = coarseness * std::max(kNoiseStep / bin, 2.0 * std::sqrt(brightest / m_gain) / kLargest);
        for (int sum = 0; sum < static_cast<int>(kTable); ++sum)
            m_grey[static_cast<std::size_t>(sum)] = greyOf(static_cast<double>(sum));
    }

    int bin() const { return m_bin; }
    int width() const { return m_width; }
    int height() const { return m_height; }
    double step() const { return m_step; }
    std::size_t pixels() const {
        return static_cast<std::size_t>(m_width) * static_cast<std::size_t>(m_height);
    }

    std::vector<unsigned char> picture(unsigned frame) const {
        std::vector<unsigned char> grey(pixels());
        const short* const counts = m_frames.GetChunkPointer(frame);
        auto next = grey.begin();
        for (int y = 0; y < m_height; ++y)
            for (int x = 0; x < m_width; ++x)
                *next++ = meanGrey(counts + at(m_left + x * m_bin, m_top + y * m_bin));
        return grey;
    }

private:
    static constexpr std::size_t kTable = 4096;

    std::ptrdiff_t at(int x, int y) const { return static_cast<std::ptrdiff_t>(y) * m_edge + x; }

    unsigned char meanGrey(const short* corner) const {
        int sum = 0;
        for (int y = 0; y < m_bin; ++y)
            for (int x = 0; x < m_bin; ++x) {
                const short value = corner[at(x, y)];
                if (value == FrameStack::kMissing) return 0;
                sum += value;
            }
        if (sum <= 0) return m_grey[0];
        return sum < static_cast<int>(kTable) ? m_grey[static_cast<std::size_t>(sum)] : greyOf(sum);
    }

    unsigned char greyOf(double sum) const {
        const double mean = sum / (m_bin * m_bin);
        return static_cast<unsigned char>(
            1 + std::lround(std::min(254.0, 2.0 * std::sqrt(mean / m_gain) / m_step)));
    }

    const VoxMRCData& m_frames;
    int m_edge;
    int m_bin;
    int m_left, m_top;  ///< of the frames in their squares
    int m_width, m_height;
    double m_gain;
    double m_step = 1.0;
    std::array<unsigned char, kTable> m_grey{};  ///< by the sum of the pixels
};

/// Places of spots, frame after frame.
struct SpotColumns {
    std::vector<std::uint32_t> start;
    std::vector<std::uint16_t> x, y;
    std::vector<std::int16_t> h, k, l;
    std::vector<std::uint8_t> crystal;

    void add(double column, double row) {
        const auto coded = [](double value) {
            return static_cast<std::uint16_t>(std::lround(std::clamp(value * kPlaceUnit, 0.0, 65535.0)));
        };
        x.push_back(coded(column));
        y.push_back(coded(row));
    }
    std::string text() const {
        std::string text =
            "{\"start\":" + packedColumn(start) + ",\"x\":" + packedColumn(x) + ",\"y\":" + packedColumn(y);
        if (!h.empty())
            text += ",\"h\":" + packedColumn(h) + ",\"k\":" + packedColumn(k) + ",\"l\":" + packedColumn(l) +
                    ",\"crystal\":" + packedColumn(crystal);
        return text + "}";
    }
};

std::vector<const IntegrationResult*> integrationsOf(const RunResult& result) {
    std::vector<const IntegrationResult*> list = {&result.intensities->integration};
    for (const FurtherCrystal& other : result.crystals.others)
        list.push_back(other.intensities ? &other.intensities->integration : nullptr);
    return list;
}

/// What the padding of the frames moved places by, pixels.
struct Padding {
    double left, top;
    explicit Padding(const RunResult& result) {
        const std::array<int, 3>& size = result.facts().size;
        const int edge = std::max(size[0], size[1]);
        left = 0.5 * (edge - size[0]);
        top = 0.5 * (edge - size[1]);
    }
};

SpotColumns predictedSpots(const RunResult& result) {
    const Padding padding(result);
    SpotColumns columns;
    const std::vector<const IntegrationResult*> crystals = integrationsOf(result);
    const std::size_t frames = crystals.front()->fit.geometry.frames.size();
    for (std::size_t frame = 0; frame < frames; ++frame) {
        columns.start.push_back(static_cast<std::uint32_t>(columns.x.size()));
        for (std::size_t number = 0; number < crystals.size(); ++number) {
            if (!crystals[number]) continue;
            const SpotPrediction& prediction = crystals[number]->prediction;
            for (std::uint32_t i = prediction.frameStart[frame]; i < prediction.frameStart[frame + 1]; ++i) {
                const PredictedSpot& spot = prediction.spots[prediction.byFrame[i]];
                if (spot.share < kDrawnShare) continue;
                const PredictedReflection& reflection = prediction.reflections[spot.reflection];
                columns.add(spot.x - padding.left, spot.y - padding.top);
                columns.h.push_back(static_cast<std::int16_t>(reflection.h));
                columns.k.push_back(static_cast<std::int16_t>(reflection.k));
                columns.l.push_back(static_cast<std::int16_t>(reflection.l));
                columns.crystal.push_back(static_cast<std::uint8_t>(number + 1));
            }
        }
    }
    columns.start.push_back(static_cast<std::uint32_t>(columns.x.size()));
    return columns;
}

SpotColumns observedSpots(const RunResult& result) {
    const Padding padding(result);
    SpotColumns columns;
    std::vector<ObservedPlace> places;
    for (const IntegrationResult* crystal : integrationsOf(result))
        if (crystal) places.insert(places.end(), crystal->places.begin(), crystal->places.end());
    std::stable_sort(places.begin(), places.end(),
                     [](const ObservedPlace& a, const ObservedPlace& b) { return a.frame < b.frame; });
    const std::size_t frames = result.intensities->integration.fit.geometry.frames.size();
    auto next = places.begin();
    for (std::size_t frame = 0; frame < frames; ++frame) {
        columns.start.push_back(static_cast<std::uint32_t>(columns.x.size()));
        for (; next != places.end() && next->frame == frame; ++next)
            columns.add(next->x - padding.left, next->y - padding.top);
    }
    columns.start.push_back(static_cast<std::uint32_t>(columns.x.size()));
    return columns;
}

template <typename Values, typename Text>
std::string listOf(const Values& values, Text text) {
    std::string list = "[";
    for (const auto& value : values) {
        if (list.size() > 1) list += ',';
        list.append(text(value));
    }
    return list + "]";
}

/// The smallest reduction at which the pictures are small enough, before they are packed.
int firstBin(const RunResult& result) {
    const std::array<int, 3>& size = result.facts().size;
    int bin = 1;
    while (bin < 64 && static_cast<std::size_t>(size[0] / bin) * static_cast<std::size_t>(size[1] / bin) *
                               static_cast<std::size_t>(size[2]) >
                           kMostPixels)
        ++bin;
    return bin;
}

/// The packed pictures; empty when they are too large.
std::vector<std::string> packedFrames(const ReducedFrames& frames, unsigned count, std::size_t most) {
    std::vector<std::string> packed(count);
    std::size_t bytes = 0;
    std::size_t added = 0;
    const auto fit = [&](std::size_t done) {
        for (; added < done; ++added)
            bytes += packed[added].size();
        return bytes <= most;
    };
    const bool complete = VRK::shareItems(
        count,
        [&](std::size_t frame, std::size_t) {
            packed[frame] = packedBytes(frames.picture(static_cast<unsigned>(frame)), PackedContent::Picture);
        },
        fit);
    return complete && fit(count) ? packed : std::vector<std::string>();
}

short brightestOf(const VoxMRCData& series) {
    std::vector<std::span<const short>> frames;
    for (unsigned frame = 0; frame < series.GetDepth(); ++frame)
        frames.emplace_back(series.GetChunkPointer(frame), series.GetChunkSize());
    const std::vector<short> highest = highestCounts(frames);
    return std::max<short>(*std::max_element(highest.begin(), highest.end()), 1);
}

/// The frames as fine as they fit: with coarser steps of grey first, then with larger pixels.
std::pair<ReducedFrames, std::vector<std::string>> fittingFrames(const RunResult& result, std::size_t most) {
    constexpr int kFewest = 64;  // pixels
    const short brightest = brightestOf(*result.counts.frames);
    for (int bin = firstBin(result);; ++bin)
        for (const double coarseness : {1.0, 1.5, 2.2}) {
            ReducedFrames frames(result, brightest, bin, coarseness);
            std::vector<std::string> packed = packedFrames(frames, result.counts.frames->GetDepth(), most);
            if (!packed.empty() || frames.pixels() < kFewest) return {frames, std::move(packed)};
        }
}

std::vector<const IntegratedReflection*> chosenReflections(const IntegrationResult& integration) {
    std::vector<const IntegratedReflection*> good;
    for (const IntegratedReflection& one : integration.reflections)
        if (one.good() && integration.prediction.reflections[one.predicted].spotCount > 2)
            good.push_back(&one);
    const auto strong = good.begin() + static_cast<std::ptrdiff_t>(std::min(kCurves, good.size()));
    std::partial_sort(good.begin(), strong, good.end(),
                      [](const auto* one, const auto* other) { return one->intensity > other->intensity; });
    std::vector<const IntegratedReflection*> chosen(good.begin(), strong);
    // The same draw for the same data.
    std::sample(strong, good.end(), std::back_inserter(chosen), kCurves, std::mt19937(1));
    return chosen;
}

std::string curveText(const IntegrationResult& integration, const IntegratedReflection& one) {
    const PredictedReflection& predicted = integration.prediction.reflections[one.predicted];
    std::vector<std::uint32_t> spots(predicted.spotCount);
    for (std::uint32_t i = 0; i < predicted.spotCount; ++i)
        spots[i] = predicted.firstSpot + i;
    const auto number = [](double value) { return std::isfinite(value) ? formatted("%.6g", value) : "null"; };
    const auto list = [&](auto value) {
        return listOf(spots, [&](std::uint32_t i) {
            return number(value(integration.prediction.spots[i], integration.fitted[i]));
        });
    };
    return formatted("{\"hkl\":[%d,%d,%d],\"d\":%.5g,\"i_over_sigma\":%.5g", one.h, one.k, one.l, one.spacing,
                     one.intensity / one.sigma) +
           ",\"tilts\":" + list([&](const PredictedSpot& spot, const FittedSpot&) {
               return integration.fit.geometry.frames[spot.frame].tilt / kDegree;
           }) +
           ",\"counts\":" + list([](const PredictedSpot&, const FittedSpot& spot) {
               return spot.variance > 0 ? static_cast<double>(spot.counts) : std::nan("");
           }) +
           ",\"sigma\":" + list([](const PredictedSpot&, const FittedSpot& spot) {
               return spot.variance > 0 ? std::sqrt(static_cast<double>(spot.variance)) : std::nan("");
           }) +
           ",\"fitted\":" + list([&](const PredictedSpot& spot, const FittedSpot&) {
               return one.intensity * static_cast<double>(spot.share);
           }) +
           "}";
}

}  // namespace

std::string patternViews(const RunResult& result) {
    if (!result.intensities || !result.counts.frames) return "null";
    const std::string predicted = predictedSpots(result).text();
    const std::string observed = observedSpots(result).text();
    const std::size_t most =
        kMostPatternBytes - std::min(predicted.size() + observed.size(), kMostPatternBytes / 2);
    const auto [frames, packed] = fittingFrames(result, most);
    const SeriesGeometry& geometry = result.intensities->integration.fit.geometry;
    const Padding padding(result);
    return formatted("{\"bin\":%d,\"width\":%d,\"height\":%d,\"axis\":%.4f,\"step\":%.5g,\"radius\":%.3f",
                     frames.bin(), frames.width(), frames.height(), geometry.axisAngle / kDegree,
                     frames.step(), result.intensities->integration.extent.radius) +
           ",\"tilts\":" +
           listOf(geometry.frames,
                  [](const FramePose& pose) { return formatted("%.3f", pose.tilt / kDegree); }) +
           ",\"centres\":" +
           listOf(geometry.frames,
                  [&](const FramePose& pose) {
                      return formatted("[%.2f,%.2f]", pose.centreX - padding.left,
                                       pose.centreY - padding.top);
                  }) +
           ",\"frames\":" + listOf(packed, [](const std::string& one) { return '"' + one + '"'; }) +
           ",\"predicted\":" + predicted + ",\"observed\":" + observed + "}";
}

std::string rockingCurves(const RunResult& result) {
    if (!result.intensities) return "null";
    const IntegrationResult& integration = result.intensities->integration;
    return listOf(chosenReflections(integration),
                  [&](const IntegratedReflection* one) { return curveText(integration, *one); });
}

}  // namespace vrk
