/// \file
/// By what a result is known to be that of a job.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "pipeline/batch/JobOptions.h"

namespace vrk {

/// A file or a folder as the file system has it, without its contents.
struct FileStamp {
    std::uint64_t bytes = 0;
    std::int64_t modified = 0;  ///< nanoseconds since 1970; of a folder's newest file

    friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

/// Throws Failure when the input is not there.
FileStamp stampOf(const std::filesystem::path& input);

/// "size-checksum" of all that a job reads of its input: the file, the files of a folder with their names, a
/// list with the frames that it names, each in full. Throws Failure when one cannot be read.
std::string contentKey(const std::filesystem::path& input);

/// The options with the checksums of the files that they name, and the version of the program, as text: two
/// jobs with the same text and the same content give the same result.
std::string settingsKey(const JobOptions& options, const std::string& version);

}  // namespace vrk
