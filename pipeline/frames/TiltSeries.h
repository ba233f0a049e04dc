/// \file
/// A tilt series as a value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "pipeline/base/Attempt.h"

namespace vrk {

/// What a series states beside its pixels. 0 and nothing: not known.
struct SeriesStatement {
    double pixelSize = 0.0;      ///< in reciprocal space, 1/m per pixel
    double kiloVolts = 0.0;      ///< high tension
    std::optional<double> axis;  ///< direction of the tilt axis, degrees: along (-sin t, cos t)
};

/// Patterns with their tilts, pixel size and voltage. Copies share the pixels, which never change.
class TiltSeries {
public:
    /// Writes the counts of a frame: columns x rows values, a row after the other.
    using FrameSource = std::function<void(std::size_t frame, std::span<float> counts)>;

    /// A series that a function of the pipeline returned.
    explicit TiltSeries(std::unique_ptr<VoxMRCData> data) : m_data(std::move(data)) {}

    /// An MRC file of a tilt series.
    static Result<TiltSeries> read(const std::filesystem::path& path, Observer& observer = silence());

    /// Frames from memory. They are kept as 16-bit integers: whole numbers that fit as they are, others
    /// multiplied by the factor that `vrk import` would choose, which is told as a warning, as are pixels
    /// that are no numbers, which become 0, and that of more than 300 frames every two (three, ...)
    /// neighbours in tilt were added up. An error for sizes of 0, no frames, and tilts that are not finite.
    /// \param tilts  degrees, one a frame, in any order \param read   called once or twice for each frame
    static Result<TiltSeries> make(int columns, int rows, std::span<const double> tilts,
                                   const SeriesStatement& statement, const FrameSource& read,
                                   Observer& observer = silence());

    /// The same of pixels that lie frame after frame, row after row. An error when they are not as many as
    /// columns, rows and tilts say.
    template <typename Number>
    static Result<TiltSeries> of(std::span<const Number> pixels, int columns, int rows,
                                 std::span<const double> tilts, const SeriesStatement& statement,
                                 Observer& observer = silence());

    int columns() const { return m_data->m_Header.nx; }
    int rows() const { return m_data->m_Header.ny; }
    int frames() const { return m_data->m_Header.nz; }
    std::vector<double> tilts() const;  ///< degrees
    SeriesStatement statement() const;
    /// The counts of a frame, a row after the other. Valid as long as the series or a copy of it.
    std::span<const std::int16_t> frame(int index) const;

    /// With all headers.
    const VoxMRCData& data() const { return *m_data; }
    /// For stages that take the data over.
    std::unique_ptr<VoxMRCData> copy() const;

    /// As MRC file.
    Result<void> write(const std::filesystem::path& path, Observer& observer = silence()) const;

private:
    std::shared_ptr<const VoxMRCData> m_data;
};

template <typename Number>
Result<TiltSeries> TiltSeries::of(std::span<const Number> pixels, int columns, int rows,
                                  std::span<const double> tilts, const SeriesStatement& statement,
                                  Observer& observer) {
    const bool isShape = columns > 0 && rows > 0;
    const std::size_t area = isShape ? static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows) : 0;
    if (isShape && pixels.size() != area * tilts.size())
        return Error{FailureKind::Usage, std::to_string(pixels.size()) + " pixels are not " +
                                             std::to_string(tilts.size()) + " frames of " +
                                             std::to_string(columns) + " x " + std::to_string(rows)};
    return make(
        columns, rows, tilts, statement,
        [pixels, area](std::size_t frame, std::span<float> counts) {
            for (std::size_t i = 0; i < area; ++i)
                counts[i] = static_cast<float>(pixels[frame * area + i]);
        },
        observer);
}

}  // namespace vrk
