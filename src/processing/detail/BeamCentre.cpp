#include "processing/detail/BeamCentre.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <optional>
#include <vector>

#include "foundation/detail/Median.h"
#include "foundation/detail/Selection.h"
#include "processing/ImageOperations.h"
#include "processing/detail/CountRoots.h"
#include "processing/detail/InversionSums.h"
#include "processing/detail/OppositePixels.h"

namespace VRK::detail {
namespace {

constexpr int kCoarseSize = 64;
constexpr int kCandidates = 4;
constexpr int kFriedelCandidates = 5;
constexpr int kMostIterations = 25;
constexpr double kConverged = 0.005;
constexpr double kWellConverged = 0.001;
/// Near the minimum the weights may keep the last steps from getting smaller.
constexpr double kNearlyConverged = 0.03;
constexpr double kLargestError = 0.1;
constexpr double kLargestBeamError = 0.3;
/// By which the surroundings of a beam are brighter than what lies further out, in roots of counts; and those
/// of a beam whose place is not well defined.
constexpr double kLeastRise = 0.2;
constexpr double kClearRise = 1.0;
/// Two measurements of one centre differ by less, in standard uncertainties of the worse one.
constexpr double kConsistent = 4.0;
constexpr double kRoughError = 1.0;
constexpr double kFewestInliers = 0.35;

/// Correlation of the opposite pixels of a disc about (sx / 2, sy / 2); -1 when too few of them exist.
double inversionCorrelation(const cv::Mat_<float>& image, const cv::Mat_<uchar>& live, cv::Point s,
                            int radius) {
    double n = 0, sum = 0, squares = 0, products = 0;
    for (int y = (s.y + 1) / 2; y < image.rows && 2 * y - s.y <= 2 * radius; ++y) {
        const int oppositeY = s.y - y;
        if (oppositeY < 0) break;
        const double height = 0.5 * (2 * y - s.y);
        const int reach = static_cast<int>(std::sqrt(std::max(0.0, radius * radius - height * height)));
        const int from = std::max({s.x / 2 - reach, 0, s.x - image.cols + 1});
        const int to = std::min({(s.x + 1) / 2 + reach, image.cols - 1, s.x});
        for (int x = from; x <= to; ++x) {
            if (!live(y, x) || !live(oppositeY, s.x - x)) continue;
            const double a = image(y, x);
            const double b = image(oppositeY, s.x - x);
            n += 2;
            sum += a + b;
            squares += a * a + b * b;
            products += 2 * a * b;
        }
    }
    if (n < 0.8 * radius * radius) return -1;
    const double mean = sum / n;
    const double variance = squares / n - mean * mean;
    return variance > 1e-9 ? (products / n - mean * mean) / variance : -1;
}

using Symmetry = BeamCentreFinder::Symmetry;

/// Response of a phase correlation below which its peak is that of noise.
constexpr double kLeastPhase = 0.1;
/// Distance of two centres that are one, pixels of the reduced pattern.
constexpr double kSameCentre = 1.5;

double apart(const Symmetry& a, const Symmetry& b) {
    return std::hypot(a.centre.x - b.centre.x, a.centre.y - b.centre.y);
}

/// Share of the disc's pixels that lie in the frame together with their opposites.
double shareInside(cv::Size size, cv::Point2d centre, int radius) {
    const double across = std::min({centre.x, size.width - 1 - centre.x, double(radius)});
    const double down = std::min({centre.y, size.height - 1 - centre.y, double(radius)});
    double pixels = 0;
    for (int y = 0; y <= radius; ++y)
        if (y <= down) pixels += std::min(across, std::sqrt(double(radius * radius - y * y)));
    return 4 * pixels / (std::numbers::pi * radius * radius);
}

/// Climbs from a candidate to the most symmetric point around.
Symmetry bestSymmetry(const cv::Mat_<float>& image, const cv::Mat_<uchar>& live, cv::Point candidate,
                      int radius) {
    constexpr int kReach = 2;  // half pixels
    constexpr int kMostSteps = 10;
    Symmetry best;
    cv::Point s = 2 * candidate;
    for (int step = 0; step < kMostSteps; ++step) {
        const cv::Point centre = s;
        for (int dy = -kReach; dy <= kReach; ++dy)
            for (int dx = -kReach; dx <= kReach; ++dx) {
                const cv::Point here = centre + cv::Point(dx, dy);
                const double correlation = inversionCorrelation(image, live, here, radius);
                if (correlation <= best.correlation) continue;
                best = {correlation, {here.x * 0.5, here.y * 0.5}};
                s = here;
            }
        if (std::max(std::abs(s.x - centre.x), std::abs(s.y - centre.y)) < kReach) break;
    }
    return best;
}

/// The brightest places, apart from each other.
std::vector<cv::Point> brightest(cv::Mat_<float> image, int count, int apart) {
    std::vector<cv::Point> places;
    for (int i = 0; i < count; ++i) {
        cv::Point place;
        double value = 0;
        cv::minMaxLoc(image, nullptr, &value, nullptr, &place);
        if (value <= 0) break;
        places.push_back(place);
        cv::circle(image, place, apart, cv::Scalar(-1), cv::FILLED);
    }
    return places;
}

/// Radius of a disc that holds little but the direct beam, pixels.
constexpr double kBeamRadius = 12.0;
/// Standard deviation of the relative slope of a halo, times half the width of the pattern.
constexpr double kSlopeOfHalo = 0.15;

/// What a halo that is not the same on all sides may do to a centre from a disc, pixels: little where the
/// disc is no larger than the beam, more where a shadow makes it large.
double errorOfHalo(double radius) {
    return 0.001 * radius + 0.008 * std::max(0.0, radius - kBeamRadius);
}

/// What distortion and the curvature of the sphere do to a centre from spots, pixels.
constexpr double kErrorOfSpots = 0.01;

/// The middles of pairs of spots that lie opposite to each other; \p spots by rising y.
std::vector<cv::Point2d> middlesOfPairs(const std::vector<cv::Point2f>& spots, cv::Point2d centre,
                                        double reach) {
    std::vector<cv::Point2d> middles;
    for (const cv::Point2f& spot : spots) {
        const cv::Point2d opposite = 2 * centre - cv::Point2d(spot);
        if (spot.y > opposite.y) continue;  // once
        auto other = std::lower_bound(spots.begin(), spots.end(), opposite.y - reach - 1,
                                      [](const cv::Point2f& a, double y) { return a.y < y; });
        const cv::Point2f* nearest = nullptr;
        double least = reach;
        for (; other != spots.end() && other->y < opposite.y + reach + 1; ++other) {
            const double distance = cv::norm(cv::Point2d(*other) - opposite);
            if (distance >= least || &*other == &spot) continue;
            least = distance;
            nearest = &*other;
        }
        if (nearest) middles.push_back(0.5 * (cv::Point2d(spot) + cv::Point2d(*nearest)));
    }
    return middles;
}

}  // namespace

BeamCentreFinder::BeamCentreFinder(int width, int height, const ShadowMask& shadows)
    : m_width(width), m_height(height), m_step(std::max(1, std::min(width, height) / kCoarseSize)) {
    if (shadows.empty()) return;
    m_shadow = cv::Mat(height, width, CV_8U, const_cast<unsigned char*>(shadows.pixels())).clone();
    cv::distanceTransform(m_shadow, m_intoShadow, cv::DIST_L2, cv::DIST_MASK_PRECISE);
}

BeamCentre BeamCentreFinder::findBeam(const Frame& frame) {
    prepare(frame, m_shadow);
    const BeamCentre centre = searchBeam();
    if (m_shadow.empty() || (centre.found() && centre.error < kPreciseCentre)) return centre;
    prepare(frame, cv::Mat());
    return throughStop(centre);
}

BeamCentreFinder BeamCentreFinder::another() const {
    BeamCentreFinder result = *this;
    // Copies of matrices share their memory.
    for (cv::Mat* scratch : {&result.m_highest, &result.m_dead, &result.m_live})
        scratch->release();
    for (cv::Mat_<float>* scratch : {&result.m_roots, &result.m_coarse})
        scratch->release();
    result.m_coarseLive.release();
    return result;
}

void BeamCentreFinder::learnHalo(const SeriesMean& mean) {
    m_halo.release();
    prepare(cv::Mat(m_height, m_width, CV_32F, const_cast<float*>(mean.values.data())), m_shadow);
    const BeamCentre centre = searchBeam();
    if (!centre.found()) return;
    const cv::Point2d place = toCoarse({centre.x, centre.y});
    const cv::Point nearest(cvRound(place.x), cvRound(place.y));
    const int reach = std::min({std::min(m_coarse.cols, m_coarse.rows) / 4, nearest.x, nearest.y,
                                m_coarse.cols - 1 - nearest.x, m_coarse.rows - 1 - nearest.y});
    constexpr int kLeastReach = 6;
    if (reach < kLeastReach) return;
    const cv::Rect box(nearest.x - reach, nearest.y - reach, 2 * reach + 1, 2 * reach + 1);
    m_halo = coarseWithoutGaps()(box).clone();
    m_inHalo = place - cv::Point2d(nearest);
}

std::optional<cv::Point2d> BeamCentreFinder::haloPlace() const {
    if (m_halo.empty()) return std::nullopt;
    constexpr double kAlike = 0.3;  // also between bright reflections
    const cv::Mat_<float> image = coarseWithoutGaps();
    const ImageOperations::Match match =
        ImageOperations::matchTemplate(ImageView<float>{image[0], image.cols, image.rows},
                                       ImageView<float>{m_halo[0], m_halo.cols, m_halo.rows});
    if (match.score < kAlike) return std::nullopt;
    return fromCoarse(cv::Point2d(match.x, match.y) + m_inHalo);
}

BeamCentre BeamCentreFinder::searchBeam() {
    prepareCoarse();
    if (const std::optional<cv::Point2d> place = haloPlace()) {
        BeamCentre centre = refineCoarse(*place);
        centre.symmetry = symmetryAt(*place);
        if (centre.found()) return centre;
    }
    const Symmetry coarse = coarseCentre();
    if (coarse.correlation <= 0) return {};
    BeamCentre centre = refineCoarse(fromCoarse(coarse.centre));
    centre.symmetry = coarse.correlation;
    return centre;
}

BeamCentre BeamCentreFinder::refineCoarse(cv::Point2d coarse) const {
    const double shorter = std::min(m_width, m_height);
    const double wide = radiusAround(coarse, std::max(shorter / 8, 8.0));
    BeamCentre centre = refine(m_roots, coarse, {wide, 3.0, 0.1, kRoughError, true});
    if (!centre.found()) return {};
    const double radius = radiusAround({centre.x, centre.y}, std::max(shorter / 12, 6.0));
    centre = besideShadow(refineBeam(centre, radius), radius);
    // Over a small disc a reflection would pass for the beam.
    const double least = m_halo.empty() && centre.error > kLargestError ? kClearRise : kLeastRise;
    return centre.found() && riseAt(centre, radius) > least ? centre : BeamCentre();
}

BeamCentre BeamCentreFinder::refineBeam(const BeamCentre& start, double radius) const {
    // A halo that is not the same on all sides leads large discs astray.
    constexpr double kSmall = 0.25;
    constexpr double kGrowth = 2.0;
    const double smallest = kSmall * radius;
    const double largest = 0.4 * std::min(m_width, m_height);
    BeamCentre best;
    for (const double smoothing : {1.0, 2.5})
        for (double r = smoothing * smallest; r <= largest; r *= kGrowth) {
            const BeamCentre& from = best.found() ? best : start;
            const BeamCentre centre =
                refine(m_roots, {from.x, from.y}, {r, smoothing, kConverged, kLargestBeamError, true});
            if (!centre.found() || (best.found() && centre.error > best.error)) continue;
            best = centre;
            if (best.error < kPreciseCentre) return best;
        }
    return best;
}

bool BeamCentreFinder::isShadowed(const BeamCentre& place, double reach) const {
    if (!m_hasDead) return false;
    const int most = static_cast<int>(reach);
    const cv::Rect around =
        cv::Rect(cvRound(place.x) - most, cvRound(place.y) - most, 2 * most + 1, 2 * most + 1) &
        cv::Rect(0, 0, m_width, m_height);
    return around.area() > 0 && cv::countNonZero(m_dead(around)) > 0;
}

BeamCentre BeamCentreFinder::besideShadow(const BeamCentre& centre, double radius) const {
    // An edge that lets a part of the beam through is not where the mask has it: next to the beam nothing is
    // as dark as the mean asks for.
    constexpr double kReach = 16.0;
    constexpr double kHole = 12.0;
    constexpr double kDifferent = 2.0;
    constexpr double kUnconfirmed = 0.8;
    if (!centre.found() || !isShadowed(centre, kReach)) return centre;
    BeamCentre halo;
    for (const double r : {std::max(radius, 2 * kHole), 2 * std::max(radius, 2 * kHole)}) {
        if (r > 0.4 * std::min(m_width, m_height)) break;
        const BeamCentre wider =
            refine(m_roots, {centre.x, centre.y}, {r, 2.5, kConverged, kRoughError, true, kHole});
        if (wider.found() && (!halo.found() || wider.error < halo.error)) halo = wider;
    }
    BeamCentre result = centre;
    if (!halo.found()) {  // nothing confirms it
        result.error = std::max(centre.error, kUnconfirmed);
        return result;
    }
    const double apart = std::hypot(halo.x - centre.x, halo.y - centre.y);
    const double likely = std::hypot(halo.error, centre.error);
    if (apart > kDifferent * likely) return halo;
    if (apart > likely) result.error = std::max(centre.error, 0.5 * apart);
    return result;
}

BeamCentre BeamCentreFinder::throughStop(const BeamCentre& beside) const {
    constexpr double kMargin = 4.0;  // penumbra, and that of the mask
    constexpr double kSmallest = 3.5;
    cv::Point start(cvRound(beside.x), cvRound(beside.y));
    if (!beside.found()) {
        cv::Mat blurred;
        cv::GaussianBlur(m_roots, blurred, cv::Size(), 1.5);
        cv::minMaxLoc(blurred, nullptr, nullptr, nullptr, &start, m_intoShadow > kMargin + kSmallest);
    }
    if (!cv::Rect(0, 0, m_width, m_height).contains(start)) return beside;
    const double radius = std::min(m_intoShadow(start) - kMargin, std::min(m_width, m_height) / 12.0);
    if (radius < kSmallest) return beside;
    BeamCentre centre = refine(m_roots, start, {radius, 1.0, kConverged, kLargestError, true});
    if (!centre.found() || riseAt(centre, radius) < kLeastRise) return beside;
    const double apart = std::hypot(centre.x - beside.x, centre.y - beside.y);
    if (beside.found() && (centre.error > beside.error || apart > kConsistent * beside.error + 0.1))
        return beside;
    centre.symmetry = beside.symmetry;
    return centre;
}

std::vector<CentreCandidate> BeamCentreFinder::patternCandidates(const Frame& frame) {
    prepare(frame, m_shadow);
    const Reduced reduced = reduce(withoutBackground());
    std::vector<Symmetry> centres = symmetryCentres(reduced, std::nullopt);
    // Two methods that agree are better than one.
    constexpr double kBonus = 0.5;
    const Symmetry phase = phaseCentre(reduced);
    if (phase.correlation > kLeastPhase) {
        auto same = std::find_if(centres.begin(), centres.end(),
                                 [&](const Symmetry& other) { return apart(phase, other) < kSameCentre; });
        if (same == centres.end()) same = centres.insert(centres.end(), symmetryOf(reduced, phase.centre));
        same->evidence += kBonus * phase.correlation;
    }
    std::vector<CentreCandidate> candidates;
    for (const Symmetry& symmetry : centres) {
        if (symmetry.evidence <= 0) continue;
        const cv::Point2d place = reduced.toFrame(symmetry.centre);
        CentreCandidate candidate;
        candidate.centre.x = place.x;
        candidate.centre.y = place.y;
        candidate.centre.error = 0.5 * reduced.step;
        candidate.centre.symmetry = symmetry.correlation;
        candidate.centre.source = BeamCentre::Source::Pattern;
        candidate.evidence = std::min(symmetry.evidence, 1.0);
        candidates.push_back(candidate);
    }
    return candidates;
}

BeamCentre BeamCentreFinder::findPatternNear(const Frame& frame, cv::Point2d expected) {
    prepare(frame, m_shadow);
    const cv::Mat_<float> pattern = withoutBackground();
    const Reduced reduced = reduce(pattern);
    constexpr double kLargestDistance = 4.0;  // pixels
    for (const Symmetry& candidate : symmetryCentres(reduced, expected)) {
        const cv::Point2d start = reduced.toFrame(candidate.centre);
        if (std::hypot(start.x - expected.x, start.y - expected.y) > kLargestDistance) continue;
        BeamCentre centre = refinePattern(pattern, start);
        centre.symmetry = candidate.correlation;
        if (std::hypot(centre.x - expected.x, centre.y - expected.y) < kLargestDistance) return centre;
    }
    return {};
}

BeamCentreFinder::Symmetry BeamCentreFinder::symmetryOf(const Reduced& reduced, cv::Point2d place) const {
    const cv::Point twice(cvRound(2 * place.x), cvRound(2 * place.y));
    Symmetry symmetry{inversionCorrelation(reduced.pattern, reduced.live, twice, reduced.radius()), place};
    symmetry.evidence =
        symmetry.correlation * shareInside(reduced.pattern.size(), symmetry.centre, reduced.radius());
    return symmetry;
}

std::vector<BeamCentreFinder::Symmetry> BeamCentreFinder::symmetryCentres(
    const Reduced& reduced, std::optional<cv::Point2d> expected) const {
    std::vector<cv::Point> starts = friedelCentres(reduced);
    if (expected)
        starts.emplace_back(cvRound(reduced.fromFrame(*expected).x), cvRound(reduced.fromFrame(*expected).y));
    std::vector<Symmetry> centres;
    for (const cv::Point& start : starts) {
        const Symmetry here =
            symmetryOf(reduced, bestSymmetry(reduced.pattern, reduced.live, start, reduced.radius()).centre);
        const bool known = std::any_of(centres.begin(), centres.end(), [&](const Symmetry& other) {
            return apart(here, other) < kSameCentre;
        });
        if (here.correlation > 0 && !known) centres.push_back(here);
    }
    std::sort(centres.begin(), centres.end(),
              [](const Symmetry& a, const Symmetry& b) { return a.evidence > b.evidence; });
    return centres;
}

BeamCentre BeamCentreFinder::improveWithPattern(const Frame& frame, const BeamCentre& beam) {
    prepare(frame, m_shadow);
    std::optional<BeamCentre> centre = refinePairs(withoutBackground(), {beam.x, beam.y});
    const double largestDistance = kConsistent * beam.error + 0.1;  // pixels
    const bool better = centre && centre->error < beam.error &&
                        std::hypot(centre->x - beam.x, centre->y - beam.y) < largestDistance;
    if (!better) return beam;
    centre->symmetry = beam.symmetry;
    return *centre;
}

BeamCentre BeamCentreFinder::refinePattern(const cv::Mat_<float>& pattern, cv::Point2d start) const {
    const double radius = 0.45 * std::min(m_width, m_height);
    BeamCentre centre = refine(pattern, start, {radius, 2.0, 0.1, kRoughError});
    if (!centre.found()) return centre;
    if (const std::optional<BeamCentre> paired = refinePairs(pattern, {centre.x, centre.y})) return *paired;
    centre = refine(pattern, {centre.x, centre.y}, {radius, 1.0, kWellConverged, kLargestError});
    if (!centre.found()) return centre;
    // Spots without a partner are not noise.
    constexpr double kUnpaired = 3.0;
    constexpr double kErrorOfUnpaired = 0.12;
    centre.error = std::hypot(kUnpaired * centre.error, kErrorOfUnpaired);
    centre.source = BeamCentre::Source::Pattern;
    return centre;
}

std::optional<BeamCentre> BeamCentreFinder::refinePairs(const cv::Mat_<float>& pattern,
                                                        cv::Point2d start) const {
    constexpr std::size_t kFewestPairs = 8;
    constexpr int kIterations = 12;
    constexpr int kSettled = 3;
    constexpr double kLeastPaired = 0.2;
    constexpr double kTight = 0.08;        // pixels
    constexpr double kEnoughTight = 12.0;  // spots
    const std::vector<cv::Point2f> spots = spotsOf(pattern);
    cv::Point2d centre = start;
    double reach = 2.0;  // pixels by which a spot may miss the place opposite to another one
    for (int iteration = 0; iteration < kIterations; ++iteration) {
        const std::vector<cv::Point2d> middles = middlesOfPairs(spots, centre, reach);
        if (middles.size() < kFewestPairs) return std::nullopt;
        std::vector<float> deviations;
        for (const cv::Point2d& middle : middles)
            for (const double d : {middle.x - centre.x, middle.y - centre.y})
                deviations.push_back(static_cast<float>(std::abs(d)));
        const double scale = std::max(1.4826 * double{medianOf(deviations)}, 0.02);
        cv::Point2d sum;
        double weights = 0, squares = 0, paired = 0;
        for (const cv::Point2d& middle : middles) {
            const cv::Point2d d = middle - centre;
            const double r = (d.x * d.x + d.y * d.y) / (9 * scale * scale);
            if (r >= 1) continue;
            const double weight = (1 - r) * (1 - r);
            sum += weight * d;
            weights += weight;
            squares += weight * weight;
            paired += 2;
        }
        // Where few spots have a partner, those that seem to are chance neighbours of a lattice, unless they
        // agree on the centre.
        const double share = paired / static_cast<double>(spots.size());
        const bool agree = scale < kTight && paired >= kEnoughTight;
        if (share < kLeastPaired && !agree && iteration >= kSettled) return std::nullopt;
        centre += sum / weights;
        reach = std::clamp(6 * scale, 1.0, 2.0);
        if (iteration + 1 < kIterations && cv::norm(sum / weights) > 0.001) continue;
        BeamCentre result;
        result.x = centre.x;
        result.y = centre.y;
        const double scatter = scale * std::sqrt(squares / share) / weights;
        result.error = std::hypot(scatter, kErrorOfSpots);
        if (std::hypot(result.x - start.x, result.y - start.y) > 2.0) return std::nullopt;
        result.source = BeamCentre::Source::Pattern;
        return result;
    }
    return std::nullopt;
}

std::vector<cv::Point2f> BeamCentreFinder::spotsOf(const cv::Mat_<float>& pattern) const {
    constexpr double kSignificant = 7.0;  // standard deviations
    // Some counts in one place: where there is no background, most of a pattern is the same, and no spot.
    constexpr double kFaintest = 0.1;
    cv::Mat_<float> smooth = smoothed(pattern, m_live, 1.0);
    cv::Mat highest, dead;
    cv::dilate(smooth, highest, cv::Mat::ones(3, 3, CV_8U));
    if (m_hasDead) cv::dilate(m_dead, dead, cv::Mat::ones(7, 7, CV_8U));
    std::vector<float> sizes;
    sizes.reserve((static_cast<std::size_t>(smooth.rows) / 3 + 1) *
                  (static_cast<std::size_t>(smooth.cols) / 3 + 1));
    for (int y = 0; y < smooth.rows; y += 3)
        for (int x = 0; x < smooth.cols; x += 3)
            sizes.push_back(std::abs(smooth(y, x)));
    RankedFloats ranked;
    ranked.assign(sizes);
    const double level = std::max(kSignificant * 1.4826 * double{ranked.upperMedian()}, kFaintest);
    std::vector<cv::Point2f> spots;
    constexpr int kBorder = 3;
    for (int y = kBorder; y < smooth.rows - kBorder; ++y)
        for (int x = kBorder; x < smooth.cols - kBorder; ++x) {
            const float value = smooth(y, x);
            if (value < level || value < highest.at<float>(y, x)) continue;
            if (!dead.empty() && dead.at<uchar>(y, x)) continue;
            const auto vertex = [value](float before, float after) {
                const float curvature = before - 2 * value + after;
                return curvature < 0 ? 0.5F * (before - after) / curvature : 0.0F;
            };
            spots.emplace_back(static_cast<float>(x) + vertex(smooth(y, x - 1), smooth(y, x + 1)),
                               static_cast<float>(y) + vertex(smooth(y - 1, x), smooth(y + 1, x)));
        }
    return spots;
}

void BeamCentreFinder::prepare(const cv::Mat& frame, const cv::Mat& shadow) {
    if (frame.type() == CV_16S && frame.isContinuous()) {
        m_roots.create(frame.size());
        rootsOf(frame.ptr<short>(), frame.total(), m_roots[0]);
    } else {
        frame.convertTo(m_roots, CV_32F);
        cv::max(m_roots, 0.0F, m_roots);
        m_roots += kRootOffset;
        cv::sqrt(m_roots, m_roots);
        m_roots -= std::sqrt(kRootOffset);
    }

    // Patches without a count: even a weak background would have left some. Where most of a pattern is like
    // that, it has no background.
    constexpr int kPatch = 5;
    constexpr double kNoBackground = 0.6;
    const cv::Mat patch = cv::Mat::ones(kPatch, kPatch, CV_8U);
    cv::dilate(frame, m_highest, patch, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
    cv::compare(m_highest, 0, m_dead, cv::CMP_LE);
    const int dead = cv::countNonZero(m_dead);
    m_hasDead = dead > 0 && dead < kNoBackground * static_cast<double>(m_dead.total());
    if (m_hasDead)
        cv::dilate(m_dead, m_dead, patch);
    else
        m_dead.setTo(0);
    if (!shadow.empty()) cv::bitwise_or(m_dead, shadow, m_dead);
    m_hasDead = m_hasDead || !shadow.empty();
    if (!m_hasDead) return;
    m_live.create(m_dead.size(), CV_32F);
    m_live.setTo(1.0F);
    m_live.setTo(0.0F, m_dead);
    m_roots.setTo(0.0F, m_dead);
}

void BeamCentreFinder::prepareCoarse() {
    const cv::Size size(m_width / m_step, m_height / m_step);
    cv::resize(m_roots, m_coarse, size, 0, 0, cv::INTER_AREA);
    m_coarseLive.create(size);
    m_coarseLive.setTo(1);
    if (m_hasDead) {
        cv::Mat_<float> live;
        cv::resize(m_live, live, size, 0, 0, cv::INTER_AREA);
        m_coarseLive = live > 0.4F;  // 255
        cv::divide(m_coarse, live + 1e-6F, m_coarse);
        m_coarse.setTo(0.0F, live <= 0.4F);
    }
    // Reflections fill few coarse pixels and must not outshine the halo.
    cv::Mat_<float> clipped;
    cv::medianBlur(m_coarse, clipped, 5);
    cv::min(m_coarse, clipped * 1.5 + 1.0, m_coarse);
}

cv::Mat_<float> BeamCentreFinder::coarseWithoutGaps() const {
    constexpr double kReach = 2.0;  // coarse pixels
    if (!m_hasDead) return m_coarse;
    cv::Mat_<float> live, weights, filled;
    m_coarseLive.convertTo(live, CV_32F);
    cv::GaussianBlur(live, weights, cv::Size(), kReach);
    cv::GaussianBlur(m_coarse, filled, cv::Size(), kReach);
    cv::divide(filled, weights + 1e-3F, filled);
    m_coarse.copyTo(filled, m_coarseLive);
    return filled;
}

BeamCentreFinder::Symmetry BeamCentreFinder::coarseCentre() const {
    cv::Mat_<float> blurred;
    cv::GaussianBlur(m_coarse, blurred, cv::Size(), 1.5);
    Symmetry best;
    for (const cv::Point& place : brightest(blurred, kCandidates, 5)) {
        const Symmetry here = bestSymmetry(m_coarse, m_coarseLive, place, coarseRadius());
        if (here.correlation > best.correlation) best = here;
    }
    return best;
}

double BeamCentreFinder::symmetryAt(cv::Point2d place) const {
    const cv::Point2d coarse = toCoarse(place);
    const cv::Point twice(cvRound(2 * coarse.x), cvRound(2 * coarse.y));
    return inversionCorrelation(m_coarse, m_coarseLive, twice, coarseRadius());
}

// From middles of pixels to middles of coarse pixels, and back.

cv::Point2d BeamCentreFinder::toCoarse(cv::Point2d p) const {
    return {(p.x + 0.5) * m_coarse.cols / m_width - 0.5, (p.y + 0.5) * m_coarse.rows / m_height - 0.5};
}

cv::Point2d BeamCentreFinder::fromCoarse(cv::Point2d p) const {
    return {(p.x + 0.5) * m_width / m_coarse.cols - 0.5, (p.y + 0.5) * m_height / m_coarse.rows - 0.5};
}

int BeamCentreFinder::coarseRadius() const {
    return std::min(m_coarse.cols, m_coarse.rows) / 4;
}

double BeamCentreFinder::radiusAround(cv::Point2d centre, double least) const {
    if (!m_hasDead) return least;
    constexpr double kEnough = 0.5;  // of the pairs of the smallest disc
    const double needed = kEnough * 0.5 * std::numbers::pi * least * least;
    const double largest = std::max(least, 0.35 * std::min(m_width, m_height));
    const cv::Point c(cvRound(centre.x), cvRound(centre.y));
    const cv::Rect frame(0, 0, m_width, m_height);
    const auto live = [&](int x, int y) { return frame.contains({x, y}) && !m_dead.at<uchar>(y, x); };
    double pairs = 0;
    double inner = 0;
    for (double radius = least; radius < largest; inner = radius, radius *= 1.15) {
        const int reach = static_cast<int>(radius);
        for (int v = 0; v <= reach; ++v)
            for (int u = v == 0 ? 1 : -reach; u <= reach; ++u) {
                const double r = std::hypot(u, v);
                if (r > inner && r <= radius && live(c.x + u, c.y + v) && live(c.x - u, c.y - v)) ++pairs;
            }
        if (pairs >= needed) return radius;
    }
    return largest;
}

double BeamCentreFinder::riseAt(const BeamCentre& centre, double radius) const {
    std::vector<RootAround> pixels;
    const int reach = static_cast<int>(radius);
    const cv::Point c(cvRound(centre.x), cvRound(centre.y));
    for (int y = std::max(c.y - reach, 0); y <= std::min(c.y + reach, m_height - 1); ++y)
        for (int x = std::max(c.x - reach, 0); x <= std::min(c.x + reach, m_width - 1); ++x) {
            const double r = std::hypot(x - centre.x, y - centre.y);
            if (r < radius && !(m_hasDead && m_dead.at<uchar>(y, x))) pixels.push_back({r, m_roots(y, x)});
        }
    return riseAmong(pixels);
}

cv::Mat_<float> BeamCentreFinder::smoothed(const cv::Mat& image, const cv::Mat& live, double sigma) const {
    cv::Mat_<float> result;
    cv::GaussianBlur(image, result, cv::Size(), sigma);
    if (!m_hasDead) return result;
    // The mean of the live pixels only.
    cv::Mat weights;
    cv::GaussianBlur(live, weights, cv::Size(), sigma);
    cv::max(weights, 0.05F, weights);
    cv::divide(result, weights, result);
    return result;
}

cv::Mat_<float> BeamCentreFinder::withoutBackground() const {
    // What is so smooth does not need all pixels.
    constexpr double kReducedSigma = 3.0;
    const double sigma = std::max(std::min(m_width, m_height) / 40.0, 2.0);
    const int step = std::max(1, static_cast<int>(sigma / kReducedSigma));
    const cv::Size size((m_width + step - 1) / step, (m_height + step - 1) / step);
    cv::Mat_<float> reduced, live;
    cv::resize(m_roots, reduced, size, 0, 0, cv::INTER_AREA);
    cv::GaussianBlur(reduced, reduced, cv::Size(), sigma / step);
    if (m_hasDead) {
        // The mean of the live pixels only.
        cv::resize(m_live, live, size, 0, 0, cv::INTER_AREA);
        cv::GaussianBlur(live, live, cv::Size(), sigma / step);
        cv::max(live, 0.05F, live);
        cv::divide(reduced, live, reduced);
    }
    cv::Mat_<float> result;
    cv::resize(reduced, result, m_roots.size(), 0, 0, cv::INTER_LINEAR);
    cv::subtract(m_roots, result, result);
    if (m_hasDead) result.setTo(0.0F, m_dead);
    return result;
}

BeamCentreFinder::Reduced BeamCentreFinder::reduce(const cv::Mat_<float>& pattern) const {
    constexpr int kReducedSize = 256;
    Reduced reduced;
    reduced.step = std::max(1, std::min(m_width, m_height) / kReducedSize);
    const cv::Size size(m_width / reduced.step, m_height / reduced.step);
    cv::resize(pattern, reduced.pattern, size, 0, 0, cv::INTER_AREA);
    // The strongest reflections must not outvote the others.
    cv::Scalar mean, deviation;
    cv::meanStdDev(reduced.pattern, mean, deviation);
    cv::min(reduced.pattern, 6 * deviation[0], reduced.pattern);
    cv::max(reduced.pattern, -2 * deviation[0], reduced.pattern);
    reduced.live.create(size);
    reduced.live.setTo(1);
    if (m_hasDead) {
        cv::Mat dead;
        cv::resize(m_dead, dead, size, 0, 0, cv::INTER_NEAREST);
        reduced.live.setTo(0, dead);
    }
    return reduced;
}

BeamCentreFinder::Symmetry BeamCentreFinder::phaseCentre(const Reduced& reduced) const {
    constexpr double kSmoothing = 0.8;
    cv::Mat_<float> pattern, inverted;
    cv::GaussianBlur(reduced.pattern, pattern, cv::Size(), kSmoothing);
    cv::flip(pattern, inverted, -1);
    const ImageOperations::Shift shift =
        ImageOperations::phaseCorrelation(ImageView<float>{inverted[0], inverted.cols, inverted.rows},
                                          ImageView<float>{pattern[0], pattern.cols, pattern.rows});
    return {shift.response, {0.5 * (pattern.cols - 1 + shift.x), 0.5 * (pattern.rows - 1 + shift.y)}};
}

std::vector<cv::Point> BeamCentreFinder::friedelCentres(const Reduced& reduced) const {
    cv::Mat_<float> inner = inversionSums(reduced.pattern);
    cv::Scalar mean, deviation;
    cv::meanStdDev(inner, mean, deviation);
    constexpr double kSignificant = 6.0;  // standard deviations
    std::vector<cv::Point> centres;
    while (static_cast<int>(centres.size()) < kFriedelCandidates) {
        cv::Point peak;
        double height = 0;
        cv::minMaxLoc(inner, nullptr, &height, nullptr, &peak);
        if (!(height - mean[0] >= kSignificant * deviation[0]) || deviation[0] <= 0) break;
        const cv::Point2d centre = inversionCentre(peak, inner.size());
        centres.emplace_back(static_cast<int>(centre.x), static_cast<int>(centre.y));
        cv::circle(inner, peak, 5, cv::Scalar(mean[0]), cv::FILLED);
    }
    return centres;
}

BeamCentreFinder::Surroundings BeamCentreFinder::surroundingsOf(const cv::Mat& image, cv::Point2d centre,
                                                                const Disc& disc) const {
    Surroundings result;
    // The margin lets the centre wander.
    const int margin =
        static_cast<int>(std::ceil(4 * disc.smoothing + std::min(m_width, m_height) / 16.0)) + 2;
    const int reach = static_cast<int>(std::ceil(disc.radius)) + margin;
    const cv::Point nearest(cvRound(centre.x), cvRound(centre.y));
    result.box = cv::Rect(nearest.x - reach, nearest.y - reach, 2 * reach + 1, 2 * reach + 1) &
                 cv::Rect(0, 0, m_width, m_height);
    if (result.box.width < 5 || result.box.height < 5) return result;
    result.image = smoothed(image(result.box), m_hasDead ? m_live(result.box) : cv::Mat(), disc.smoothing);
    if (m_hasDead) {
        // What the smoothing mixed with a dark patch is not to be trusted.
        const int size = 2 * static_cast<int>(std::ceil(2 * disc.smoothing)) + 1;
        cv::dilate(m_dead(result.box), result.dead, cv::Mat::ones(size, size, CV_8U));
    }
    return result;
}

BeamCentre BeamCentreFinder::refine(const cv::Mat& image, cv::Point2d start, const Disc& disc) const {
    Surroundings around = surroundingsOf(image, start, disc);
    if (disc.hole > 0) {
        if (around.dead.empty()) around.dead = cv::Mat_<uchar>::zeros(around.image.size());
        const cv::Point middle(cvRound(start.x) - around.box.x, cvRound(start.y) - around.box.y);
        cv::circle(around.dead, middle, cvRound(disc.hole), cv::Scalar(255), cv::FILLED);
    }
    const cv::Rect inside(2, 2, around.box.width - 4, around.box.height - 4);
    cv::Point2d c = start - cv::Point2d(around.box.tl());
    OppositePixels pairs;
    const int reach = static_cast<int>(disc.radius);
    const bool sloping = disc.roots && disc.radius > kBeamRadius;
    for (int iteration = 0; iteration < kMostIterations; ++iteration) {
        const cv::Point whole(cvFloor(c.x), cvFloor(c.y));
        if (!inside.contains(whole)) return {};
        pairs.collect(around.image, around.dead, {whole, c - cv::Point2d(whole), reach, disc.roots, sloping});
        constexpr std::size_t kFewestPairs = 30;
        if (pairs.count() < kFewestPairs) return {};
        SymmetryEquations equations = pairs.equations();
        if (sloping)
            equations.removeSlope(kSlopeOfHalo / (0.5 * std::min(m_width, m_height)), disc.smoothing);
        if (!(equations.determinant() > 1e-9)) return {};
        cv::Point2d step = equations.step();
        const double length = std::hypot(step.x, step.y);
        const double longest = std::max(disc.smoothing, 1.0);
        if (length > longest) step *= longest / length;
        c += step;
        const bool last = iteration + 1 == kMostIterations;
        if (length > (last ? std::max(disc.convergence, kNearlyConverged) : disc.convergence)) continue;

        BeamCentre centre;
        centre.x = c.x + around.box.x;
        centre.y = c.y + around.box.y;
        centre.error = equations.error(disc.smoothing);
        if (centre.error < disc.largestError && equations.inliers > kFewestInliers)
            centre.source = BeamCentre::Source::Beam;
        if (disc.roots) centre.error = std::hypot(centre.error, errorOfHalo(disc.radius));
        return centre;
    }
    return {};
}

namespace {

/// The nearest patterns with a centre.
struct FoundPatterns {
    std::optional<std::size_t> before, after;
};

FoundPatterns foundAround(std::span<const BeamCentre> centres, std::size_t pattern) {
    FoundPatterns around;
    for (std::size_t j = pattern; j-- > 0 && !around.before;)
        if (centres[j].found()) around.before = j;
    for (std::size_t j = pattern + 1; j < centres.size() && !around.after; ++j)
        if (centres[j].found()) around.after = j;
    return around;
}

}  // namespace

std::optional<cv::Point2d> interpolatedCentre(std::span<const BeamCentre> centres, std::size_t pattern) {
    const auto [before, after] = foundAround(centres, pattern);
    if (!before && !after) return std::nullopt;
    const BeamCentre& a = centres[before ? *before : *after];
    const BeamCentre& b = centres[after ? *after : *before];
    const double part = before && after
                            ? static_cast<double>(pattern - *before) / static_cast<double>(*after - *before)
                            : 0.0;
    return cv::Point2d(a.x + part * (b.x - a.x), a.y + part * (b.y - a.y));
}

namespace {

/// Standard uncertainty of a centre that was taken from its neighbours.
double errorBetween(std::span<const BeamCentre> centres, std::size_t pattern) {
    constexpr double kWander = 0.2;  // from one pattern to the next, each coordinate, pixels
    constexpr double kPartOfMove = 0.2;
    const auto [before, after] = foundAround(centres, pattern);
    std::size_t nearest = centres.size();
    double worst = 0;
    for (const std::optional<std::size_t>& one : {before, after}) {
        if (!one) continue;
        nearest = std::min(nearest, *one < pattern ? pattern - *one : *one - pattern);
        worst = std::max(worst, centres[*one].error);
    }
    double variance = kWander * kWander * static_cast<double>(nearest);
    if (before && after) {
        const BeamCentre &a = centres[*before], &b = centres[*after];
        variance += std::pow(kPartOfMove * std::hypot(b.x - a.x, b.y - a.y), 2);
    }
    return std::sqrt(variance + worst * worst);
}

}  // namespace

bool completeFromNeighbours(std::span<BeamCentre> centres) {
    bool known = false;
    for (std::size_t i = 0; i < centres.size(); ++i) {
        known = known || centres[i].found();
        if (centres[i].found()) continue;
        const auto expected = interpolatedCentre(centres, i);
        if (!expected) continue;
        centres[i].x = expected->x;
        centres[i].y = expected->y;
        centres[i].error = errorBetween(centres, i);
        centres[i].source = BeamCentre::Source::Neighbours;
    }
    return known;
}

}  // namespace VRK::detail
