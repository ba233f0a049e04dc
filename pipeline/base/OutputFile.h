/// \file
/// Results are written beside their final name and renamed when complete, so that an interrupted run
/// never leaves a half file under a good name.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

namespace vrk {

/// A file in the making. Removed on destruction unless commit() was called.
class OutputFile {
public:
    /// Throws Failure when the folder does not exist or the final name is a folder.
    explicit OutputFile(std::filesystem::path finalPath);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Where to write: an empty file in the same folder, the final name with ".part-" and six random
    /// characters before its extension. It is locked, so that what killed programs left is known and removed.
    const std::filesystem::path& path() const { return m_temporary; }
    /// Gives the file its final name. Throws Failure when that is not possible.
    void commit();

    /// Removes all files in the making. For signal handlers that end the process: calls nothing that they
    /// must not.
    static void removeAll() noexcept;

private:
    std::filesystem::path m_final;
    std::filesystem::path m_temporary;
    bool m_committed = false;
    int m_lock = -1;
    std::size_t m_place;  ///< among the files in the making
};

/// Replaces the content of a file. Throws Failure when it cannot be written completely.
void writeText(const std::string& text, const std::filesystem::path& path);

/// Makes the folder if it is not there. Throws Failure when that is not possible.
void makeFolder(const std::filesystem::path& folder);

}  // namespace vrk
