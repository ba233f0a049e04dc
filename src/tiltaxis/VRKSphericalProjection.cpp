#include "tiltaxis/VRKSphericalProjection.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>
#include <span>
#include <string>
#include <utility>

#include "cellfinding/ClusterPoint.h"
#include "foundation/detail/Log.h"

namespace {

using VRK::detail::line;
using VRK::detail::log;

/// Number of an interval, truncated; -1 for what is not finite.
int addressOf(double angle, double width) {
    return std::isfinite(angle) ? static_cast<int>(angle / width) : -1;
}

bool isInRange(int address, int bins) {
    return address >= 0 && address <= bins;
}

void logAddressError(double phi, double theta, int phiAddress, int thetaAddress, int nPhi, int nTheta) {
    log(line("VRKSphericalProjection::getSphericalHistoImage: a difference vector has no bin: azimut_phi ",
             phi, " polar_theta ", theta, " phi_address ", phiAddress, " theta_address ", thetaAddress,
             " (image address range 0-", nPhi - 1, ", 0-", nTheta - 1, ")"),
        VRK::Error);
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
    if (!diffVectors || !image || nPhi < 1 || nTheta < 1) {
        log("VRKSphericalProjection::getSphericalHistoImage: there are no difference vectors or no image.",
            VRK::Error);
        return 0.0F;
    }
    if (!quiet) log(" DifferenceVectorCount:" + std::to_string(diffVectors->size()));
    const double phiWidth = std::numbers::pi / nPhi;
    const double thetaWidth = std::numbers::pi / nTheta;
    const std::span<int> counts(image, static_cast<std::size_t>(nPhi) * static_cast<std::size_t>(nTheta));
    for (const ClusterPoint<double>* vector : *diffVectors) {
        const double* coordinates = vector->getData();
        double u = coordinates[0], v = coordinates[1], pole = coordinates[2];
        rotatePoint(u, v, pole);
        if (u == 0.0 && v == 0.0) continue;
        const double phi = std::atan2(v, u) + std::numbers::pi / 2.0;
        const double theta = std::atan2(std::sqrt(u * u + v * v), pole);
        const int phiAddress = addressOf(phi, phiWidth);
        const int thetaAddress = addressOf(theta, thetaWidth);
        if (!isInRange(phiAddress, nPhi) || !isInRange(thetaAddress, nTheta)) {
            logAddressError(phi, theta, phiAddress, thetaAddress, nPhi, nTheta);
            return 0.0F;
        }
        ++counts[static_cast<std::size_t>(std::min(thetaAddress, nTheta - 1)) *
                     static_cast<std::size_t>(nPhi) +
                 static_cast<std::size_t>(std::min(phiAddress, nPhi - 1))];
    }
    const double variance = varianceOf(counts);
    const int largest = *std::max_element(counts.begin(), counts.end());
    if (maxValue) *maxValue = largest;
    scaleTo8Bit(counts, largest);
    if (!quiet) log(" max in diffVec Histogramm " + std::to_string(largest) + " (scaled to 8 bit)");
    log("<< VRKSphericalProjection::getSphericalHistoImage()", VRK::Debug, VRK::MethodControl);
    return static_cast<float>(variance);
}
