#include "pipeline/batch/Workflow.h"

#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>
#include <thread>

#include "pipeline/base/JsonText.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/batch/ShellWord.h"

namespace vrk {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr std::size_t kMostUnits = 2000;
/// Jobs in a row cost the engine and the start of the program once; when their process is killed the rest of
/// them is left open.
constexpr std::size_t kMostInRow = 4;
/// So many units are left for each worker when they begin to have one job only, so that all end together.
constexpr std::size_t kLastRounds = 8;

/// Everything that differs between batches is in settings.json; the shell gets it quoted.
constexpr std::string_view kHead =
    R"py(# Made by "vrk batch", which makes it anew each time. It may be run by hand from the folder above:
#   snakemake --snakefile workflow/Snakefile --cores 2 --keep-going --ignore-incomplete --rerun-triggers mtime
import json

with open("workflow/settings.json") as file:
    settings = json.load(file)
units = settings["units"]
folder = settings["folder"]


rule all:
    input:
        expand(folder + "/ended/{unit}", unit=units),

)py";

constexpr std::string_view kLocalRule = R"py(
rule unit:
    output:
        touch(folder + "/ended/{unit}"),
    params:
        program=settings["program"],
        folder=folder,
    threads: lambda wildcards: units[wildcards.unit]["cores"]
    resources:
        mem_mb=lambda wildcards: units[wildcards.unit]["memory"],
    shell:
        "{params.program:q} batch -o . --job $(cat {params.folder}/units/{wildcards.unit})"
)py";

constexpr std::string_view kSlurmRule = R"py(
rule array:
    output:
        touch(folder + "/ended/{unit}"),
    params:
        program=settings["program"],
        folder=folder,
        options=settings["slurm"],
        tasks=lambda wildcards: units[wildcards.unit]["tasks"],
        memory=lambda wildcards: units[wildcards.unit]["memory"],
        minutes=lambda wildcards: units[wildcards.unit]["minutes"],
        cores=lambda wildcards: units[wildcards.unit]["cores"],
    shell:
        "sbatch --wait --array={params.tasks} --mem={params.memory}M --time={params.minutes} "
        "--cpus-per-task={params.cores} --job-name=vrk-batch --requeue --open-mode=append "
        "--output=workflow/logs/%A_%a.log {params.options:q} "
        "workflow/task.sh {params.folder}/units/{wildcards.unit} {params.program:q}"
)py";

/// A task of an array: the job on the line with the task's number.
constexpr std::string_view kTask = R"py(#!/bin/sh
exec "$2" batch -o . --job "$(sed -n "$((SLURM_ARRAY_TASK_ID + 1))p" "$1")"
)py";

/// "0-39", "0-999%100"
std::string tasksText(std::size_t jobs, int most) {
    std::string text = "0-" + std::to_string(jobs - 1);
    return most > 0 ? text + '%' + std::to_string(most) : text;
}

std::string unitName(std::size_t number) {
    return formatted("%06zu", number);
}

constexpr const char* kRun = "run-";

/// A folder that no other run has: an engine that was left alone finishes its jobs and says so in its own.
std::string runName() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return formatted(
        "%s%lld-%d", kRun,
        static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()),
        static_cast<int>(getpid()));
}

void removeRuns(const fs::path& workflow) {
    std::vector<fs::path> runs;
    for (const fs::directory_entry& entry : fs::directory_iterator(workflow))
        if (entry.path().filename().string().starts_with(kRun)) runs.push_back(entry.path());
    std::error_code ignored;
    for (const fs::path& run : runs)
        fs::remove_all(run, ignored);
}

int machineMemory() {
    struct sysinfo info = {};
    if (sysinfo(&info) != 0) return 0;
    return static_cast<int>(static_cast<double>(info.totalram) * info.mem_unit / 1048576.0);
}

int coresOf(const EngineSettings& settings) {
    return settings.jobs > 0 ? settings.jobs
                             : static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
}

/// What a job alone may ask for, so that one that asks for more than there is runs by itself.
int memoryOf(const EngineSettings& settings) {
    return settings.memory > 0 ? settings.memory : machineMemory();
}

std::vector<WorkUnit> localUnits(const std::vector<JobState>& open, std::size_t workers) {
    const std::size_t least = (open.size() + kMostUnits - 1) / kMostUnits;
    std::vector<WorkUnit> units;
    std::size_t room = 0;
    for (std::size_t i = 0; i < open.size(); ++i) {
        if (room == 0) {
            units.emplace_back();
            room = std::max(
                {least, std::min(kMostInRow, (open.size() - i) / (kLastRounds * workers)), std::size_t{1}});
        }
        --room;
        WorkUnit& unit = units.back();
        unit.jobs.push_back(open[i].job.name);
        unit.needs.memory = std::max(unit.needs.memory, open[i].needs.memory);
        unit.needs.cores = std::max(unit.needs.cores, open[i].needs.cores);
        unit.needs.minutes += open[i].needs.minutes;
    }
    return units;
}

