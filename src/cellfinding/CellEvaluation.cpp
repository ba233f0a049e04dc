#include "cellfinding/CellEvaluation.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

#include "cellfinding/detail/BaseChoice.h"
#include "crystallography/BasicMath.h"
#include "crystallography/NiggliReduction.h"
#include "foundation/VRKLogger.h"

namespace {

using Evaluation = CellEvaluation;
using Vector = CellEvaluation::Vector;
using ClusterType = Cluster<Point<double>>;

constexpr int kShells = 10;
constexpr double kElongated = 10.0;  // ratio of moments

double norm(const Vector& v) {
    return BasicMath::Norm(v.data());
}

/// The answer as a lattice with an origin.
struct Nodes {
    explicit Nodes(const Evaluation::Input& input) : origin(input.origin) {
        input.cell->getOrientationMatrix(columns);
        valid = BasicMath::Invert(columns, inverse);
    }

    /// The nearest node in fractional indices, and the way from it to the vector.
    Vector displacementOf(const Vector& vector, std::array<int, 3>& hkl) const {
        constexpr double kMost = 1e9;
        double h[3];
        BasicMath::MatrixProduct(inverse, vector.data(), h);
        for (std::size_t k = 0; k < 3; ++k) {
            const double whole = std::isfinite(h[k]) ? std::clamp(std::round(h[k]), -kMost, kMost) : 0.0;
            hkl[k] = static_cast<int>(whole);
            h[k] -= whole;
        }
        Vector displacement;
        BasicMath::MatrixProduct(columns, h, displacement.data());
        return displacement;
    }

