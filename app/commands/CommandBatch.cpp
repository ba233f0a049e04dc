#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "commands/Commands.h"
#include "foundation/Version.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/FolderLock.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/batch/BatchPlan.h"
#include "pipeline/batch/ChildProcess.h"
#include "pipeline/batch/Collection.h"
#include "pipeline/batch/JobRun.h"
#include "pipeline/batch/Workflow.h"

namespace vrk::app {
namespace {

namespace fs = std::filesystem;

struct BatchArguments {
    fs::path input;
    std::vector<std::string> seriesOptions;
    fs::path folder;
    EngineSettings engine;
    std::vector<std::string> jobs;  ///< that are done by this process
    std::function<int(const std::vector<std::string>&)> program;
    CollectionOptions collection;
    bool dryRun = false;
    bool planOnly = false;
    bool collectOnly = false;
    bool again = false;
};

/// The options that a command of this program has.
std::vector<OptionDescription> optionsOf(void (*add)(CommandLine&)) {
    CommandLine line("vrk", "", VRK::kVersion, 0);
    add(line);
    return line.describe().back().options;
}

/// What a series may be given. Where results go and what is printed is the batch's own.
std::vector<OptionKind> optionKinds() {
    const std::set<std::string> kOwn = {"output", "json", "help", "log"};
    std::vector<OptionKind> kinds;
    const auto take = [&](void (*add)(CommandLine&), bool OptionKind::*command) {
        for (const OptionDescription& option : optionsOf(add))
            for (const std::string& name : option.names) {
                if (!name.starts_with("--") || kOwn.contains(name.substr(2))) continue;
                const auto same = [&](const OptionKind& kind) { return kind.name == name.substr(2); };
                auto kind = std::find_if(kinds.begin(), kinds.end(), same);
                if (kind == kinds.end())
                    kind = kinds.insert(kinds.end(), {name.substr(2), option.takesValue, false, false});
                (*kind).*command = true;
            }
    };
    take(addRunOptions, &OptionKind::ofRun);
    take(addImportOptions, &OptionKind::ofImport);
    return kinds;
}

/// Throws Failure (Usage) when the command would not take the words.
void checkWords(void (*add)(CommandLine&), const std::string& command, std::vector<std::string> words) {
    words.insert(words.begin(), {"vrk", command, "series", "-o", "output"});
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    CommandLine line("vrk", "", VRK::kVersion, 0);
    add(line);
    std::ostringstream out, error;
    if (line.run(static_cast<int>(arguments.size()), arguments.data(), out, error)) return;
    std::string text = error.str();
    text = text.substr(0, text.find('\n'));
    throw Failure(text.substr(text.find(": ") + 2), FailureKind::Usage);
}

/// What a job could not be run with is told now, not by each job.
void checkOptions(const std::vector<BatchJob>& jobs, const std::vector<OptionKind>& kinds) {
    std::set<std::vector<std::string>> seen;
    const auto check = [&](void (*add)(CommandLine&), const char* command, std::vector<std::string> words,
                           const BatchJob& job) {
        words.insert(words.begin(), command);
        if (!seen.insert(words).second) return;
        words.erase(words.begin());
        try {
            checkWords(add, command, words);
        } catch (const Failure& failure) {
            throw Failure("options of " + job.name + ": " + failure.what(), failure.kind());
        }
    };
    for (const BatchJob& job : jobs) {
        check(addRunOptions, "run", runWords(job, kinds), job);
        if (job.series.needsImport) check(addImportOptions, "import", importWords(job, kinds), job);
    }
}

std::string thisProgram() {
    std::error_code error;
    const fs::path path = fs::read_symlink("/proc/self/exe", error);
    return error ? "vrk" : path.string();
}

std::string countsText(const std::vector<JobState>& states) {
    std::string text = std::to_string(states.size()) + " series";
    for (const JobOutcome outcome : {JobOutcome::Done, JobOutcome::NothingFound, JobOutcome::Failed,
                                     JobOutcome::Started, JobOutcome::Open}) {
        const auto count = std::count_if(states.begin(), states.end(), [&](const JobState& state) {
            return state.record.outcome == outcome;
        });
        if (count > 0) text += ", " + std::to_string(count) + ' ' + nameOf(outcome);
    }
    return text;
}

void printPlan(const std::vector<JobState>& states, bool again, Host& host) {
    for (const JobState& state : states) {
        const char* what = isOpen(state, again) ? "to run" : nameOf(state.record.outcome);
        host.out() << formatted("%-13s %6d MiB %5d min  ", what, state.needs.memory, state.needs.minutes)
                   << state.job.name << (state.job.series.needsImport ? "  (frames)" : "");
        for (const std::string& word : wordsOf(state.job.options))
            host.out() << ' ' << word;
        host.out() << '\n';
    }
}

class Batch {
public:
    Batch(const BatchArguments& options, Host& host)
        : m_options(options), m_host(host), m_folder(fs::absolute(options.folder).lexically_normal()) {}

