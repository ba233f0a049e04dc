#include "cellfinding/RANSAC.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <random>
#include <string>

#include "crystallography/VoxVTKMath.h"
#include "foundation/VRKLogger.h"

namespace {

using Coordinates = std::vector<double>;

bool refuseLines(const std::string& why) {
    VRKLogger::getInstance()->log("No lines can be fitted: " + why, VRK::Error, VRK::Information);
    return false;
}

bool areUsable(const RANSAC::Settings& s) {
    if (s.mostLines < 1 || s.leastInliers < 1 || s.mostDraws < 1)
        return refuseLines("numbers of lines, inliers and draws must be at least 1.");
    if (!(s.tolerance > 0.0) || !std::isfinite(s.tolerance))
        return refuseLines("the tolerance must be above 0.");
    if (!(s.confidence > 0.0 && s.confidence < 1.0))
        return refuseLines("the confidence must lie between 0 and 1.");
    return true;
}

bool areUsable(const std::vector<Point<double>*>& points, const std::vector<double>* uncertainties) {
    if (uncertainties && uncertainties->size() != points.size())
        return refuseLines("there are " + std::to_string(points.size()) + " points and " +
                           std::to_string(uncertainties->size()) + " uncertainties.");
    for (std::size_t i = 0; i < points.size(); ++i) {
        const Point<double>* point = points[i];
        const std::string number = std::to_string(i);
        if (!point || point->getDimension() < 2 || point->getDimension() != points[0]->getDimension())
            return refuseLines("point " + number + " is missing or has the wrong number of coordinates.");
        for (int axis = 0; axis < point->getDimension(); ++axis)
            if (!std::isfinite(point->getData(axis)))
                return refuseLines("point " + number + " has a coordinate that is no number.");
        if (uncertainties && !((*uncertainties)[i] > 0.0 && std::isfinite((*uncertainties)[i])))
            return refuseLines("the uncertainty of point " + number + " is not above 0.");
    }
    return true;
}

/// A line with a unit direction, and how well it is supported.
struct Candidate {
    Coordinates point;
    Coordinates direction;
    double support = 0.0;
    std::size_t inliers = 0;
};

class Search {
public:
    Search(const std::vector<Point<double>*>& points, const std::vector<double>* uncertainties,
           const RANSAC::Settings& settings)
        : m_settings(settings),
          m_dimension(points.empty() ? 0 : points.front()->getDimension()),
          m_free(points.size()),
          m_random(settings.seed) {
        for (const Point<double>* point : points)
            m_coordinates.insert(m_coordinates.end(), point->getData(), point->getData() + m_dimension);
        for (std::size_t i = 0; i < points.size(); ++i) {
            const double sigma = uncertainties ? (*uncertainties)[i] : 1.0;
            m_certainty.push_back(1.0 / (sigma * sigma));
        }
        std::iota(m_free.begin(), m_free.end(), std::size_t(0));
    }

    /// The best line through the free points; its inliers are no longer free then.
    bool next(RANSAC::FittedLine& found) {
        Candidate best = bestDraw();
        if (best.inliers == 0) return false;
        std::vector<std::size_t> inliers = inliersOf(best);
        constexpr int kRounds = 30;
        for (int round = 0; round < kRounds && fit(inliers, best); ++round) {
            std::vector<std::size_t> closer = inliersOf(best);
            if (closer == inliers) break;
            inliers = std::move(closer);
        }
        if (inliers.size() < static_cast<std::size_t>(m_settings.leastInliers)) return false;
        found.line = Line<double>(best.point.data(), best.direction.data(), m_dimension);
        found.inliers.assign(inliers.begin(), inliers.end());
        found.rms = rmsOf(inliers, best);
        std::vector<std::size_t> rest;
        std::set_difference(m_free.begin(), m_free.end(), inliers.begin(), inliers.end(),
                            std::back_inserter(rest));
        m_free = std::move(rest);
        return true;
    }

private:
    const double* at(std::size_t i) const {
        return m_coordinates.data() + i * static_cast<std::size_t>(m_dimension);
    }
    std::size_t drawFree() { return m_free[m_random() % m_free.size()]; }

    double squareDistance(std::size_t i, const Candidate& line) const {
        const double* p = at(i);
        double along = 0.0;
        double square = 0.0;
        for (std::size_t k = 0; k < line.point.size(); ++k) {
            const double d = p[k] - line.point[k];
            along += d * line.direction[k];
            square += d * d;
        }
        return std::max(0.0, square - along * along);
    }

    /// A line through random points; false when they are the same.
    bool draw(Candidate& line) {
        const double* from = m_settings.throughOrigin ? nullptr : at(drawFree());
        const double* to = at(drawFree());
        double square = 0.0;
        for (std::size_t k = 0; k < line.point.size(); ++k) {
            line.point[k] = from ? from[k] : 0.0;
            line.direction[k] = to[k] - line.point[k];
            square += line.direction[k] * line.direction[k];
        }
        if (!(square > 0.0)) return false;
        for (double& x : line.direction)
            x /= std::sqrt(square);
        return true;
    }

