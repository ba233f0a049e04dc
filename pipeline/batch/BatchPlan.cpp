#include "pipeline/batch/BatchPlan.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <utility>

#include "pipeline/base/Failure.h"
#include "pipeline/base/FileText.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/batch/CsvTable.h"

namespace vrk {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr const char* kFormat = "vrk batch";
constexpr int kVersion = 1;
constexpr std::string_view kJobStart = "{\"name\":";
constexpr std::size_t kLongestName = 120;

/// A text that may hold any bytes: as it is where it is UTF-8, by its bytes otherwise.
Json textJson(const std::string& text) {
    Json json = text;
    if (parsedJson<Json>(jsonText(json)) == json) return json;
    std::string hex;
    for (const char sign : text)
        hex += formatted("%02x", static_cast<unsigned>(static_cast<unsigned char>(sign)));
    return {{"hex", hex}};
}

std::string textOf(const Json& json) {
    if (json.is_string()) return json.get<std::string>();
    const std::string hex = json.at("hex").get<std::string>();
    std::string text;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        text += static_cast<char>(std::strtoul(hex.substr(i, 2).c_str(), nullptr, 16));
    return text;
}

bool isPlain(char sign) {
    return (sign >= 'a' && sign <= 'z') || (sign >= 'A' && sign <= 'Z') || (sign >= '0' && sign <= '9') ||
           sign == '.' || sign == '_' || sign == '-';
}

bool isPlainName(const std::string& name) {
    return !name.empty() && name.front() != '.' && name.front() != '-' && name.size() <= kLongestName + 20 &&
           std::all_of(name.begin(), name.end(), isPlain);
}

/// A name of plain characters that differs where the text does: what is not plain becomes "_", and a number
/// made of the text follows (FNV-1a).
std::string plainName(const std::string& text) {
    std::string name;
    for (const char sign : text)
        name += isPlain(sign) ? sign : '_';
    if (name == text && isPlainName(name) && name.size() <= kLongestName) return name;
    std::uint64_t hash = 14695981039346656037U;
    for (const char sign : text)
        hash = (hash ^ static_cast<unsigned char>(sign)) * 1099511628211U;
    // Neither hidden nor taken for an option.
    const bool isOdd = name.empty() || name.front() == '.' || name.front() == '-';
    std::string longer(isOdd ? "s" : "");
    longer += name.substr(0, kLongestName);
    return longer + formatted("-%08lx", static_cast<unsigned long>((hash ^ (hash >> 32U)) & 0xffffffffU));
}

/// The path below the folder without its ending, parts joined by "_": "grid1/crystal 3.mrc" is "grid1_crystal
/// 3".
std::string titleOf(const fs::path& input, const fs::path& folder) {
    fs::path relative = input.lexically_normal().lexically_relative(fs::absolute(folder).lexically_normal());
    if (relative.empty() || *relative.begin() == ".." || relative == ".") relative = input.filename();
    std::error_code error;
    if (!fs::is_directory(input, error)) relative.replace_extension();
    std::string title;
    for (const fs::path& part : relative)
        title.append(title.empty() ? "" : "_").append(part.string());
    return title;
}

/// Gives names to jobs that have none: the same series keep their names when others come in.
void nameJobs(std::vector<BatchJob>& jobs, const fs::path& folder) {
    std::map<std::string, int> titles;
    std::vector<std::string> wanted;
    for (const BatchJob& job : jobs) {
        wanted.push_back(job.name.empty() ? titleOf(job.series.input, folder) : job.name);
        ++titles[plainName(wanted.back())];
    }
    std::set<std::string> taken;
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        BatchJob& job = jobs[i];
        const bool isOnce = titles[plainName(wanted[i])] == 1;
        const bool isGiven = !job.name.empty();
        job.name = plainName(isOnce || isGiven ? wanted[i] : job.series.input.string());
        if (!taken.insert(job.name).second)
            throw Failure(isGiven ? "the name " + wanted[i] + " occurs twice; each series needs its own"
                                  : "the series " + job.series.input.string() +
                                        " occurs twice; a column \"name\" tells them apart",
                          FailureKind::Usage);
    }
}

