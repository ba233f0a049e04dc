/// \file
/// Where the direct beam hits a pattern.
#pragma once

#include <algorithm>
#include <opencv2/core/mat.hpp>
#include <optional>
#include <span>
#include <vector>

#include "processing/PatternCentre.h"
#include "processing/ShadowMask.h"
#include "processing/detail/CentreTrack.h"
#include "processing/detail/Frame.h"
#include "processing/detail/SeriesMean.h"

namespace VRK::detail {

/// Standard uncertainty that needs no improvement, pixels.
inline constexpr double kPreciseCentre = 0.035;

using BeamCentre = PatternCentre;

/// Finds the point about which a pattern is symmetric under inversion.
///
/// The counts are taken as their square roots, which have the same noise everywhere. Shadows that are known
/// and dark patches (dead areas, padding) do not take part. A coarse copy of the pattern, its reflections
/// clipped, gives candidates: its brightest places, and the most symmetric points around them. The best one
/// is refined by least squares: the differences between the opposite pixels of a disc are brought to their
/// minimum with weights (Tukey's) that fall to 0 for pairs that do not match, as where a reflection has no
/// partner. The disc is as large as it takes to have enough pairs beside a shadow. It counts as the beam when
/// its surroundings are brighter than what lies further out.
///
/// A pattern that shows no beam is taken as a whole, without its background: a disc of nearly the whole frame
/// is refined from the neighbouring patterns' centre and from the maxima of the correlation of the pattern
/// with its own inversion (by Fourier transformation). Every node of a lattice, and every point between two
/// of them, is a centre of inversion but for the intensities; which of these maxima is the centre is left to
/// the series (CentreTrack). The phase correlation of the pattern with its inversion, which gives every
/// spatial frequency the same weight, offers another one.
class BeamCentreFinder {
public:
    /// \param shadows  of patterns of this size, or empty
    BeamCentreFinder(int width, int height, const ShadowMask& shadows);

    /// Shows the finder what the halo of this series looks like; where the mean of the patterns shows one, it
    /// is looked for in every pattern.
    void learnHalo(const SeriesMean& mean);

    /// One that knows the same, with scratch memory of its own.
    BeamCentreFinder another() const;

    /// The direct beam.
    BeamCentre findBeam(const Frame& frame);
    /// Places about which the whole pattern is symmetric, to a pixel or two.
    std::vector<CentreCandidate> patternCandidates(const Frame& frame);
    /// The most symmetric of the places close to \p expected.
    BeamCentre findPatternNear(const Frame& frame, cv::Point2d expected);
    /// The beam's centre, or that of the pattern around it when that one is better defined.
    BeamCentre improveWithPattern(const Frame& frame, const BeamCentre& beam);

    /// A point about which a pattern is symmetric.
    struct Symmetry {
        double correlation = -1;
        cv::Point2d centre;
        double evidence = 0;  ///< correlation times the share of the disc that has opposite pixels
    };

private:
    struct Disc {
        double radius;        ///< pixels
        double smoothing;     ///< standard deviation of the Gaussian that goes before, pixels
        double convergence;   ///< step at which the iteration ends, pixels
        double largestError;  ///< up to which the result counts as found, pixels
        bool roots = false;   ///< the image holds roots of counts, background included
        double hole = 0;      ///< radius of its middle that takes no part, pixels
    };

    /// What a refinement looks at.
    struct Surroundings {
        cv::Rect box;  ///< in the frame
        cv::Mat_<float> image;
        cv::Mat_<uchar> dead;  ///< 0 where pixels take part; empty when all do
    };

    /// A pattern at a scale at which its symmetry is quickly told.
    struct Reduced {
        int step = 1;  ///< pixels of the frame in one of it
        cv::Mat_<float> pattern;
        cv::Mat_<uchar> live;

        /// Of the disc whose symmetry is looked at.
        int radius() const { return std::min(pattern.cols, pattern.rows) * 2 / 5; }
        cv::Point2d toFrame(cv::Point2d p) const {
            return {(p.x + 0.5) * step - 0.5, (p.y + 0.5) * step - 0.5};
        }
        cv::Point2d fromFrame(cv::Point2d p) const {
            return {(p.x + 0.5) / step - 0.5, (p.y + 0.5) / step - 0.5};
        }
    };

