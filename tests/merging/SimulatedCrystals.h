/// \file
/// Crystals of one structure as series of wedges measure them, with a known truth.
#pragma once

#include <Eigen/Dense>
#include <cmath>
#include <gemmi/symmetry.hpp>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "pipeline/base/Angle.h"
#include "pipeline/integration/SeriesGeometry.h"
#include "pipeline/merging/CrystalMerge.h"
#include "pipeline/simulation/SimulatedCrystal.h"
#include "support/Indices.h"

namespace testing_support {

struct SimulatedCrystals {
    std::array<double, 6> cell{};
    char centring = 'P';
    std::string bravais;
    std::string group;          ///< Hermann-Mauguin symbol
    double wedge = 80;          ///< degrees that each crystal turns by
    double noise = 0.03;        ///< relative, beside a constant part
    std::size_t random = ~0UL;  ///< this one has intensities of its own
    /// Bases in which crystals come in turn, vectors as columns in the true one.
    std::vector<Eigen::Matrix3d> bases = {Eigen::Matrix3d::Identity()};
    unsigned seed = 5;

    std::vector<double> k = {}, b = {};  ///< scales as they were drawn
    std::map<vrk::Indices, double> truth = {};

    std::vector<vrk::CrystalData> make(std::size_t count);

private:
    Eigen::Matrix3d reciprocal() const {
        // Its rows are our columns.
        const vrk::Matrix3 rows = vrk::SimulatedCrystal::fromCell(cell, 'P', 0, 1).reciprocal();
        return Eigen::Map<const Eigen::Matrix3d>(rows.front().data());
    }
};

inline std::vector<vrk::CrystalData> SimulatedCrystals::make(std::size_t count) {
    constexpr double kLongest = 0.95;
    const Eigen::Matrix3d base = reciprocal();
    const gemmi::SpaceGroup* space = gemmi::find_spacegroup_by_name(group);
    const gemmi::GroupOps operations = space->operations();
    const gemmi::ReciprocalAsu unique(space);
    std::mt19937 engine(seed);
    std::normal_distribution<double> normal;
    std::exponential_distribution<double> wilson(1.0 / 1000);
    std::map<gemmi::Op::Miller, double> drawn;
    truth.clear();
    std::vector<int> most;
    for (std::size_t i = 0; i < 3; ++i)
        most.push_back(static_cast<int>(cell[i] * kLongest) + 1);
    forEachIndex(most[0], most[1], most[2], [&](int h, int k0, int l) {
        const double length = (base * Eigen::Vector3d(h, k0, l)).norm();
        if (length == 0 || length > kLongest || vrk::isExtinct(centring, h, k0, l)) return;
        const auto [entry, isNew] = drawn.try_emplace(unique.to_asu({h, k0, l}, operations).first, 0.0);
        if (isNew) entry->second = wilson(engine) * std::exp(-3 * length * length);
        truth[{h, k0, l}] = entry->second;
    });
    std::vector<vrk::CrystalData> crystals;
    k.clear();
    b.clear();
    for (std::size_t n = 0; n < count; ++n) {
        const auto direction = [&] {
            return Eigen::Vector3d::NullaryExpr([&] { return normal(engine); }).normalized().eval();
        };
        const Eigen::Vector3d axis = direction(), beam = axis.cross(direction()).normalized();
        k.push_back(0.6 * normal(engine));
        b.push_back(0.8 * normal(engine));
        const Eigen::Matrix3d& own = bases[n % bases.size()];
        const Eigen::Matrix3d turned = base * own.inverse().transpose();
        vrk::CrystalData crystal;
        crystal.name = "crystal" + std::to_string(n);
        crystal.cell.cell = vrk::directCell(turned);
        crystal.cell.centring = centring;
        crystal.bravais = bravais;
        crystal.kiloVolts = 200;
        crystal.dMin = 1 / kLongest;
        std::map<gemmi::Op::Miller, double> others;
        for (const auto& [hkl, intensity] : truth) {
            const Eigen::Vector3d place = base * Eigen::Vector3d(hkl[0], hkl[1], hkl[2]);
            const double along = place.dot(axis) / place.norm();
            const double tilt = std::atan2(place.dot(beam), place.dot(axis.cross(beam))) / vrk::kDegree;
            if (std::abs(along) > 0.95 || std::abs(std::remainder(tilt, 180)) > wedge / 2) continue;
            double value = intensity;
            if (n == random) {
                const auto [entry, isNew] =
                    others.try_emplace(unique.to_asu({hkl[0], hkl[1], hkl[2]}, operations).first, 0.0);
                if (isNew) entry->second = wilson(engine) * std::exp(-3 * place.squaredNorm());
                value = entry->second;
            }
            vrk::Observation one;
            const Eigen::Vector3d indices = own.transpose() * Eigen::Vector3d(hkl[0], hkl[1], hkl[2]);
            for (int i = 0; i < 3; ++i)
                one.hkl[static_cast<std::size_t>(i)] = static_cast<int>(std::lround(indices[i]));
            one.spacing = 1 / place.norm();
            const double scale = std::exp(k[n] - 0.5 * b[n] * place.squaredNorm());
            one.sigma = std::hypot(10, noise * value * scale);
            one.intensity = value * scale + one.sigma * normal(engine);
            crystal.observations.push_back(one);
        }
        crystals.push_back(std::move(crystal));
    }
    return crystals;
}

}  // namespace testing_support