    void work() {
        if (!m_options.jobs.empty()) return doJobs();
        if (m_options.collectOnly)
            return collectAndPrint(statesOf(readPlan(m_folder), m_folder, VRK::kVersion));
        std::vector<BatchJob> jobs = plan();
        std::vector<JobState> states = statesOf(jobs, m_folder, VRK::kVersion);
        const std::vector<JobState> open = openJobs(states, m_options.again);
        if (m_options.dryRun) {
            printPlan(states, m_options.again, m_host);
            m_host.out() << countsText(states) << "; " << open.size() << " to run\n";
            return;
        }
        makeFolder(m_folder.path());
        const FolderLock lock(m_folder.path());
        if (!m_options.input.empty()) writePlan(jobs, m_folder, VRK::kVersion);
        const std::vector<WorkUnit> units = unitsOf(open, m_options.engine);
        writeWorkflow(units, m_options.engine, m_folder);
        if (m_options.planOnly) {
            m_host.out() << countsText(states) << "; the " << open.size() << " to run are in "
                         << m_folder.jobLines().string() << '\n';
            return;
        }
        if (m_options.again) forget(open);
        if (!open.empty()) states = runAll(jobs, units, open.size());
        collectAndPrint(states);
        finish(states);
    }

private:
    std::vector<BatchJob> plan() const {
        if (m_options.input.empty()) {
            if (!m_options.seriesOptions.empty())
                throw Failure("options of the series are part of a plan; name the series as well",
                              FailureKind::Usage);
            return readPlan(m_folder);
        }
        const std::vector<OptionKind> kinds = optionKinds();
        const BatchInput input = {m_options.input,
                                  readOptions(m_options.seriesOptions, kinds, fs::current_path()), kinds};
        std::vector<BatchJob> jobs = planBatch(input, [this](const std::string& text) { m_host.warn(text); });
        checkOptions(jobs, kinds);
        return jobs;
    }

    void doJobs() {
        const JobContext context = {m_folder, m_options.program, VRK::kVersion, optionKinds()};
        std::string failed;
        const auto tell = [&](const std::string& name, const std::string& cause) {
            failed += (failed.empty() ? "" : "\n") + name + ": " + cause;
        };
        for (const std::string& name : m_options.jobs)
            try {
                const JobRecord record = runJob(name, context, m_host.session());
                if (!record.hasResult()) tell(name, record.cause);
            } catch (const Failure& failure) {
                // The others have nothing to do with it.
                if (failure.kind() != FailureKind::Failed) throw;
                tell(name, failure.what());
            }
        if (!failed.empty()) throw Failure(failed);
    }

    /// The records of jobs that are to be tried again though they have a result.
    void forget(const std::vector<JobState>& open) const {
        std::error_code ignored;
        for (const JobState& state : open)
            fs::remove(m_folder.record(state.job.name), ignored);
    }

