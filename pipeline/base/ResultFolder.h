/// \file
/// A folder of results that appear together.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "pipeline/base/FolderLock.h"

namespace vrk {

/// Results are written into the folder "unfinished" within the folder and take their places together, the
/// summary last. Until then what an earlier run left stands as it was; a run that ends in between leaves
/// "unfinished". A lock keeps a second run out while this object lives.
class ResultFolder {
public:
    static constexpr const char* kUnfinished = "unfinished";
    static constexpr const char* kEarlier = "earlier";
    /// Written last and removed first: a folder without it holds no result.
    static constexpr const char* kSummary = "summary.json";

    /// Makes the folder where it does not exist and empties "unfinished". Throws Failure when that is not
    /// possible, and when another run is writing into the folder.
    explicit ResultFolder(std::filesystem::path folder);
    /// Gives the lock back; what was not committed stays in "unfinished".
    ~ResultFolder();
    ResultFolder(const ResultFolder&) = delete;
    ResultFolder& operator=(const ResultFolder&) = delete;

    /// Where to write.
    const std::filesystem::path& path() const { return m_unfinished; }
    /// The names of what was written so far, in alphabetical order.
    std::vector<std::string> written() const;

    /// Lists the checksums of what was written (ChecksumList.h), removes the results of an earlier run and
    /// puts what was written in their place. Nothing may write to the files any more. Throws Failure when
    /// that is not possible; the folder has no summary then.
    void commit();
    /// Moves the results of an earlier run into the folder "earlier", so that nobody takes them for those of
    /// a run that failed. \returns whether there were any
    bool setEarlierAside();

private:
    std::vector<std::string> resultsOf(const std::filesystem::path& summaryFile) const;

    std::filesystem::path m_folder;
    std::filesystem::path m_unfinished;
    FolderLock m_lock;
};

}  // namespace vrk
