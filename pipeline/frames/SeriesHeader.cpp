#include "pipeline/frames/SeriesHeader.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <span>

#include "pipeline/base/MemoryLimit.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/base/NumberText.h"

namespace vrk {
namespace {

constexpr std::size_t kLabelLength = 80;
constexpr std::string_view kRotation = "rotation of a frame (deg):";
constexpr std::string_view kPrecession = "precession (deg):";

/// The number behind a name, from 0 to a largest one.
std::optional<double> numberAfter(std::string_view text, std::string_view name, double largest) {
    const std::size_t at = text.find(name);
    if (at == std::string_view::npos) return std::nullopt;
    std::string word(text.substr(at + name.size()));
    word.erase(0, word.find_first_not_of(' '));
    word.resize(std::min(word.find_first_of(", "), word.size()));
    double value = 0;
    if (!parseNumber(word, value) || !(value >= 0 && value <= largest)) return std::nullopt;
    return value;
}

}  // namespace

mrcH tiltSeriesHeader(int width, int height, const std::vector<double>& tilts, double pixelSize,
                      const std::string& label) {
    constexpr int recordBytes = 144;
    mrcH header;
    header.type = MRCType::TILT_SERIES;
    header.m_pixelsize = static_cast<float>(pixelSize);
    header.nx = header.mx = width;
    header.ny = header.my = height;
    header.nz = header.mz = static_cast<int>(tilts.size());
    header.mode = 1;
    header.xlen = static_cast<float>(width * pixelSize);
    header.ylen = static_cast<float>(height * pixelSize);
    header.zlen = static_cast<float>(static_cast<double>(tilts.size()) * pixelSize);
    header.alpha = header.beta = header.gamma = 90;
    header.mapc = 1;
    header.mapr = 2;
    header.maps = 3;
    header.next = recordBytes * header.nz;
    header.cmap = {'M', 'A', 'P', ' '};
    header.stamp = {0x44, 0x41, 0, 0};  // little-endian
    header.nlabl = 1;
    header.labl.fill(' ');
    std::copy_n(label.begin(), std::min(label.size(), kLabelLength), header.labl.begin());
    for (int i = 0; i < header.nz; ++i) {
        header.setValue(SliceValue::TiltAngle, i, static_cast<float>(tilts[static_cast<std::size_t>(i)]));
        header.setValue(SliceValue::PixelSize, i, static_cast<float>(pixelSize));
    }
    return header;
}

void stateMotion(mrcH& header, const StatedMotion& motion) {
    std::string text =
        formatted("%.*s %.6g", static_cast<int>(kRotation.size()), kRotation.data(), motion.rotation);
    if (motion.precession > 0)
        text += formatted(", %.*s %.6g", static_cast<int>(kPrecession.size()), kPrecession.data(),
                          motion.precession);
    const auto label = header.labl.begin() + kLabelLength;
    std::fill_n(label, kLabelLength, ' ');
    std::copy_n(text.begin(), std::min(text.size(), kLabelLength), label);
    header.nlabl = std::max(header.nlabl, 2);
}

std::optional<StatedMotion> statedMotion(std::string_view labels) {
    constexpr double kMostRotation = 90;
    constexpr double kMostPrecession = 10;
    for (std::size_t start = 0; start < labels.size(); start += kLabelLength) {
        const std::string_view label = labels.substr(start, kLabelLength);
        if (const auto rotation = numberAfter(label, kRotation, kMostRotation))
            return StatedMotion{*rotation, numberAfter(label, kPrecession, kMostPrecession).value_or(0)};
    }
    return std::nullopt;
}

std::optional<StatedMotion> statedMotion(const mrcH& header) {
    return statedMotion(std::string_view(header.labl.data(), header.labl.size()));
}

std::unique_ptr<VoxMRCData> emptySeries(int width, int height, std::size_t slices) {
    requireMemory(2 * static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height) * slices,
                  formatted("%zu slices of %d x %d pixels", slices, width, height));
    std::unique_ptr<VoxMRCData> series(VoxMRCData::Create3D(
        static_cast<unsigned>(width), static_cast<unsigned>(height), static_cast<unsigned>(slices)));
    if (!series) throw std::bad_alloc();
    return series;
}

void setDensities(VoxMRCData& series) {
    short lowest = 32767;
    short highest = -32768;
    double total = 0;
    const unsigned slices = series.GetChunkCount();
    for (unsigned z = 0; z < slices; ++z) {
        const std::span<const short> slice(series.GetChunkPointer(z), series.GetChunkSize());
        double sum = 0;
        for (const short value : slice) {
            lowest = std::min(lowest, value);
            highest = std::max(highest, value);
            sum += value;
        }
        series.m_Header.setValue(SliceValue::MeanIntensity, static_cast<int>(z),
                                 static_cast<float>(sum / static_cast<double>(slice.size())));
        total += sum / static_cast<double>(slice.size());
    }
    series.m_Header.amin = lowest;
    series.m_Header.amax = highest;
    series.m_Header.amean = static_cast<float>(total / slices);
}

}  // namespace vrk
