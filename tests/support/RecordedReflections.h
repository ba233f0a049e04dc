/// \file
/// Places at which an instrument shows the reflections of a known cell, for tests of what is found on them.
#pragma once

#include "indexing/EwaldCurvature.h"
#include "pipeline/base/Angle.h"
#include "support/SimulatedReflections.h"

namespace vrk::test {

inline constexpr double kPixelSize = 5.0e7;
inline constexpr double kHalfWidth = 256.0;

struct Distortion {
    double axisTurn = 0.0;  // degrees
    double ellipse = 0.0;
    double azimuth = 0.0;  // degrees
    double radial = 0.0;
    double tiltScale = 1.0;
    double axisTilt = 0.0;  // degrees
};

/// How a series shows a crystal.
struct Recording {
    double noise = 0.0;  ///< of each coordinate, voxels
    unsigned seed = 1;   ///< of noise, choice and orientation
    double tiltFirst = -60.0;
    double tiltLast = 60.0;
    double share = 0.25;  ///< of the nodes that are seen
    double step = 0.0;    ///< reflections get the tilt of the frame that shows them; 0: their own
    double turn = 0.0;    ///< of the crystal out of the orientation of the seed, degrees
    double bend = 1.0;    ///< of the sphere, of that of 200 kV; below 0 to the other side
};

/// Places of the volume at which an instrument with distortions shows the reflections of a cell.
struct Recorded {
    Recorded(const std::array<double, 6>& cell, const Distortion& distortion, const Recording& recording)
        : truth(reciprocalVectors(directCellOf(cell, recording.seed, kPixelSize))) {
        std::mt19937 random(recording.seed);
        std::normal_distribution<double> normal(0.0, recording.noise);
        std::uniform_real_distribution<double> uniform(0.0, 1.0);
        const double wavelength = recording.bend * EwaldCurvature::wavelength(200.0) * kPixelSize * 1e-10;
        const Eigen::AngleAxisd turned(recording.turn * kDegree, Eigen::Vector3d(1, 2, 2) / 3.0);
        const Eigen::Vector3d axis(0.0, std::cos(distortion.axisTilt * kDegree),
                                   std::sin(distortion.axisTilt * kDegree));
        forEachNode(truth, 220.0, [&](int h, int k, int l, const Vec3& node) {
            if (uniform(random) > recording.share) return;
            const Eigen::Vector3d g = turned * Eigen::Vector3d(node.data());
            // Where the node crosses the sphere, height = -|g|^2 lambda / 2 for the sense +1.
            const auto heightAt = [&](double tilt) {
                return (Eigen::AngleAxisd(tilt, axis) * g).z() + 0.5 * g.squaredNorm() * wavelength;
            };
            for (double tilt = recording.tiltFirst; tilt < recording.tiltLast; tilt += 1.0) {
                double low = tilt * kDegree, high = (tilt + 1.0) * kDegree;
                if (heightAt(low) * heightAt(high) > 0.0) continue;
                for (int i = 0; i < 30; ++i) {
                    const double middle = 0.5 * (low + high);
                    (heightAt(low) * heightAt(middle) <= 0.0 ? high : low) = middle;
                }
                double seen = low / distortion.tiltScale / kDegree;
                if (recording.step > 0.0) seen = std::round(seen / recording.step) * recording.step;
                record(Eigen::AngleAxisd(low, axis) * g, seen * kDegree, distortion);
                for (double& coordinate : positions.back())
                    coordinate += normal(random);
                nodes.push_back(g);
                indices.push_back({h, k, l});
                break;
            }
        });
    }

    void record(const Eigen::Vector3d& q, double tilt, const Distortion& d) {
        // From the true axis to the assumed one, then the lenses.
        const double turn = d.axisTurn * kDegree;
        Eigen::Vector2d p(q.x() * std::cos(turn) - q.y() * std::sin(turn),
                          q.x() * std::sin(turn) + q.y() * std::cos(turn));
        p *= 1.0 + d.radial * p.squaredNorm() / (kHalfWidth * kHalfWidth);
        Eigen::Matrix2d stretch;
        const double c = d.ellipse * std::cos(2.0 * d.azimuth * kDegree);
        const double s = d.ellipse * std::sin(2.0 * d.azimuth * kDegree);
        stretch << 1.0 + c, s, s, 1.0 - c;
        p = stretch * p;
        positions.push_back(centre + Eigen::Vector3d(p.x() * std::cos(tilt), p.y(), p.x() * std::sin(tilt)));
        tilts.push_back(tilt);
    }

    Mat3 truth;
    Eigen::Vector3d centre = {255.5, 255.5, 221.5};
    std::vector<Eigen::Vector3d> positions;
    std::vector<double> tilts;
    std::vector<Eigen::Vector3d> nodes;  ///< where each really lies relative to the centre
    std::vector<std::array<int, 3>> indices;
};

}  // namespace vrk::test
