#include "reflections/PeakFileImportExport.h"

#include <cstdio>

#include "reflections/ReflexVector.h"
#include "support/Testing.h"

namespace {

class PeakFile : public testing::Test {
protected:
    void put(const std::string& text) const { folder.write("peaks.txt", text); }
    std::string content() const { return folder.read("peaks.txt"); }
    bool write(const std::string& file, ReflexVector* reflections, bool onlyIndicated = false) const {
        return PeakFileImportExport::writePeakFile_version_2(file, reflections, 2, 101, 64, 7, -60.5, 60,
                                                             0.00123456789, 250, 37.5, onlyIndicated);
    }
    void expectCentres(const std::vector<std::array<double, 3>>& centres) const {
        ASSERT_EQ(list->size(), centres.size());
        for (std::size_t i = 0; i < centres.size(); ++i)
            for (int axis = 0; axis < 3; ++axis)
                EXPECT_EQ(list->at(i)->getCenter(axis), centres[i][static_cast<std::size_t>(axis)]) << i;
    }
    bool load() const { return PeakFileImportExport::loadPeakFile(path, list.get()); }

    const TemporaryFolder folder;
    const std::string path = folder / "peaks.txt";
    ReflexVectorPtr list{new ReflexVector};
    RecordingLogObserver log;
};

const std::string kHead =
    "#VRKPEAKSVERSION 2 (written by VRKCore library 1.3.1)\n#nx ny nz tilt_position_1 tilt_position_N\n"
    "101 64 7 -60.5 60\n#pix_size(m) CL(camera length, mm) DiffLens(%)\n0.00123457 250 37.5\n#N_peaks\n";

TEST_F(PeakFile, IsWrittenRelativeToTheTruncatedHalvesAndReadBack) {
    list->push_back(new Reflex(50, 32.25, 3));
    list->push_back(new Reflex(0.125, 63, 1.0 / 3));
    ASSERT_TRUE(write(path, list.get()));
    EXPECT_EQ(content(), kHead + "2\n#x y z\n0 0.25 0\n-49.875 31 -2.66667\n");
    EXPECT_EQ(log.messages.front().text, "peak file to save: " + path + "\n");

    list->destroyElements();
    ASSERT_TRUE(load());
    expectCentres({{50, 32.25, 3}, {0.125, 63, -2.66667 + 3}});
    EXPECT_FALSE(list->at(0)->isIndicated());
    EXPECT_EQ(log.messages.back().text, "peak file to load: " + path + "\n2 reflections loaded.\n");
    EXPECT_TRUE(log.has("#VRKPEAKSVERSION 2", VRK::Normal));
    EXPECT_TRUE(log.has("peak file has format version 2", VRK::Debug));
}

TEST_F(PeakFile, CarriesIntensitiesInAColumnOfTheirOwn) {
    for (const double intensity : {12.5, 0.0, 1234567.0}) {
        list->push_back(new Reflex(50, 32, intensity));
        list->back()->setIntensity(intensity);
    }
    ASSERT_TRUE(PeakFileImportExport::writePeakFileWithIntensities(path, list.get(), 1, 101, 64, 7, -60.5, 60,
                                                                   0.00123456789, 250, 37.5, false));
    EXPECT_EQ(content(),
              kHead + "3\n#x y z intensity\n0 0 9.5 12.5\n0 0 -3 0\n0 0 1.23456e+06 1.23457e+06\n");
    list->destroyElements();
    ASSERT_TRUE(load());
    EXPECT_EQ(list->at(0)->getIntensity(), 1.0);
    ASSERT_TRUE(PeakFileImportExport::loadIntensities(path, list.get()));
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(list->at(i)->getIntensity(), (std::array{12.5, 0.0, 1.23457e6})[i]);

    const std::string lines = "2\n#x y z intensity\n1 2 3 -4\n1 2 3 much\n";
    const std::tuple<const char*, std::string, bool, double> cases[] = {
        {"what is no intensity", kHead + lines, true, 0.0},
        {"no column", kHead + "2\n#x y z\n1 2 3 4\n1 2 3 5\n", false, 7.0},
        {"fewer lines", kHead + "2\n#x y z intensity\n1 2 3 4\n", false, 7.0},
        {"nothing", "", false, 7.0}};
    for (const auto& [name, text, loads, second] : cases) {
        put(text);
        list->destroyElements();
        for (int i = 0; i < 2; ++i) {
            list->push_back(new Reflex(1, 2, 3));
            list->back()->setIntensity(7.0);
        }
        EXPECT_EQ(PeakFileImportExport::loadIntensities(path, list.get()), loads) << name;
        EXPECT_EQ(list->at(1)->getIntensity(), second) << name;
    }
    EXPECT_FALSE(PeakFileImportExport::loadIntensities(path, nullptr));
    EXPECT_FALSE(PeakFileImportExport::loadIntensities(path + ".missing", list.get()));
}

TEST_F(PeakFile, HoldsOnlyIndexedReflectionsOnRequest) {
    list->push_back(new Reflex(50, 32, 3));
    ASSERT_TRUE(write(path, list.get(), true));
    EXPECT_EQ(content(), kHead + "0\n#x y z\n");
    EXPECT_TRUE(log.has("There are no indicated reflections to save.", VRK::Warning));
    list->push_back(new Reflex(51, 32, 3));
    list->back()->setHKL(1, 0, 0);
    ASSERT_TRUE(write(path, list.get(), true));
    EXPECT_EQ(content(), kHead + "1\n#x y z\n1 0 0\n");
}

TEST_F(PeakFile, CannotBeWritten) {
    put("old");
    EXPECT_FALSE(write(path, nullptr));
    EXPECT_EQ(content(), "");
    EXPECT_TRUE(log.has("Error while writing the file. Reflections = NULL", VRK::Error));
    const std::string nowhere = folder / "no_such_folder/peaks.txt";
    EXPECT_FALSE(write(nowhere, list.get()));
    EXPECT_EQ(log.messages.back().text, "ERROR: Error while opening file to write " + nowhere + "\n");
    if (std::ifstream("/dev/full")) {
        EXPECT_FALSE(write("/dev/full", list.get()));
        EXPECT_TRUE(log.has("Error while writing the file /dev/full", VRK::Error));
    }
}

TEST_F(PeakFile, ThatIsMalformedIsReadAsFarAsItGoes) {
    const std::string rest = "2\n#x y z\n1 2 3\n4 5 6\n";
    const std::string longLine(300, 'x');
    const auto withLine = [&](int number, const std::string& line) {
        std::istringstream lines(kHead + rest);
        std::string text, result;
        for (int i = 1; std::getline(lines, text); ++i)
            result += (i == number ? line : text) + "\n";
        return result;
    };
    // Whether it is loaded, with how many peaks, and the message of an error.
    using Case = std::tuple<const char*, std::string, bool, std::size_t, const char*>;
    const char* early = "Error while reading in the file";
    const char* unknown = "Unkown peak file format";
    for (const auto& [name, content, loaded, peaks, error] : {
             Case{"empty", "", false, 0, unknown},
             Case{"version 3", withLine(1, "#VRKPEAKSVERSION 3"), false, 0, unknown},
             Case{"more after the version", withLine(1, "#VRKPEAKSVERSION 20 x"), true, 2, nullptr},
             Case{"only the version", "#VRKPEAKSVERSION 2", false, 0, nullptr},
             Case{"line 6 without #", withLine(6, "N_peaks"), false, 0, nullptr},
             Case{"line 8 without #", withLine(8, "x y z"), false, 0, nullptr},
             Case{"text for N", withLine(7, "two"), true, 0, nullptr},
             Case{"negative N", withLine(7, "-2"), true, 0, nullptr},
             Case{"N too small", withLine(7, "1"), true, 1, nullptr},
             Case{"N too large", withLine(7, "3"), false, 2, early},
             Case{"N of 10^12", withLine(7, "1000000000000"), false, 2, early},
             Case{"N beyond 64 bits", withLine(7, "99999999999999999999"), false, 2, early},
             Case{"no last line feed", kHead + "2\n#x y z\n1 2 3\n4 5 6", false, 1, early},
             Case{"text for numbers", withLine(10, "one two three"), true, 2, nullptr},
             Case{"sizes beyond int", withLine(3, "1e300 -1e300 nan"), true, 2, nullptr},
             Case{"long first line", withLine(1, "#VRKPEAKSVERSION 2 " + longLine), false, 0, nullptr},
             Case{"long line 2", withLine(2, longLine), false, 0, nullptr},
             Case{"long line 8", withLine(8, "#" + longLine), false, 0, early},
             Case{"long peak line", withLine(9, "1 2 3 " + longLine), false, 0, early},
         }) {
        SCOPED_TRACE(name);
        put(content);
        log.messages.clear();
        list->destroyElements();
        EXPECT_EQ(load(), loaded);
        EXPECT_EQ(list->size(), peaks);
        EXPECT_EQ(log.count("", VRK::Error), error ? 1 : 0);
        EXPECT_TRUE(!error || log.has(error, VRK::Error));
        for (Reflex* reflex : *list)
            for (int axis = 0; axis < 3; ++axis)
                EXPECT_TRUE(std::abs(reflex->getCenter(axis)) <= std::numeric_limits<int>::max());
    }
}

TEST_F(PeakFile, ReadsCarriageReturnsSignsAndTextAsNumbersDo) {
    put("#VRKPEAKSVERSION 2\r\n#\r\n10.9 -11 text\r\n#\r\n#\r\n#\r\n4\r\n#\r\n1e1 +2 -3.5\r\n7 x 8\r\ninf 1 "
        "2\r\n1e999 1\r\n");
    ASSERT_TRUE(load());
    expectCentres({{15, -3, -3.5}, {12, -5, 0}, {5, -5, 0}, {5, -4, 0}});
}

TEST_F(PeakFile, LoadingDropsThePointersThatTheListHeld) {
    put(kHead + "0\n#x y z\n");
    Reflex kept(1, 2, 3);
    list->push_back(&kept);
    EXPECT_TRUE(load());
    EXPECT_TRUE(list->empty());
    EXPECT_FALSE(PeakFileImportExport::loadPeakFile(path, nullptr));
    EXPECT_TRUE(log.has("Error while reading in the file. Reflections = NULL", VRK::Error));
    std::remove(path.c_str());
    EXPECT_FALSE(load());
    EXPECT_TRUE(log.has("Error while opening file", VRK::Error));
    EXPECT_FALSE(PeakFileImportExport::loadPeakFile_version_2(path, list.get()));
    EXPECT_EQ(log.messages.back().text, "Error while opening file");
}

}  // namespace
