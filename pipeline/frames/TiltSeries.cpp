#include "pipeline/frames/TiltSeries.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>
#include <string>

#include "foundation/Version.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/UnitCheck.h"
#include "pipeline/frames/CountScale.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/frames/SeriesHeader.h"

namespace vrk {
namespace {

void checkShape(int columns, int rows, std::span<const double> tilts, const SeriesStatement& statement) {
    constexpr int kMostPixels = 16384;
    if (columns < 1 || rows < 1 || columns > kMostPixels || rows > kMostPixels)
        throw Failure(formatted("frames of %d x %d pixels cannot be used; edges are 1 to %d", columns, rows,
                                kMostPixels),
                      FailureKind::Usage);
    if (tilts.empty()) throw Failure("there are no frames; a series has 1 at least", FailureKind::Usage);
    for (std::size_t i = 0; i < tilts.size(); ++i)
        if (!std::isfinite(tilts[i]))
            throw Failure(formatted("the tilt of frame %zu is no number", i), FailureKind::Usage);
    if (!std::isfinite(statement.pixelSize) || statement.pixelSize < 0.0)
        throw Failure(formatted("the pixel size %g is none; give it in 1/m per pixel", statement.pixelSize),
                      FailureKind::Usage);
    if (statement.kiloVolts != 0.0) refuseImpossibleVoltage(statement.kiloVolts);
}

/// Frames that become one slice of a series, and its tilt.
struct Slice {
    std::vector<std::size_t> frames;
    double tilt = 0.0;
};

/// A slice a frame; where headers have no room for so many, neighbours in tilt are added up.
std::vector<Slice> slicesOf(std::span<const double> tilts, Session& session) {
    constexpr std::size_t kMost = mrcH::kMaxSlices;
    const std::size_t together = (tilts.size() + kMost - 1) / kMost;
    std::vector<std::size_t> order(tilts.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    if (together > 1) {
        session.warn(
            formatted("a series holds %zu slices: of the %zu frames every %zu neighbours are added up", kMost,
                      tilts.size(), together));
        std::stable_sort(order.begin(), order.end(),
                         [tilts](std::size_t a, std::size_t b) { return tilts[a] < tilts[b]; });
    }
    std::vector<Slice> slices;
    for (std::size_t begin = 0; begin < order.size(); begin += together) {
        const auto end = std::min(begin + together, order.size());
        Slice& slice = slices.emplace_back();
        for (std::size_t i = begin; i < end; ++i) {
            slice.frames.push_back(order[i]);
            slice.tilt += tilts[order[i]] / static_cast<double>(end - begin);
        }
    }
    return slices;
}

/// Frames as 16-bit integers.
class FrameStore {
public:
    FrameStore(VoxMRCData& data, const std::vector<Slice>& slices, const TiltSeries::FrameSource& read)
        : m_data(data), m_slices(slices), m_read(read), m_counts(data.GetChunkSize()) {}

    void fill(Session& session) {
        pass(1.0, session);
        const double scale = m_range.choice();
        if (m_invalid > 0)
            session.warn(formatted("%lld pixels that are no numbers were set to 0", m_invalid));
        if (scale != 1.0) {
            session.warn(formatted("the counts are multiplied by %g to %s 16-bit integers (%g to %g)", scale,
                                   scale > 1.0 ? "keep their fractions in" : "fit into", m_range.smallest(),
                                   m_range.largest()));
            m_clipped = 0;
            pass(scale, session);
        }
        if (m_clipped > 0)
            session.warn(formatted("%lld pixels did not fit into 16 bits and were clipped", m_clipped));
    }

private:
    void pass(double scale, Session& session) {
        const bool looks = scale == 1.0;
        for (unsigned z = 0; z < m_data.GetChunkCount(); ++z) {
            session.checkCanceled();
            const long long invalid = readSlice(m_slices[z]);
            if (looks) {
                m_invalid += invalid;
                m_range.add(m_counts);
            }
            m_clipped += storeScaled(m_counts, scale, {m_data.GetChunkPointer(z), m_counts.size()});
        }
    }

    /// \returns how many pixels were no numbers
    long long readSlice(const Slice& slice) {
        m_read(slice.frames.front(), m_counts);
        long long invalid = clearInvalid(m_counts);
        for (std::size_t i = 1; i < slice.frames.size(); ++i) {
            m_more.resize(m_counts.size());
            m_read(slice.frames[i], m_more);
            invalid += clearInvalid(m_more);
            std::transform(m_counts.begin(), m_counts.end(), m_more.begin(), m_counts.begin(), std::plus<>());
        }
        return invalid;
    }

    VoxMRCData& m_data;
    const std::vector<Slice>& m_slices;
    const TiltSeries::FrameSource& m_read;
    std::vector<float> m_counts;
    std::vector<float> m_more;  ///< of a frame that is added
    CountScale m_range;
    long long m_invalid = 0;
    long long m_clipped = 0;
};

}  // namespace

Result<TiltSeries> TiltSeries::read(const std::filesystem::path& path, Observer& observer) {
    return attempt(observer, [&](Session& session) { return TiltSeries(readSeries(path, session)); });
}

Result<TiltSeries> TiltSeries::make(int columns, int rows, std::span<const double> tilts,
                                    const SeriesStatement& statement, const FrameSource& read,
                                    Observer& observer) {
    return attempt(observer, [&](Session& session) {
        checkShape(columns, rows, tilts, statement);
        const std::vector<Slice> slices = slicesOf(tilts, session);
        std::vector<double> means;
        for (const Slice& slice : slices)
            means.push_back(slice.tilt);
        std::unique_ptr<VoxMRCData> data = emptySeries(columns, rows, slices.size());
        data->m_Header = tiltSeriesHeader(columns, rows, means, statement.pixelSize,
                                          std::string("VRKCore ") + VRK::kVersion);
        for (int z = 0; z < data->m_Header.nz; ++z) {
            data->m_Header.setValue(SliceValue::HighTension, z, static_cast<float>(statement.kiloVolts));
            data->m_Header.setValue(SliceValue::TiltAxis, z,
                                    static_cast<float>(statement.axis.value_or(0.0)));
        }
        FrameStore(*data, slices, read).fill(session);
        setDensities(*data);
        return TiltSeries(std::move(data));
    });
}

std::vector<double> TiltSeries::tilts() const {
    std::vector<double> list(static_cast<std::size_t>(frames()));
    for (int z = 0; z < frames(); ++z)
        list[static_cast<std::size_t>(z)] = m_data->m_Header.tilt(z);
    return list;
}

SeriesStatement TiltSeries::statement() const {
    const mrcH& header = m_data->m_Header;
    SeriesStatement statement{header.m_pixelsize, header.value(SliceValue::HighTension, 0), {}};
    if (const float axis = header.value(SliceValue::TiltAxis, 0); axis != 0.0F) statement.axis = axis;
    return statement;
}

std::span<const std::int16_t> TiltSeries::frame(int index) const {
    return {m_data->GetChunkPointer(static_cast<unsigned>(index)), m_data->GetChunkSize()};
}

std::unique_ptr<VoxMRCData> TiltSeries::copy() const {
    std::unique_ptr<VoxMRCData> data = emptySeries(columns(), rows(), static_cast<std::size_t>(frames()));
    data->m_Header = m_data->m_Header;
    for (unsigned z = 0; z < data->GetChunkCount(); ++z)
        std::copy_n(m_data->GetChunkPointer(z), data->GetChunkSize(), data->GetChunkPointer(z));
    return data;
}

Result<void> TiltSeries::write(const std::filesystem::path& path, Observer& observer) const {
    return attempt(observer, [&](Session& session) { writeData(*copy(), path, session); });
}

}  // namespace vrk
