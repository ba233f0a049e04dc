#include "VoxCore/IO/DummyCrystal.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <memory>
#include <numbers>
#include <span>
#include <string_view>
#include <vector>

#include "VoxCore/DataModel/VoxHistogram.h"
#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"

namespace {

using VRK::DummyCrystal;

constexpr double kCentreX = (DummyCrystal::kWidth - 1) / 2.0;
constexpr double kCentreY = (DummyCrystal::kHeight - 1) / 2.0;
constexpr double kReach = 4.0;  ///< in sigmas; beyond it a spot has fallen to 0.03 % of its height

struct Spot {
    double x, y, z;
    double height;
};

/// Between 0 and 1, different for neighbouring nodes, the same for opposite ones.
double structureOfNode(int h, int k, int l) {
    const double golden = std::numbers::phi - 1;
    const double whole = std::abs(7 * h + 13 * k + 29 * l) * golden;
    return whole - std::floor(whole);
}

std::vector<Spot> spotsOfCrystal() {
    constexpr int most = 6;  // more than kLastSpot divided by any distance between lattice planes
    const auto& [a, b, c] = DummyCrystal::kReciprocalVectors;
    std::vector<Spot> spots;
    for (int h = -most; h <= most; ++h) {
        for (int k = -most; k <= most; ++k) {
            for (int l = -most; l <= most; ++l) {
                Spot spot{h * a[0] + k * b[0] + l * c[0], h * a[1] + k * b[1] + l * c[1],
                          h * a[2] + k * b[2] + l * c[2], DummyCrystal::kDirectBeam};
                const double distance = std::hypot(spot.x, spot.y, spot.z);
                if (distance > DummyCrystal::kLastSpot) continue;
                if (distance > 0) {
                    const double range = DummyCrystal::kStrongestSpot - DummyCrystal::kWeakestSpot;
                    spot.height = (DummyCrystal::kWeakestSpot + range * structureOfNode(h, k, l)) *
                                  std::exp(-distance * distance / (2 * 50.0 * 50.0));
                }
                spots.push_back(spot);
            }
        }
    }
    return spots;
}

double background(double x, double y) {
    const double r = std::hypot(x - kCentreX, y - kCentreY);
    return 10.0 + 60.0 * std::exp(-r / 15.0);
}

/// Adds the cut that the pattern's plane makes through the spot. (r, depth) is the spot's place in the
/// pattern and its height above the pattern's plane.
void addSpot(const Spot& spot, double tilt, std::vector<double>& pattern) {
    const double depth = spot.z * std::cos(tilt) - spot.x * std::sin(tilt);
    const double reach = kReach * DummyCrystal::kSpotSigma;
    if (std::abs(depth) > reach) return;
    const double x0 = kCentreX + spot.x * std::cos(tilt) + spot.z * std::sin(tilt);
    const double y0 = kCentreY + spot.y;
    const auto first = [reach](double centre) {
        return std::max(0, static_cast<int>(std::ceil(centre - reach)));
    };
    const auto last = [reach](double centre, int size) {
        return std::min(size - 1, static_cast<int>(std::floor(centre + reach)));
    };
    const double scale = -1 / (2 * DummyCrystal::kSpotSigma * DummyCrystal::kSpotSigma);
    for (int y = first(y0); y <= last(y0, DummyCrystal::kHeight); ++y) {
        for (int x = first(x0); x <= last(x0, DummyCrystal::kWidth); ++x) {
            const double squared = (x - x0) * (x - x0) + (y - y0) * (y - y0) + depth * depth;
            pattern[static_cast<std::size_t>(y) * DummyCrystal::kWidth + static_cast<std::size_t>(x)] +=
                spot.height * std::exp(squared * scale);
        }
    }
}

void renderPattern(const std::vector<Spot>& spots, double tiltDegrees, std::span<short> out) {
    std::vector<double> pattern(out.size());
    for (int y = 0; y < DummyCrystal::kHeight; ++y)
        for (int x = 0; x < DummyCrystal::kWidth; ++x)
            pattern[static_cast<std::size_t>(y) * DummyCrystal::kWidth + static_cast<std::size_t>(x)] =
                background(x, y);
    for (const Spot& spot : spots)
        addSpot(spot, tiltDegrees * std::numbers::pi / 180, pattern);
    std::transform(pattern.begin(), pattern.end(), out.begin(),
                   [](double value) { return static_cast<short>(std::lround(value)); });
}

}  // namespace

mrcH* VoxMRCFileHandler::createDummyMRCTiltHeader() {
    auto header = std::make_unique<mrcH>();
    header->type = MRCType::TILT_SERIES;
    header->m_pixelsize = DummyCrystal::kPixelSize;
    header->nx = header->mx = DummyCrystal::kWidth;
    header->ny = header->my = DummyCrystal::kHeight;
    header->nz = header->mz = DummyCrystal::kSlices;
    header->mode = 1;  // 16-bit signed
    header->xlen = static_cast<float>(header->nx);
    header->ylen = static_cast<float>(header->ny);
    header->zlen = static_cast<float>(header->nz);
    header->alpha = header->beta = header->gamma = 90;
    header->mapc = 1;
    header->mapr = 2;
    header->maps = 3;
    header->next = header->nz * 144;
    header->cmap = {'M', 'A', 'P', ' '};
    header->stamp = {'D', 'D', '\0', '\0'};  // little-endian
    header->nlabl = 1;
    header->labl.fill(' ');
    constexpr std::string_view label = "VRKCore: synthetic tilt series of a triclinic crystal";
    std::copy(label.begin(), label.end(), header->labl.begin());
    for (int z = 0; z < header->nz; ++z) {
        header->setValue(SliceValue::TiltAngle, z,
                         DummyCrystal::kFirstTilt + static_cast<float>(z) * DummyCrystal::kTiltStep);
        header->setValue(SliceValue::PixelSize, z, DummyCrystal::kPixelSize);
        header->setValue(SliceValue::ExposureTime, z, 1.0F);
        header->setValue(SliceValue::HighTension, z, DummyCrystal::kHighTension);
    }
    return header.release();
}

VoxMRCData* VoxMRCFileHandler::createTestDummyMRCFile() {
    const std::unique_ptr<mrcH> header(createDummyMRCTiltHeader());
    std::unique_ptr<VoxMRCData> data(
        VoxMRCData::Create3D(DummyCrystal::kWidth, DummyCrystal::kHeight, DummyCrystal::kSlices));
    if (!data) failAllocation(*header);
    const std::vector<Spot> spots = spotsOfCrystal();
    double sum = 0;
    for (int z = 0; z < header->nz; ++z) {
        const std::span<short> slice(data->GetChunkPointer(static_cast<unsigned>(z)), data->GetChunkSize());
        renderPattern(spots, header->tilt(z), slice);
        double sliceSum = 0;
        for (short value : slice)
            sliceSum += value;
        header->setValue(SliceValue::MeanIntensity, z,
                         static_cast<float>(sliceSum / static_cast<double>(slice.size())));
        sum += sliceSum;
    }
    auto histogram = std::make_unique<VoxHistogram<short>>(data.get(), static_cast<unsigned short>(256),
                                                           std::vector<short>());
    histogram->Update();
    header->amin = histogram->m_MinValue;
    header->amax = histogram->m_MaxValue;
    header->amean = static_cast<float>(sum / data->GetDataSize());
    data->m_Header = *header;
    data->m_Histogram = histogram.release();
    return data.release();
}
