/// \file
/// Options of `vrk run` and `vrk import` that a batch hands to its jobs.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vrk {

/// An option that a job may have.
struct OptionKind {
    std::string name;  ///< long, without dashes
    bool takesValue = true;
    bool ofRun = false;
    bool ofImport = false;
};

/// One that a job has.
struct JobOption {
    std::string name;                  ///< long, without dashes
    std::optional<std::string> value;  ///< none for a flag

    friend bool operator==(const JobOption&, const JobOption&) = default;
};

using JobOptions = std::vector<JobOption>;

/// Options as they stand on a command line: "--name value", "--name=value" or "--flag". Names of files are
/// made absolute, so that a job may run anywhere.
/// \param base  folder to which names of files are relative
/// Throws Failure (Usage) for what is no option of a job, and for values that lack.
JobOptions readOptions(const std::vector<std::string>& words, const std::vector<OptionKind>& kinds,
                       const std::filesystem::path& base);

/// One option by the column and the field of a table: flags have "yes", "true" or "1", or "no", "false", "0"
/// for none. \returns nothing for "no" and for an empty field
/// Throws Failure (Usage) as readOptions() does.
std::optional<JobOption> readOption(const std::string& name, const std::string& field,
                                    const std::vector<OptionKind>& kinds, const std::filesystem::path& base);

/// The common ones with those of the series, which replace others of their name. In alphabetical order.
JobOptions merged(const JobOptions& common, const JobOptions& own);

/// As arguments of a program.
std::vector<std::string> wordsOf(const JobOptions& options);

/// The value of an option; null where it is not there.
const std::string* valueOf(const JobOptions& options, const std::string& name);

/// Whether the value of this option is the name of a file.
bool namesFile(const std::string& optionName);

}  // namespace vrk