    /// Runs the open jobs, and then those that were not begun because they stood in a row behind one that was
    /// killed.
    std::vector<JobState> runAll(const std::vector<BatchJob>& jobs, std::vector<WorkUnit> units,
                                 std::size_t count) {
        std::error_code ignored;
        fs::remove(m_folder.diary(), ignored);
        while (true) {
            runEngine(units, count);
            std::vector<JobState> states = statesOf(jobs, m_folder, VRK::kVersion);
            std::vector<JobState> left;
            std::copy_if(states.begin(), states.end(), std::back_inserter(left),
                         [](const JobState& state) { return state.record.outcome == JobOutcome::Open; });
            if (left.empty() || left.size() >= count) return states;
            count = left.size();
            units = unitsOf(left, m_options.engine);
            writeWorkflow(units, m_options.engine, m_folder);
        }
    }

    void runEngine(const std::vector<WorkUnit>& units, std::size_t jobs) {
        if (!isInPath("snakemake")) throw Failure(missingEngine(m_options.engine, m_folder));
        if (m_options.engine.slurm && !isInPath("sbatch"))
            throw Failure("sbatch is not in the PATH; start the batch where Slurm takes jobs");
        std::error_code ignored;
        std::uintmax_t before = fs::file_size(m_folder.diary(), ignored);
        if (ignored) before = 0;
        std::ifstream diary;
        std::size_t ended = 0;
        m_host.session().beginPart(1, 1, "run " + std::to_string(jobs) + (jobs == 1 ? " job" : " jobs"));
        ChildCommand command;
        command.words = engineCommand(units, m_options.engine);
        command.folder = m_folder.path();
        command.hasOwnGroup = true;
        command.log = m_folder.workflow() / "engine.log";
        fs::remove(command.log, ignored);
        const ChildEnd end = runChild(
            command, [this] { return m_host.session().canceled(); },
            [&] {
                if (!diary.is_open()) {
                    diary.open(m_folder.diary());
                    diary.seekg(static_cast<std::streamoff>(before));
                }
                diary.clear();
                for (std::string line; std::getline(diary, line);)
                    ++ended;
                m_host.session().advance(static_cast<double>(ended) / static_cast<double>(jobs));
            });
        m_host.session().endParts();
        if (end.exitCode == 127) throw Failure("snakemake could not be started: " + end.lastWords);
        m_host.session().checkCanceled();
    }

    void collectAndPrint(const std::vector<JobState>& states) {
        const Collection collection = collect(states, m_folder, m_options.collection, m_host.session());
        writeCollection(collection, states, m_folder);
        m_host.out() << countsText(states) << '\n';
        const std::vector<CellCluster>& clusters = collection.clustering.clusters;
        for (std::size_t i = 0; i < std::min<std::size_t>(clusters.size(), 5); ++i)
            printCluster(i, collection);
        if (clusters.size() > 5) m_host.out() << "... " << clusters.size() << " clusters of cells\n";
        if (collection.trend.common && collection.trend.common->calibration.axisAngle)
            m_host.out() << "tilt axis  "
                         << withUncertainty(collection.trend.common->calibration.axisAngle->value,
                                            collection.trend.common->calibration.axisAngle->sigma)
                         << " degrees, of " << collection.trend.rows.size() << " series\n";
        m_host.out() << (m_folder.path() / "batch.html").string() << '\n';
    }

    void printCluster(std::size_t number, const Collection& collection) {
        std::vector<const CrystalRow*> found;
        for (const CrystalRow& row : collection.rows)
            if (row.facts) found.push_back(&row);
        const CellCluster& cluster = collection.clustering.clusters[number];
        const CrystalFacts& facts = *found[cluster.middle]->facts;
        const std::array<double, 6>& c = facts.cell.cell;
        m_host.out() << formatted("cluster %zu  %5zu crystals  %s  %.3f %.3f %.3f  %.2f %.2f %.2f\n",
                                  number + 1, cluster.crystals.size(), facts.bravais.c_str(), c[0], c[1],
                                  c[2], c[3], c[4], c[5]);
    }