    Vector origin;
    double columns[3][3];
    double inverse[3][3];
    bool valid = false;
};

Evaluation::Shape shapeOf(const Vector& spread) {
    const double largest = spread[0] * spread[0];
    const double middle = spread[1] * spread[1];
    const double smallest = spread[2] * spread[2];
    if (largest <= kElongated * smallest) return Evaluation::Shape::Compact;
    return largest * smallest >= middle * middle ? Evaluation::Shape::Rod : Evaluation::Shape::Disc;
}

Evaluation::ClusterEntry entryOf(const ClusterType& cluster, const Nodes& nodes) {
    Evaluation::ClusterEntry entry{};
    entry.label = cluster.getClusterID();
    entry.points = cluster.getNumberOfPoints();
    for (int k = 0; k < 3; ++k) {
        const auto axis = static_cast<std::size_t>(k);
        entry.centre[axis] = cluster.getCenterOfGrafity(k);
        entry.spread[axis] = std::sqrt(std::max(0.0, cluster.getMomentsOfInertia(k)));
        entry.axis[axis] = cluster.getMassCentroidAxis(k, 0);
    }
    entry.shape = shapeOf(entry.spread);
    entry.distance = norm(nodes.displacementOf(entry.centre, entry.hkl));
    return entry;
}

void describeClusters(const Evaluation::Input& input, const Nodes& nodes, Evaluation& evaluation) {
    for (const ClusterType* cluster : *input.clusters)
        if (cluster && cluster->getDimension() == 3 && cluster->getNumberOfPoints() > 0)
            evaluation.clusters.push_back(entryOf(*cluster, nodes));
}

double shortestOf(const std::array<Vector, 3>& base) {
    return std::min({norm(base[0]), norm(base[1]), norm(base[2])});
}

/// The determinant of the indices of three clusters that are nodes, else 0.
int indexOf(const Evaluation::ClusterEntry& a, const Evaluation::ClusterEntry& b,
            const Evaluation::ClusterEntry& c, double shortest) {
    constexpr double kNear = 0.3;  // of the shortest base vector
    double rows[3][3];
    for (std::size_t i = 0; const Evaluation::ClusterEntry* entry : {&a, &b, &c}) {
        if (entry->distance > kNear * shortest) return 0;
        for (std::size_t k = 0; k < 3; ++k)
            rows[i][k] = entry->hkl[k];
        ++i;
    }
    return static_cast<int>(std::lround(std::min(1e9, std::abs(BasicMath::Determinant(rows)))));
}

/// The choice of step four, made again among the clusters.
void describeChoice(const Parameter& parameter, Evaluation& evaluation) {
    std::vector<DiffVector3D> vectors;
    std::vector<std::size_t> order;
    for (const Evaluation::ClusterEntry& cluster : evaluation.clusters) {
        order.push_back(vectors.size());
        vectors.emplace_back(cluster.centre[0], cluster.centre[1], cluster.centre[2]);
    }
    std::stable_sort(order.begin(), order.end(), [&](std::size_t i, std::size_t j) {
        return vectors[i].getLength() < vectors[j].getLength();
    });
    std::vector<DiffVector3D*> sorted;
    for (const std::size_t i : order)
        sorted.push_back(&vectors[i]);
    std::vector<VRK::detail::Judgement> judgements;
    const auto chosen = VRK::detail::chooseShortest(sorted, parameter, &judgements);
    evaluation.hasChoice = chosen.has_value();
    if (chosen)
        evaluation.choiceIndex =
            indexOf(evaluation.clusters[order[(*chosen)[0]]], evaluation.clusters[order[(*chosen)[1]]],
                    evaluation.clusters[order[(*chosen)[2]]], shortestOf(evaluation.base));
    for (std::size_t i = 0; i < order.size(); ++i) {
        const auto& [verdict, value] = judgements[i];
        const bool isAngle = verdict == BaseVectorVerdict::NearA ||
                             verdict == BaseVectorVerdict::OppositeToA ||
                             verdict == BaseVectorVerdict::NearB || verdict == BaseVectorVerdict::OppositeToB;
        evaluation.candidates.push_back({evaluation.clusters[order[i]].label, sorted[i]->getLength(), verdict,
                                         isAngle ? BasicMath::ConvertAngleFromRadianToDegree(value) : value});
    }
}

/// Takes the narration of the reduction for as long as it lives.
class NarrationTaken {
public:
    explicit NarrationTaken(std::ostream& out) : m_before(NiggliReduction::getNarration()) {
        NiggliReduction::setNarration(&out);
    }
    ~NarrationTaken() { NiggliReduction::setNarration(m_before); }
    NarrationTaken(const NarrationTaken&) = delete;
    NarrationTaken& operator=(const NarrationTaken&) = delete;

private:
    std::ostream* m_before;
};

/// The six values of a line that holds nothing else.
bool readMetric(const std::string& line, Evaluation::Metric& metric) {
    std::istringstream text(line);
    for (double& value : metric)
        if (!(text >> value)) return false;
    return (text >> std::ws).eof();
}

void describeReduction(const Evaluation::Input& input, Evaluation& evaluation) {
    UnitCell reciprocal(input.cell);
    // The reduction compares in Angstrom: without a scale the edges become about 10.
    reciprocal.setPixelsize(input.pixelSize > 0.0 ? input.pixelSize
                                                  : 1e9 / std::cbrt(reciprocal.getExactVolume()));
    const std::unique_ptr<UnitCell> direct(reciprocal.getReciprocalCell());
    if (!direct->isRightHanded()) {
        const int inversion[3][3] = {{-1, 0, 0}, {0, -1, 0}, {0, 0, -1}};
        direct->transform(inversion);
    }
    std::stringstream narration;
    {
        const NarrationTaken taken(narration);
        NiggliReduction::niggliReduction(direct.get(), 0);
    }
    Evaluation::Metric metric;
    for (std::string line; std::getline(narration, line);) {
        if (line.starts_with("Ja ")) evaluation.isNiggli = true;
        // Many actions leave the values as they are.
        if (readMetric(line, metric) &&
            (evaluation.niggliSteps.empty() || evaluation.niggliSteps.back() != metric))
            evaluation.niggliSteps.push_back(metric);
    }
    evaluation.reducedCell = {direct->getLengthOfA(), direct->getLengthOfB(), direct->getLengthOfC(),
                              direct->getAlpha(),     direct->getBeta(),      direct->getGamma()};
    evaluation.symmetries = LatticeSymmetry::analyse(*direct);
}

/// A shell with its sums.
struct ShellSums {
    int reflections = 0;
    int indexed = 0;
    Vector sum{};
    double along = 0.0;
    double squares = 0.0;
    double largest = 0.0;

