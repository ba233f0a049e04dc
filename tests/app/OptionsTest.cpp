// Every option of every command does what it is there for.

#include "app/RunVrk.h"
#include "support/SoFar.h"

namespace {

/// A command line with the options of a case behind it, and what to look at:
///   /path=VALUE          the JSON that the command prints, or file.json:/path=VALUE
///   /path< > !           less, more or other than without the options
///   file? file! file~    it is there; other than without the options; other than in all cases before, too
///   exit=N               how the command ends, when not with 0
struct OptionCase {
    std::string options;
    std::string checks;
};

struct Command {
    const char* line;
    double soFar;  ///< what is printed in all cases, and the help
    std::vector<OptionCase> cases;
    /// Options that the tests of the command look at, or that its help names.
    const char* elsewhere;
    /// Options with values that a case has unless it names them itself.
    const char* usual = "";

    friend void PrintTo(const Command& command, std::ostream* out) { *out << command.line; }
};

constexpr const char* kSmallSeries = "--size 64 --dmin 2 --tilts 10:-10:-2 --cell 10,11,12,90,95,90";

/// Of "options : check; options : check", a check without a slash being one of a setting; each changes the
/// series.
std::vector<OptionCase> simulations(const std::string& text) {
    std::vector<OptionCase> cases;
    std::istringstream all(text);
    for (std::string one; std::getline(all, one, ';');) {
        const std::size_t colon = one.find(" : ");
        const std::string check = one.substr(colon + 3);
        cases.push_back({one.substr(0, colon), (check[0] == '/' ? "" : "/settings/") + check + " s.mrc~"});
    }
    return cases;
}

const std::vector<Command> kCommands = {
    {"run series.mrc -o out --json --no-pictures",
     179302.1107,
     {{"--fine-calibration cal.txt", "/input/pixel_size=1.7e8"},
      {"--volume-size 96", "/volume/dims/0=96 /reflections/found<"},
      {"--profile", "/profile/steps/0/name=read"},
      {"--threshold 60", "/program/options/search/threshold=60 /parameters/threshold=60 /reflections/found<"},
      {"--min-voxels 4 --zero-beam 20", "/parameters/min_voxels=4 /parameters/zero_beam=20"},
      {"--min-length 5 --max-length 40 --eps 1.1 --min-points 7",
       "/parameters/min_length=5 /parameters/max_length=40 /parameters/eps=1.1 /parameters/min_points=7"},
      {"--reflection-centre 1", "out/peaks.txt~"},
      {"--centre 63,64.5", "/centres/0/x=63 /centres/0/y=64.5 /centres/0/from=given"},
      {"--centre none", "/centres/0/from=none"},
      {"--log-level debug", "out/vrk.log~"},
      {"--d-min 1.1 --gain 2 --mode stepwise --formula CaF2",
       "/intensities/resolution/d_min=1.1 /intensities/detector/gain=2 /intensities/mode/name=stepwise "
       "out/crystal.ins~"},
      {"--format mtz", "/files! out/merged.mtz?"},
      {"--no-integration", "/intensities=null out/reflections.hkl~"}},
     // The first four are tried on series whose truth is known; the last are those of peaks and of cell.
     "--tilt-axis --pixel-size --voltage --distortion --jobs --crystals --keep-volume --max-voxels "
     "--resolution --refine-clusters --angle-a --angle-b --det-limit --grid-size --full-space --clustering"},
    {"batch batch.csv -o b --plan-only",
     1725.5091,
     {{"", "b/batch.json:/jobs/1/frames=41 b/jobs.txt? b/workflow/settings.json:/units/000001/cores=1"},
      {"--memory 200", "b/workflow/settings.json:/units/000000/memory=200"},
      {"--slurm --partition p --account a --jobs 3",
       "b/workflow/settings.json:/slurm/0=--partition=p b/workflow/settings.json:/slurm/1=--account=a "
       "b/workflow/settings.json:/units/000000/tasks=0-1%3"},
      {"--slurm --array-size 1", "b/workflow/settings.json:/units/000001/tasks=0-0"}},
     // Tests of the command run jobs.
     "--dry-run --collect --again --job --cut -- --tilt-axis "},
    {"cell peaks.txt -o c.txt --json",
     15670.3336,
     {{"--voltage 120", "/voltage_kv=120"},
      {"--min-length 8", "/parameters/min_length=8 /search=parameters"},
      {"--max-length 35 --log l.txt", "/parameters/max_length=35 l.txt~"},
      {"--eps 1 --log l.txt", "/parameters/eps=1 l.txt~"},
      {"--min-points 9 --log l.txt", "/parameters/min_points=9 l.txt~"},
      {"--refine-clusters 20 --log l.txt", "/parameters/refine_clusters=20 l.txt~"},
      {"--angle-a 2.9 --log l.txt", "/parameters/angle_a=2.9 l.txt~"},
      {"--angle-b 2.9 --log l.txt", "/parameters/angle_b=2.9 l.txt~"},
      {"--det-limit 1e7 --log l.txt", "/parameters/det_limit=1e7 l.txt~"},
      {"--full-space --log l.txt", "/parameters/full_space=true l.txt~"},
      {"--grid-size 1", "/parameters/grid_size=1"}},
     "--pixel-size --merge --crystals --clustering --report --debug-dump"},
    {"peaks volume.mrc -o p.txt --json",
     3376.9222,
     {{"--min-voxels 20", "/parameters/min_voxels=20 /voxels/min>"},
      {"--max-voxels 30", "/parameters/max_voxels=30 /voxels/max<"},
      {"--resolution 40", "/parameters/resolution=40 /reflections<"},
      {"--centre 1", "/parameters/centre=1 p.txt~"}},
     "--threshold --zero-beam"},
    {"preprocess series.mrc -o pre.mrc --json",
     3651.6557,
     {{"--no-hotspot", "/steps/0/name=centre pre.mrc~"},
      {"--no-centre", "/steps/1/name=background pre.mrc~"},
      {"--no-center", "/steps/1/name=background"},
      {"--no-background", "/steps/1/name=centre /density/mean>"},
      {"--smooth 1", "/density/max<"},
      {"--rotate 20", "pre.mrc~"},
      {"--rotate header", "pre.mrc~"},
      {"--centre 63,64.5", "pre.mrc~"},
      {"--distortion d.json", "/pixel_size> /steps/3/name=distortion pre.mrc~"},
      {"--bin 2 --smooth 1 --rotate 20",
       "/dims/0=64 /dims/2=41 /pixel_size=333333344 /steps/3/name=smooth /steps/4/name=rotation "
       "/steps/5/name=binning"},
      {"--bin 4", "/dims/0=32 /pixel_size=666666688"},
      {"--bin 2 --rebin", "/dims/0=64 /density/mean>"}},
     "--crop --jobs"},
    {"calibrate series.mrc -o c.json --json",
     4582.4797,
     {{"--tilt-axis 5.5", "/axis_angle_deg/value! c.json~"},
      {"--pixel-size 1.5e8", "/frame/pixel_size=1.5e8"},
      {"--voltage 60", "/series/0/residual_px!"}},
     "--cell --distortion --jobs"},
    {"reconstruct clean.mrc -o v.mrc --json",
     1180.8167,
     {{"--fine-calibration cal.txt", "/pixel_size=1.7e8"}, {"--fine-pixel-size 3e8", "/pixel_size=3e8"}},
     "--jobs"},
    {"index peaks.txt cell.txt -o x.hkl --json",
     7367.0982,
     {{"--lattice auto", "/cell/bravais=mC /cell/volume>"},
      {"--tolerance 0.05", "/reflections/indexed<"},
      {"--keep-cell", "/cell/reciprocal_vectors_px!"},
      {"--voltage 200 --pixel-size 1e8", "/refinement/sense=1 /refinement/sense_decided=true /cell/volume>"},
      {"--positions exact", "/reflections/rms_displacement!"},
      {"--volume volume.mrc", "x.hkl~"},
      {"--volume volume.mrc --radius 1", "x.hkl~"},
      {"--plots pl", "pl/hPlot.plt?"}},
     "--cell-out --format --formula"},
    {"sections volume.mrc cell.txt -o pics --json",
     1829.6704,
     {{"--thickness 12", "pics/hk0.png~"},
      {"--size 50", "/reduction=2 pics/hk0.png~"},
      {"--nodes", "pics/hk0.png~"},
      {"--primitive", "pics/hk0.png~"}},
     "--plane --tga"},
    {"import series.mrc -o i.mrc --json",
     6052.6939,
     {{"--tilts -30:0.5 --scale 0.5", "/tilt_first=-30 /tilt_last=-10 /scale=0.5"},
      {"--sum 2 --pixel-size 1e8 --axis 5 --voltage 100",
       "/nz=21 /sum=2 /pixel_size=1e8 /tilt_axis=5 /kilovolts=100"},
      {"--sum 2 --log l.txt --log-level error", "l.txt~"},
      {"--sum 2 --log l.txt --log-level warning", "l.txt~"},
      {"--sum 2 --log l.txt --log-level info", "l.txt~"},
      {"--sum 2 --log l.txt --log-level debug", "l.txt~"},
      {"--bin 2", "/nx=64 /pixel_size>"}},
     ""},
    {"import lists/bad.ed3d -o i.mrc --json",
     3235.8112,
     {{"--allow-outside", "exit=1"},
      {"--skip-bad", "exit=1"},
      {"--allow-outside --skip-bad", "/nz=2 /bad=1 /tilt_last=2"}},
     ""},
    {"tilt-axis series.mrc -o ax --json",
     3338.5885,
     {{"--range 5 15 5", "/scores/0/angle_deg=5 /scores/2/angle_deg=15 /angle_deg!"},
      {"--range 5 15 5 --method 3d", "/method=3d"},
      {"--range 5 15 5 --preprocessed", "/scores!"}},
     "--accuracy --jobs --rotate --tilt-axis"},
    {"cell-info --json",
     18675.1146,
     {{"5 5.1 7 90.3 90.4 90.2", "/lattices/0/bravais=tP"},
      {"5 5.1 7 90.3 90.4 90.2 --angle 0.1", "/lattices/0/bravais=aP"},
      {"5 5.1 7 90.3 90.4 90.2 --length 0.5", "/lattices/0/bravais=oP"},
      {"5 5.1 7 90.3 90.4 90.2 --centring I", "/lattices/0/bravais=cF"},
      {"12.02 12.02 12.02 90 90 90 --centring I",
       "/reduced/alpha=109.4712206 /reduced/volume=868.327204 /cell/volume=1736.654408 "
       "/lattices/0/bravais=cI /lattices/0/conventional/c=12.02 /reciprocal/a=0.0831946755"},
      // A rhombohedral lattice by its primitive cell.
      {"3.711842908553 3.711842908553 3.711842908553 84.6786315998 84.6786315998 84.6786315998 --centring R",
       "/lattices/0/bravais=hR /lattices/0/symmetrised/a=5 /lattices/0/symmetrised/c=7"},
      {"known.txt", "/cell/a=5"},
      {"known.txt --pixel-size 2e7", "/cell/a=2.5"}},
     "",
     ""},
    {"merge one two -o out",
     1452.1531,
     {},
     "--output --cell-tolerance --leave-out --keep-all --d-min --reference --reference-cell --formula "
     "--no-pictures --log-level --json",
     ""},
    {"verify result --json", 576.1520, {}, "--input"},
    {"info series.mrc --json", 17394.4522, {{"--slices", "/slices/0/a_tilt=-60"}}, "--picture --axis"},
    {"simulate -o s.mrc --json", 152250.6574,
     simulations("--centring I : /cell/conventional/centring=I; "
                 "--orientation 0,0,90 : /orientation_matrix/1/0=1.0; "
                 "--orientation 0,0.6,0.8,0,-0.8,0.6,1,0,0 : /orientation_matrix/1/2=0.6; "
                 "--beam-along 0,0,1 : beam_along=[0,0,1]; --axis-along 0,1,0 : axis_along=[0,1,0]; "
                 "--beam-along 0,0,1 --off-zone 2 : off_zone_deg=2; --dmin 3 : dmin=3; "
                 "--b-factor 20 : b_factor=20; --rocking 0.004 : rocking_width=0.004; "
                 "--even : even=true; --asymmetry 1 : asymmetry=1; "
                 "--second-crystal 0.5 : second_crystal=0.5; "
                 "--second-crystal 0.5 --second-turn 3 : second_turn_deg=3; "
                 "--second-crystal 0.5 --second-cell 7,8,9,90,95,90 : second_cell/1=8; "
                 "--handedness -1 : /handedness=-1; --tilts -10:10:2 : /tilts/0=-10; "
                 "--tilt-offset 1 : /tilts/0=11.0; --tilt-scale 1.1 : /tilts/0=11.0; "
                 "--tilt-jitter 0.5 : tilt_errors/jitter_deg=0.5; --mode stepwise : mode=stepwise; "
                 "--frame-rotation 1 : frame_rotation_deg=1; "
                 "--mode precession --precession-angle 2 : precession_angle_deg=2; "
                 "--axis 20 : /tilt_axis_deg=20; --axis-tilt 4 : /axis_tilt_deg=4; "
                 "--kv 60 : /voltage_kv=60; --missing 2 : /tilts/8=-10; --blank 1 : /blank_frames/0=10; "
                 "--seed 2 : seed=2; --write-axis --axis 5 : /stated/tilt_axis_deg=5; "
                 "--state-axis 7 : /stated/tilt_axis_deg=7; --state-step -1 : /stated/tilts/10=0; "
                 "--state-pixel 0 : /stated/pixel_size=0; --state-kv 0 : /stated/voltage_kv=0; "
                 "--state-rotation 0.5 : /stated/rotation_deg=0.5; "
                 "--centre-offset -3,4.5 : /centres/0=[28.5,36]; --drift 3 : centre/drift_px=3; "
                 "--jump 3 : centre/jump_px=3; --jump 3 --jumps 2 : centre/jumps=2; "
                 "--centre-jitter 1 : centre/jitter_px=1; --counts sphere : exposure=1; "
                 "--dose 0.25 : exposure=0.5; --peak 500 : peak_counts=500; --spot 2 : spot_width_px=2; "
                 "--direct-beam 100 : background/direct_beam=100; "
                 "--background 0.5 : background/halo=0.5; "
                 "--halo-gradient 0.3 : background/halo_gradient=0.3; "
                 "--halo-gradient 0.3 --halo-azimuth 40 : background/halo_azimuth_deg=40; "
                 "--ice 50 : background/ice=50; --ellipse 0.05 : distortion/ellipse=0.05; "
                 "--ellipse 0.05 --ellipse-azimuth 40 : distortion/ellipse_azimuth_deg=40; "
                 "--radial 0.05 : distortion/radial=0.05; --beam-stop : beam_stop/width_px=1.28; "
                 "--stop-direction 40 : beam_stop/direction_deg=40; "
                 "--stop-width 8 : beam_stop/width_px=8; --stop-disc 8 : beam_stop/disc_radius_px=8; "
                 "--stop-offset 2,-3 : beam_stop/offset_px=[2,-3]; "
                 "--stop-transmission 0.2 : beam_stop/transmission=0.2; "
                 "--stop-pedestal 20 : beam_stop/pedestal=20; --size 80 : detector/size=80; "
                 "--noise 0 : detector/noise=0; --saturation 300 : detector/saturation=300; "
                 "--hot-pixels 4 : detector/hot_pixels=4; --zingers 4 : detector/zingers=4; "
                 "--cross : detector/cross=true; --cif salt.cif : /cell/conventional/a=5.64; "
                 "--list-reflections --dmin 2.5 : /reflections/0/hkl!"),
     "", kSmallSeries},
    {"demo -o demo --json",
     1549.9887,
     {{"--size 96 --step 5 --cell 4,5,6,90,95,90 --centring C --axis 7 --seed 3 --tilt-axis 8",
       "demo/series.truth.json:/settings/detector/size=96 demo/series.truth.json:/tilts/1=-55 "
       "demo/series.truth.json:/cell/conventional/a=4 demo/series.truth.json:/cell/conventional/centring=C "
       "demo/series.truth.json:/tilt_axis_deg=7 demo/series.truth.json:/settings/seed=3 "
       "demo/series.truth.json:/stated/tilt_axis_deg=null exit=1"}},
     "",
     ""}};

class OptionsTest : public SharedVrkTest, public testing::WithParamInterface<Command> {
protected:
    /// A C-centred crystal in a series whose axis is stated, and all that the stages make of it.
    static void SetUpTestSuite() {
        SharedVrkTest::SetUpTestSuite();
        folder->write("cal.txt", "166666672 1.7e8\n");
        for (const std::string phi : {"0", "1"}) {
            std::string frame =
                "{\nHEADER_BYTES=512;\nSIZE1=4;\nSIZE2=4;\nTYPE=unsigned_short;\nPHI=" + phi + ";\n}\n";
            frame.resize(512, ' ');
            folder->write(phi + ".img", frame + std::string(32, '\x01'));
        }
        std::filesystem::create_directory(*folder / "lists");
        folder->write("lists/cut.img", "{\nHEADER_BYTES=512;\n");
        folder->write(
            "lists/bad.ed3d",
            "FILELIST\nFILE ../0.img 0 0 0\nFILE cut.img 1 0 1\nFILE ../1.img 2 0 2\nENDFILELIST\n");
        folder->write("batch.csv", "series,name\nseries.mrc,one\nseries.mrc,two\n");
        folder->write("d.json",
                      R"json({"format": "vrk instrument geometry", "version": 1,
                      "frame": {"x": "right", "y": "down", "azimuth": "from x towards y",
                                "axis": "along (-sin t, cos t)", "width_px": 128, "pixel_size": 166666672},
                      "ellipse": {"value": 0.004, "su": 0}, "ellipse_azimuth_deg": {"value": 30, "su": 0},
                      "tilt_scale": {"value": 1, "su": 0}, "axis_angle_deg": {"value": 6, "su": 0},
                      "pixel_scale": {"value": 1.01, "su": 0}})json");
        folder->write("salt.cif", kSaltCif);
        folder->write("known.txt",
                      "#VRKCELLVERSION 2\n# v\n200 0 0\n0 100 0\n0 0 50\n# r\n200 100 50\n90 90 90 \n"
                      "# d\n5 10 20\n90 90 90 \n");
    }
    void SetUp() override {
        // Commands that make their own series, or read other files.
        const std::set<std::string> others = {"simulate", "demo", "cell-info", "merge"};
        if (others.contains(words(GetParam().line)[0]) || std::filesystem::exists(*folder / "cell.txt"))
            return;
        for (const char* line :
             {"simulate -o series.mrc --cell 5.2,6.1,4.6,90,105,90 --centring C --size 128 --dmin 1 "
              "--seed 4 --tilts -60:60:3 --axis 6 --write-axis --hot-pixels 9 --drift 2",
              "preprocess series.mrc -o clean.mrc --rotate header", "reconstruct clean.mrc -o volume.mrc",
              "peaks volume.mrc -o peaks.txt --threshold 30 --zero-beam 8", "cell peaks.txt -o cell.txt"})
            ASSERT_EQ(vrk(line).exitCode, 0) << line;
    }
    /// The contents of a file, without what differs from run to run.
    static std::string contents(const std::string& name) {
        std::string text = folder->read(name);
        if (!name.ends_with(".log")) return text;
        std::istringstream lines(text);
        text.clear();
        for (std::string line; std::getline(lines, line);)
            if (line.find("seconds") == std::string::npos && line.rfind("options:", 0) != 0)
                text += line + '\n';
        return text;
    }

