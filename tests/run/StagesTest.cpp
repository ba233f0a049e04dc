// Noise, levels and the level that gives the lattice.

#include "pipeline/base/Attempt.h"
#include "pipeline/formats/CentreFile.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/frames/SeriesHeader.h"
#include "pipeline/run/LatticeChoice.h"
#include "pipeline/run/PreparedSeries.h"
#include "pipeline/run/VolumeBound.h"
#include "support/FailureOf.h"

namespace {

using Eigen::Vector3d;

std::unique_ptr<VoxMRCData> blank(unsigned width, unsigned height, unsigned depth) {
    return std::unique_ptr<VoxMRCData>(VoxMRCData::Create3D(width, height, depth));
}

/// Frames of noise, stronger within a radius.
vrk::RadialNoise noiseOf(double outside, double inside, double radius, unsigned size = 128) {
    const auto frames = blank(size, size, 20);
    std::mt19937 random(3);
    std::normal_distribution<double> normal;
    const double middle = 0.5 * (size - 1.0);
    for (unsigned z = 0; z < 20; ++z)
        for (unsigned y = 0; y < size; ++y)
            for (unsigned x = 0; x < size; ++x) {
                const double sigma = std::hypot(x - middle, y - middle) < radius ? inside : outside;
                frames->GetChunkPointer(z)[y * size + x] =
                    static_cast<short>(std::lround(sigma * normal(random)));
            }
    return vrk::RadialNoise(*frames);
}

TEST(RadialNoise, TellsTheHaloFromTheRest) {
    const vrk::RadialNoise noise = noiseOf(20, 80, 20);
    const double voxel = 0.55 * 20;  // four pixels, two of them neighbours, make a voxel
    EXPECT_NEAR(noise.typicalVoxelSigma(), voxel, 0.05 * voxel);
    EXPECT_NEAR(noise.haloRadius(5 * voxel * 2, 5), 20, 1);
    EXPECT_EQ(noise.haloRadius(5 * voxel * 5, 5), 0) << "above the halo's noise, too";
    EXPECT_EQ(noise.haloRadius(voxel * 0.9, 1), 32) << "beyond half the frame it is no halo";
    EXPECT_EQ(noiseOf(0, 0, 0).typicalVoxelSigma(), 0.4) << "whole numbers are no sharper";
}

vrk::SeriesFacts facts() {
    vrk::SeriesFacts facts;
    facts.tiltFirst = -60;
    facts.tiltLast = 60;
    facts.pixelSize = 5e7;
    facts.kiloVolts = 200;
    return facts;
}

/// A volume of bars of three voxels: 60 of 100 counts, of them 50 of 300, 45 of 1000 and 8 of 5000, and three
/// more of 5000 counts at 2, 6 and 11 voxels from the middle.
vrk::ReciprocalVolume volumeOfBars(double noise, double halo) {
    std::vector<float> tilts;
    for (float tilt = -60; tilt <= 60; tilt += 2)
        tilts.push_back(tilt);
    auto voxels = blank(128, 128, 111);
    const auto put = [&](unsigned x, unsigned y, short counts) {
        for (unsigned i = 0; i < 3; ++i)
            voxels->GetChunkPointer(55)[y * 128 + x + i] = counts;
    };
    for (unsigned i = 0; i < 60; ++i)
        put(8 + 12 * (i % 4) + (i % 4 > 1 ? 60 : 0), 5 + 8 * (i / 4),
            static_cast<short>(i < 8    ? 5000
                               : i < 45 ? 1000
                               : i < 50 ? 300
                                        : 100));
    for (unsigned distance : {2, 6, 11})
        put(63 + distance, 63, 5000);
    return {std::move(voxels), SamplingGeometry(128, tilts, 111), noiseOf(noise, halo, 9), facts()};
}

TEST(RecordedCounts, ComeAgainFromTheFileAsTheyAreKept) {
    const TemporaryFolder folder;
    const std::string path = folder / "series.mrc";
    const auto frames = blank(60, 48, 7);
    std::mt19937 random(5);
    std::poisson_distribution<int> counts(40);
    frames->m_Header = vrk::tiltSeriesHeader(60, 48, {-80, 5, 6, 7, 8, 9, 10}, 1e8, "made");
    for (unsigned z = 0; z < 7; ++z) {
        short* pixels = frames->GetChunkPointer(z);
        for (unsigned i = 0; i < 60 * 48; ++i)
            pixels[i] = static_cast<short>(counts(random));
        for (const unsigned hot : {0U, 60U * 20 + 30 + z, 60U * 48 - 1})
            pixels[hot] = 20000;
    }
    vrk::Session session(vrk::silence());
    vrk::writeData(*frames, path, session);

    vrk::CentreChoice middle;
    middle.source = vrk::CentreChoice::Source::Middle;
    const auto kept =
        vrk::centre(vrk::makeSeries(vrk::readSeries(path, session), {}, session), middle, true, session);
    ASSERT_TRUE(kept.counts.frames && !kept.counts.again) << "a series in memory does not come again";
    auto read = vrk::centre(vrk::loadSeries(path, {}, session), middle, true, session).counts;
    ASSERT_TRUE(read.wanted() && !read.frames) << "these would be in memory twice";
    EXPECT_FALSE(vrk::centre(vrk::loadSeries(path, {}, session), middle, false, session).counts.wanted());
    const std::size_t warnings = session.warnings().size();
    read.restore(session);
    EXPECT_EQ(session.warnings().size(), warnings) << "what the series lacks was told";
    EXPECT_TRUE(std::ranges::any_of(
        session.warnings(), [](const auto& text) { return text.starts_with("there is a gap of 85"); }));
    const VoxMRCData& one = *kept.counts.frames;
    ASSERT_EQ(read.frames->GetDepth(), 7U);
    ASSERT_EQ(read.frames->GetChunkSize(), 60U * 60U) << "square";
    for (unsigned z = 0; z < 7; ++z)
        EXPECT_TRUE(std::equal(one.GetChunkPointer(z), one.GetChunkPointer(z) + 3600,
                               read.frames->GetChunkPointer(z)))
            << z;
    EXPECT_LT(one.GetChunkPointer(3)[60 * 26 + 33], 100) << "without hot spots";
    EXPECT_EQ(read.frames->m_Header.tilt(6), 10.0F);

    auto late = vrk::centre(vrk::loadSeries(path, {}, session), middle, true, session).counts;
    std::filesystem::resize_file(path, std::filesystem::file_size(path) - 2);
    EXPECT_THROW(late.restore(session), vrk::Failure);
}

TEST(SearchLevels, DoubleFromFiveDeviationsToTheLastWithEnough) {
    vrk::Session session(vrk::silence());
    const vrk::ReciprocalVolume volume = volumeOfBars(10, 10);
    const double lowest = std::round(5 * volume.noise.typicalVoxelSigma());
    const std::vector<vrk::Level> levels = vrk::searchLevels(volume, {}, session);
    const std::vector<std::size_t> counts = {62, 62, 52, 52, 47, 47};
    ASSERT_EQ(levels.size(), counts.size());
    for (std::size_t i = 0; i < levels.size(); ++i) {
        EXPECT_EQ(levels[i].threshold, lowest * std::pow(2, i));
        EXPECT_EQ(levels[i].reflections.size(), counts[i]) << levels[i].threshold;
        EXPECT_EQ(levels[i].zeroBeam, 4) << "no halo, but the direct beam all the same";
    }
    // A halo is cut off as far as it reaches beyond a threshold, up to a tenth of the width.
    const vrk::ReciprocalVolume haloed = volumeOfBars(10, 100);
    EXPECT_NEAR(vrk::searchLevel(haloed, lowest, {}, session).zeroBeam, 9.5, 1);
    EXPECT_EQ(vrk::searchLevel(haloed, lowest, {}, session).reflections.size(), 61U);
    EXPECT_EQ(vrk::searchLevel(haloed, 10 * lowest, {}, session).zeroBeam, 4);
    EXPECT_EQ(vrk::searchLevel(volumeOfBars(100, 100), lowest, {}, session).zeroBeam, 12.8);
}

TEST(SearchLevels, WhatTheUserFixesHolds) {
    vrk::Session session(vrk::silence());
    const vrk::ReciprocalVolume volume = volumeOfBars(10, 10);
    const std::tuple<double, std::function<void(vrk::SearchOptions&)>, std::size_t> cases[] = {
        {400, [](vrk::SearchOptions&) {}, 47},
        {50, [](vrk::SearchOptions& o) { o.zeroBeam = 0; }, 63},
        {50, [](vrk::SearchOptions& o) { o.zeroBeam = 9; }, 61},
        {50, [](vrk::SearchOptions& o) { o.maxVoxels = 2; }, 0},
        {50, [](vrk::SearchOptions& o) { o.minVoxels = 4; }, 0},
        {50, [](vrk::SearchOptions& o) { o.resolution = 15; }, 2}};
    for (const auto& [threshold, change, reflections] : cases) {
        vrk::SearchOptions options;
        options.threshold = threshold;
        change(options);
        if (reflections == 0) {
            EXPECT_THROW(vrk::searchLevels(volume, options, session), vrk::Failure);
            continue;
        }
        const std::vector<vrk::Level> levels = vrk::searchLevels(volume, options, session);
        ASSERT_EQ(levels.size(), 1U);
        EXPECT_EQ(levels[0].threshold, threshold);
        EXPECT_EQ(levels[0].reflections.size(), reflections);
    }
}

TEST(VolumeBound, KeepsTheInnerPartInWhichSpotsShow) {
    constexpr int kEdge = 140;
    vrk::CentredSeries series = {blank(kEdge, kEdge, 3), facts(), noiseOf(0, 0, 0, 16)};
    const auto put = [&](int x, int y, short counts) {
        series.frames->GetChunkPointer(1)[kEdge * y + x] = counts;
    };
    series.frames->m_Header = vrk::tiltSeriesHeader(kEdge, kEdge, {-2, 0, 2}, 5e7, "made");
    EXPECT_EQ(vrk::radiusOfSpots(*series.frames), 0);
    for (int i = 0; i < 198; ++i)
        put(40 + 4 * (i % 15), 40 + 4 * (i / 15), 11);
    for (const int x : {119, 131})
        put(x, 70, 11);
    put(135, 70, 10);  // does not stand out
    EXPECT_EQ(vrk::radiusOfSpots(*series.frames), 50) << "199 of 200";
    put(132, 70, 11);
    EXPECT_EQ(vrk::radiusOfSpots(*series.frames), 62) << "200 of 201";
    vrk::Session session(vrk::silence());
    for (const auto& [wanted, edge] : {std::pair(200, 140), {139, 140}, {137, 138}, {66, 66}, {63, 64}}) {
        series = vrk::bounded(std::move(series), wanted, session);
        ASSERT_EQ(series.frames->GetWidth(), static_cast<unsigned>(edge));
        EXPECT_EQ(series.frames->m_Header.ny, edge);
        const short* corner = series.frames->GetChunkPointer(1) + (edge + 1) * (40 - (kEdge - edge) / 2);
        EXPECT_TRUE(corner[4] == 11 && corner[4 * edge] == 11 && corner[5] == 0) << edge;
    }
    EXPECT_EQ(session.warnings().back(),
              "the volume is built of the inner 64 of 66 pixels, to 6.25 Angstrom");
}

TEST(CentreFile, PutsPatternsWithoutACentreBetweenTheirNeighbours) {
    mrcH header = vrk::tiltSeriesHeader(8, 8, {-3, -2, -1, 0, 1, 2}, 5e7, "made");
    std::istringstream lines("# comment\n1.004 16 26\n-2.004 10 20 0.5 beam\n0.006 99 99\n");
    const auto centres = vrk::readCentres(lines, "c", header);
    const std::array<std::pair<double, double>, 6> places = {
        {{10, 20}, {10, 20}, {12, 22}, {14, 24}, {16, 26}, {16, 26}}};
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_NEAR(centres[i].x, places[i].first, 1e-9) << i;
        EXPECT_NEAR(centres[i].y, places[i].second, 1e-9) << i;
    }
    const TemporaryFolder folder;
    vrk::writeCentreFile(folder / "c", {-3, 0.5}, {centres[0], centres[1]});
    EXPECT_EQ(folder.lines("c")[1], "   -3.0000     10.000     20.000   0.000  neighbours");
    EXPECT_EQ(folder.lines("c")[2], "    0.5000     10.000     20.000   0.000  given");
}