    void add(const Vector& displacement, const Vector& place, double radius) {
        ++reflections;
        const double distance = norm(displacement);
        if (!(distance <= radius)) return;
        ++indexed;
        for (std::size_t k = 0; k < 3; ++k)
            sum[k] += displacement[k];
        if (norm(place) > 0.0) along += BasicMath::Dot(displacement.data(), place.data()) / norm(place);
        squares += distance * distance;
        largest = std::max(largest, distance);
    }
    Evaluation::Shell shell(double from, double to, double pixelSize) const {
        const double count = std::max(1, indexed);
        Evaluation::Shell result{};
        result.from = from;
        result.to = to;
        result.resolution = pixelSize > 0.0 && to > 0.0 ? 1e10 / (pixelSize * to) : 0.0;
        result.reflections = reflections;
        result.indexed = indexed;
        for (std::size_t k = 0; k < 3; ++k)
            result.mean[k] = sum[k] / count;
        result.along = along / count;
        result.rms = std::sqrt(squares / count);
        result.largest = largest;
        return result;
    }
};

/// Shells of equal volume.
void describeDisplacements(const Evaluation::Input& input, const Nodes& nodes, Evaluation& evaluation) {
    std::vector<Vector> places;
    double farthest = 0.0;
    for (Reflex* reflex : *input.reflections) {
        if (!reflex) continue;
        Vector place;
        for (int axis = 0; axis < 3; ++axis) {
            const auto k = static_cast<std::size_t>(axis);
            place[k] = reflex->getCenter(axis, input.parameter->getWhichReflectionMiddleShouldUsed()) -
                       nodes.origin[k];
        }
        if (!VRK::detail::isFinite(place)) continue;
        places.push_back(place);
        farthest = std::max(farthest, norm(place));
    }
    evaluation.reflections = static_cast<int>(places.size());
    std::array<ShellSums, kShells> shells;
    ShellSums all;
    for (const Vector& place : places) {
        std::array<int, 3> hkl;
        const Vector displacement = nodes.displacementOf(place, hkl);
        const double share = farthest > 0.0 ? std::pow(norm(place) / farthest, 3) : 0.0;
        const int shell = std::clamp(static_cast<int>(share * kShells), 0, kShells - 1);
        shells[static_cast<std::size_t>(shell)].add(displacement, place, evaluation.radius);
        all.add(displacement, place, evaluation.radius);
    }
    const auto bound = [farthest](int shell) { return farthest * std::cbrt(1.0 * shell / kShells); };
    for (int i = 0; i < kShells; ++i)
        evaluation.shells.push_back(
            shells[static_cast<std::size_t>(i)].shell(bound(i), bound(i + 1), input.pixelSize));
    evaluation.all = all.shell(0.0, farthest, input.pixelSize);
}

// --- text

[[gnu::format(printf, 2, 3)]] void append(std::string& text, const char* format, ...) {
    char line[400];
    std::va_list values;
    va_start(values, format);
    std::vsnprintf(line, sizeof line, format, values);
    va_end(values);
    text += line;
}

const char* nameOf(Evaluation::Shape shape) {
    switch (shape) {
        case Evaluation::Shape::Rod:
            return "rod";
        case Evaluation::Shape::Disc:
            return "disc";
        case Evaluation::Shape::Compact:
            break;
    }
    return "compact";
}

std::string reasonFor(const Evaluation::Candidate& candidate, const Evaluation& evaluation) {
    const double angleA = BasicMath::ConvertAngleFromRadianToDegree(evaluation.angleA);
    const double angleB = BasicMath::ConvertAngleFromRadianToDegree(evaluation.angleB);
    std::string text;
    switch (candidate.verdict) {
        case BaseVectorVerdict::A:
            return "chosen as a: the shortest";
        case BaseVectorVerdict::B:
            return "chosen as b";
        case BaseVectorVerdict::C:
            return "chosen as c";
        case BaseVectorVerdict::NearA:
            append(text, "%.1f degrees from a, at least %.1f are asked for", candidate.value, angleA);
            break;
        case BaseVectorVerdict::NearB:
            append(text, "%.1f degrees from b, at least %.1f are asked for", candidate.value, angleB);
            break;
        case BaseVectorVerdict::OppositeToA:
            append(text, "%.1f degrees from a: its opposite", candidate.value);
            break;
        case BaseVectorVerdict::OppositeToB:
            append(text, "%.1f degrees from b: its opposite", candidate.value);
            break;
        case BaseVectorVerdict::InPlane:
            append(text, "in the plane of a and b: volume %.3f of the product of the lengths",
                   candidate.value);
            break;
        case BaseVectorVerdict::LongerThanNeeded:
            return "longer than c";
    }
    return text;
}

void appendSummary(std::string& text, const Evaluation& e) {
    append(text, "Cell finding\n\n");
    append(text, "reflections          %d\n", e.reflections);
    append(text, "difference vectors   %d, longer than %g and shorter than %g voxels\n", e.diffVectors,
           e.minLength, e.maxLength);
    text += "clustering           " + e.method + '\n';
    append(text, "clusters             %zu; %d vectors belong to none\n", e.clusters.size(), e.noiseVectors);
    for (int i = 0; i < 3; ++i) {
        const Vector& v = e.base[static_cast<std::size_t>(i)];
        append(text, "reciprocal %c*        %10.4f %10.4f %10.4f  length %9.4f voxels\n", 'a' + i, v[0], v[1],
               v[2], norm(v));
    }
    const CellParameters& p = e.reducedCell;
    append(text, "reduced cell         %.4f %.4f %.4f %.3f %.3f %.3f%s\n", p.a, p.b, p.c, p.alpha, p.beta,
           p.gamma, e.pixelSize > 0.0 ? " (Angstrom, degrees)" : " (no scale: the pixel size is not known)");
}

void appendClusters(std::string& text, const Evaluation& e) {
    append(text,
           "\nClusters (voxels): centre, standard deviations along the principal axes, shape, nearest node "
           "of the cell and distance from it\n\n");
    append(text,
           "label points         x         y         z    length    spread                 shape       h   "
           "k   l  distance\n");
    for (const Evaluation::ClusterEntry& c : e.clusters)
        append(text, "%5d %6d %9.3f %9.3f %9.3f %9.3f  %6.3f %6.3f %6.3f  %-7s %4d %3d %3d %9.3f\n", c.label,
               c.points, c.centre[0], c.centre[1], c.centre[2], norm(c.centre), c.spread[0], c.spread[1],
               c.spread[2], nameOf(c.shape), c.hkl[0], c.hkl[1], c.hkl[2], c.distance);
}

void appendChoice(std::string& text, const Evaluation& e) {
    append(text, "\nChoice of three base vectors among the clusters, shortest first%s\n\n",
           !e.hasChoice         ? ": there are no three"
           : e.choiceIndex == 0 ? ". The answer is another lattice: they are not all nodes of it"
           : e.choiceIndex == 1 ? ". They span the lattice of the answer"
                                : ". The answer has nodes between those of their lattice");
    append(text, "label    length\n");
    for (const Evaluation::Candidate& candidate : e.candidates) {
        if (candidate.verdict == BaseVectorVerdict::LongerThanNeeded) {
            append(text, "      all others: longer than c\n");
            break;
        }
        append(text, "%5d %9.3f  %s\n", candidate.label, candidate.length, reasonFor(candidate, e).c_str());
    }
}

void appendReduction(std::string& text, const Evaluation& e) {
    append(text, "\nNiggli reduction of the direct cell: %s\n\n",
           e.isNiggli ? "the last line is a Niggli cell" : "the last line is no Niggli cell");
    append(text, "         a.a          b.b          c.c        2 b.c        2 a.c        2 a.b\n");
    for (const Evaluation::Metric& m : e.niggliSteps)
        append(text, "%12.6g %12.6g %12.6g %12.6g %12.6g %12.6g\n", m[0], m[1], m[2], m[3], m[4], m[5]);
}

void appendSymmetries(std::string& text, const Evaluation& e) {
    append(text,
           "\nLattice symmetries that fit, the highest first: misfit of angles (degrees) and edges\n\n");
    append(text, "type  no.  misfit   edges         a         b         c     alpha     beta    gamma\n");
    for (const LatticeCharacter& s : e.symmetries)
        append(text, "%-4s %4d %7.2f %7.4f %9.4f %9.4f %9.4f  %8.3f %8.3f %8.3f\n",
               LATTICE::shortName(s.bravaisType), s.number, s.qualityIndex, s.lengthMisfit, s.measured.a,
               s.measured.b, s.measured.c, s.measured.alpha, s.measured.beta, s.measured.gamma);
}

void appendShell(std::string& text, const Evaluation::Shell& s) {
    append(text, "%8.2f %8.2f ", s.from, s.to);
    if (s.resolution > 0.0)
        append(text, "%8.3f", s.resolution);
    else
        append(text, "%8s", "-");
    append(text, " %7d %7d %5.1f %% %8.3f %8.3f %8.3f %8.3f %8.3f %8.3f\n", s.reflections, s.indexed,
           s.reflections > 0 ? 100.0 * s.indexed / s.reflections : 0.0, s.rms, s.largest, s.along, s.mean[0],
           s.mean[1], s.mean[2]);
}

void appendDisplacements(std::string& text, const Evaluation& e) {
    append(text,
           "\nDisplacements of the reflections from the nodes (voxels), of those within %.3f: in shells of "
           "equal "
           "volume\n\n",
           e.radius);
    append(text,
           "    from       to  d (A)    found  on nodes       rms  largest  outward   mean x   mean y   "
           "mean z\n");
    for (const Evaluation::Shell& shell : e.shells)
        appendShell(text, shell);
    appendShell(text, e.all);
}

}  // namespace

