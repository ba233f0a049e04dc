#include "pipeline/batch/JobRecord.h"

#include <array>
#include <nlohmann/json.hpp>
#include <utility>

#include "pipeline/base/Failure.h"
#include "pipeline/base/FileText.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/OutputFile.h"

namespace vrk {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::array<std::pair<JobOutcome, const char*>, 5> kNames = {
    {{JobOutcome::Open, "open"},
     {JobOutcome::Started, "started"},
     {JobOutcome::Done, "done"},
     {JobOutcome::NothingFound, "nothing found"},
     {JobOutcome::Failed, "failed"}}};

JobOutcome outcomeNamed(const std::string& name) {
    for (const auto& [outcome, text] : kNames)
        if (name == text) return outcome;
    return JobOutcome::Open;
}

}  // namespace

const char* nameOf(JobOutcome outcome) {
    return kNames.at(static_cast<std::size_t>(outcome)).second;
}

JobRecord readRecord(const std::filesystem::path& path) {
    const auto json = parsedJson<Json>(wholeFile(path).value_or(""));
    JobRecord record;
    try {
        record.settings = json.at("settings").get<std::string>();
        record.content = json.at("content").get<std::string>();
        record.stamp = {json.at("bytes").get<std::uint64_t>(), json.at("modified").get<std::int64_t>()};
        record.cause = json.at("cause").get<std::string>();
        record.attempts = json.at("attempts").get<int>();
        record.unended = json.at("unended").get<int>();
        record.seconds = json.at("seconds").get<double>();
        record.host = json.at("host").get<std::string>();
        record.outcome = outcomeNamed(json.at("outcome").get<std::string>());
    } catch (const Json::exception&) {
        return {};
    }
    return record;
}

void writeRecord(const JobRecord& record, const std::filesystem::path& path) {
    const Json json = {{"outcome", nameOf(record.outcome)}, {"cause", record.cause},
                       {"settings", record.settings},       {"content", record.content},
                       {"bytes", record.stamp.bytes},       {"modified", record.stamp.modified},
                       {"attempts", record.attempts},       {"unended", record.unended},
                       {"seconds", record.seconds},         {"host", record.host}};
    OutputFile file(path);
    writeText(jsonText(json, 1) + '\n', file.path());
    file.commit();
}

bool isCurrent(const JobRecord& record, const std::string& settings, const std::filesystem::path& input) {
    if (record.settings != settings) return false;
    return record.stamp == stampOf(input) || record.content == contentKey(input);
}

}  // namespace vrk
