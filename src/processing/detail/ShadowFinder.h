/// \file
/// The shadow of a beam stop in the mean of a series.
#pragma once

#include <vector>

#include "processing/ImageOperations.h"
#include "processing/ShadowMask.h"
#include "processing/detail/SeriesMean.h"

namespace VRK::detail {

/// Finds regions that are dark and sharp, then the bars and discs that they belong to.
///
/// What surrounds a pixel is the level of the mean after a morphological closing with a disc of a third of
/// the frame: it fills what is narrower than that and leaves a halo as it is, whose contours are convex.
class ShadowFinder {
public:
    using Mask = std::vector<unsigned char>;

    /// \param mean  without the rows and columns of a cross; must outlive this object
    explicit ShadowFinder(const SeriesMean& mean);

    /// 255 in the shadow, with a margin for the penumbra; empty when there is none.
    Mask find();
    const std::vector<ShadowMask::Bar>& bars() const { return m_bars; }
    const std::vector<ShadowMask::Disc>& discs() const { return m_discs; }

private:
    /// A dark region by itself.
    struct Shadow {
        Mask pixels;
        Mask outline;
        float depth;  ///< largest natural logarithm of surroundings over level
    };

    void measureLevel();
    void findEdges();
    void measureSurroundings();
    std::vector<Shadow> darkRegions() const;
    bool isSharp(const Shadow& shadow, const Mask& known) const;
    void findBars(const Shadow& shadow);
    void findDisc(const Shadow& shadow);
    void follow(ShadowMask::Bar& bar) const;
    bool hasSides(double x, double y, double alongX, double alongY, double width) const;
    void fillHoles(Mask& mask) const;
    void paintShapes(Mask& mask) const;
    double shareOf(const ShadowMask::Disc& disc, const Mask& mask) const;
    std::size_t indexOf(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(m_mean.width) +
               static_cast<std::size_t>(x);
    }

    template <typename T>
    ImageView<T> view(const std::vector<T>& pixels) const {
        return {pixels.data(), m_mean.width, m_mean.height};
    }

    const SeriesMean& m_mean;
    int m_unit;                      ///< a hundredth of the frame's shorter edge, pixels
    double m_counts = 0;             ///< level * counts has about the variance of a counting experiment
    Mask m_edges;                    ///< three pixels wide; found where there is a region that is dark
    std::vector<float> m_withSpots;  ///< the mean, a little smoothed
    std::vector<float> m_level;      ///< the same without reflections
    std::vector<float> m_logs;       ///< natural logarithm of the level
    std::vector<float> m_depths;     ///< of the surroundings over the level, the same
    std::vector<ShadowMask::Bar> m_bars;
    std::vector<ShadowMask::Disc> m_discs;
};

}  // namespace VRK::detail
