#include "tiltaxis/VRKSphericalProjection.h"

#include <algorithm>
#include <cstddef>
#include <span>
#include <string>
#include <utility>

#include "cellfinding/ClusterPoint.h"
#include "cellfinding/Parameter.h"
#include "foundation/detail/Log.h"
#include "reflections/ReflexVector.h"
#include "tiltaxis/detail/PairDirections.h"

namespace {

using VRK::detail::DirectionAddress;
using VRK::detail::DirectionBins;
using VRK::detail::line;
using VRK::detail::log;

void logAddressError(const DirectionAddress& address, const DirectionBins& bins) {
    log(line("VRKSphericalProjection::getSphericalHistoImage: a difference vector has no bin: azimut_phi ",
             address.phi, " polar_theta ", address.theta, " phi_address ", address.phiAddress,
             " theta_address ", address.thetaAddress, " (image address range 0-", bins.phi - 1, ", 0-",
             bins.theta - 1, ")"),
        VRK::Error);
}

bool isImage(const int* image, int nPhi, int nTheta) {
    if (image && nPhi >= 1 && nTheta >= 1) return true;
    log("VRKSphericalProjection::getSphericalHistoImage: there are no difference vectors or no image.",
        VRK::Error);
    return false;
}

std::span<int> binsOf(int* image, int nPhi, int nTheta) {
    return {image, static_cast<std::size_t>(nPhi) * static_cast<std::size_t>(nTheta)};
}

double varianceOf(std::span<const int> counts) {
    double sum = 0.0;
    for (const int count : counts)
        sum += count;
    const double mean = sum / static_cast<double>(counts.size());
    double squares = 0.0;
    for (const int count : counts)
        squares += (count - mean) * (count - mean);
    return squares / static_cast<double>(counts.size());
}

void scaleTo8Bit(std::span<int> counts, int largest) {
    if (largest <= 0) return;
    for (int& count : counts)
        count = static_cast<int>(static_cast<double>(count) / largest * 255.0);
}

/// Makes the image of the counts. \returns their variance
float finish(std::span<int> counts, int* maxValue, bool quiet) {
    const double variance = varianceOf(counts);
    const int largest = *std::max_element(counts.begin(), counts.end());
    if (maxValue) *maxValue = largest;
    scaleTo8Bit(counts, largest);
    if (!quiet) log(" max in diffVec Histogramm " + std::to_string(largest) + " (scaled to 8 bit)");
    log("<< VRKSphericalProjection::getSphericalHistoImage()", VRK::Debug, VRK::MethodControl);
    return static_cast<float>(variance);
}

}  // namespace

void VRKSphericalProjection::rotatePoint(double& /*x*/, double& y, double& z) {
    std::swap(y, z);
}

void VRKSphericalProjection::foldToHalfSpace(std::vector<ClusterPoint<double>*>* diffVectors) {
    if (!diffVectors) return;
    for (ClusterPoint<double>* vector : *diffVectors) {
        double* const v = vector->getData();
        if (v[0] < 0.0 || (v[0] == 0.0 && v[2] < 0.0))
            std::for_each(v, v + 3, [](double& coordinate) { coordinate = -coordinate; });
    }
}

float VRKSphericalProjection::getSphericalHistoImage(std::vector<ClusterPoint<double>*>* diffVectors,
                                                     int* image, int nPhi, int nTheta, int* maxValue,
                                                     bool quiet) {
    if (!isImage(diffVectors ? image : nullptr, nPhi, nTheta)) return 0.0F;
    if (!quiet) log(" DifferenceVectorCount:" + std::to_string(diffVectors->size()));
    const DirectionBins bins{nPhi, nTheta};
    const std::span<int> counts = binsOf(image, nPhi, nTheta);
    for (const ClusterPoint<double>* vector : *diffVectors) {
        const double* coordinates = vector->getData();
        double u = coordinates[0], v = coordinates[1], pole = coordinates[2];
        rotatePoint(u, v, pole);
        if (u == 0.0 && v == 0.0) continue;
        const DirectionAddress address(bins, u, pole, v);
        if (!address.isInRange(bins)) {
            logAddressError(address, bins);
            return 0.0F;
        }
        ++counts[address.bin(bins)];
    }
    return finish(counts, maxValue, quiet);
}

float VRKSphericalProjection::getSphericalHistoImageOfPairs(ReflexVector* reflections, Parameter* parameter,
                                                            int* image, int nPhi, int nTheta, int* maxValue,
                                                            std::int64_t* vectors, bool quiet) {
    *vectors = 0;
    if (!reflections || !parameter || reflections->empty()) return 0.0F;
    if (!isImage(image, nPhi, nTheta)) return 0.0F;
    VRK::detail::PairDirections pairs({nPhi, nTheta}, parameter->getMinLength(), parameter->getMaxLength());
    pairs.reserve(reflections->size());
    const int type = parameter->getWhichReflectionMiddleShouldUsed();
    for (Reflex* reflex : *reflections)
        if (reflex)
            pairs.addPoint(
                {reflex->getCenter(0, type), reflex->getCenter(1, type), reflex->getCenter(2, type)});
    const std::span<int> counts = binsOf(image, nPhi, nTheta);
    *vectors = pairs.count(counts);
    if (!quiet) log(" DifferenceVectorCount:" + std::to_string(*vectors));
    return finish(counts, maxValue, quiet);
}
