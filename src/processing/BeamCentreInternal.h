/// \file
/// Where the direct beam hits a pattern.
#pragma once

#include <span>

#include "processing/FrameInternal.h"

namespace VRK::detail {

struct BeamCentre {
    enum class Source {
        None,       ///< nothing found, nothing known
        Beam,       ///< the beam and its halo
        Pattern,    ///< inversion symmetry of the whole pattern
        Neighbours  ///< interpolated between other patterns
    };

    double x = 0;
    double y = 0;
    double error = 0;     ///< standard uncertainty, pixels
    double symmetry = 0;  ///< correlation of the pattern with its inversion about the centre
    Source source = Source::None;

    bool found() const { return source == Source::Beam || source == Source::Pattern; }
};

/// Finds the point about which a pattern is symmetric under inversion.
///
/// The counts are taken as their square roots, which have the same noise everywhere. A coarse copy of the
/// pattern gives candidates: its brightest places, and of each the surroundings' best symmetry. The best of
/// them is refined by least squares: the differences between pairs of opposite pixels of a disc are brought
/// to their minimum with weights (Tukey's) that fall to 0 for pairs that do not match, as at the edge of a
/// beam stop or where a reflection has no partner. A pattern that shows no beam is taken as a whole: its
/// correlation with its own inversion, by Fourier transformation, gives the candidate, a disc of nearly the
/// whole frame refines it.
class BeamCentreFinder {
public:
    BeamCentreFinder(int width, int height);

    BeamCentre find(const Frame& frame);

private:
    struct Disc {
        double radius;     ///< pixels
        double smoothing;  ///< standard deviation of the Gaussian that goes before, pixels
    };

    void compress(const Frame& frame);
    cv::Point2d coarseCentre(double& symmetry);
    bool friedelCentre(cv::Point2d& centre);
    BeamCentre refine(const cv::Mat& image, cv::Point2d start, const Disc& disc) const;
    cv::Mat_<float> withoutBackground() const;

    int m_width;
    int m_height;
    int m_step;  ///< pixels of the frame in one of the coarse copy
    cv::Mat_<float> m_roots;
    cv::Mat_<float> m_coarse;
    cv::Mat m_dead;
};

/// Gives patterns without a centre of their own one from those that have one. A centre that its
/// neighbours contradict and that shows far less symmetry than theirs counts as not found. False when no
/// pattern has a centre.
bool completeFromNeighbours(std::span<BeamCentre> centres);

}  // namespace VRK::detail
