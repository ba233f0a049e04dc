/// \file
/// A simulated series as the integration takes it, with the truth.
#pragma once

#include <Eigen/LU>

#include "pipeline/base/Angle.h"
#include "pipeline/integration/Integration.h"
#include "pipeline/simulation/Simulation.h"
#include "support/Testing.h"

namespace vrk::test {

struct SimulatedInput {
    SimulatedSeries simulated;
    IntegrationInput input;
    SeriesGeometry truth;
    std::map<std::array<int, 3>, double> intensities;
};

inline SimulatedInput simulatedInput(SimulationSettings settings, LATTICE::BravaisTypes type) {
    std::mt19937 random(5);
    std::normal_distribution<double> normal;
    settings.keepReflections = true;

    SimulatedInput result;
    result.simulated = simulateSeries(settings);
    const SimulationTruth& truth = result.simulated.truth;
    SeriesGeometry& geometry = result.truth;
    geometry.ties = type;
    geometry.wavelength = truth.wavelength;
    geometry.handedness = truth.handedness;
    geometry.pixelSize = truth.pixelSize * 1e-10;
    geometry.axisAngle = truth.axis * kDegree;
    // Vectors are rows there, columns here.
    geometry.reciprocal =
        geometry.pixelSize * Eigen::Map<const Eigen::Matrix3d>(truth.conventionalVectors.front().data());
    for (std::size_t f = 0; f < truth.tilts.size(); ++f)
        geometry.frames.push_back({truth.statedTilts[f] * kDegree, frameRotation(settings) * kDegree,
                                   truth.centres[f].first, truth.centres[f].second});

    GeometryStep error = GeometryStep::Zero();
    error.head<6>() << 0.002, -0.002, 0.0015, 0.0006, -0.0005, 0.0004;
    error(FrameView::AxisAngle) = 0.0015;
    result.input.geometry = moved(geometry, error);
    for (FramePose& frame : result.input.geometry.frames) {
        frame.centreX += 0.2 * normal(random);
        frame.centreY += 0.2 * normal(random);
    }
    result.input.centring = settings.centring;
    result.input.resolution = settings.dmin;
    FrameStack& stack = result.input.frames;
    stack.width = stack.height = settings.detector.size;
    for (unsigned z = 0; z < result.simulated.series->GetDepth(); ++z)
        stack.frames.emplace_back(result.simulated.series->GetChunkPointer(z), stack.pixels());
    for (const SimulatedReflection& one : truth.reflections)
        result.intensities[{one.h, one.k, one.l}] = one.intensity;
    return result;
}

inline std::vector<double> tiltRange(double first, double last, double step) {
    std::vector<double> tilts;
    for (int i = 0; first + i * step < last + 1e-9; ++i)
        tilts.push_back(first + i * step);
    return tilts;
}

}  // namespace vrk::test