    /// \param frame  counts of any type
    void prepare(const cv::Mat& frame, const cv::Mat& shadow);
    /// The direct beam by what is seen of it and of its halo.
    BeamCentre searchBeam();
    /// The direct beam by what the stop lets through, when that is better defined.
    BeamCentre throughStop(const BeamCentre& beside) const;
    void prepareCoarse();
    cv::Mat_<float> coarseWithoutGaps() const;
    /// The most symmetric of the bright places, in coarse pixels.
    Symmetry coarseCentre() const;
    /// Where the halo of the series fits best, in pixels of the frame.
    std::optional<cv::Point2d> haloPlace() const;
    double symmetryAt(cv::Point2d place) const;
    cv::Point2d toCoarse(cv::Point2d p) const;
    cv::Point2d fromCoarse(cv::Point2d p) const;
    int coarseRadius() const;
    Reduced reduce(const cv::Mat_<float>& pattern) const;
    /// By phase correlation; its response takes the place of the correlation.
    Symmetry phaseCentre(const Reduced& reduced) const;
    Symmetry symmetryOf(const Reduced& reduced, cv::Point2d place) const;
    std::vector<Symmetry> symmetryCentres(const Reduced& reduced, std::optional<cv::Point2d> expected) const;
    std::vector<cv::Point> friedelCentres(const Reduced& reduced) const;
    cv::Mat_<float> smoothed(const cv::Mat& image, const cv::Mat& live, double sigma) const;
    cv::Mat_<float> withoutBackground() const;
    Surroundings surroundingsOf(const cv::Mat& image, cv::Point2d centre, const Disc& disc) const;
    BeamCentre refine(const cv::Mat& image, cv::Point2d start, const Disc& disc) const;
    BeamCentre refineCoarse(cv::Point2d coarse) const;
    BeamCentre refineBeam(const BeamCentre& start, double radius) const;
    /// The centre, or where a shadow's edge runs through the beam that of the halo around when they differ.
    BeamCentre besideShadow(const BeamCentre& centre, double radius) const;
    /// Whether a shadow or a dark patch comes so close to a place.
    bool isShadowed(const BeamCentre& place, double reach) const;
    BeamCentre refinePattern(const cv::Mat_<float>& pattern, cv::Point2d start) const;
    /// From spots that lie opposite to each other, however bright they are; nothing when there are few.
    std::optional<BeamCentre> refinePairs(const cv::Mat_<float>& pattern, cv::Point2d start) const;
    /// Places of the spots, row after row.
    std::vector<cv::Point2f> spotsOf(const cv::Mat_<float>& pattern) const;
    double radiusAround(cv::Point2d centre, double least) const;
    double riseAt(const BeamCentre& centre, double radius) const;

    int m_width;
    int m_height;
    int m_step;                    ///< pixels of the frame in one of the coarse copy
    cv::Mat m_shadow;              ///< 255 in the shadows of the series; empty without any
    cv::Mat_<float> m_intoShadow;  ///< distance from a shadow's edge inside of it, pixels
    bool m_hasDead = false;
    cv::Mat m_highest;
    cv::Mat m_dead;           ///< 255 in shadows and dark patches
    cv::Mat m_live;           ///< 1 elsewhere, as float
    cv::Mat_<float> m_roots;  ///< 0 in the dead
    cv::Mat_<float> m_halo;   ///< of the series, in coarse pixels; empty when there is none
    cv::Point2d m_inHalo;     ///< the beam in it, from its middle
    cv::Mat_<float> m_coarse;
    cv::Mat_<uchar> m_coarseLive;
};

/// The centre between the nearest patterns that have one; before the first and after the last of them that of
/// the nearest. Nothing when no pattern has one.
std::optional<cv::Point2d> interpolatedCentre(std::span<const BeamCentre> centres, std::size_t pattern);

/// Gives patterns without a centre of their own that of their neighbours. False when no pattern has one.
bool completeFromNeighbours(std::span<BeamCentre> centres);

}  // namespace VRK::detail
