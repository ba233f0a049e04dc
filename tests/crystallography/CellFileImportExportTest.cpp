#include "crystallography/CellFileImportExport.h"

#include "crystallography/UnitCell.h"
#include "support/Testing.h"

namespace {

const double kA[3] = {0.1, 20.5, -3.25};
const double kB[3] = {30.0, 0.25, 1.0};
const double kC[3] = {1.5, -2.0, 45.125};

class CellFileTest : public ::testing::Test {
protected:
    void write(const std::string& bytes) const { m_folder.write("cell.txt", bytes); }
    std::string read() const { return m_folder.read("cell.txt"); }
    std::string lastError() const {
        for (auto entry = m_log.messages.rbegin(); entry != m_log.messages.rend(); ++entry)
            if (entry->type == VRK::Error) return entry->text;
        return "";
    }

    const TemporaryFolder m_folder;
    const std::string m_file = m_folder / "cell.txt";
    RecordingLogObserver m_log;
};

TEST_F(CellFileTest, Version1KeepsTheVectors) {
    UnitCell cell(kA, kB, kC, 5e7, true, false, LATTICE::oI);
    ASSERT_TRUE(CellFileImportExport::writeCellFile_version_1(m_file, &cell));
    const std::string bytes = read();
    ASSERT_EQ(bytes.size(), 36U);
    EXPECT_EQ(bytes.substr(4, 4), std::string("\0\0\xF0\x41", 4));  // b_x = 30
    UnitCell loaded;
    ASSERT_TRUE(CellFileImportExport::loadCellFile(m_file, &loaded, 7.0));
    double a[3], b[3], c[3];
    ASSERT_TRUE(CellFileImportExport::loadCellFile(m_file, a, b, c, 7.0));
    for (int i = 0; i < 3; ++i) {
        EXPECT_FLOAT_EQ(static_cast<float>(a[i]), static_cast<float>(kA[i]));
        EXPECT_EQ(c[i], kC[i]);
    }
    EXPECT_FALSE(loaded.isRealCell());
    EXPECT_TRUE(loaded.isPrimitiv());
    EXPECT_EQ(loaded.getPixelsize(), 1.0);
    EXPECT_EQ(loaded.getBravaisType(), LATTICE::aP);
}

TEST_F(CellFileTest, Version2Text) {
    const double a[3] = {200, 0, 0}, b[3] = {0, 100, 0}, c[3] = {0, 0, 50};
    UnitCell cell(a, b, c, 1e7, false, true, LATTICE::aP);
    ASSERT_TRUE(CellFileImportExport::writeCellFile_version_2(m_file, &cell));
    EXPECT_EQ(read(),
              "#VRKCELLVERSION 2 (written by VRK3D 1.3.1)\n"
              "# reciprocal space cell vectors (pixels)\n200 0 0\n0 100 0\n0 0 50\n"
              "# reciprocal space cell (pixels, deg)\n200 100 50\n90 90 90 \n"
              "# direct space cell (A, deg)\n5 10 20\n90 90 90 \n");
    m_log.messages.clear();
    UnitCell loaded;
    ASSERT_TRUE(CellFileImportExport::loadCellFile(m_file, &loaded, 1e7));
    std::string told;
    for (const auto& message : m_log.messages)
        told += message.text + "\n";
    EXPECT_EQ(told, "cell file has format version 2\ncell file to load: " + m_file +
                        "\neingelesene Cell-Daten: \na 200  0  0\nb 0  100  0\nc 0  0  50\n"
                        "|a| = 200, |b| = 100, |c| = 50\nalpha = 90, beta = 90, gamma = 90\n"
                        "|a_real| = 5, |b_real| = 10, |c_real| = 20\n"
                        "alpha_real = 90, beta_real = 90, gamma_real = 90\n");
    cell.scaleA(1e-4);
    ASSERT_TRUE(CellFileImportExport::writeCellFile_version_2(m_file, &cell));
    EXPECT_NE(read().find("0 100 0\n0 0 50\n"), std::string::npos);
    EXPECT_NE(read().find("(A, deg)\n0 0 0\n0 0 0 \n"), std::string::npos);
}

TEST_F(CellFileTest, DirectCellIsStoredAsItsReciprocal) {
    const double a[3] = {5, 0, 0}, b[3] = {0, 10, 0}, c[3] = {-3, 0, 20};
    UnitCell direct(a, b, c, 1e7, true, true, LATTICE::mP);
    ASSERT_TRUE(CellFileImportExport::writeCellFile_version_2(m_file, &direct));
    UnitCell loaded;
    ASSERT_TRUE(CellFileImportExport::loadCellFile(m_file, &loaded, 1e7));
    EXPECT_FALSE(loaded.isRealCell());
    const std::unique_ptr<UnitCell> back(loaded.getReciprocalCell());
    EXPECT_NEAR(back->getLengthOfC(), direct.getLengthOfC(), 1e-4);
    EXPECT_NEAR(back->getBeta(), direct.getBeta(), 1e-3);
}

TEST_F(CellFileTest, ReadsWhatIsThere) {
    const std::string head = "#VRKCELLVERSION 2\n";
    using Case = std::tuple<const char*, std::string, double, double, double>;
    const Case cases[] = {
        {"CRLF", "#VRKCELLVERSION 2\r\n# v\r\n1 2 3\r\n4 5 6\r\n7 8 10\r\n# r\r\n", 1, 2, 10},
        {"lines before the comment", head + "words\n\n# v\n 1\t+2 3\n4 5 6\n7 8 1e1\n", 1, 2, 10},
        {"garbage", head + "# v\nx 2 3\n4 5 6\n7 8 10junk\n", 0, 0, 10},
        {"not a number", head + "# v\n1 nan 3\n4 5 6\n7 8 inf\n", 1, 0, 0},
        {"out of range", head + "# v\n-1e-400 2 3\n4 5 6\n7 1e-400 -2E+400\n", 0, 2, -HUGE_VAL},
        {"short", head + "# v\n1 2 3\n4 5 6\n", 1, 2, 0},
        {"nothing after the first line", head, 0, 0, 0},
        {"as long as version 1", head + "# v\n1 2 3\n4 5 6\n7\n", 1, 2, 0},
        {"long lines",
         head + "# " + std::string(5000, 'x') + "\n1 2 3" + std::string(5000, ' ') + "\n4 5 6\n7 8 10\n", 1,
         2, 10},
    };
    EXPECT_EQ(std::get<1>(cases[7]).size(), 36U);
    for (const auto& [name, text, ax, ay, cz] : cases) {
        write(text);
        UnitCell cell;
        EXPECT_TRUE(CellFileImportExport::loadCellFile(m_file, &cell, 3.0)) << name;
        double M[3][3];
        cell.getOrientationMatrix(M);
        EXPECT_EQ(M[0][0], ax) << name;
        EXPECT_EQ(M[1][0], ay) << name;
        EXPECT_EQ(M[2][2], cz) << name;
        EXPECT_EQ(cell.getPixelsize(), 3.0);
    }
}

TEST_F(CellFileTest, RefusesOtherFiles) {
    UnitCell cell;
    double v[3];
    for (const std::size_t size : {0U, 35U, 37U}) {
        write(std::string(size, '7'));
        EXPECT_FALSE(CellFileImportExport::loadCellFile(m_file, &cell, 1.0));
        EXPECT_EQ(lastError(), "Unkown cell file format");
        EXPECT_FALSE(CellFileImportExport::loadCellFile_version_1(m_file, v, v, v));
        EXPECT_EQ(lastError(), "ERROR: wrong file length!!!");
        EXPECT_FALSE(CellFileImportExport::loadCellFile_version_2(m_file, &cell, 1.0));
    }
    // One line of a gigabyte (a sparse file).
    std::filesystem::resize_file(m_file, std::uintmax_t(1) << 30U);
    EXPECT_FALSE(CellFileImportExport::loadCellFile(m_file, &cell, 1.0));
    EXPECT_FALSE(CellFileImportExport::loadCellFile(m_file + ".missing", &cell, 1.0));
    EXPECT_EQ(lastError(), "Error while opening file");
    EXPECT_TRUE(cell.isStandartCell());
}

TEST_F(CellFileTest, WritingFailsLoudly) {
    UnitCell cell;
    const std::string nowhere = m_file + ".missing/cell.txt";
    using Write = bool (*)(const std::string&, UnitCell*);
    for (const Write writer : {Write{CellFileImportExport::writeCellFile_version_1},
                               Write{CellFileImportExport::writeCellFile_version_2}}) {
        EXPECT_FALSE(writer(nowhere, &cell));
        EXPECT_EQ(lastError(), "ERROR: Error while opening file to write " + nowhere);
        if (!std::filesystem::exists("/dev/full")) continue;
        EXPECT_FALSE(writer("/dev/full", &cell));
        EXPECT_EQ(lastError(), "ERROR: Error while writing file /dev/full");
    }
}

}  // namespace