std::vector<BatchJob> jobsOfList(const BatchInput& input) {
    const std::string text = textOfFile(input.source);
    const char separator = text.find('\0') == std::string::npos ? '\n' : '\0';
    const fs::path base = fs::absolute(input.source).parent_path();
    std::vector<BatchJob> jobs;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find(separator, at), text.size());
        std::string path = text.substr(at, end - at);
        at = end + 1;
        if (separator == '\n' && path.ends_with('\r')) path.pop_back();
        if (!path.empty()) jobs.push_back({"", seriesAt((base / path).lexically_normal()), input.options});
    }
    return jobs;
}

std::vector<BatchJob> jobsOfTable(const BatchInput& input) {
    const CsvTable table = readCsv(input.source);
    const fs::path base = fs::absolute(input.source).parent_path();
    const auto column = std::find(table.columns.begin(), table.columns.end(), "series");
    if (column == table.columns.end())
        throw Failure(input.source.string() + " has no column \"series\" with the paths of the series",
                      FailureKind::Usage);
    std::vector<BatchJob> jobs;
    for (const CsvTable::Row& row : table.rows)
        try {
            BatchJob job;
            JobOptions own;
            for (std::size_t i = 0; i < table.columns.size(); ++i) {
                const std::string& name = table.columns[i];
                if (name == "series")
                    job.series = seriesAt((base / row.fields[i]).lexically_normal());
                else if (name == "name")
                    job.name = row.fields[i];
                else if (auto option = readOption(name, row.fields[i], input.kinds, base))
                    own.push_back(std::move(*option));
            }
            job.options = merged(input.options, own);
            jobs.push_back(std::move(job));
        } catch (const Failure& failure) {
            throw Failure(
                input.source.string() + ", line " + std::to_string(row.line) + ": " + failure.what(),
                failure.kind());
        }
    return jobs;
}

std::vector<BatchJob> jobsOfFolder(const BatchInput& input,
                                   const std::function<void(const std::string&)>& warn) {
    std::vector<BatchJob> jobs;
    for (FoundSeries& series : findSeries(input.source, warn))
        jobs.push_back({"", std::move(series), input.options});
    return jobs;
}

const OptionKind& kindOf(const JobOption& option, const std::vector<OptionKind>& kinds) {
    const auto kind =
        std::find_if(kinds.begin(), kinds.end(), [&](const auto& k) { return k.name == option.name; });
    if (kind == kinds.end())
        throw Failure("--" + option.name + " is no option of a series", FailureKind::Usage);
    return *kind;
}

/// An option of the import alone changes nothing of a series that is not imported.
void refuseIdleOptions(const std::vector<BatchJob>& jobs, const BatchInput& input) {
    const bool anyImports =
        std::any_of(jobs.begin(), jobs.end(), [](const BatchJob& job) { return job.series.needsImport; });
    for (const BatchJob& job : jobs)
        for (const JobOption& option : job.options) {
            if (job.series.needsImport || kindOf(option, input.kinds).ofRun) continue;
            const bool isCommon =
                std::find(input.options.begin(), input.options.end(), option) != input.options.end();
            if (!isCommon || !anyImports)
                throw Failure("--" + option.name + " is an option of the import of frames, and " +
                                  job.series.input.string() + " is a tilt series that needs none",
                              FailureKind::Usage);
        }
}

/// Of options that both have, those of a job that imports go there: they are in the series afterwards.
std::vector<std::string> wordsFor(bool import, const BatchJob& job, const std::vector<OptionKind>& kinds) {
    JobOptions chosen;
    for (const JobOption& option : job.options) {
        const OptionKind& kind = kindOf(option, kinds);
        const bool isImports = kind.ofImport && (job.series.needsImport || !kind.ofRun);
        if (isImports == import && (!import || job.series.needsImport)) chosen.push_back(option);
    }
    return wordsOf(chosen);
}

