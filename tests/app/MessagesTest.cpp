// What vrk says to those who ask it the wrong way, and how it ends.

#include <regex>

#include "app/RunVrk.h"
#include "foundation/Version.h"
#include "support/SoFar.h"
#include "support/TiffBytes.h"

namespace {

struct Group {
    const char* name;
    std::vector<RefusedLine> cases;

    friend void PrintTo(const Group& group, std::ostream* out) { *out << group.name; }
};

/// Of lines and "option : limits; option : limits", of which an option is beyond.
std::vector<RefusedLine> limits(const std::vector<std::array<std::string, 2>>& tables) {
    std::vector<RefusedLine> lines;
    for (const auto& [line, options] : tables) {
        std::istringstream all(options);
        for (std::string one; std::getline(all, one, ';');) {
            const std::size_t colon = one.find(" : ");
            const std::string what = one.substr(colon + 3);
            lines.push_back({line + ' ' + one.substr(0, colon), 2,
                             what == "above" ? "is not a number above 0"
                                             : "from " + what + (what.ends_with(" to") ? "" : "\n")});
        }
    }
    return lines;
}

/// Every command line is wrong in one way; the message blames that and nothing else.
const std::vector<Group> kGroups = {
    {"commands_and_options",
     {
         {"", 2, "Usage: vrk COMMAND"},
         {"rum", 2, "there is no command 'rum'; did you mean run?"},
         {"help rum", 2, "did you mean run?"},
         {"tilt_axis series.mrc", 2, "did you mean tilt-axis?"},
         {"rnu", 2, "there is no command 'rnu'; did you mean run?\n"},
         {"frobnicate", 2, "there is no command 'frobnicate'\n"},
         {"--json run series.mrc", 2, "no option --json before a command"},
         {"run series.mrc -o r --thresh 5", 2, "run has no option --thresh; did you mean --threshold?"},
         {"run --thresh 5 series.mrc -o r", 2, "run has no option --thresh; did you mean --threshold?"},
         {"run series.mrc -o r --tilt_axis 5", 2, "no option --tilt_axis; did you mean --tilt-axis?"},
         {"run series.mrc -o r -tilt-axis 5", 2, "no option -tilt-axis; did you mean --tilt-axis?"},
         {"run series.mrc -o r --min 5", 2, "did you mean --min-voxels, --min-length or --min-points?"},
         {"run series.mrc -o r --Voltage=200", 2, "no option --Voltage; did you mean --voltage?"},
         {"run --what", 2, "run has no option --what\n"},
         {"run", 2, "run needs SERIES.mrc and -o FOLDER"},
         {"run series.mrc", 2, "run needs -o FOLDER"},
         {"import -o x.mrc", 2, "import needs FRAMES"},
         {"cell", 2, "cell needs PEAKS and -o"},
         {"run series.mrc -o r more.mrc", 2, "'more.mrc' is one argument more than run takes"},
     }},
    {"values",
     {
         {"run series.mrc -o r --threshold", 2, "--threshold needs a value: NUMBER"},
         {"run series.mrc -o r --threshold high", 2, "--threshold: high is not a number from"},
         {"run series.mrc -o r --voltage 0", 2, "--voltage: 0 is not a number above 0"},
         {"run series.mrc -o r --mode stepwize", 2, "did you mean stepwise?"},
         {"run series.mrc -o r --tilt-axis left", 2, "'search' or 'none', not 'left'"},
         {"run series.mrc -o r --centre 5", 2, "X,Y in pixels"},
         {"run series.mrc -o r --formula Xx2", 2, "\"Xx\""},
         {"run series.mrc -o r --log-level loud", 2, "'loud' is none of error, warning, info, debug"},
         {"import series.mrc -o x.mrc --sum two", 2, "--sum: 'two' is not a number"},
         {"preprocess series.mrc -o x.mrc --rotate left", 2, "'header', not 'left'"},
         {"sections volume.mrc cell.txt -o pics --plane xyz", 2, "xyz"},
         {"cell-info 1 2 3", 2, "not 3 values"},
         {"cell-info 5 6 x 90 90 90", 2, "'x' is not a number; give A B C"},
         {"cell-info 5 6 7 30 30 90", 2, "no cell has these edges and angles"},
         {"cell-info 5 6 nan 90 90 90", 2, "no cell has these edges and angles"},
         {"cell-info 1e308 1e308 1e308 90 90 90", 1, "this cell spans no lattice"},
         {"cell-info 1 1 1 90 90 1e-7", 1, "this cell spans no lattice"},
         {"cell-info 1 1 1 90 90 90 --centring Q", 2, "no centring Q; use P, A, B, C, I, F or R"},
         {"cell-info 5 5 5 1.5 1.5 1.5", 2, "look like radians"},
         {"cell peaks.txt -o c.txt --merge 51", 2, "more than 0 and at most 50"},
         {"reconstruct series.mrc -o x.mrc --fine-pixel-size 1 --fine-calibration f", 2, "excludes"},
         {"completion fish", 2, "'fish' is none of bash, zsh"},
     }},
    {"simulations",
     {
         {"simulate -o x.mrc", 2, "give either --cell or --cif"},
         {"simulate -o x.mrc --cell 5,6,7,90,90,90 --cif a.cif", 2, "give either --cell or --cif"},
         {"simulate -o x.mrc --cif .", 1, "cannot read .\n"},
         {"simulate -o x.mrc --cif none.cif", 1, "cannot read none.cif: there is no such file"},
         {"simulate -o x.mrc --cell 1,2,3", 2, "--cell takes six numbers, a,b,c,alpha,beta,gamma"},
         {"simulate -o x.mrc --cell 5,6,7,90,90,90 --tilts -60:60:0", 2, "FIRST:LAST:STEP in degrees"},
         {"simulate -o x.mrc --cell 5,6,7,90,90,90 --tilts -60:60:0.1", 2, "more than 300 frames"},
         {"simulate -o x.mrc --cell 5,6,7,90,90,90 --tilts 0:nan:1", 2, "\"nan\" is not a number"},
         {"simulate -o x.mrc --cell 5,6,7,90,90,90 --orientation 1,2", 2, "\"random\", three Euler angles"},
         {"simulate -o x.mrc --cell 5,6,7,90,90,90 --orientation 1,0,0,0,1,0,1,0,0", 2, "not perpendicular"},
         {"simulate -o x.mrc --cell 5,6,7,90,90,90 --mode sideways", 2, "continuous, precession, stepwise"},
         {"simulate -o x.mrc --cell 5,6,7,90,90,90 --beam-along 1,0", 2, "takes U,V,W, not 1,0"},
         {"simulate -o x.mrc --cell 5,6,7,90,90,90 --stop-offset 1;2", 2, "\"1;2\" is not a number"},
         {"simulate -o x.mrc --cell 5,6,7,90,90,90 --dose nan", 2, "the dose must be 0 to 1000000, not nan"},
     }},
    {"limits",
     limits({{"run series.mrc -o r",
              "--jobs 0 : 1 to 256; --max-voxels 0 : 1 to; --min-points 0 : 1 to; --min-voxels -1 : 0 to "
              "2147483647; "
              "--min-voxels 2.5 : 0 to 2147483647; --zero-beam -1 : 0 to; --resolution -1 : 0 to; "
              "--min-length -1 : 0 to; --max-length 0 : 2.22507e-308 to 1e+09; "
              "--eps 0 : 2.22507e-308 to 1e+09; --reflection-centre 4 : 1 to 3; "
              "--refine-clusters 101 : 0 to 100; --angle-a 181 : 0 to 180; --angle-b 181 : 0 to 180; "
              "--grid-size 51 : 1 to 50; --crystals 10 : 1 to 9; --volume-size 63 : 64 to 16384; "
              "--pixel-size 0 : above; --d-min 0 : above; --gain -1 : above"},
             {"batch frames -o b",
              "--jobs 0 : 1 to 100000; --memory 99 : 100 to 100000000; "
              "--array-size 0 : 1 to 1000000; --cut 0.6 : 1e-06 to 0.5"},
             {"cell peaks.txt -o c.txt", "--crystals 0 : 1 to 9"},
             {"cell-info 5 6 7 90 90 90", "--angle 11 : 0 to 10; --length 16 : 0 to 15"},
             {"merge a b -o m", "--cell-tolerance 8 : 0.01 to 7"},
             {"sections volume.mrc cell.txt -o p", "--thickness 101 : 0 to 100; --size 15 : 16 to 8192"},
             {"demo -o d", "--size 63 : 64 to 2048; --step 6 : 0.5 to 5; --axis 181 : -180 to 180"},
             {"tilt-axis series.mrc -o ax", "--accuracy 0 : 0.0001 to 90"},
             {"preprocess series.mrc -o x.mrc", "--smooth 65 : 0 to 64; --jobs 0 : 1 to 256"},
             {"reconstruct series.mrc -o x.mrc", "--jobs 257 : 1 to 256"},
             {"index peaks.txt cell.txt -o x.hkl",
              "--tolerance 0.6 : 0.001 to 0.5; --radius 0.4 : 0.5 to 50"}})},
    {"files_that_are_something_else",
     {
         {"run none.mrc -o r", 1, "none.mrc cannot be opened for reading (No such file or directory)"},
         {"run frames -o r", 1, "frames is a folder; name a file in it, or make a series"},
         {"info empty.mrc", 1, "0 bytes"},
         {"info cut.mrc", 1, "bytes of data, but only 76"},
         {"info flat.mrc", 1, "announces 0 x 0 x 21 voxels"},
         {"info volume.mrc --picture v.png", 1, "is a volume"},
         {"run series.mrc.gz -o r", 1, "is an MRC file that is packed"},
         {"run volume.mrc -o r", 1, "volume.mrc holds no tilt series"},
         {"reconstruct volume.mrc -o v.mrc", 1, "holds no tilt series"},
         {"cell volume.mrc -o c.txt", 1, "an MRC file, not a list of peaks; 'vrk peaks'"},
         {"index cell.txt peaks.txt -o x.hkl", 1,
          "a cell file, not a list of peaks; are the two names swapped?"},
         {"index peaks.txt peaks.txt", 1, "a peak file, not a cell file"},
         {"sections cell.txt volume.mrc -o pics", 1, "is a cell file, not an MRC file"},
         {"sections volume.mrc peaks.txt -o pics", 1, "is a peak file, not a cell file"},
         {"cell-info none.txt", 1, "none.txt cannot be opened"},
         {"cell-info notes.txt", 1, "cannot read a cell from notes.txt"},
         {"run ser\xff\xc3\xb6.mrc -o r", 1, "ser\xff\xc3\xb6.mrc cannot be opened"},
     }},
    {"memory",
     {
         {"run big.mrc -o r --max-memory 700M", 1,
          "big.mrc: 21 slices of 6000 x 6000 pixels need 1.4 GiB of"},
         {"info big.mrc --max-memory 700M", 1, "MiB may be taken of 700.0 MiB (--max-memory); bin or sum"},
         {"import big.tif more.tif -o x.mrc --tilts 0:1 --max-memory 700M", 1,
          "2 slices of 16000 x 16000 pixels need 976.6 MiB"},
         {"simulate -o x.mrc --cell 5,6,7,90,90,90 --size 2048 --tilts -60:60:1 --max-memory 700M", 1,
          "need 968.0 MiB"},
         {"demo -o d --size 2048 --max-memory 700M", 1, "slices of 2048 x 2048 pixels need"},
         {"reconstruct wide.mrc -o x.mrc --max-memory 700M", 1,
          "the volume of 1200 x 1200 x 600 voxels need 1.6 GiB"},
         {"run series.mrc -o r --max-memory 1M", 2, "that the program takes by itself"},
         {"cell peaks.txt -o c.txt --max-memory lots", 2,
          "a size such as 500M or 4G, or a share of what is free"},
         {"peaks volume.mrc -o p.txt --max-memory 101%", 2, "not '101%'"},
     }},
    {"places_to_write_and_nothing_found",
     {
         {"run series.mrc -o series.mrc", 1, "cannot make the folder series.mrc"},
         {"import locked -o x.mrc", 1, "cannot read the folder locked: Permission denied"},
         {"import frames -o x.mrc", 1, "frames holds no frames"},
         {"import cut.mrc -o x.mrc", 1, "--skip-bad"},
         {"run locked.mrc -o r", 1, "locked.mrc cannot be opened for reading (Permission denied)"},
         {"cell locked/peaks.txt -o c.txt", 1, "locked/peaks.txt cannot be opened"},
         {"run series.mrc -o locked", 1, "cannot write into the folder locked: Permission denied"},
         {"run series.mrc -o locked/r", 1, "cannot make the folder locked/r"},
         {"import series.mrc -o locked/x.mrc", 1, "cannot write locked/x.mrc"},
         {"preprocess series.mrc -o none/x.mrc", 1, "the folder none does not exist"},
         {"import series.mrc -o series.mrc", 2, "would replace"},
         {"peaks volume.mrc -o volume.mrc", 2, "would replace the volume"},
     }},
};

class MessagesTest : public SharedVrkTest, public testing::WithParamInterface<Group> {
protected:
    static void SetUpTestSuite() {
        SharedVrkTest::SetUpTestSuite();
        for (const char* line :
             {"simulate -o series.mrc --cell 5,6,7,90,90,90 --size 64 --dmin 2 --tilts -30:30:3",
              "preprocess series.mrc -o clean.mrc", "reconstruct clean.mrc -o volume.mrc"})
            ASSERT_EQ(vrk(line).exitCode, 0) << line;
        folder->write("notes.txt", "what to do tomorrow\n");
        folder->write("empty.mrc", "");
        folder->write("cut.mrc", folder->read("series.mrc").substr(0, 1024 + 21 * 144 + 76));
        folder->write("peaks.txt",
                      "#VRKPEAKSVERSION 2\n# n\n9 9 9 0 0\n# p\n1e8 0 0\n# N\n1\n# x\n1 2 3 4\n");
        folder->write("cell.txt", "#VRKCELLVERSION 2\n");
        // The first names so many pixels; a hole in the file stands for them.
        const auto grown = [](const char* name, int edge) {
            std::string bytes = folder->read("series.mrc").substr(0, 1024 + 21 * 144);
            for (std::size_t place : {0U, 4U})
                std::memcpy(bytes.data() + place, &edge, sizeof edge);
            folder->write(name, bytes);
            std::filesystem::resize_file(*folder / name, bytes.size() + 2ULL * 21 * edge * edge);
        };
        grown("big.mrc", 6000);
        grown("wide.mrc", 1200);
        grown("flat.mrc", 0);
        for (const char* name : {"big.tif", "more.tif"}) {
            folder->write(name, emptyTiff(16000));
            std::filesystem::resize_file(*folder / name, 300'000);  // so many pixels could be packed in it
        }
        for (const char* name : {"frames", "locked"})
            std::filesystem::create_directory(*folder / name);
        folder->write("locked.mrc", "text");
        for (const char* name : {"locked", "locked.mrc"})
            std::filesystem::permissions(*folder / name, std::filesystem::perms::none);
        const std::string pack =
            "gzip -c '" + (*folder / "series.mrc") + "' > '" + (*folder / "series.mrc.gz'");
        ASSERT_EQ(std::system(pack.c_str()), 0);
    }
    static void TearDownTestSuite() {
        std::filesystem::permissions(*folder / "locked", std::filesystem::perms::owner_all);
        SharedVrkTest::TearDownTestSuite();
    }
};

TEST_P(MessagesTest, BlameOneThingAndNameTheWayOut) {
    using Entries = std::filesystem::recursive_directory_iterator;
    const auto files = [] {
        std::set<std::string> names;
        for (Entries entry(*folder / ".", std::filesystem::directory_options::skip_permission_denied), end;
             entry != end; ++entry)
            if (entry->is_regular_file()) names.insert(entry->path().filename().string());
        names.erase("vrk.log");  // of runs that came as far
        return names;
    };
    const std::set<std::string> before = files();
    expectRefused(GetParam().cases, *folder / ".");
    EXPECT_EQ(files(), before) << "nothing is left under any name";
}

INSTANTIATE_TEST_SUITE_P(Vrk, MessagesTest, testing::ValuesIn(kGroups),
                         [](const auto& group) { return group.param.name; });

/// The library's own texts are told in plain words, or stay in the log where another message says it.
TEST_F(MessagesTest, WarningsAreInPlainWords) {
    const std::string volume = folder->read("volume.mrc");
    folder->write("short.mrc", volume.substr(0, volume.size() - 9999));
    folder->write("known.txt",
                  "#VRKCELLVERSION 2\n# v\n20 0 0\n0 10 0\n0 0 5\n# r\n20 10 5\n90 90 90 \n"
                  "# d\n5 10 20\n90 90 90 \n");
    folder->write("bright.txt", "20 0 0 9\n0 10 0 8\n0 0 5 3e5\n20 10 0 5\n20 0 5 4\n0 10 5 3\n20 10 5 2\n");
    for (const auto& [line, start] :
         {std::pair("peaks short.mrc -o p.txt", "vrk: warning: short.mrc: the file is cut in slice"),
          std::pair("index bright.txt known.txt -o x.hkl --keep-cell --pixel-size 1e8",
                    "vrk: warning: some intensities are too large for two decimals; the HKL file has the "
                    "format (3I4 2F8.1)\n")}) {
        const VrkResult result = vrk(line);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.err.rfind(start, 0), 0U) << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
}

TEST(Main, EmptyArgumentsAreNamed) {
    const VrkResult result = runVrk({"run", "", "-o", "r"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.err, "vrk: one of the arguments is empty ('')\n");
}

TEST(Main, VersionAndHelpGoToTheStandardOutputAlone) {
    for (const char* line : {"-v", "-V", "--version"}) {
        const VrkResult result = runVrkLine(line);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.out, std::string("vrk ") + VRK::kVersion + "\n");
        EXPECT_EQ(result.err, "");
    }
    const VrkResult asked = runVrkLine("run --help");
    EXPECT_EQ(asked.exitCode, 0);
    EXPECT_EQ(asked.out.rfind("Find the unit cell", 0), 0U);
    EXPECT_TRUE(says(asked.out, "--format {shelx,mtz,cif,xds,frames,pets}\n"));
    EXPECT_EQ(runVrkLine("help run").out, asked.out);
    EXPECT_EQ(runVrkLine("help").out, runVrkLine("--help").out);
}

/// What a terminal gets: lines that it shows, and how long the longest is without its control sequences.
struct Shown {
    std::size_t longest = 0;
    int lines = 0;
    int rewritten = 0;  ///< that stand where another stood
    bool controlled = false;
    int lastShare = 0;    ///< percent
    bool ascends = true;  ///< within a part of the work
    bool drawn = true;    ///< bars are as long as their shares and the room, and the time is short
    std::string part;

