// Threads change no file of a run.

#include <map>

#include "app/RunVrk.h"

namespace {

namespace fs = std::filesystem;

/// The summary without what it says of time, memory and the command line.
std::string withoutCosts(const std::string& text) {
    Json summary = Json::parse(text);
    for (const char* key : {"program", "seconds", "memory_mib", "peak_memory_mib"})
        summary.erase(key);
    return summary.dump();
}

/// The contents of all files of a run but the log, which tells the time, and the sums of the files.
std::map<std::string, std::string> filesOf(const TemporaryFolder& folder, const std::string& name) {
    std::map<std::string, std::string> files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder / name))
        if (entry.is_regular_file() && entry.path().filename() != "vrk.log" &&
            entry.path().filename() != "SHA256SUMS") {
            const std::string file = fs::relative(entry.path(), folder / name).string();
            files[file] = folder.read(name + "/" + file);
        }
    std::string& summary = files["summary.json"];
    std::string& page = files["report.html"];
    // The page holds the summary as it is.
    const std::string whole = summary.substr(0, summary.find_last_not_of('\n') + 1);
    if (const std::size_t at = page.find(whole); at != std::string::npos) page.erase(at, whole.size());
    summary = withoutCosts(summary);
    return files;
}

TEST(JobsTest, ThreadsChangeNoFile) {
    const TemporaryFolder folder;
    const std::string series = folder / "series.mrc";
    ASSERT_EQ(runVrk({"simulate", "-o", series, "--cell", "4.1,5.2,6.3,90,100,90", "--size", "64", "--dmin",
                      "1", "--tilts", "-30:30:3", "--axis", "20", "--write-axis"})
                  .exitCode,
              0);
    std::map<std::string, std::string> one;
    for (const char* jobs : {"1", "5"}) {
        const std::string name = std::string("jobs") + jobs;
        const VrkResult run = runVrk({"run", series, "-o", folder / name, "--jobs", jobs, "--keep-volume"});
        ASSERT_EQ(run.exitCode, 0) << run.err;
        const std::map<std::string, std::string> files = filesOf(folder, name);
        EXPECT_GT(files.size(), 30U);
        if (one.empty()) one = files;
        ASSERT_EQ(files.size(), one.size());
        for (const auto& [file, content] : files)
            EXPECT_TRUE(content == one[file]) << file << " with " << jobs << " jobs";
    }
    const std::string clean = folder / "clean.mrc", volume = folder / "volume.mrc";
    std::map<std::string, std::string> step;
    for (const char* jobs : {"1", "5"}) {
        ASSERT_EQ(runVrk({"preprocess", series, "-o", clean, "--rotate", "header", "--jobs", jobs}).exitCode,
                  0);
        ASSERT_EQ(runVrk({"reconstruct", clean, "-o", volume, "--jobs", jobs}).exitCode, 0);
        for (const char* file : {"clean.mrc", "volume.mrc"})
            EXPECT_TRUE(folder.read(file) == step.emplace(file, folder.read(file)).first->second) << file;
    }
}

}  // namespace