bool CellEvaluation::evaluate(const Input& input, CellEvaluation* evaluation) {
    const bool complete = input.parameter && input.reflections && input.grid && input.clusters &&
                          input.noise && input.cell && evaluation;
    if (!complete || input.cell->isDegenerate()) {
        VRKLogger::getInstance()->log(complete ? "A degenerate cell cannot be evaluated."
                                               : "What a cell finding left is not complete: no evaluation.",
                                      VRK::Error, VRK::Information);
        return false;
    }
    const Nodes nodes(input);
    CellEvaluation result;
    const Parameter& parameter = *input.parameter;
    result.method = input.method;
    result.minLength = parameter.getMinLength();
    result.maxLength = parameter.getMaxLength();
    result.eps = parameter.getDBSCANEps();
    result.minPts = parameter.getDBSCANMinPts();
    result.angleA = parameter.getAngleA();
    result.angleB = parameter.getAngleB();
    result.detLimit = parameter.getDetLimit();
    result.diffVectors = input.grid->getNumberOfPoints();
    result.noiseVectors = static_cast<int>(input.noise->size());
    result.pixelSize = input.pixelSize;
    input.cell->getBase(result.base[0].data(), result.base[1].data(), result.base[2].data());
    result.radius = input.radius;
    if (!(result.radius > 0.0)) result.radius = 0.25 * shortestOf(result.base);
    describeClusters(input, nodes, result);
    describeChoice(parameter, result);
    describeReduction(input, result);
    describeDisplacements(input, nodes, result);
    *evaluation = std::move(result);
    return true;
}

std::string CellEvaluation::toText() const {
    std::string text;
    appendSummary(text, *this);
    appendChoice(text, *this);
    appendClusters(text, *this);
    appendReduction(text, *this);
    appendSymmetries(text, *this);
    appendDisplacements(text, *this);
    return text;
}

bool CellEvaluation::writeText(const std::string& path) const {
    std::ofstream file(path);
    file << toText();
    file.close();
    if (file) return true;
    VRKLogger::getInstance()->log("Cannot write the evaluation " + path +
                                      ". Check that the folder exists and may be written to, and the space "
                                      "left.",
                                  VRK::Error, VRK::Information);
    return false;
}
