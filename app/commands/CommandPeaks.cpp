#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <iomanip>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "commands/Commands.h"
#include "console/MemoryOption.h"
#include "console/ParameterOptions.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/frames/DataFiles.h"
#include "reflections/FindReflexes.h"
#include "reflections/PeakFileImportExport.h"

namespace vrk::app {
namespace {

struct PeaksArguments {
    std::string volume;
    std::string output;
    LogOptions log;
    SearchOptions search;
    bool json = false;
};

/// How often each value occurs in a volume.
class ValueCounts {
public:
    explicit ValueCounts(const VoxMRCData& volume) : m_counts(65536) {
        for (unsigned z = 0; z < volume.GetChunkCount(); ++z) {
            const short* slice = volume.GetChunkPointer(z);
            for (unsigned i = 0; i < volume.GetChunkSize(); ++i)
                ++count(slice[i]);
        }
        m_total = std::int64_t{volume.GetChunkCount()} * volume.GetChunkSize();
    }

    std::int64_t total() const { return m_total; }
    int smallest() const { return valueReachedBy(1.0); }
    int largest() const { return valueReachedBy(0.0); }
    std::int64_t countFrom(double threshold) const {
        std::int64_t reached = 0;
        for (int value = 32767; value >= -32768 && value >= threshold; --value)
            reached += count(value);
        return reached;
    }
    /// The largest value that at least this share of the voxels, and at least one, reach.
    int valueReachedBy(double share) const {
        const double wanted = std::max(share * static_cast<double>(m_total), 1.0);
        std::int64_t reached = 0;
        int value = 32768;
        while (value > -32768 && static_cast<double>(reached) < wanted)
            reached += count(--value);
        return value;
    }

private:
    std::int64_t& count(int value) { return m_counts[static_cast<unsigned>(value + 32768)]; }
    std::int64_t count(int value) const { return m_counts[static_cast<unsigned>(value + 32768)]; }

    std::vector<std::int64_t> m_counts;
    std::int64_t m_total = 0;
};

void checkSquare(const VoxMRCData& volume, const std::string& path) {
    if (volume.GetWidth() == volume.GetHeight()) return;
    throw Failure(path + " has slices of " + std::to_string(volume.GetWidth()) + " x " +
                  std::to_string(volume.GetHeight()) +
                  " voxels, and only volumes of square slices can be searched; reconstruct from square "
                  "patterns");
}

ReflexVectorPtr search(Host& host, VoxMRCData& volume, Parameter& parameter) {
    FindReflexes finder;
    finder.registerObserver(&host.session().progress());
    ReflexVectorPtr list;
    {
        const Stage stage(host.session(), "search");
        list.reset(finder.findAllReflexes(&volume, &parameter, false, nullptr));
    }
    if (!list) {
        host.session().checkCanceled();
        throw Failure(host.session().lastError());
    }
    return list;
}

/// Says why nothing was found. A threshold is proposed only if a search with it was successful.
std::string adviceOnNothing(Host& host, VoxMRCData& volume, Parameter parameter, const ValueCounts& counts) {
    std::ostringstream text;
    text << "no reflections at threshold " << parameter.getThreshold()
         << ": the values of the volume are from " << counts.smallest() << " to " << counts.largest() << ", "
         << counts.countFrom(parameter.getThreshold()) << " of " << counts.total()
         << " voxels reach the threshold";
    std::size_t most = 0;
    int best = 0;
    for (const double share : {1e-4, 3e-4, 1e-3, 3e-3, 1e-2, 3e-2}) {
        const int threshold = counts.valueReachedBy(share);
        if (threshold <= counts.smallest()) continue;
        parameter.setThreshold(threshold);
        const std::size_t found = search(host, volume, parameter)->size();
        if (found <= most) continue;
        most = found;
        best = threshold;
    }
    if (most > 0)
        text << "; try --threshold " << best << ", which finds " << most;
    else if (counts.smallest() == counts.largest())
        text << "; the volume is empty";
    else
        text << "; other thresholds find nothing either, widen --min-voxels, --max-voxels or --zero-beam";
    return text.str();
}

/// Quantiles of a list of measures.
struct Distribution {
    static constexpr std::array<const char*, 5> kNames = {"min", "p10", "median", "p90", "max"};
    std::array<double, 5> values{};

    explicit Distribution(std::vector<double> measures) {
        std::sort(measures.begin(), measures.end());
        const double last = static_cast<double>(measures.size() - 1);
        for (std::size_t i = 0; const double share : {0.0, 0.1, 0.5, 0.9, 1.0})
            values[i++] = measures[static_cast<std::size_t>(std::lround(share * last))];
    }

