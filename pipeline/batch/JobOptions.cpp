#include "pipeline/batch/JobOptions.h"

#include <algorithm>
#include <array>

#include "pipeline/base/Failure.h"

namespace vrk {
namespace {

const OptionKind& kindOf(const std::string& name, const std::vector<OptionKind>& kinds) {
    const auto kind = std::find_if(kinds.begin(), kinds.end(), [&](const auto& k) { return k.name == name; });
    if (kind == kinds.end())
        throw Failure("--" + name +
                          " is no option that series of a batch have; 'vrk help run' and 'vrk help "
                          "import' list them",
                      FailureKind::Usage);
    return *kind;
}

/// A file is named from anywhere; what is none (a START:STEP, an X,Y) stays.
std::string placed(const std::string& name, const std::string& value, const std::filesystem::path& base) {
    if (!namesFile(name)) return value;
    const std::filesystem::path path = (base / value).lexically_normal();
    std::error_code error;
    return std::filesystem::is_regular_file(path, error) ? std::filesystem::absolute(path).string() : value;
}

bool isOneOf(const std::string& text, const std::array<const char*, 3>& words) {
    return std::find(words.begin(), words.end(), text) != words.end();
}

}  // namespace

bool namesFile(const std::string& optionName) {
    constexpr std::array kFiles = {"distortion", "fine-calibration", "centre", "tilts"};
    return std::find(kFiles.begin(), kFiles.end(), optionName) != kFiles.end();
}

JobOptions readOptions(const std::vector<std::string>& words, const std::vector<OptionKind>& kinds,
                       const std::filesystem::path& base) {
    JobOptions options;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (!word.starts_with("--") || word.size() < 3)
            throw Failure(
                "'" + word + "' is no option; behind -- stand those of the series, as --tilt-axis 35",
                FailureKind::Usage);
        const std::size_t equals = word.find('=');
        const std::string name = word.substr(2, equals == std::string::npos ? equals : equals - 2);
        if (!kindOf(name, kinds).takesValue) {
            options.push_back({name, std::nullopt});
        } else if (equals != std::string::npos) {
            options.push_back({name, placed(name, word.substr(equals + 1), base)});
        } else {
            if (++i == words.size()) throw Failure("--" + name + " needs a value", FailureKind::Usage);
            options.push_back({name, placed(name, words[i], base)});
        }
    }
    return options;
}

std::optional<JobOption> readOption(const std::string& name, const std::string& field,
                                    const std::vector<OptionKind>& kinds, const std::filesystem::path& base) {
    if (field.empty()) return std::nullopt;
    const OptionKind& kind = kindOf(name, kinds);
    if (kind.takesValue) return JobOption{name, placed(name, field, base)};
    if (isOneOf(field, {"yes", "true", "1"})) return JobOption{name, std::nullopt};
    if (isOneOf(field, {"no", "false", "0"})) return std::nullopt;
    throw Failure("'" + field + "' is neither yes nor no, which " + name + " takes", FailureKind::Usage);
}

JobOptions merged(const JobOptions& common, const JobOptions& own) {
    JobOptions all;
    for (const JobOptions* options : {&own, &common})
        for (auto option = options->rbegin(); option != options->rend(); ++option)
            if (std::none_of(all.begin(), all.end(), [&](const auto& o) { return o.name == option->name; }))
                all.push_back(*option);
    std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    return all;
}

std::vector<std::string> wordsOf(const JobOptions& options) {
    std::vector<std::string> words;
    for (const JobOption& option : options)
        // In one word, so that a value which begins with a dash stays a value.
        words.push_back("--" + option.name + (option.value ? "=" + *option.value : ""));
    return words;
}

const std::string* valueOf(const JobOptions& options, const std::string& name) {
    for (const JobOption& option : options)
        if (option.name == name && option.value) return &*option.value;
    return nullptr;
}

}  // namespace vrk