int coresOf(const BatchJob& job) {
    const std::string* jobs = valueOf(job.options, "jobs");
    return jobs ? std::clamp(std::atoi(jobs->c_str()), 1, 1024) : 1;
}

/// Of many jobs; the files that options name are read once for each set of options.
class SettingsKeys {
public:
    explicit SettingsKeys(std::string version) : m_version(std::move(version)) {}

    const std::string& of(const JobOptions& options) {
        std::string words;
        for (const std::string& word : wordsOf(options))
            words += word + '\0';
        const auto [place, isNew] = m_keys.try_emplace(words);
        if (isNew) place->second = settingsKey(options, m_version);
        return place->second;
    }

private:
    std::string m_version;
    std::map<std::string, std::string> m_keys;
};

Json jobJson(const BatchJob& job, const std::string& settings) {
    const JobNeeds needs = needsOf(job.series, coresOf(job), 0);
    Json options = Json::array();
    for (const JobOption& option : job.options)
        options.push_back({option.name, option.value ? textJson(*option.value) : Json()});
    const FoundSeries& series = job.series;
    return {{"name", job.name},
            {"input", textJson(series.input.string())},
            {"import", series.needsImport},
            {"tilts", textJson(series.tilts.string())},
            {"bytes", series.bytes},
            {"columns", series.columns},
            {"rows", series.rows},
            {"frames", series.frames},
            {"options", options},
            {"settings", settings},
            {"memory_mib", needs.memory},
            {"minutes", needs.minutes}};
}

BatchJob jobOf(const Json& json) {
    BatchJob job;
    job.name = json.at("name").get<std::string>();
    if (!isPlainName(job.name)) throw Failure("'" + job.name + "' is no name of a job");
    job.series.input = textOf(json.at("input"));
    job.series.needsImport = json.at("import").get<bool>();
    job.series.tilts = textOf(json.at("tilts"));
    job.series.bytes = json.at("bytes").get<std::uint64_t>();
    job.series.columns = json.at("columns").get<int>();
    job.series.rows = json.at("rows").get<int>();
    job.series.frames = json.at("frames").get<int>();
    for (const Json& option : json.at("options")) {
        job.options.push_back({option.at(0).get<std::string>(), std::nullopt});
        if (!option.at(1).is_null()) job.options.back().value = textOf(option.at(1));
    }
    return job;
}

/// The line of a plan that holds a job; without the comma at its end.
std::string_view jobLine(std::string_view line) {
    if (line.ends_with(',')) line.remove_suffix(1);
    return line;
}

Failure noPlan(const BatchFolder& folder) {
    return Failure(folder.path().string() + " holds no batch.json; 'vrk batch SERIES -o " +
                   folder.path().string() + "' makes one");
}

[[noreturn]] void refusePlan(const BatchFolder& folder, const std::string& problem) {
    throw Failure(folder.plan().string() + " is damaged (" + problem + "); make the plan again");
}

}  // namespace

