// The data of the page: what goes in comes out, and nothing of it becomes markup.

#include "pipeline/base/FileChecksum.h"
#include "pipeline/base/FolderLock.h"
#include "pipeline/batch/CsvTable.h"
#include "pipeline/formats/ReflectionTable.h"
#include "pipeline/report/PackedArray.h"
#include "pipeline/report/Report.h"
#include "support/FailureOf.h"
#include "support/ReportedData.h"

namespace {

using nlohmann::json;

constexpr const char* kNasty = "\"><script>alert(1)</script><!-- \\u003c \u2028 &amp;";

/// One that is seen and measured, one on no node, one that the frames alone show, and a cut one of a second
/// crystal.
std::vector<vrk::ListedReflection> someReflections() {
    std::vector<vrk::ListedReflection> list(4);
    list[0] = {{1, -2, 30}, 1, {0.1, -0.25, 0.5}, 1.75, -59.5, 2, 40.25, 12.5, 1234, 5678.5, 12.25, false};
    list[1] = {{}, 0, {-0.3, 0.2, 0.1}, 2.6726, 10, 71, 3, 4, 77, 0, 0, false};
    list[2] = {{-4, 0, 2}, 1, {0, 0.75, 0}, 1.3333, 3.25, 64, 9, 10, 0, -3.5, 2, false};
    list[3] = {{0, 0, -1}, 2, {0.01, 0, 0}, 100, 59, 121, 500, 510, 1e6, 0, 0, true};
    return list;
}

void expectSame(const std::vector<vrk::ListedReflection>& got,
                const std::vector<vrk::ListedReflection>& expected) {
    ASSERT_EQ(got.size(), expected.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_LT((got[i].place - expected[i].place).norm(), 1e-9);
        const auto rest = [](const vrk::ListedReflection& r) {
            return std::tuple(r.hkl, r.crystal, r.frame, r.cut, r.seen(), r.measured(), r.spacing, r.tilt,
                              r.column, r.row, r.counts, r.intensity, r.sigma);
        };
        EXPECT_EQ(rest(got[i]), rest(expected[i]));
    }
}

TEST(ReflectionTable, ReadsWhatItWroteInAnyOrderOfColumns) {
    const TemporaryFolder folder;
    const std::string path = folder / "reflections.csv";
    vrk::writeReflectionTable(someReflections(), path);
    expectSame(vrk::readReflectionTable(path), someReflections());

    // With the first column behind the others, and in its place one that nobody knows.
    std::string turned;
    for (const std::string& line : folder.lines("reflections.csv")) {
        const std::size_t comma = line.find(',');
        turned += "more" + line.substr(comma) + ',' + line.substr(0, comma) + "\r\n";
    }
    expectSame(vrk::readReflectionTable(folder.write("turned.csv", turned)), someReflections());
}

TEST(ReflectionTable, SaysWhichLineIsWrong) {
    const TemporaryFolder folder;
    vrk::writeReflectionTable(someReflections(), folder / "good.csv");
    const std::string good = folder.read("good.csv");
    const auto changed = [&](const std::string& from, const std::string& to) {
        std::string text = good;
        return text.replace(text.find(from), from.size(), to);
    };
    for (const auto& [text, message] :
         {std::pair<std::string, const char*>{"", "cannot read"},
          {changed("sigma", "sigm"), "no column sigma"},
          {changed("5678.5", "x"), "line 2, has no number in the column intensity: x"},
          {changed("-2,30", "-2,30.5"), "line 2, has no number in the column l"},
          {good + "1,2\n", "line 6, has too few columns"}}) {
        const std::string path = folder.write("bad.csv", text);
        const Refusal refusal = failureOf([&] { vrk::readReflectionTable(path); });
        EXPECT_TRUE(refusal.says(message)) << message << refusal.text;
    }
}

template <typename Value>
void expectRoundTrip(const char* type, std::size_t count) {
    std::mt19937 random(static_cast<unsigned>(count));
    std::vector<Value> values(count);
    for (Value& value : values)
        value =
            static_cast<Value>(std::is_floating_point_v<Value> ? static_cast<double>(random()) / 7e5 - 3000.0
                                                               : static_cast<double>(random() % 200) -
                                                                     (std::is_signed_v<Value> ? 100 : 0));
    const json column = json::parse(vrk::packedColumn(values));
    EXPECT_EQ(column["type"], type);
    EXPECT_EQ(unpacked(column), std::vector<double>(values.begin(), values.end())) << type << ' ' << count;
}

TEST(PackedColumn, ComesOutAsItWentIn) {
    for (const std::size_t count : {0U, 1U, 2U, 3U, 1000U}) {
        expectRoundTrip<std::uint8_t>("u1", count);
        expectRoundTrip<std::int16_t>("i2", count);
        expectRoundTrip<std::uint16_t>("u2", count);
        expectRoundTrip<std::uint32_t>("u4", count);
        expectRoundTrip<float>("f4", count);
    }
    std::vector<unsigned char> picture(5000, 7);
    picture[17] = 255;
    EXPECT_EQ(inflated(vrk::packedBytes(picture, vrk::PackedContent::Picture)), picture);
}

TEST(FileChecksum, IsThatOfOtherPrograms) {
    const TemporaryFolder folder;
    const vrk::FileChecksum checksum = vrk::checksumOf(folder.write("nine", "123456789"));
    EXPECT_EQ(checksum.crc32, 0xcbf43926U);
    EXPECT_EQ(checksum.bytes, 9U);
    EXPECT_EQ(checksum.sha256, "15e2b0d3c33891ebb0f1ef609ec419420c20e320ce94c65fbc8c3312448eb225");
    // cd folder; sha256sum nine within/'a\nb' | sha256sum
    std::filesystem::create_directory(folder / "within");
    folder.write("within/a\nb", "");
    EXPECT_EQ(vrk::checksumOf(folder / ".").sha256,
              "69215676034b405fa5c339ccfe45286202a796257c18efc7ae7b03e9aa6f0557");
    EXPECT_THROW(vrk::checksumOf(folder / "none"), vrk::Failure);
}

/// A folder as a run leaves it, with a page in it.
class ReportTest : public testing::Test {
protected:
    void SetUp() override {
        summary = {{"input", {{"path", kNasty}}}, {"warnings", {kNasty, "</SCRIPT >", "\xc3\xa9"}}};
        folder.write("summary.json", summary.dump(2));
        folder.write("cell-report.json", R"({"clustering": "</script>"})");
        vrk::writeReflectionTable(someReflections(), folder / "reflections.csv");
        const std::vector<vrk::ReportBlocks> page = {vrk::reportBlocks(
            folder / ".", folder.read("summary.json"),
            {{"sections", R"({"size": 2})"}, {"curves", "[]"}, {"patterns", R"({"bin": 3})"}})};
        vrk::writeReport(page, folder / "report.html");
    }

