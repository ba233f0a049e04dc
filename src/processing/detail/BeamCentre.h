/// \file
/// Where the direct beam hits a pattern.
#pragma once

#include <opencv2/core/mat.hpp>
#include <optional>
#include <span>
#include <vector>

#include "processing/detail/Frame.h"

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
    bool shadowed = false;  ///< dark pixels hide a part of the beam's surroundings

    bool found() const { return source == Source::Beam || source == Source::Pattern; }
};

/// Finds the point about which a pattern is symmetric under inversion.
///
/// The counts are taken as their square roots, which have the same noise everywhere. Dark patches (beam stop,
/// dead areas, padding) do not take part. A coarse copy of the pattern, its reflections clipped, gives
/// candidates: its brightest places, and the most symmetric points around them. The best one is refined by
/// least squares: the differences between the opposite pixels of a disc are brought to their minimum with
/// weights (Tukey's) that fall to 0 for pairs that do not match, as where a reflection has no partner. It
/// counts as the beam when its surroundings are brighter than what lies further out.
///
/// A pattern that shows no beam is taken as a whole, without its background: a disc of nearly the whole frame
/// is refined from the neighbouring patterns' centre and from the maxima of the correlation of the pattern
/// with its own inversion (by Fourier transformation). Every node of a lattice, and every point between two
/// of them, is a centre of inversion but for the intensities; a maximum that others nearly reach is therefore
/// not taken.
class BeamCentreFinder {
public:
    BeamCentreFinder(int width, int height);

    /// The direct beam.
    BeamCentre findBeam(const Frame& frame);
    /// The centre of the pattern; where several are as good, the one close to \p expected.
    BeamCentre findPattern(const Frame& frame, std::optional<cv::Point2d> expected);
    /// The beam's centre, or that of the pattern around it when that one is better defined.
    BeamCentre improveWithPattern(const Frame& frame, const BeamCentre& beam);

private:
    struct Disc {
        double radius;        ///< pixels
        double smoothing;     ///< standard deviation of the Gaussian that goes before, pixels
        double convergence;   ///< step at which the iteration ends, pixels
        double largestError;  ///< up to which the result counts as found, pixels
    };

    /// What a refinement looks at.
    struct Surroundings {
        cv::Rect box;  ///< in the frame
        cv::Mat image;
        cv::Mat gradientX;
        cv::Mat gradientY;
        cv::Mat dead;  ///< 0 where pixels take part; empty when all do
    };

    /// A pattern at a scale at which its symmetry is quickly told.
    struct Reduced {
        int step = 1;  ///< pixels of the frame in one of it
        cv::Mat_<float> pattern;
        cv::Mat_<uchar> live;

        cv::Point2d toFrame(cv::Point2d p) const {
            return {(p.x + 0.5) * step - 0.5, (p.y + 0.5) * step - 0.5};
        }
        cv::Point2d fromFrame(cv::Point2d p) const {
            return {(p.x + 0.5) / step - 0.5, (p.y + 0.5) / step - 0.5};
        }
    };

    void prepare(const Frame& frame);
    void prepareCoarse();
    cv::Point2d coarseCentre(double& symmetry) const;
    Reduced reduce(const cv::Mat_<float>& pattern) const;
    std::vector<cv::Point> friedelCentres(const Reduced& reduced) const;
    cv::Mat_<float> smoothed(const cv::Mat& image, const cv::Mat& live, double sigma) const;
    cv::Mat_<float> withoutBackground() const;
    Surroundings surroundingsOf(const cv::Mat& image, cv::Point2d centre, const Disc& disc) const;
    BeamCentre refine(const cv::Mat& image, cv::Point2d start, const Disc& disc) const;
    BeamCentre refinePattern(const cv::Mat& pattern, cv::Point2d start) const;
    bool isBright(const BeamCentre& centre, double radius) const;

    int m_width;
    int m_height;
    int m_step;  ///< pixels of the frame in one of the coarse copy
    bool m_hasDead = false;
    cv::Mat m_highest;
    cv::Mat m_dead;           ///< 255 in dark patches
    cv::Mat m_live;           ///< 1 elsewhere, as float
    cv::Mat_<float> m_roots;  ///< 0 in dark patches
    cv::Mat_<float> m_coarse;
    cv::Mat_<uchar> m_coarseLive;
};

/// The centre between the nearest patterns that have one; before the first and after the last of them that of
/// the nearest. Nothing when no pattern has one.
std::optional<cv::Point2d> interpolatedCentre(std::span<const BeamCentre> centres, std::size_t pattern);

/// Discards centres that their neighbours contradict and that show far less symmetry than the others.
void discardContradicted(std::span<BeamCentre> centres);

/// Gives patterns without a centre of their own that of their neighbours. False when no pattern has one.
bool completeFromNeighbours(std::span<BeamCentre> centres);

}  // namespace VRK::detail
