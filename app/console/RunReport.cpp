#include "console/RunReport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "pipeline/base/Angle.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/run/ResultFiles.h"
#include "pipeline/run/RunSummary.h"

namespace vrk::app {
namespace {

std::string handednessText(const RefinedPositions& refinement) {
    if (refinement.sense == 0) return "not looked at";
    if (!refinement.decided) return "undecided";
    return refinement.handedness() > 0 ? "+1" : "-1";
}

/// "49.93(1) degrees (search 49.91(2), refined)"
std::string axisText(const RunResult& result) {
    const TiltAxis& axis = result.axis;
    const RefinedInstrument& instrument = result.indexed.instrument;
    const double sigma = result.refinedAxisSigma();
    const auto degrees = [](double value, double esd) {
        return esd > 0.0 && std::isfinite(esd) ? withUncertainty(value, esd) : formatted("%.2f", value);
    };
    std::string from = axis.source;
    if (axis.source == "refined") {
        if (axis.stated) from += formatted(", stated as %.2f", *axis.stated);
    } else if (instrument.valid && instrument.uses(InstrumentTerm::AxisTurn)) {
        from += ' ' + degrees(axis.angle, axis.uncertainty) + ", refined";
    }
    return degrees(result.refinedAxis(), std::isfinite(sigma) ? sigma : axis.uncertainty) + " degrees (" +
           from + ")";
}

/// Tenths where they say something.
std::string secondsText(double seconds) {
    return formatted(seconds < 10.0 ? "%.1f" : "%.0f", seconds);
}

/// What the instrument was found to do, in a line; empty when nothing.
std::string instrumentText(const RefinedInstrument& instrument, double axis) {
    using enum InstrumentTerm;
    const auto value = [&](InstrumentTerm term, double unit) {
        return withUncertainty(instrument.model[term] / unit,
                               instrument.sigma[static_cast<std::size_t>(term)] / unit);
    };
    std::vector<std::string> parts;
    if (instrument.uses(EllipseCosine)) {
        char azimuth[32];
        std::snprintf(azimuth, sizeof azimuth, "%.1f",
                      std::remainder(instrument.ellipseAzimuth() + axis, 180.0));
        parts.push_back("ellipse " +
                        withUncertainty(100.0 * instrument.ellipse(),
                                        100.0 * instrument.sigma[static_cast<std::size_t>(EllipseCosine)]) +
                        " % along " + azimuth + " degrees");
    }
    if (instrument.uses(Radial)) parts.push_back("radial " + value(Radial, 0.01) + " %");
    if (instrument.uses(TiltScale)) {
        const double larger = instrument.model[TiltScale];
        const double sigma = instrument.sigma[static_cast<std::size_t>(TiltScale)];
        parts.push_back("tilts " + withUncertainty(100.0 * std::abs(larger), 100.0 * sigma) +
                        (larger < 0.0 ? " % smaller than stated" : " % larger than stated"));
    }
    if (instrument.uses(AxisTurn)) parts.push_back("axis turned by " + value(AxisTurn, kDegree) + " degrees");
    if (instrument.uses(AxisTilt))
        parts.push_back("axis out of the frame by " + value(AxisTilt, kDegree) + " degrees");
    std::string text;
    for (const std::string& part : parts)
        text += (text.empty() ? "" : ", ") + part;
    return text;
}

/// What was known of the instrument, in a line.
std::string knownText(const InstrumentCalibration& known) {
    std::string text;
    for (const auto& [name, term] : valuesOf(known))
        text += name + ' ' + withUncertainty(term.value, term.sigma) + ", ";
    return text + "from " + known.file.string();
}

std::string clusteringText(const CellSearchTrial& trial) {
    if (trial.clustering == ClusteringMethod::FSC) return nameOf(trial.clustering);
    char text[80];
    std::snprintf(text, sizeof text, "%s, eps %.1f, %d points", nameOf(trial.clustering), trial.eps,
                  trial.minPts);
    return text;
}

}  // namespace

std::string symmetryText(const DataReduction& reduction) {
    char text[64];
    std::string line = reduction.laue.best().laueClass;
    if (reduction.laue.candidates.size() > 1) {
        const LaueCandidate& second = reduction.laue.candidates[1];
        std::snprintf(text, sizeof text, " (then %s, by %.0f nats)", second.laueClass.c_str(),
                      -second.evidence);
        line += text;
    }
    const auto& groups = reduction.spaceGroups.candidates;
    if (!groups.empty()) line += ", space group " + groups.front().symbol;
    for (std::size_t i = 1; i < std::min<std::size_t>(groups.size(), 3); ++i)
        line += (i == 1 ? " or " : ", ") + groups[i].symbol;
    return line;
}

namespace {

void printIntensities(std::ostream& out, const Intensities& intensities) {
    char line[256];
    const auto print = [&](auto... values) {
        std::snprintf(line, sizeof line, values...);
        out << line << '\n';
    };
    const IntegrationResult& integration = intensities.integration;
    const DataReduction& reduction = intensities.reduction;
    const ShellStatistics& all = reduction.statistics.overall;
    print("intensities   %zu of %zu reflections, %d unique, %.0f %% complete to %.2f A, %s",
          reduction.observations.size(), integration.reflections.size(), all.unique,
          100.0 * all.completeness(), integration.dMin, nameOf(integration.fit.rocking.mode));
    print("quality       I/sigma %.1f, R_int %.3f, R_meas %.3f, CC1/2 %.3f", all.iOverSigma, all.rInt,
          all.rMeas, all.ccHalf);
    out << "symmetry      " << symmetryText(reduction) << '\n';
}

/// A line for each crystal where there are several.
void printCrystals(std::ostream& out, const RunResult& result) {
    if (result.crystals.others.empty()) return;
    const auto print = [&](std::size_t number, const Indexed& indexed, double share,
                           const std::string& turn) {
        const std::array<double, 6>& c = indexed.conventional.cell;
        out << formatted("%-14s%zu: %3.0f %% of the strong reflections, %s", number == 1 ? "crystals" : "",
                         number, 100.0 * share, LATTICE::shortName(indexed.symmetry().bravaisType))
            << formatted("  %.3f  %.3f  %.3f  %.2f  %.2f  %.2f", c[0], c[1], c[2], c[3], c[4], c[5])
            << ", confidence " << nameOf(indexed.verdict.level) << turn << '\n';
    };
    print(1, result.indexed, result.crystals.firstShare, "");
    for (std::size_t i = 0; i < result.crystals.others.size(); ++i) {
        const FurtherCrystal& other = result.crystals.others[i];
        print(i + 2, other.indexed, other.strongShare,
              other.turn ? formatted(", turned by %.1f degrees", *other.turn) : "");
    }
}

void printCell(std::ostream& out, const char* name, const RefinedLattice& fit) {
    out << name;
    for (std::size_t i = 0; i < 6; ++i)
        out << "  " << withUncertainty(fit.cell[i], fit.cellSigma[i]);
    out << '\n';
}

void printLattice(std::ostream& out, const Indexed& indexed) {
    const LatticeCharacter& answer = indexed.symmetry();
    printCell(out, "reduced     ", indexed.refined.lattice);
    printCell(out, "conventional", indexed.conventional);
    out << formatted("lattice       %s, misfit %.2f degrees, volume %.1f A^3, confidence %s\n",
                     LATTICE::shortName(answer.bravaisType), answer.qualityIndex, indexed.conventional.volume,
                     nameOf(indexed.verdict.level));
    for (const std::string& reason : indexed.verdict.reasons)
        out << "  because     " << reason << '\n';
    for (std::size_t i = 1; i < std::min<std::size_t>(indexed.characters.size(), 4); ++i) {
        const LatticeCharacter& other = indexed.characters[i];
        const CellParameters& m = other.measured;
        out << formatted("  or          %s, misfit %.2f degrees:  %.3f  %.3f  %.3f  %.2f  %.2f  %.2f\n",
                         LATTICE::shortName(other.bravaisType), other.qualityIndex, m.a, m.b, m.c, m.alpha,
                         m.beta, m.gamma);
    }
}

void printReflections(std::ostream& out, const Indexed& indexed, double pixelSize) {
    const RefinedLattice& refined = indexed.refined.lattice;
    out << formatted("reflections   %d found, %d indexed (%.1f %%), %zu different", refined.reflections,
                     refined.indexed, 100.0 * refined.fraction(), conventionalReflections(indexed).size());
    if (const double radius = indexed.completeness.halfRadius; radius > 0.0)
        out << formatted(", to %.2f A", 1e10 / (radius * pixelSize));
    out << formatted("\nresidual      %.2f voxels\n", refined.rms);
}

void printSeconds(std::ostream& out, const RunSeconds& s) {
    const std::pair<const char*, double> stages[] = {
        {"read", s.read.seconds},     {"preprocess", s.preprocess.seconds},
        {"axis", s.tiltAxis.seconds}, {"reconstruct", s.reconstruct.seconds},
        {"search", s.search.seconds}, {"cell", s.cell.seconds},
        {"index", s.index.seconds},   {"integrate", s.integrate.seconds},
        {"total", s.total.seconds}};
    out << "seconds      ";
    for (const auto& [name, seconds] : stages)
        out << (name == stages[0].first ? " " : ", ") << name << ' ' << secondsText(seconds);
    out << formatted("; %.0f MiB\n", peakMemory());
}

}  // namespace

void printSummary(std::ostream& out, const RunResult& result) {
    const SeriesFacts& facts = result.facts();
    const Indexed& indexed = result.indexed;
    out << formatted("series        %d frames of %d x %d, tilts %.2f to %.2f degrees\n", facts.size[2],
                     facts.size[0], facts.size[1], facts.tiltFirst, facts.tiltLast);
    out << "pixel size    " << pixelSizeText(facts.pixelSize)
        << formatted(", %.6g kV%s\n", facts.kiloVolts, facts.kiloVoltsAssumed ? ", assumed" : "");
    out << "tilt axis     " << axisText(result) << '\n';
    printLattice(out, indexed);
    printReflections(out, indexed, facts.pixelSize);
    if (facts.instrument) out << "known         " << knownText(*facts.instrument) << '\n';
    if (const std::string text = instrumentText(indexed.instrument, result.axis.angle); !text.empty())
        out << "instrument    " << text << '\n';
    printCrystals(out, result);
    out << "handedness    " << handednessText(indexed.refined) << '\n';
    if (result.intensities) printIntensities(out, *result.intensities);
    const CellSearchTrial& trial = result.lattice.best.trial;
    out << formatted("parameters    threshold %g (lattice at %g), zero beam %.0f, vectors %.1f to %.1f, %s\n",
                     indexed.level.threshold, indexed.cellThreshold, indexed.level.zeroBeam, trial.minLength,
                     trial.maxLength, clusteringText(trial).c_str());
    printSeconds(out, result.seconds);
}

void printProfile(std::ostream& out, const RunProfile& profile) {
    constexpr double kMiB = 1 << 20;
    out << formatted("\nmemcpy reads and writes %.1f GB/s here, in one thread\n", 1e-9 * profile.copyRate)
        << "step          times   seconds     moved    had to   of memcpy  resident\n";
    for (const StepProfile& step : profile.steps) {
        out << formatted("%-14s%5d%10.3f", step.name.c_str(), step.times, step.seconds);
        if (step.neededBytes > 0.0)
            out << formatted("%6.0f MiB%6.0f MiB%10.1f %%", step.movedBytes / kMiB, step.neededBytes / kMiB,
                             100.0 * step.shareOfCopying);
        else
            out << formatted("%10s%10s%12s", "-", "-", "-");
        out << formatted("%6.0f MiB\n", step.residentBytes / kMiB);
    }
}

}  // namespace vrk::app