    static Json at(const Json& document, const std::string& place) {
        const Json::json_pointer pointer(place);
        return document.contains(pointer) ? document.at(pointer) : Json("nothing at " + place);
    }

    Json plainRun();
    VrkResult with(const std::string& options) const;
    void check(const std::string& text, const Json& printed, const Json& plain);

    std::map<std::string, std::vector<std::string>> seen;  ///< contents of files, those without options first
};

VrkResult OptionsTest::with(const std::string& options) const {
    std::vector<std::string> line = words(GetParam().line + (' ' + options));
    const std::vector<std::string> usual = words(GetParam().usual);
    for (std::size_t i = 0; i + 1 < usual.size(); i += 2) {
        const bool structure = usual[i] == "--cell" && options.find("--cif") != std::string::npos;
        if (!structure && (options + ' ').find(usual[i] + ' ') == std::string::npos)
            line.insert(line.end(), {usual[i], usual[i + 1]});
    }
    return runVrk(line, *folder / ".");
}

void OptionsTest::check(const std::string& text, const Json& printed, const Json& plain) {
    SCOPED_TRACE(text);
    const std::string place = text.substr(0, text.size() - 1);
    if (const std::size_t equals = text.find('='); equals != std::string::npos) {
        std::string path = text.substr(0, equals);
        Json document = printed;
        if (const std::size_t colon = path.find(':'); colon != std::string::npos) {
            document = Json::parse(folder->read(path.substr(0, colon)));
            path = path.substr(colon + 1);
        }
        const std::string value = text.substr(equals + 1);
        const Json parsed = Json::parse(value, nullptr, false);
        const Json expected = parsed.is_discarded() ? Json(value) : parsed;
        const Json found = at(document, path);
        if (expected.is_number() && found.is_number())
            EXPECT_NEAR(found, expected, 1e-6 * std::abs(expected.get<double>()));
        else
            EXPECT_EQ(found, expected);
    } else if (text.back() == '?') {
        EXPECT_FALSE(folder->read(place).empty());
    } else if (text.back() == '~') {
        std::vector<std::string>& before = seen[place];
        before.push_back(contents(place));
        EXPECT_EQ(std::count(before.begin(), before.end(), before.back()), 1);
    } else if (place[0] != '/') {
        EXPECT_NE(contents(place), seen[place].front());
    } else {
        const Json now = at(printed, place);
        const Json before = at(plain, place);
        if (text.back() == '!') {
            EXPECT_NE(now, before);
        } else {
            ASSERT_TRUE(now.is_number() && before.is_number()) << now << before;
            const double factor = text.back() == '<' ? -1 : 1;
            EXPECT_GT(factor * now.get<double>(), factor * before.get<double>());
        }
    }
}