    void judge(Candidate& line) const {
        const double bound = m_settings.tolerance * m_settings.tolerance;
        line.support = 0.0;
        line.inliers = 0;
        for (const std::size_t i : m_free) {
            const double square = squareDistance(i, line) * m_certainty[i];
            if (!(square < bound)) continue;
            line.support += 1.0 - square / bound;
            ++line.inliers;
        }
    }

    Candidate bestDraw() {
        Candidate best;
        if (m_free.empty()) return best;
        Candidate line;
        line.point.resize(static_cast<std::size_t>(m_dimension));
        line.direction.resize(static_cast<std::size_t>(m_dimension));
        double enough = m_settings.mostDraws;
        for (int draws = 0; draws < m_settings.mostDraws && draws < enough; ++draws) {
            if (!draw(line)) continue;
            judge(line);
            if (line.support <= best.support) continue;
            best = line;
            enough = drawsFor(static_cast<double>(best.inliers) / static_cast<double>(m_free.size()));
        }
        return best;
    }

    /// How many draws hit inliers alone with the confidence asked for, when this is their share.
    double drawsFor(double share) const {
        const double hit = m_settings.throughOrigin ? share : share * share;
        return hit < 1.0 ? std::ceil(std::log(1.0 - m_settings.confidence) / std::log(1.0 - hit)) : 1.0;
    }

    std::vector<std::size_t> inliersOf(const Candidate& line) const {
        const double bound = m_settings.tolerance * m_settings.tolerance;
        std::vector<std::size_t> inliers;
        for (const std::size_t i : m_free)
            if (squareDistance(i, line) * m_certainty[i] < bound) inliers.push_back(i);
        return inliers;
    }

    /// The line of least squares through the points; false, with the line unchanged, when they have none.
    bool fit(const std::vector<std::size_t>& inliers, Candidate& line) const {
        const std::size_t n = line.point.size();
        Coordinates centre(n, 0.0);
        double weights = 0.0;
        for (const std::size_t i : inliers) {
            weights += m_certainty[i];
            for (std::size_t k = 0; k < n; ++k)
                centre[k] += m_certainty[i] * at(i)[k];
        }
        if (!(weights > 0.0)) return false;
        for (double& x : centre)
            x = m_settings.throughOrigin ? 0.0 : x / weights;

        Coordinates moments(n * n, 0.0), axes(n * n, 0.0), values(n, 0.0);
        for (const std::size_t i : inliers)
            for (std::size_t k = 0; k < n; ++k)
                for (std::size_t l = 0; l <= k; ++l)
                    moments[k * n + l] += m_certainty[i] * (at(i)[k] - centre[k]) * (at(i)[l] - centre[l]);
        std::vector<const double*> momentRows;
        std::vector<double*> axisRows;
        for (std::size_t k = 0; k < n; ++k) {
            momentRows.push_back(&moments[k * n]);
            axisRows.push_back(&axes[k * n]);
        }
        if (!VoxVTKMath::JacobiN(momentRows.data(), m_dimension, values.data(), axisRows.data()) ||
            !(values[0] > 0.0))
            return false;
        line.point = centre;
        for (std::size_t k = 0; k < n; ++k)
            line.direction[k] = axes[k * n];
        return true;
    }

    double rmsOf(const std::vector<std::size_t>& inliers, const Candidate& line) const {
        double sum = 0.0;
        double weights = 0.0;
        for (const std::size_t i : inliers) {
            sum += m_certainty[i] * squareDistance(i, line);
            weights += m_certainty[i];
        }
        return weights > 0.0 ? std::sqrt(sum / weights) : 0.0;
    }

    const RANSAC::Settings& m_settings;
    int m_dimension;
    Coordinates m_coordinates;
    std::vector<double> m_certainty;
    std::vector<std::size_t> m_free;
    std::mt19937 m_random;
};

}  // namespace

bool RANSAC::fitLines(const std::vector<Point<double>*>* points, const std::vector<double>* uncertainties,
                      const Settings& settings, std::vector<FittedLine>* lines) {
    if (!points || !lines) return refuseLines("there is no list of points or of lines.");
    if (!areUsable(settings) || !areUsable(*points, uncertainties)) return false;
    Search search(*points, uncertainties, settings);
    std::vector<FittedLine> found;
    for (int i = 0; i < settings.mostLines; ++i) {
        FittedLine line{Line<double>(2), {}, 0.0};
        if (!search.next(line)) break;
        found.push_back(std::move(line));
    }
    *lines = std::move(found);
    return true;
}