    /// Throws Failure that lists the jobs without a result.
    void finish(const std::vector<JobState>& states) const {
        std::vector<const JobState*> without;
        for (const JobState& state : states)
            if (!state.record.hasResult()) without.push_back(&state);
        if (without.empty()) return;
        std::string text = std::to_string(without.size()) + " of " + std::to_string(states.size()) +
                           " series have no result:";
        constexpr std::size_t kMostLines = 20;
        for (std::size_t i = 0; i < std::min(without.size(), kMostLines); ++i) {
            const std::string& cause = without[i]->record.cause;
            text += "\n  " + without[i]->job.name + ": " +
                    (cause.empty() ? "it was not begun; see " + (m_folder.workflow() / "engine.log").string()
                                   : cause.substr(0, cause.find('\n')));
        }
        if (without.size() > kMostLines) text += "\n  ... all are in crystals.csv";
        throw Failure(text + "\nThe same command tries these again, with the options that it is given then.");
    }

    const BatchArguments& m_options;
    Host& m_host;
    BatchFolder m_folder;
};

void runBatch(BatchArguments options, Host& host) {
    if (options.collectOnly && options.folder.empty()) options.folder.swap(options.input);
    if (options.folder.empty())
        throw Failure("batch needs -o FOLDER, where the results go", FailureKind::Usage);
    options.engine.program = thisProgram();
    Batch(options, host).work();
}

}  // namespace

void addBatchCommand(CommandLine& line, Host& host,
                     const std::function<int(const std::vector<std::string>&)>& program) {
    auto options = std::make_shared<BatchArguments>();
    options->program = program;
    Command command = line.command("batch", "Run many series, here or on a cluster, and show what they gave");
    command
        .option(
            "SERIES", options->input,
            "Folder that is searched for series, list of paths, or table (.csv) with a column \"series\" and "
            "columns of options [the plan in the folder of -o]")
        .typeName("FOLDER|LIST|TABLE.csv");
    command
        .option("OPTIONS", options->seriesOptions,
                "Behind --: options of 'vrk run', and of 'vrk import' where there are frames, for all series")
        .typeName("...");
    command.option("-o,--output", options->folder, "Folder for plan and results").typeName("FOLDER");
    command
        .option("--jobs", options->engine.jobs,
                "Jobs at a time [one a core; with --slurm as many as it lets run]")
        .range(1, 100000);
    command
        .option("--memory", options->engine.memory,
                "MiB that jobs may ask for together [those of the machine]")
        .range(100, 100000000);
    const char* slurm = "Cluster";
    command.flag("--slurm", options->engine.slurm, "Run the jobs as arrays of Slurm").group(slurm);
    command.option("--partition", options->engine.partition, "Partition of Slurm [its default]").group(slurm);
    command.option("--account", options->engine.account, "Account of Slurm [its default]").group(slurm);
    command.option("--array-size", options->engine.arraySize, "Jobs of an array at most")
        .range(1, 1000000)
        .showDefault()
        .group(slurm);
    const char* less = "Less than all";
    command.flag("--dry-run", options->dryRun, "Show the plan and do nothing").group(less);
    command.flag("--plan-only", options->planOnly, "Write the plan, for any engine, and run nothing")
        .group(less);
    command.flag("--collect", options->collectOnly, "Make table and page of the results that are there")
        .group(less);
    command.flag("--again", options->again, "Try series in which nothing was found again, too").group(less);
    command.option("--job", options->jobs, "Do these jobs of the plan: what engines call")
        .typeName("NAME ...")
        .group(less);
    command.option("--cut", options->collection.cut, "Strain up to which cells are of one cluster")
        .range(1e-6, 0.5)
        .showDefault();
    command.footer(
        "What is done is not run again: the same command goes on where it was stopped, runs what failed, "
        "and\n"
        "series whose files or options have changed. The jobs are run by Snakemake. jobs.txt in the folder "
        "has a\n"
        "line a job for other engines, to be run in that folder. Their exit codes: 0 there is a result, also "
        "that\n"
        "nothing was found; 1 failed, may be tried again; 2 no such job; 128 + N stopped by signal N.\n\n"
        "Examples:\n"
        "  vrk batch session -o results --jobs 4 -- --tilt-axis 35\n"
        "  vrk batch session.csv -o results --slurm --partition short\n"
        "  vrk batch -o results                                        go on\n"
        "  vrk batch --collect results");
    command.action([options, &host] { runBatch(*options, host); });
}

}  // namespace vrk::app
