// vrk verify: what was done to a result afterwards is found and named.

#include "app/RunVrk.h"

namespace {

class VerifyCommandTest : public VrkTest {
protected:
    void SetUp() override {
        for (const char* line :
             {"simulate -o s.mrc --cell 5.2,6.1,4.6,90,105,90 --centring C --size 96 --dmin 1 --seed 4 "
              "--tilts -60:60:3 --axis 6 --write-axis",
              "run s.mrc -o good --no-pictures --threshold 21 --log-level debug --jobs 1"})
            ASSERT_EQ(vrk(line).exitCode, 0) << line;
    }

    /// Puts another text where the first one stands, and the checksum right where that is wanted.
    void replace(const std::string& file, const std::string& from, const std::string& to, bool hidden) const {
        std::string text = folder.read(file);
        ASSERT_NE(text.find(from), std::string::npos) << file;
        folder.write(file, text.replace(text.find(from), from.size(), to));
        if (!hidden) return;
        const std::string sums = "sha256sum $(cut -c67- SHA256SUMS) > sums && mv sums SHA256SUMS";
        ASSERT_EQ(std::system(("cd " + (folder / "r") + " && " + sums).c_str()), 0);
    }
};

TEST_F(VerifyCommandTest, NamesWhatIsNotAsTheRunLeftIt) {
    const auto damaged = [&](const char* file, const char* from, const char* to, bool hidden = true) {
        return [=, this] { replace(std::string("r/") + file, from, to, hidden); };
    };
    const auto remove = [&](const char* file) {
        return [=, this] { std::filesystem::remove(folder / (std::string("r/") + file)); };
    };
    // What is done, and the keys of --json that are other than for a whole result.
    const std::vector<std::tuple<const char*, std::function<void()>, Json>> cases = {
        {"untouched", [] {}, {{"whole", true}}},
        {"one more", [&] { folder.write("r/notes.txt", "x"); }, {{"whole", true}, {"extra", {"notes.txt"}}}},
        {"changed", damaged("cell.txt", "# direct", "# Direct", false), {{"changed", {"cell.txt"}}}},
        {"missing", remove("merged.mtz"), {{"missing", {"merged.mtz"}}}},
        {"no list", remove("SHA256SUMS"), {{"missing", {"SHA256SUMS"}}}},
        {"cut",
         [&] { std::filesystem::resize_file(folder / "r/reflections.csv", 3000); },
         {{"disagreements", 1}}},
        {"fewer peaks", damaged("peaks.txt", "#N_peaks\n1", "#N_peaks\n"), {{"disagreements", 1}}},
        {"a line less", damaged("reflections.hkl", "\n", " "), {{"disagreements", 1}}},
        {"another cell", damaged("cell.txt", "4.0", "4.1"), {{"disagreements", 3}}},
        {"another page", damaged("report.html", "\"nz\"", "\"nZ\""), {{"disagreements", 1}}},
        {"another file", damaged("summary.json", "\"cell.txt\",", ""), {{"disagreements", 2}}},
    };
    for (const auto& [done, damage, expected] : cases) {
        SCOPED_TRACE(done);
        std::filesystem::remove_all(folder / "r");
        std::filesystem::copy(folder / "good", folder / "r");
        damage();
        const VrkResult result = vrk("verify r --json");
        const Json found = Json::parse(result.out, nullptr, false);
        ASSERT_TRUE(found.is_object()) << result.err;
        EXPECT_EQ(result.exitCode, expected.contains("whole") ? 0 : 1);
        EXPECT_EQ(found["whole"], expected.contains("whole"));
        const std::string printed = vrk("verify r").out;
        for (const char* list : {"changed", "missing", "extra", "disagreements"})
            for (const std::string name : found[list])
                EXPECT_TRUE(says(printed, name));
        for (const auto& [key, value] : expected.items()) {
            if (key == "disagreements")
                EXPECT_EQ(found[key].size(), value) << found[key];
            else
                EXPECT_EQ(found[key], value);
        }
    }
}

TEST_F(VerifyCommandTest, KnowsTheInputAndRefusesWhatIsNoResult) {
    // What is narrated stands between the messages.
    EXPECT_TRUE(says(folder.read("good/vrk.log"), "\n \n \ndebug >> constructor CalculateCellAlgorithm\n"));
    std::filesystem::rename(folder / "s.mrc", folder / "t.mrc");
    EXPECT_EQ(vrk("verify good --input t.mrc").exitCode, 0);
    VrkResult result = vrk("verify good --input s.truth.json --json");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(Json::parse(result.out)["input"], "other");

    EXPECT_EQ(vrk("report good").exitCode, 0);
    EXPECT_EQ(vrk("verify good").exitCode, 0) << "a page that was made again belongs to the result";
    EXPECT_EQ(vrk("run t.mrc -o good --no-pictures --no-integration").exitCode, 0);
    result = vrk("verify good");
    EXPECT_EQ(result.exitCode, 0) << "sums over the volume in reflections.hkl\n" << result.out;

    folder.write("good/SHA256SUMS", std::string(64, '0') + "  ../t.mrc\n");
    for (const char* bad : {"verify good", "verify .", "verify t.mrc", "verify none"}) {
        result = vrk(bad);
        EXPECT_EQ(result.exitCode, 1) << bad;
        EXPECT_EQ(result.err.rfind("vrk: ", 0), 0U) << result.err;
    }
}

}  // namespace