    nlohmann::ordered_json json() const {
        nlohmann::ordered_json object;
        for (std::size_t i = 0; i < values.size(); ++i)
            object[kNames[i]] = values[i];
        return object;
    }
};

struct Report {
    explicit Report(const ReflexVector& list)
        : count(list.size()), voxels(sizes(list)), intensity(intensities(list)) {}

    static std::vector<double> sizes(const ReflexVector& list) {
        std::vector<double> result;
        for (Reflex* reflex : list)
            result.push_back(reflex->getNumberOfVoxels());
        return result;
    }
    static std::vector<double> intensities(const ReflexVector& list) {
        std::vector<double> result;
        for (const Reflex* reflex : list)
            result.push_back(reflex->getIntensity());
        return result;
    }

    std::size_t count;
    Distribution voxels;
    Distribution intensity;
};

void printTable(std::ostream& out, const Report& report, const Parameter& parameter,
                const ValueCounts& counts, const std::string& path) {
    const std::int64_t foreground = counts.countFrom(parameter.getThreshold());
    out << report.count << " reflections at threshold " << parameter.getThreshold() << " (" << foreground
        << " of " << counts.total() << " voxels reach it), written to " << path << "\n\n"
        << std::setw(12) << "";
    for (const char* name : Distribution::kNames)
        out << std::setw(12) << name;
    for (const auto& [name, distribution] :
         {std::pair("voxels", &report.voxels), std::pair("intensity", &report.intensity)}) {
        out << '\n' << std::left << std::setw(12) << name << std::right;
        for (const double value : distribution->values)
            out << std::setw(12) << value;
    }
    out << '\n';
}

void printJson(std::ostream& out, const Report& report, const Parameter& parameter, const ValueCounts& counts,
               const PeaksArguments& options, const VoxMRCData& volume) {
    const nlohmann::ordered_json json = {
        {"volume", options.volume},
        {"dims", volume.GetDims()},
        {"peaks", options.output},
        {"reflections", report.count},
        {"foreground_voxels", counts.countFrom(parameter.getThreshold())},
        {"voxels", report.voxels.json()},
        {"intensity", report.intensity.json()},
        {"parameters", searchSettings(parameter)},
    };
    out << jsonText(json, 2) << '\n';
}

void writePeaks(Host& host, OutputFile& file, const ReflexVector& list, const VoxMRCData& volume,
                const Parameter& parameter) {
    const auto extent = [&](unsigned d) { return static_cast<int>(volume.GetDimSize(d)); };
    if (!PeakFileImportExport::writePeakFileWithIntensities(
            file.path().string(), &list, parameter.getWhichReflectionMiddleShouldUsed(), extent(0), extent(1),
            extent(2), 0.0, 0.0, static_cast<double>(volume.m_Header.m_pixelsize), 0.0, 0.0, false))
        throw Failure(host.session().lastError());
    file.commit();
}

void runPeaksCommand(const PeaksArguments& options, Host& host) {
    host.openLog(options.log);
    Parameter parameter;
    options.search.applyTo(parameter);
    if (std::error_code error; std::filesystem::equivalent(options.volume, options.output, error))
        throw Failure("the peak file would replace the volume " + options.volume + "; give -o another name",
                      FailureKind::Usage);
    OutputFile file(options.output);
    const auto volume = readVolume(options.volume, host.session());
    checkSquare(*volume, options.volume);
    const ReflexVectorPtr list = search(host, *volume, parameter);
    const ValueCounts counts(*volume);
    if (list->empty())
        throw Failure(adviceOnNothing(host, *volume, parameter, counts), FailureKind::NothingFound);
    writePeaks(host, file, *list, *volume, parameter);
    const Report report(*list);
    if (options.json)
        printJson(host.out(), report, parameter, counts, options, *volume);
    else
        printTable(host.out(), report, parameter, counts, options.output);
}

}  // namespace

void addPeaksCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<PeaksArguments>();
    Command command = line.command("peaks", "Find the reflections of a reciprocal volume");
    command.option("volume", options->volume, "Volume file (.mrc)").required().typeName("VOLUME.mrc");
    command.option("-o,--output", options->output, "Peak file to write").required().typeName("PEAKS");
    addSearchOptions(command, options->search, true);
    command.flag("--json", options->json, "Print the result as JSON");
    addLogOptions(command, options->log);
    addMemoryOption(command, &host);
    command.footer("Example:\n  vrk peaks volume.mrc -o peaks.txt --threshold 40 --min-voxels 5");
    command.action([options, &host] { runPeaksCommand(*options, host); });
}

}  // namespace vrk::app
