/// \file
/// Runs the built vrk as a user would, and brings what nearly every test of its commands uses.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "support/Testing.h"

using Json = nlohmann::json;

/// A structure whose atoms lie on special positions.
inline constexpr const char* kSaltCif =
    "data_salt\n_cell_length_a 5.64\n_cell_length_b 5.64\n_cell_length_c 5.64\n_cell_angle_alpha 90\n"
    "_cell_angle_beta 90\n_cell_angle_gamma 90\n_symmetry_space_group_name_H-M 'F m -3 m'\nloop_\n"
    "_atom_site_label\n_atom_site_type_symbol\n_atom_site_fract_x\n_atom_site_fract_y\n"
    "_atom_site_fract_z\n_atom_site_U_iso_or_equiv\nNa1 Na 0 0 0 0.02\nCl1 Cl 0.5 0.5 0.5 0.02\n";

struct VrkResult {
    int exitCode = -1;  ///< 128 + signal number when the program was killed
    std::string out;    ///< everything on the standard output
    std::string err;    ///< everything on the standard error stream
};

/// Runs `vrk arguments...` in the given folder and waits for it. Arguments reach the program as they are,
/// no shell is involved. Throws std::runtime_error when the program cannot be started.
VrkResult runVrk(const std::vector<std::string>& arguments, const std::string& folder = ".");

/// A vrk that runs beside the test, with the rights of an ordinary user in the file system.
class StartedVrk {
public:
    explicit StartedVrk(const std::vector<std::string>& arguments, const std::string& folder = ".");
    /// Kills it where wait() was not called.
    ~StartedVrk();
    StartedVrk(const StartedVrk&) = delete;
    StartedVrk& operator=(const StartedVrk&) = delete;

    void signal(int number) const;
    VrkResult wait();

private:
    using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

    File m_out;
    File m_err;
    std::string m_folder;
    pid_t m_child = -1;
};

/// Runs vrk in a terminal of so many columns, in the folder; all that appears there.
/// \param term  kind of the terminal, as the variable TERM has it
VrkResult runVrkInTerminal(const std::string& line, const std::string& folder, int columns,
                           const char* term = "xterm");

/// What stands in a file or in all files of a folder, pictures and pages too, but not what it cost, as one
/// number.
double soFarOf(const std::string& path);

/// The words of a text.
std::vector<std::string> words(const std::string& text);

/// A command line that vrk refuses, how it ends, and what its message says.
struct RefusedLine {
    std::string line;
    int exitCode;
    std::string message;
};

/// Expects of each line one message, on the standard error stream, and nothing else.
/// \param before  stands in front of each line
void expectRefused(const std::vector<RefusedLine>& lines, const std::string& folder,
                   const std::string& before = "");

/// Runs vrk with the words of a line.
inline VrkResult runVrkLine(const std::string& line, const std::string& folder = ".") {
    return runVrk(words(line), folder);
}

/// What vrk prints with --json. The test fails where vrk does not end with success, and there is nothing.
inline Json jsonOfVrk(const std::string& line, const std::string& folder = ".") {
    const VrkResult result = runVrkLine(line + " --json", folder);
    EXPECT_EQ(result.exitCode, 0) << line << '\n' << result.err;
    return result.exitCode == 0 ? Json::parse(result.out) : Json();
}

/// A test with a folder of its own, in which vrk runs.
class VrkTest : public testing::Test {
protected:
    VrkResult vrk(const std::string& line) const { return runVrkLine(line, folder / "."); }
    Json jsonOf(const std::string& line) const { return jsonOfVrk(line, folder / "."); }
    Json jsonFile(const std::string& name) const { return Json::parse(folder.read(name)); }
    bool exists(const std::string& name) const { return std::filesystem::exists(folder / name); }

    const TemporaryFolder folder;
};

/// Tests with one folder, in which there is what all of them look at.
class SharedVrkTest : public testing::Test {
protected:
    static void SetUpTestSuite() { folder = std::make_unique<TemporaryFolder>(); }
    static void TearDownTestSuite() { folder.reset(); }
    static VrkResult vrk(const std::string& line) { return runVrkLine(line, *folder / "."); }
    static Json jsonOf(const std::string& line) { return jsonOfVrk(line, *folder / "."); }
    static bool exists(const std::string& name) { return std::filesystem::exists(*folder / name); }

    inline static std::unique_ptr<TemporaryFolder> folder;
};
