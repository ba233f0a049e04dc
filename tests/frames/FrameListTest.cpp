#include "pipeline/base/Failure.h"
#include "pipeline/frames/FrameList.h"
#include "support/Testing.h"

namespace {

/// A list and what the three frames f0019, f0020 and f0022 get from it.
struct ListCase {
    const char* name;
    const char* text;
    std::vector<double> tilts = {-1.5, 0, 2};
    double kilovolts = 200;
    bool whole = true;  ///< says pixel size, axis and rotation, too
};

const std::vector<ListCase> kCases = {
    {"plain.rawtlt", "-1.5\r\n 0\n\n2\n", {-1.5, 0, 2}, 0, false},
    {"a.mdoc",
     "Voltage = 200\n[T = x]\n[ZValue = 2]\nTiltAngle = 2\n[ZValue = 0]\nTiltAngle = -1.5\n[ZValue = 1]\n"
     "TiltAngle = 0\n",
     {-1.5, 0, 2},
     200,
     false},
    {"images.mdoc",
     "[Image = f0022.tif]\nTiltAngle = 2\n[Image = f0019.tif]\nTiltAngle = -1.5\n[Image = f0020.tif]\n"
     "TiltAngle = 0\n[Image = f0021.tif]\nTiltAngle = 1\n",
     {-1.5, 0, 2},
     0,
     false},
    {"a.ed3d",
     "WAVELENGTH 0.02508\nROTATIONAXIS 139\nCCDPIXELSIZE 0.004\nGONIOTILTSTEP -0.5\nFILELIST\nFILE f0022.mrc "
     "2 0 2\nFILE f0019.mrc -1.5 0 -1.5\nFILE .\\f0020.mrc 0 0 0\nENDFILELIST\nFILE f0019.mrc 77 0 0\n"},
    {"a.pts",
     "# comment\nGeometry continuous\nlambda 0.02508\nAperpixel 0.004\nphi 0.25\nomega 221\n\nimagelist\n"
     "tiff\\f0022.tiff 2 0.0\n\"tiff/f0019.tiff\" -1.5 0\ntiff/f0020.tiff 0 0\nendimagelist\nunknown 3\n"},
    // Frame 19 begins 9 steps after frame 10.
    {"XDS.INP",
     "! OSCILLATION_RANGE= 7\nNAME_TEMPLATE_OF_DATA_FRAMES= data/f????.img SMV\nDATA_RANGE= 19 23\n"
     "EXCLUDE_DATA_RANGE=21 22\nSTARTING_ANGLE= -20 ! degrees\nSTARTING_FRAME=10\nOSCILLATION_RANGE=0.5\n"
     "QX=0.05  QY=0.05\nDETECTOR_DISTANCE= -498.405\nX-RAY_WAVELENGTH=0.02508\n"
     "DIRECTION_OF_DETECTOR_X-AXIS= 1 0 0\nROTATION_AXIS= -0.7547096 0.6560590 0.0\n",
     {-15.25, -14.75, -13.75}},
    // Falling angles; the frame in between is missing, and the first is number 1.
    {"cRED_log.txt",
     "Program: x\nStarting angle: 10.00 degrees\nEnding angle: -1.00 degrees\nWavelength: 0.02508 Angstrom\n"
     "Pixelsize: 0.004 px/Angstrom\nRotation axis: -2.4260 radians\nOscillation angle: 0.5000 degrees\n"
     "Number of frames: 22\n",
     {0.75, 0.25, -0.75}}};

TEST(FrameLists, GiveFramesTheirTiltsAndTheExperiment) {
    const TemporaryFolder folder;
    const std::vector<std::filesystem::path> files = {"in/f0019.img.gz", "in/f0020.img.gz",
                                                      "in/f0022.img.gz"};
    for (const ListCase& one : kCases) {
        SCOPED_TRACE(one.name);
        const vrk::FrameList list = vrk::readFrameList(folder.write(one.name, one.text));
        EXPECT_EQ(vrk::isFrameList(folder / one.name), std::string(one.name) != "plain.rawtlt");
        const std::vector<double> tilts = list.tiltsFor(files);
        ASSERT_EQ(tilts.size(), 3U);
        for (std::size_t i = 0; i < 3; ++i)
            EXPECT_NEAR(tilts[i], one.tilts[i], 1e-9);
        EXPECT_NEAR(list.pixelSize.value_or(0), one.whole ? 4e7 : 0, 100);
        EXPECT_NEAR(list.kilovolts.value_or(0), one.kilovolts, 0.1);
        EXPECT_NEAR(list.axis.value_or(0), one.whole ? 49 : 0, 1e-3);
        EXPECT_NEAR(list.rotation.value_or(0), one.whole ? 0.5 : 0, 1e-9);
    }
    // A precessed beam runs round while the tilt stands still.
    const auto listOf = [&](const char* name, const std::string& text) {
        return vrk::readFrameList(folder.write(name, text));
    };
    const vrk::FrameList precessed =
        listOf("p.PTS2", "geometry precession\nphi 1.1\nomega 100\nimagelist\n\"my f1.tif\" 2 0\n");
    EXPECT_EQ(precessed.rotation, 0.0);
    EXPECT_EQ(precessed.precession, 1.1);
    EXPECT_EQ(precessed.axis, 170) << "which end of the axis is which matters";
    EXPECT_EQ(precessed.frames.at(0).path.filename(), "my f1.tif");
    EXPECT_EQ(listOf("s.pts", "geometry static\nimagelist\na.tif 2 0\n").rotation, 0.0);
    EXPECT_EQ(listOf("a.ed3d", "ROTATIONAXIS -10\nFILELIST\nFILE a.mrc 1\n").axis, -100);
    const vrk::FrameList log = listOf(
        "log.txt", "Starting angle: 1\nEnding angle: 4\nNumber of frames: 3\nRotation axis: 1.745329252\n");
    EXPECT_NEAR(*log.axis, 170, 1e-6);
    EXPECT_EQ(log.tiltsFor({"f7", "f8", "f10"}), (std::vector<double>{1.5, 2.5, 3.5})) << "all are there";
    EXPECT_EQ(listOf("t.tlt", "-360\n").frames.size(), 1U);
    for (const auto& [name, text] :
         {std::pair{"t.tlt", "360.5\n"},
          {"log.txt", "Starting angle: 1\nEnding angle: 1\n"},
          {"log.txt", "Starting angle: 0\nEnding angle: 99\nNumber of frames: 1\n"}})
        EXPECT_THROW(listOf(name, text), vrk::Failure);
    EXPECT_FALSE(vrk::isFrameList(folder.write("b.mdoc", std::string("a\0b", 3))));
    // An XDS.INP names its frames, without the excluded ones.
    const vrk::FrameList xds = vrk::readFrameList(folder / "XDS.INP");
    ASSERT_EQ(xds.frames.size(), 3U);
    EXPECT_EQ(xds.frames[2].path, std::filesystem::path(folder / "data/f0023.img"));
    EXPECT_DOUBLE_EQ(xds.frames[2].tilt, -13.25);
    // Frames of HDF5 lie behind one master; a detector may be turned.
    const vrk::FrameList turned =
        listOf("XDS.INP",
               "OSCILLATION_RANGE=1\nDATA_RANGE=1 2\nNAME_TEMPLATE_OF_DATA_FRAMES=f_??????.h5\n"
               "ROTATION_AXIS=1 0 0\nDIRECTION_OF_DETECTOR_X-AXIS=0 1 0\n"
               "DIRECTION_OF_DETECTOR_Y-AXIS=-1 0 0\n");
    ASSERT_EQ(turned.frames.size(), 2U);
    EXPECT_EQ(turned.frames[1].path.filename(), "f_master.h5");
    EXPECT_EQ(turned.frames[1].frame, 1);
    EXPECT_NEAR(std::abs(*turned.axis), 180, 1e-9);
    // A template may end in its number.
    const vrk::FrameList bare =
        listOf("XDS.INP", "OSCILLATION_RANGE=1\nDATA_RANGE=7 8\nNAME_TEMPLATE_OF_DATA_FRAMES=f???\n");
    EXPECT_EQ(bare.frames.at(1).path, std::filesystem::path(folder / "f008"));
    EXPECT_EQ(bare.frames.at(0).tilt, 0.5) << "the first begins where the scan does";
    // Numbers at the end of what 64 bits hold, counted from one below 0.
    const vrk::FrameList sweep =
        listOf("XDS.INP", "OSCILLATION_RANGE=1\nSTARTING_FRAME=-9\nNAME_TEMPLATE_OF_DATA_FRAMES=f?\n");
    EXPECT_GT(sweep.tiltsFor({"f_9223372036854775807.img", "f_1.img"})[0], 9e18);
    for (const char* bad : {"", "OSCILLATION_RANGE=0\n", "OSCILLATION_RANGE=-90.5\n"})
        EXPECT_THROW(listOf("XDS.INP", std::string("DATA_RANGE=1 2\nSTARTING_ANGLE=1\n") + bad),
                     vrk::Failure);
    // Their order counts where names do not fit.
    const vrk::FrameList list = listOf("a.ed3d", kCases[3].text);
    EXPECT_EQ(list.tiltsFor({"a", "b", "c"}), (std::vector<double>{2, -1.5, 0}));
    EXPECT_EQ(list.tiltsFor({"f0019", "f0019", "f0019"}), (std::vector<double>{2, -1.5, 0}));
    EXPECT_THROW(list.tiltsFor({"a", "b"}), vrk::Failure);
}

}  // namespace