vrk::ReciprocalVolume emptyVolume() {
    return {blank(401, 401, 3), SamplingGeometry(8, std::vector<float>{-60, 60}, 8), noiseOf(0, 0, 0, 16),
            facts()};
}

vrk::Level levelOf(const std::vector<Vector3d>& points, const vrk::ReciprocalVolume& volume) {
    vrk::Level level;
    for (const Vector3d& point : points)
        level.reflections.push_back({point + volume.centre(), point + volume.centre(), 0, point.norm()});
    return level;
}

TEST(FlatPoints, LeaveOutWhatTheSphereMovesBetweenTheNodes) {
    const vrk::ReciprocalVolume volume = emptyVolume();
    // |g|^2 lambda / 2 is 1.5 voxels at 154.7 voxels from the origin.
    const auto kept = [&](double spacing) {
        std::vector<Vector3d> points;
        for (double x = spacing; x < 200; x += 0.25 * spacing)
            points.push_back({x, 0, 0});
        std::vector<double> weights;
        const vrk::Points flat = vrk::flatPoints(levelOf(points, volume), volume, &weights);
        EXPECT_EQ(weights.size(), flat.size());
        for (std::size_t i = 0; i < flat.size(); ++i)
            EXPECT_NEAR(weights[i], flat[i].norm(), 1e-9);
        return flat.back().x();
    };
    EXPECT_NEAR(kept(4), 154.7, 1);
    // Two voxels, a twentieth of the distance between neighbours, at 178.6.
    EXPECT_NEAR(kept(80), 178.6, 20);
    EXPECT_GT(kept(80), 160);
}