/// What the command prints without options, when any case compares with it; keeps its files.
Json OptionsTest::plainRun() {
    std::set<std::string> compared;
    bool needed = false;
    for (const OptionCase& one : GetParam().cases)
        for (const std::string& text : words(one.checks)) {
            if (std::string("<>!~").find(text.back()) == std::string::npos) continue;
            needed = true;
            if (text[0] != '/') compared.insert(text.substr(0, text.size() - 1));
        }
    if (!needed) return {};
    const Json printed = Json::parse(with("").out);
    for (const std::string& name : compared)
        seen[name] = {contents(name)};
    return printed;
}

TEST_P(OptionsTest, EachHasItsEffect) {
    const Command& command = GetParam();
    const Json plain = plainRun();
    SoFar soFar;
    for (const OptionCase& one : command.cases) {
        SCOPED_TRACE(one.options);
        int exitCode = 0;
        std::vector<std::string> checks = words(one.checks);
        for (const std::string& text : checks) {
            if (text.rfind("exit=", 0) == 0) exitCode = std::stoi(text.substr(5));
            if (text.back() == '?') std::filesystem::remove(*folder / text.substr(0, text.size() - 1));
        }
        std::erase_if(checks, [](const std::string& text) { return text.rfind("exit=", 0) == 0; });
        const VrkResult result = with(one.options);
        ASSERT_EQ(result.exitCode, exitCode) << result.err;
        Json printed = Json::parse(result.out, nullptr, false);
        for (const std::string& text : checks)
            check(text, printed, plain);
        if (!printed.is_object()) continue;
        for (const char* cost : {"program", "profile", "steps", "seconds", "memory_mib", "peak_memory_mib"})
            printed.erase(cost);
        soFar.addText(printed.dump());
    }
    setenv("COLUMNS", "100", 1);
    std::string help = vrk(words(command.line)[0] + " --help").out;
    unsetenv("COLUMNS");
    soFar.addText(help);
    EXPECT_NEAR(soFar.sum(), command.soFar, 1e-3) << command.line;
    std::replace_if(
        help.begin(), help.end(),
        [](char c) { return std::string(",:;.()[]'").find(c) != std::string::npos; }, ' ');
    std::string known =
        std::string(" ") + command.line + ' ' + command.usual + " --help --output --max-memory ";
    if (says(help, " --log ")) {
        std::filesystem::remove(*folder / "l.txt");
        const std::string logged = "--log l.txt --log-level debug ";
        EXPECT_EQ(with(logged + command.cases.back().options).exitCode, 0);
        EXPECT_FALSE(folder->read("l.txt").empty());
        known += logged;
    }
    // None is forgotten.
    for (const Command& other : kCommands)
        if (words(other.line)[0] == words(command.line)[0]) {
            known += other.elsewhere + std::string(" ");
            for (const OptionCase& one : other.cases)
                known += one.options + ' ';
        }
    for (const std::string& word : words(help))
        if (word.rfind("--", 0) == 0) {
            EXPECT_TRUE(says(known, ' ' + word + ' ')) << word;
        }
}

INSTANTIATE_TEST_SUITE_P(Commands, OptionsTest, testing::ValuesIn(kCommands));

}  // namespace
