/// \file
/// Where the files of a batch are.
#pragma once

#include <filesystem>
#include <string>
#include <utility>

namespace vrk {

/// The folder of a batch. Names of jobs consist of letters, digits, '.', '_' and '-', so that they are the
/// same in file names, in shells and in workflows.
class BatchFolder {
public:
    explicit BatchFolder(std::filesystem::path path) : m_path(std::move(path)) {}

    const std::filesystem::path& path() const { return m_path; }
    std::filesystem::path plan() const { return m_path / "batch.json"; }
    std::filesystem::path jobLines() const { return m_path / "jobs.txt"; }
    std::filesystem::path diary() const { return m_path / "batch.log"; }
    std::filesystem::path workflow() const { return m_path / "workflow"; }
    std::filesystem::path instrument() const { return m_path / "instrument.json"; }
    /// What `vrk run` leaves.
    std::filesystem::path result(const std::string& job) const { return m_path / "results" / job; }
    std::filesystem::path record(const std::string& job) const {
        return m_path / "records" / (job + ".json");
    }
    std::filesystem::path thumbnail(const std::string& job) const {
        return m_path / "records" / (job + ".png");
    }
    /// What earlier versions wrote in its place, as JPEG.
    std::filesystem::path earlierThumbnail(const std::string& job) const {
        return m_path / "records" / (job + ".jpg");
    }
    /// For the series that is made of frames while the job runs.
    std::filesystem::path scratch(const std::string& job) const { return m_path / "work" / job; }

private:
    std::filesystem::path m_path;
};

}  // namespace vrk