    explicit Shown(const std::string& bytes) : controlled(bytes.find('\x1b') != std::string::npos) {
        // What wipes the rest of a line is no part of it.
        const std::string all = std::regex_replace(bytes, std::regex("\x1b.."), "");
        std::size_t end = 0;
        for (std::size_t at = 0; (end = all.find_first_of("\r\n", at)) != std::string::npos; at = end + 1) {
            const std::string text = all.substr(at, end - at);
            drawn = drawn && isDrawn(text);
            if (words(text).size() > 1) longest = std::max(longest, text.size());
            if (const std::size_t percent = text.find(" %"); percent != std::string::npos) {
                const int share = std::stoi(text.substr(text.rfind(' ', percent - 1)));
                ascends = ascends && (share >= lastShare || words(text)[0] != part);
                lastShare = share;
                part = words(text)[0];
            }
            lines += all[end] == '\n';
            rewritten += all[end] == '\r' && end + 1 < all.size() && all[end + 1] != '\n';
        }
    }

    static bool isDrawn(const std::string& line) {
        static const std::regex form(R"(.* \[(#*)(\.*)\] (\d+) % 0:[0-5]\d)");
        std::smatch found;
        if (!std::regex_match(line, found, form))
            return line.find('[') == std::string::npos || line.find(" % ") == std::string::npos;
        const long full = found.length(1), width = full + found.length(2), share = std::stol(found[3]);
        return (width == 30 || line.size() == 29 || line.size() == 59) && 100 * full <= (share + 1) * width &&
               100 * (full + 1) > share * width;
    }
};

TEST(Main, TerminalsGetWhatTheyCanShow) {
    const TemporaryFolder folder;
    for (const int columns : {30, 60}) {
        const Shown help(runVrkInTerminal("help run", folder / ".", columns).out);
        EXPECT_LE(help.longest, static_cast<std::size_t>(columns));
        EXPECT_GT(help.lines, 30);
        const std::string work = "simulate -o s.mrc --cell 5,6,7,90,90,90 --size 128 --tilts -60:60:2 --json";
        const std::string all = runVrkInTerminal(work, folder / ".", columns).out;
        EXPECT_TRUE(says(all, "\r\x1b[K{\r\n")) << "the bar is gone before the result comes";
        const Shown bar(all);
        EXPECT_TRUE(bar.controlled);
        EXPECT_GT(bar.rewritten, 5);
        EXPECT_GT(bar.lastShare, 80);
        EXPECT_TRUE(bar.ascends && bar.drawn);
        const Shown plain(runVrkInTerminal(work, folder / ".", columns, "dumb").out);
        EXPECT_FALSE(plain.controlled);
        EXPECT_EQ(plain.rewritten, 0);
    }
    jsonOfVrk("simulate -o s.mrc --cell 5,6,7,90,90,90 --size 64 --dmin 2 --tilts -30:30:3", folder / ".");
    const std::string run = "run s.mrc -o r --no-pictures --no-integration --voltage 200 --json";
    const std::string bar = runVrkInTerminal(run, folder / ".", 30).out;
    const Shown parts(bar.substr(0, bar.find("vrk: ")));
    EXPECT_LT(parts.longest, 30U);
    EXPECT_TRUE(parts.ascends && parts.drawn);
    EXPECT_TRUE(says(bar, {"1/9 read", "\r\x1b[K{\r\n"}));
    EXPECT_TRUE(says(runVrkInTerminal(run, folder / ".", 30, "dumb").out, "1/9 read, 0."));
}

TEST(Main, HelpFitsTheWindowAndHoldsAllWords) {
    const auto wordsOf = [](const std::string& text) {
        std::multiset<std::string> all;
        for (const std::string& word : words(text))
            if (word != "\\" && word != "#") all.insert(word);
        return all;
    };
    SoFar soFar;
    for (const std::string command : {"run", "import", "report", "completion", ""}) {
        setenv("COLUMNS", "100", 1);
        const std::string wide = runVrkLine("help " + command).out;
        for (const int columns : {30, 80, 300}) {
            setenv("COLUMNS", std::to_string(columns).c_str(), 1);
            const std::string text = runVrkLine("help " + command).out;
            EXPECT_EQ(wordsOf(text), wordsOf(wide));
            soFar.addText(text);
            std::istringstream lines(text);
            for (std::string line; std::getline(lines, line);) {
                const bool oneWord = words(line).size() == 1;
                EXPECT_TRUE(line.size() <= static_cast<std::size_t>(std::min(columns, 100)) || oneWord)
                    << columns << ": " << line;
            }
        }
        unsetenv("COLUMNS");
        const std::string page = runVrkLine("help --man " + command).out;
        EXPECT_EQ(page.rfind(".TH VRK", 0), 0U);
        EXPECT_TRUE(says(page, "\n.SH SYNOPSIS\n"));
        soFar.addText(page.substr(page.find('\n')));  // without the version
    }
    EXPECT_NEAR(soFar.sum(), 36077.6814, 1e-3);
}

}  // namespace
