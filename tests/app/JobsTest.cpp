// Threads change no file of a run.
#include "app/RunVrk.h"
#include "support/ReportedData.h"

namespace {

class JobsTest : public VrkTest {
protected:
    /// The sums of the files of a run, and the data of its page but what they tell of time, memory and the
    /// command line.
    std::vector<std::string> resultOf(const std::string& name) const {
        std::vector<std::string> result = folder.lines(name + "/SHA256SUMS");
        std::erase_if(result, [](const std::string& line) {
            return says(line, "vrk.log") || says(line, "summary.json") || says(line, "report.html");
        });
        std::map<std::string, Json> page = blocksOf(folder.read(name + "/report.html"));
        for (const char* key : {"program", "seconds", "memory_mib", "peak_memory_mib"})
            page["summary"].erase(key);
        result.push_back(Json(page).dump());
        return result;
    }
};

TEST_F(JobsTest, ThreadsChangeNoFile) {
    jsonOf(
        "simulate -o s.mrc --cell 4.1,5.2,6.3,90,100,90 --size 64 --dmin 1 --tilts -30:30:3 --axis 20 "
        "--write-axis");
    for (const std::string line :
         {"preprocess s.mrc --rotate header --smooth 1 -o ", "reconstruct s.mrc -o "}) {
        jsonOf(line + "alone.mrc --jobs 1");
        jsonOf(line + "shared.mrc --jobs 3");
        EXPECT_GT(folder.read("alone.mrc").size(), 64U * 64U * 2U * 21U);
        EXPECT_TRUE(folder.read("shared.mrc") == folder.read("alone.mrc")) << line;
    }
    jsonOf("run s.mrc -o alone --jobs 1 --keep-volume");
    jsonOf("run s.mrc -o shared --jobs 5 --keep-volume");
    EXPECT_GT(resultOf("alone").size(), 30U);
    EXPECT_EQ(resultOf("shared"), resultOf("alone"));
}

}  // namespace