std::vector<Vector3d> latticePoints(double reach, unsigned seed) {
    std::mt19937 random(seed);
    std::normal_distribution<double> normal(0, 0.3);
    std::vector<Vector3d> points;
    forEachIndex(9, 9, 9, [&](int h, int k, int l) {
        const Vector3d node = h * Vector3d(17, 3, 1) + k * Vector3d(-2, 19, 4) + l * Vector3d(1, -5, 23);
        if (node.norm() > reach || node.norm() < 5) return;
        points.push_back(node + Vector3d(normal(random), normal(random), normal(random)));
    });
    return points;
}

TEST(FindLattice, TakesTheLevelThatExplainsMostOfItself) {
    vrk::Session session(vrk::silence());
    const vrk::ReciprocalVolume volume = emptyVolume();
    const std::vector<Vector3d> strong = latticePoints(45, 1);
    const std::vector<Vector3d> all = latticePoints(60, 1);
    std::vector<Vector3d> noisy = all;
    std::mt19937 random(2);
    std::uniform_real_distribution<double> uniform(-65, 65);
    std::vector<Vector3d> noise;
    for (std::size_t i = 0; i < 2 * all.size(); ++i)
        noise.push_back({uniform(random), uniform(random), uniform(random)});
    noisy.insert(noisy.end(), noise.begin(), noise.end());

    const auto choice = [&](const std::vector<std::vector<Vector3d>>& lists) {
        std::vector<vrk::Level> levels;
        for (const auto& list : lists)
            levels.push_back(levelOf(list, volume));
        return vrk::findLattice(levels, volume, {}, session);
    };
    EXPECT_EQ(choice({all, strong}).level, 0U) << "more evidence, all of it on the lattice";
    const vrk::LatticeChoice clean = choice({noisy, strong});
    EXPECT_EQ(clean.level, 1U) << "more evidence, but mostly noise";
    EXPECT_NEAR(clean.best.lattice.cellVolume(), 17 * (19 * 23 + 20) - 3 * (-46 - 4) + (10 - 19), 60);
    EXPECT_EQ(failureOf([&] { choice({noise}); }).kind, vrk::FailureKind::NothingFound);
    vrk::ReciprocalVolume absurd = emptyVolume();
    absurd.facts.pixelSize = 7e12;
    const auto refused = failureOf([&] { vrk::findLattice({levelOf(noise, absurd)}, absurd, {}, session); });
    EXPECT_EQ(refused.kind, vrk::FailureKind::Usage) << refused.text;
}

}  // namespace
