#include "indexing/HKLfileImportExport.h"

#include "reflections/Reflex.h"
#include "reflections/ReflexVector.h"
#include "support/Testing.h"

namespace {

struct Entry {
    int h, k, l;
    double intensity;
};

class HKLfileImportExportTest : public testing::Test {
protected:
    std::string written(const std::vector<Entry>& entries) {
        ReflexVectorPtr list(new ReflexVector);
        list->push_back(nullptr);  // stays, as the last
        for (const Entry& entry : entries) {
            list->push_back(new Reflex(0.0, 0.0, 0.0));
            list->back()->setHKL(entry.h, entry.k, entry.l);
            list->back()->setIntensity(entry.intensity);
        }
        HKLfileImportExport::saveHKLFile(list.get(), m_folder / "x.hkl");
        EXPECT_TRUE(list->size() == entries.size() + 1 && !list->back());
        return m_folder.read("x.hkl");
    }

    TemporaryFolder m_folder;
};

TEST_F(HKLfileImportExportTest, WritesIndexedReflectionsInOrderOfTheirIndices) {
    constexpr int none = Reflex::kNotIndexed;
    EXPECT_EQ(written({{2, 0, 0, 4.0},
                       {none, none, none, 7.0},
                       {-1, 9, 3, 10000.0},
                       {0, 0, 100001, 3.0},
                       {-1, 2, 100000, 9.0},
                       {-1000, 9999, -999, 1.0}}),
              " err9999-999    1.00    1.00\n"
              "  -1   2 err    9.00    3.00\n"
              "  -1   9   310000.00  100.00\n"
              "   2   0   0    4.00    2.00\n");
}

TEST_F(HKLfileImportExportTest, ChoosesTheFieldByTheStrongestReflection) {
    using Fields = std::vector<std::pair<double, std::string>>;  // of intensities
    const std::tuple<double, Fields, std::string> cases[] = {
        {99999.99,
         {{99999.99, "99999.99"},
          {0.05, "     . 5"},
          {0.005, "     . 1"},
          {0.004, "    0.00"},
          {12.3, "   12.30"}},
         ""},
        {100000.0, {{100000.0, "100000.0"}, {123.4, "   123.3"}, {0.04, "    0.00"}}, "(3I4 2F8.1)"},
        {999999.9, {{999999.9, "999999.9"}}, "(3I4 2F8.1)"},
        {1000000.0, {{1000000.0, " 1000000"}, {0.4, "    0.00"}, {2.5, "       3"}}, "(3I4 2F8.0)"},
        {99999999.4, {{99999999.4, "99999999"}}, "(3I4 2F8.0)"},
        {99999999.5, {{99999999.5, "100000000"}}, "(3I4 2F9.0)"},
        {123456789.0, {{123456789.0, "123456789"}, {4.0, "        4"}, {0.2, "0.00"}}, "(3I4 2F9.0)"},
        {1e22, {{1e22, "10000000000000000000000"}}, "(3I4 2F23.0)"},
        {10.0, {{std::numeric_limits<double>::infinity(), "     err"}}, ""},
    };
    for (const auto& [strongest, fields, format] : cases)
        for (const auto& [intensity, field] : fields) {
            RecordingLogObserver log;
            const std::string text = written({{1, 2, 3, intensity}, {7, 7, 7, strongest}});
            EXPECT_EQ(text.substr(0, 12 + field.size()), "   1   2   3" + field) << strongest;
            EXPECT_EQ(log.count("HKL Format changed to " + format, VRK::Warning), format.empty() ? 0 : 1);
        }
}

TEST_F(HKLfileImportExportTest, ReportsWhatCannotBeWritten) {
    RecordingLogObserver log;
    ReflexVectorPtr list(new ReflexVector);
    for (int i = 0; i < 20000; ++i) {
        list->push_back(new Reflex(0.0, 0.0, 0.0));
        list->back()->setHKL(i, 0, 0);
    }
    HKLfileImportExport::saveHKLFile(list.get(), m_folder / "none/x.hkl");
    EXPECT_EQ(log.count("Cannot open the HKL file", VRK::Error), 1);
    if (std::filesystem::exists("/dev/full")) {
        EXPECT_FALSE(HKLfileImportExport::exportHKLFile(list.get(), "/dev/full"));
        EXPECT_EQ(log.count("could not be written completely", VRK::Error), 1);
    }
    EXPECT_FALSE(HKLfileImportExport::exportHKLFile(nullptr, m_folder / "x.hkl"));
    EXPECT_TRUE(HKLfileImportExport::exportHKLFile(list.get(), m_folder / "x.hkl"));
}

}  // namespace