std::vector<BatchJob> planBatch(const BatchInput& input,
                                const std::function<void(const std::string&)>& warn) {
    std::error_code error;
    const bool isFolder = fs::is_directory(input.source, error);
    if (!isFolder && !fs::is_regular_file(input.source, error))
        throw Failure("there is no folder, list or table " + input.source.string(), FailureKind::Usage);
    BatchInput sorted = input;
    sorted.options = merged(input.options, {});
    const bool isTable = !isFolder && input.source.extension() == ".csv";
    std::vector<BatchJob> jobs = isFolder  ? jobsOfFolder(sorted, warn)
                                 : isTable ? jobsOfTable(sorted)
                                           : jobsOfList(sorted);
    if (jobs.empty())
        throw Failure("no series were found in " + input.source.string() +
                          ": MRC tilt series, other files of several frames, or folders of frames",
                      FailureKind::NothingFound);
    refuseIdleOptions(jobs, sorted);
    for (BatchJob& job : jobs)
        if (!job.series.tilts.empty() && !valueOf(job.options, "tilts"))
            job.options = merged(job.options, {{"tilts", job.series.tilts.string()}});
    nameJobs(jobs, isFolder ? input.source : fs::absolute(input.source).parent_path());
    std::sort(jobs.begin(), jobs.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    return jobs;
}

std::vector<std::string> importWords(const BatchJob& job, const std::vector<OptionKind>& kinds) {
    return wordsFor(true, job, kinds);
}

std::vector<std::string> runWords(const BatchJob& job, const std::vector<OptionKind>& kinds) {
    std::vector<std::string> words = wordsFor(false, job, kinds);
    // The jobs share the cores already.
    if (!valueOf(job.options, "jobs")) words.emplace_back("--jobs=1");
    return words;
}

void writePlan(const std::vector<BatchJob>& jobs, const BatchFolder& folder, const std::string& version) {
    SettingsKeys keys(version);
    std::string text = jsonText(Json({{"format", kFormat}, {"version", kVersion}}));
    text.pop_back();
    text += ",\"jobs\":[\n";
    for (std::size_t i = 0; i < jobs.size(); ++i)
        text += jsonText(jobJson(jobs[i], keys.of(jobs[i].options))) + (i + 1 < jobs.size() ? ",\n" : "\n");
    OutputFile file(folder.plan());
    writeText(text + "]}\n", file.path());
    file.commit();
}

std::vector<BatchJob> readPlan(const BatchFolder& folder) {
    const std::optional<std::string> text = wholeFile(folder.plan());
    if (!text) throw noPlan(folder);
    const auto json = parsedJson<Json>(*text);
    std::vector<BatchJob> jobs;
    try {
        if (json.at("format") != kFormat || json.at("version") != kVersion)
            refusePlan(folder, "another format");
        for (const Json& job : json.at("jobs"))
            jobs.push_back(jobOf(job));
    } catch (const Json::exception& error) {
        refusePlan(folder, error.what());
    }
    return jobs;
}

BatchJob readJob(const BatchFolder& folder, const std::string& name) {
    std::ifstream file(folder.plan(), std::ios::binary);
    if (!file) throw noPlan(folder);
    const std::string start = std::string(kJobStart) + jsonText(Json(name)) + ',';
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(start)) try {
                return jobOf(parsedJson<Json>(jobLine(line)));
            } catch (const Json::exception& error) {
                refusePlan(folder, error.what());
            }
    throw Failure("the plan " + folder.plan().string() + " has no job " + name, FailureKind::Usage);
}

std::vector<JobState> statesOf(const std::vector<BatchJob>& jobs, const BatchFolder& folder,
                               const std::string& version) {
    std::vector<JobState> states;
    SettingsKeys keys(version);
    for (const BatchJob& job : jobs) {
        const std::string& settings = keys.of(job.options);
        JobState state{job, readRecord(folder.record(job.name)), {}};
        bool isOfJob = false;
        try {
            isOfJob = isCurrent(state.record, settings, job.series.input);
            // Its content is not read again the next time.
            if (const FileStamp stamp = stampOf(job.series.input); isOfJob && stamp != state.record.stamp) {
                state.record.stamp = stamp;
                writeRecord(state.record, folder.record(job.name));
            }
        } catch (const Failure&) {  // the input is gone, which a job that was tried has said already
            isOfJob = state.record.outcome == JobOutcome::Failed && state.record.settings == settings;
        }
        if (isOfJob && state.record.outcome == JobOutcome::Done)
            isOfJob = fs::exists(folder.result(job.name) / "summary.json");
        if (!isOfJob) state.record = {};
        state.needs = needsOf(job.series, coresOf(job), state.record.unended);
        states.push_back(std::move(state));
    }
    return states;
}

bool isOpen(const JobState& state, bool again) {
    return !state.record.hasResult() || (again && state.record.outcome == JobOutcome::NothingFound);
}

std::vector<JobState> openJobs(const std::vector<JobState>& states, bool again) {
    std::vector<JobState> open;
    std::copy_if(states.begin(), states.end(), std::back_inserter(open),
                 [&](const JobState& state) { return isOpen(state, again); });
    return open;
}

}  // namespace vrk