    TemporaryFolder folder;
    json summary;
};

TEST_F(ReportTest, HoldsTheFilesOfTheResultAndNoMarkupOfTheirs) {
    const std::string page = folder.read("report.html");
    const std::map<std::string, json> blocks = blocksOf(page);
    ASSERT_EQ(blocks.size(), 6U);
    EXPECT_EQ(blocks.at("summary"), summary);
    EXPECT_EQ(blocks.at("evaluation"), json::parse(R"({"clustering": "</script>"})"));
    EXPECT_FALSE(says(page, "<script>alert"));
    EXPECT_FALSE(says(page, "<!-- \\\\u003c"));

    // Its columns are those of the table.
    const vrk::CsvTable table = vrk::readCsv(folder / "reflections.csv");
    const json& columns = blocks.at("reflections");
    EXPECT_EQ(columns["count"], table.rows.size());
    for (std::size_t c = 0; c < table.columns.size(); ++c) {
        const std::string& name = table.columns[c];
        if (name == "indexed" || name == "seen") continue;  // the page sees that itself
        const std::vector<double> column = unpacked(columns.at(name));
        ASSERT_EQ(column.size(), table.rows.size()) << name;
        for (std::size_t i = 0; i < column.size(); ++i) {
            const std::string& field = table.rows[i].fields[c];  // empty where there is nothing to tell
            EXPECT_FLOAT_EQ(static_cast<float>(column[i]), field.empty() ? 0 : std::stof(field)) << name << i;
        }
    }
}

TEST_F(ReportTest, TakesTheViewsFromThePageThatIsThere) {
    const auto viewsOf = [](const std::string& page, int result) {
        std::string names;
        for (const auto& [name, block] : blocksOf(page, result))
            names += name + (name == "sections" ? block.dump() : "") + ' ';
        return names;
    };
    std::vector<vrk::ReportBlocks> results = {vrk::readReport(folder / ".")};
    vrk::writeReport(results, folder / "again.html");
    const char* all = "curves evaluation folder patterns reflections sections{\"size\":2} summary ";
    EXPECT_EQ(viewsOf(folder.read("again.html"), 0), all);
    {
        const vrk::FolderLock held(folder / ".");
        EXPECT_THROW(vrk::writeReport(results, folder / "again.html"), vrk::Failure) << "a run is writing";
    }

    std::filesystem::remove(folder / "report.html");
    std::filesystem::remove(folder / "reflections.csv");
    results.push_back(vrk::readReport(folder / "."));
    vrk::writeReport(results, folder / "two.html");
    const std::string two = folder.read("two.html");
    EXPECT_EQ(viewsOf(two, 0), "curves evaluation folder reflections sections{\"size\":2} summary ");
    EXPECT_EQ(viewsOf(two, 1), "evaluation folder summary ");
}

TEST_F(ReportTest, RefusesWhatIsNoResult) {
    for (const auto& [file, bytes, message] :
         {std::tuple{"summary.json", "{\"a\": ", "summary.json is damaged"},
          {"cell-report.json", "", "cell-report.json is damaged"},
          {"reflections.csv", "h,k\n", "no column l"}}) {
        const std::string before = folder.read(file);
        folder.write(file, bytes);
        const Refusal refusal = failureOf([&] { vrk::readReport(folder / "."); });
        EXPECT_TRUE(refusal.says(message)) << file << refusal.text;
        folder.write(file, before);
    }
    folder.write("report.html",
                 "<script type=\"application/json\" data-result=\"0\" data-block=\"sections\">{</script>");
    EXPECT_NO_THROW(vrk::readReport(folder / ".")) << "a damaged page has no views";
    EXPECT_THROW(vrk::readReport(folder / "none"), vrk::Failure);
}

}  // namespace
