#include "pipeline/frames/FileReport.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>

namespace vrk {
namespace {

/// Collects sentences of any printable parts.
class Warnings {
public:
    explicit Warnings(std::vector<std::string>& list) : m_list(list) {}

    template <class... Parts>
    void operator()(const Parts&... parts) {
        std::string line;
        (append(line, parts), ...);
        m_list.push_back(std::move(line));
    }

private:
    static void append(std::string& line, const char* part) { line += part; }
    template <class Number>
    requires std::is_arithmetic_v<Number>
    static void append(std::string& line, Number part) {
        if constexpr (std::is_integral_v<Number>)
            line += std::to_string(part);
        else
            line += shortNumber(part);
    }

    std::vector<std::string>& m_list;
};

SliceReport inspectSlice(const short* values, std::size_t count, std::uint64_t& negative) {
    SliceReport report{values[0], values[0]};
    std::int64_t sum = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const short v = values[i];
        report.minimum = v < report.minimum ? v : report.minimum;
        report.maximum = v > report.maximum ? v : report.maximum;
        report.saturated += v == std::numeric_limits<short>::max();
        negative += v < 0;
        sum += v;
    }
    report.mean = static_cast<double>(sum) / static_cast<double>(count);
    return report;
}

void inspectValues(const VoxMRCData& data, FileReport& report) {
    for (unsigned z = 0; z < data.GetDepth(); ++z) {
        report.slices.push_back(inspectSlice(data.GetChunkPointer(z), data.GetChunkSize(), report.negative));
        const SliceReport& slice = report.slices.back();
        report.minimum = z == 0 ? slice.minimum : std::min(report.minimum, slice.minimum);
        report.maximum = z == 0 ? slice.maximum : std::max(report.maximum, slice.maximum);
        report.mean += slice.mean / data.GetDepth();
        report.saturated += slice.saturated;
    }
}

TiltReport inspectTilts(const mrcH& header) {
    TiltReport report;
    report.first = header.tilt(0);
    report.last = header.tilt(header.nz - 1);
    std::vector<double> steps;
    for (int z = 0; z < header.nz; ++z) {
        report.finite = report.finite && std::isfinite(header.tilt(z));
        if (z > 0)
            steps.push_back(static_cast<double>(header.tilt(z)) - static_cast<double>(header.tilt(z - 1)));
    }
    if (!report.finite || steps.empty()) return report;
    std::sort(steps.begin(), steps.end());
    report.step = steps[steps.size() / 2];
    report.smallestStep = steps.front();
    report.largestStep = steps.back();
    const double allowed = 0.1 * std::abs(report.step) + 1e-4;
    report.regular =
        report.largestStep - report.step <= allowed && report.step - report.smallestStep <= allowed;
    return report;
}

void warnOfSize(const mrcH& h, std::uint64_t fileBytes, Warnings& warn) {
    const std::uint64_t expected = 1024 + static_cast<std::uint64_t>(std::max(h.next, 0)) +
                                   2 * static_cast<std::uint64_t>(h.nx) * static_cast<std::uint64_t>(h.ny) *
                                       static_cast<std::uint64_t>(h.nz);
    if (fileBytes < expected)
        warn("byte count: the file is ", expected - fileBytes, " bytes short of the ", expected,
             " that its header announces; the missing voxels read as 0");
    if (fileBytes > expected)
        warn("byte count: ", fileBytes - expected, " bytes follow behind the data and are not read");
    if (h.mode != 1)
        warn("mode: the header says ", h.mode,
             ", the data are read as 16-bit signed integers (mode 1); vrk import converts others");
    if (h.next < 0)
        warn("extended header: its size is negative (", h.next, "), so none is read");
    else if (h.next % 144 != 0)
        warn("extended header: ", h.next,
             " bytes are no whole number of 144-byte slice records; check the tilts");
    if (h.nsymbt != 0) warn("nsymbt: ", h.nsymbt, " bytes of symmetry records are announced but not read");
    if (h.nx != h.ny) warn("frames: not square (", h.nx, " x ", h.ny, ")");
}

void warnOfSliceValues(const mrcH& h, Warnings& warn) {
    int notFinite = 0;
    int firstSlice = -1;
    for (int z = 0; z < std::min(h.nz, mrcH::kMaxSlices); ++z) {
        for (std::size_t k = 0; k < mrcH::kSliceValueCount; ++k) {
            if (std::isfinite(h.value(static_cast<SliceValue>(k), z))) continue;
            ++notFinite;
            if (firstSlice < 0) firstSlice = z;
        }
    }
    if (notFinite > 0)
        warn("extended header: ", notFinite, " values are not finite, the first in slice ", firstSlice);
}

void warnOfPixelSize(const mrcH& h, Warnings& warn) {
    const float first = h.value(SliceValue::PixelSize, 0);
    float low = first;
    float high = first;
    for (int z = 0; z < std::min(h.nz, mrcH::kMaxSlices); ++z) {
        low = std::min(low, h.value(SliceValue::PixelSize, z));
        high = std::max(high, h.value(SliceValue::PixelSize, z));
    }
    if (low != high)
        warn("pixel size: differs between the slices (", low, " to ", high,
             " 1/m), so none is used; give it with --pixel-size");
    else if (!(h.m_pixelsize > 0) || !std::isfinite(h.m_pixelsize))
        warn("pixel size: missing; lengths come out in pixels unless --pixel-size is given");
    else if (h.m_pixelsize < 1e5F || h.m_pixelsize > 1e10F)
        warn("pixel size: ", h.m_pixelsize,
             " 1/m per pixel is unusual; diffraction patterns have 1e6 to 1e9");
}

void warnOfTilts(const mrcH& h, const TiltReport& tilts, Warnings& warn) {
    if (!tilts.finite) {
        warn("tilts: some are not finite numbers");
        return;
    }
    if (h.nz == 1) return;
    if (tilts.smallestStep == 0 && tilts.largestStep == 0)
        warn("tilts: all slices have the same, ", tilts.first, " degrees");
    else if (tilts.largestStep < 0)
        warn("tilts: descending; the reconstruction needs them ascending, vrk import sorts them");
    else if (tilts.smallestStep < 0)
        warn("tilts: not monotonic; vrk import sorts the slices");
    else if (tilts.smallestStep == 0)
        warn("tilts: some slices have the tilt of the slice before");
    else if (!tilts.regular)
        warn("tilts: the steps are not regular, ", tilts.smallestStep, " to ", tilts.largestStep,
             " degrees; frames may be missing");
    if (std::max(std::abs(tilts.first), std::abs(tilts.last)) >= 90)
        warn("tilts: 90 degrees and beyond (", tilts.first, " to ", tilts.last, ")");
}

void warnOfValues(const mrcH& h, const FileReport& report, Warnings& warn) {
    const auto slicesWith = [&report](auto condition) {
        return std::count_if(report.slices.begin(), report.slices.end(), condition);
    };
    if (report.saturated > 0)
        warn("values: ", report.saturated, " voxels in ",
             slicesWith([](const SliceReport& s) { return s.saturated > 0; }),
             " slices are clipped at 32767");
    if (report.negative > 0 && h.type == MRCType::TILT_SERIES)
        warn("values: ", report.negative,
             " are negative; counts that were stored as unsigned 16-bit read so");
    if (report.minimum == report.maximum)
        warn("values: all are ", report.minimum);
    else if (h.type == MRCType::TILT_SERIES) {
        const auto blank = slicesWith([](const SliceReport& s) { return s.minimum == s.maximum; });
        if (blank > 0) warn("values: ", blank, " slices are blank, all their pixels are equal");
    }
    if (h.amax > h.amin && (h.amin > report.minimum || h.amax < report.maximum))
        warn("values: ", report.minimum, " to ", report.maximum, ", while the header states ", h.amin, " to ",
             h.amax);
}

bool tiltedInTheMiddle(const mrcH& h) {
    for (int z = 0; z < h.nz; ++z)
        if (h.tilt(z) != 0) return true;
    return false;
}

}  // namespace

FileReport inspect(const VoxMRCData& data, std::uint64_t fileBytes) {
    const mrcH& header = data.m_Header;
    FileReport report;
    Warnings warn(report.warnings);
    inspectValues(data, report);
    warnOfSize(header, fileBytes, warn);
    if (header.next > 0) warnOfSliceValues(header, warn);
    if (header.type == MRCType::TILT_SERIES) {
        report.tilts = inspectTilts(header);
        warnOfTilts(header, report.tilts, warn);
    } else if (tiltedInTheMiddle(header)) {
        warn(
            "tilts: the first and the last are 0, so the file counts as a volume, but slices between them "
            "are tilted");
    }
    warnOfPixelSize(header, warn);
    warnOfValues(header, report, warn);
    return report;
}

std::string shortNumber(double value, int digits) {
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "%.*g", digits, value);
    return text.data();
}

}  // namespace vrk