std::vector<WorkUnit> arrays(const std::vector<JobState>& open, int size) {
    std::vector<WorkUnit> units;
    for (const JobState& state : open) {
        const bool fits = !units.empty() && units.back().needs == state.needs &&
                          units.back().jobs.size() < static_cast<std::size_t>(size);
        if (!fits) units.push_back({state.needs, {}});
        units.back().jobs.push_back(state.job.name);
    }
    return units;
}

std::string jobLines(const std::vector<WorkUnit>& units, const std::string& program) {
    std::string text;
    for (const WorkUnit& unit : units)
        for (const std::string& job : unit.jobs)
            text += shellWord(program) + " batch -o . --job " + job + '\n';
    return text;
}

Json slurmOptions(const EngineSettings& settings) {
    Json words = Json::array();
    if (!settings.partition.empty()) words.push_back("--partition=" + settings.partition);
    if (!settings.account.empty()) words.push_back("--account=" + settings.account);
    // An option that stands there in any case, so that the list is never empty, which a shell would take for
    // an argument.
    words.push_back("--ntasks=1");
    return words;
}

}  // namespace

std::vector<WorkUnit> unitsOf(const std::vector<JobState>& open, const EngineSettings& settings) {
    std::vector<JobState> sorted = open;
    std::stable_sort(sorted.begin(), sorted.end(), [](const JobState& a, const JobState& b) {
        const auto rank = [](const JobNeeds& n) { return std::array{n.minutes, n.memory, n.cores}; };
        return rank(a.needs) > rank(b.needs);
    });
    return settings.slurm ? arrays(sorted, settings.arraySize)
                          : localUnits(sorted, static_cast<std::size_t>(coresOf(settings)));
}

void writeWorkflow(const std::vector<WorkUnit>& units, const EngineSettings& settings,
                   const BatchFolder& folder) {
    const fs::path workflow = folder.workflow();
    makeFolder(workflow);
    // Tasks that wait in a cluster's queue read the units of their own run.
    if (!settings.slurm) removeRuns(workflow);
    const std::string run = runName();
    makeFolder(workflow / run / "units");
    if (settings.slurm) makeFolder(workflow / "logs");
    Json json = {{"program", settings.program},
                 {"folder", "workflow/" + run},
                 {"slurm", slurmOptions(settings)},
                 {"units", Json::object()}};
    for (std::size_t i = 0; i < units.size(); ++i) {
        const WorkUnit& unit = units[i];
        const std::string name = unitName(i);
        std::string lines;
        for (const std::string& job : unit.jobs)
            lines += job + '\n';
        writeText(lines, workflow / run / "units" / name);
        const int memory =
            settings.slurm ? unit.needs.memory : std::min(unit.needs.memory, memoryOf(settings));
        json["units"][name] = {{"memory", memory},
                               {"minutes", unit.needs.minutes},
                               {"cores", unit.needs.cores},
                               {"tasks", tasksText(unit.jobs.size(), settings.jobs)}};
    }
    writeText(jsonText(json, 0) + '\n', workflow / "settings.json");
    writeText(std::string(kHead) + std::string(settings.slurm ? kSlurmRule : kLocalRule),
              workflow / "Snakefile");
    writeText(std::string(kTask), workflow / "task.sh");
    // Other programs read it: a part of it would pass for fewer jobs.
    OutputFile lines(folder.jobLines());
    writeText(jobLines(units, settings.program), lines.path());
    lines.commit();
}

std::vector<std::string> engineCommand(const std::vector<WorkUnit>& units, const EngineSettings& settings) {
    std::vector<std::string> words = {"snakemake", "--snakefile", "workflow/Snakefile"};
    // Plans are compared by vrk, results appear whole, and two engines are kept apart by a lock of vrk's own.
    for (const char* word : {"--keep-going", "--nolock", "--ignore-incomplete", "--rerun-triggers", "mtime",
                             "--scheduler", "greedy", "--latency-wait", "60"})
        words.emplace_back(word);
    words.emplace_back("--cores");
    if (settings.slurm) {
        // What waits for an array takes no core. With a limit of jobs one array follows the other.
        words.push_back(std::to_string(settings.jobs > 0 ? 1 : std::max<std::size_t>(units.size(), 1)));
        return words;
    }
    words.push_back(std::to_string(coresOf(settings)));
    if (const int memory = memoryOf(settings); memory > 0) {
        words.emplace_back("--resources");
        words.push_back("mem_mb=" + std::to_string(memory));
    }
    return words;
}

std::string missingEngine(const EngineSettings& settings, const BatchFolder& folder) {
    const std::string lines = folder.jobLines().string();
    std::string text =
        "snakemake is not installed, which runs the jobs: 'apt-get install snakemake' or 'pip "
        "install snakemake==7.21.0' gets it";
    if (settings.slurm) return text + "; --plan-only leaves " + lines + ", a line a job, for other programs";
    return text + ". Without it, " + lines + " has a line a job: 'cd " + folder.path().string() +
           " && xargs -d \"\\n\" -P " + std::to_string(coresOf(settings)) + " -I {} sh -c {} < jobs.txt'";
}

}  // namespace vrk
