// Results of a batch in one table: from summaries to rows, clusters, the instrument and the page.

#include <nlohmann/json.hpp>
#include <regex>

#include "pipeline/base/Attempt.h"
#include "pipeline/base/Failure.h"
#include "pipeline/batch/BatchPage.h"
#include "pipeline/batch/Collection.h"
#include "pipeline/batch/CsvTable.h"
#include "support/JsonMatrix.h"
#include "support/SoFar.h"
#include "support/Testing.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

/// What the collection reads of a summary.
json summaryOf(const std::array<double, 6>& cell, double axis, double ellipse) {
    json summary = json::parse(R"({
        "input": {"nx": 100, "ny": 128, "pixel_size": 1e8},
        "tilt_axis": {"angle_deg": 30.0, "refined_esd_deg": 0.05},
        "cell": {"candidates": [{"centring": "P"}]},
        "confidence": {"level": "high", "reasons": []},
        "reflections": {"found": 400, "indexed": 390, "residual_px": 0.5, "resolution": 0.9},
        "completeness": {"share": 0.71}, "handedness": {"sense": -1},
        "instrument": {"refined": true, "known": null,
                       "terms": [{"name": "ellipse_cos", "esd": 0.0005, "correlation": 0.1},
                                 {"name": "ellipse_sin", "value": 0.0, "esd": 0.0005, "correlation": 0.1},
                                 {"name": "radial", "value": 0.004, "esd": 0.001, "correlation": 0.2},
                                 {"name": "tilt_scale", "value": 0.003, "esd": 0.001, "correlation": 0.3},
                                 {"name": "axis_tilt_deg", "value": 0.2, "esd": 0.1, "correlation": 0.4}]},
        "intensities": {"overall": {"completeness": 0.93, "d_min": 0.85, "i_over_sigma": 12.5,
                                    "r_meas": 0.07, "cc_half": 0.998},
                        "space_groups": {"candidates": [{"symbol": "P m m m"}, {"symbol": "P 2 2 2"}]}},
        "seconds": {"total": 3.5}, "peak_memory_mib": 70.0})");
    summary["tilt_axis"]["refined_deg"] = axis;
    summary["instrument"]["terms"][0]["value"] = ellipse;
    json& conventional = summary["cell"]["conventional"] = jsonOfCell(cell);
    conventional["bravais"] = "oP";
    conventional["volume"] = cell[0] * cell[1] * cell[2];
    summary["cell"]["esd"]["conventional"] = jsonOfCell({0.01, 0.01, 0.01, 0, 0, 0});
    return summary;
}

class Collecting : public testing::Test {
protected:
    Collecting() { fs::create_directories(batch.record("x").parent_path()); }

    void add(const std::string& name, vrk::JobOutcome outcome, const json& summary = {},
             const std::string& cause = "") {
        vrk::JobRecord record;
        record.outcome = outcome;
        record.cause = cause;
        record.stamp.modified = static_cast<std::int64_t>(states.size()) * 3'600'000'000'000;
        record.seconds = 1.0 + static_cast<double>(states.size());
        states.push_back(
            {{name, {fs::path("/data") / (name + " <i>.mrc"), false, {}, 1, 2, 2, 2}, {}}, record, {}});
        fs::create_directories(batch.result(name));
        if (!summary.is_null()) std::ofstream(batch.result(name) / "summary.json") << summary;
    }

    vrk::Collection collect() {
        vrk::Session session(vrk::silence());
        const vrk::Collection collection = vrk::collect(states, batch, {}, session);
        vrk::writeCollection(collection, states, batch);
        return collection;
    }

    std::string field(const std::string& name, const std::string& column) const {
        const vrk::CsvTable table = vrk::readCsv(folder / "crystals.csv");
        const auto at = std::ranges::find(table.columns, column) - table.columns.begin();
        for (const vrk::CsvTable::Row& row : table.rows)
            if (row.fields[0] == name) return row.fields.at(static_cast<std::size_t>(at));
        return "not there";
    }

    TemporaryFolder folder;
    vrk::BatchFolder batch{folder / "."};
    std::vector<vrk::JobState> states;
};

struct TrendCase {
    const char* name;
    std::vector<std::tuple<double, double, const char*>> series;  ///< axis, pixel size, level or "known"
    std::size_t rows, elsewhere;
    bool isCommon;
    const char* remark;
};

TEST_F(Collecting, TheInstrumentIsWhatMostOfTheTrustedSeriesShow) {
    const TrendCase cases[] = {
        {"two tell nothing", {{30, 1e8, "high"}, {30, 1e8, "fair"}}, 2, 0, false, ""},
        {"three, one the other way round",
         {{30, 1e8, "high"}, {31.9, 1e8, "high"}, {-149, 1e8, "fair"}},
         3,
         0,
         true,
         ""},
        {"an axis elsewhere",
         {{33, 1e8, "high"}, {30, 1e8, "high"}, {30, 1e8, "high"}, {30, 1e8, "high"}},
         3,
         1,
         true,
         "1 have their axis elsewhere"},
        {"other lengths, a geometry that was known, and no trust",
         {{30, 1.3e8, "high"},
          {30, 1.3e8, "high"},
          {30, 1e8, "high"},
          {30, 1e8, "high"},
          {30, 1e8, "high"},
          {30, 1e8, "known"},
          {30, 1e8, "low"}},
         3,
         0,
         true,
         "1 were run with --distortion and tell nothing more; 2 were recorded at another camera length"},
    };
    for (const TrendCase& one : cases) {
        SCOPED_TRACE(one.name);
        states.clear();
        for (const auto& [axis, pixelSize, level] : one.series) {
            json summary = summaryOf({5, 6, 7, 90, 90, 90}, axis, 0.01);
            summary["input"]["pixel_size"] = pixelSize;
            if (level == std::string("known"))
                summary["instrument"]["known"] = {{"file", "i.json"}};
            else
                summary["confidence"]["lattice"] = level;
            add(std::string("s").append(std::to_string(states.size())), vrk::JobOutcome::Done, summary);
        }
        const vrk::InstrumentTrend trend = collect().trend;
        EXPECT_EQ(trend.rows.size(), one.rows);
        EXPECT_EQ(trend.elsewhere.size(), one.elsewhere);
        EXPECT_EQ(trend.common.has_value(), one.isCommon);
        EXPECT_EQ(trend.remark, one.remark);
    }
}

TEST_F(Collecting, MakesTableClustersInstrumentAndPage) {
    using enum vrk::JobOutcome;
    for (int i = 0; i < 4; ++i)
        add(std::string("one").append(std::to_string(i)), Done,
            summaryOf({5 + 0.01 * i, 6, 7, 90, 90, 90}, i == 3 ? -149.8 : 30.0 + 0.1 * i, 0.01 + 0.001 * i));
    // The same lattice in other axes, at another tilt axis; one of another phase.
    add("turned", Done, summaryOf({7, 5, 6, 90, 90, 90}, 75, 0.2));
    json other = summaryOf({9, 10, 11, 90, 95, 90}, 30.1, 0.01);
    other["intensities"] = nullptr;
    add("other", Done, other);
    json broken = summaryOf({5, 6, 7, 90, 90, 90}, 30, 0.01);
    broken.erase("handedness");
    add("broken", Done, broken);
    add("nothing", NothingFound, {}, "no lattice");
    add("bad", Failed, {}, "cannot read <script>alert('1')</script> & \"more\"\nsecond line");
    const vrk::Collection collection = collect();

    ASSERT_EQ(collection.clustering.clusters.size(), 2U);
    EXPECT_EQ(collection.clustering.clusters[0].crystals.size(), 5U);
    EXPECT_EQ(field("other", "completeness") + field("other", "d_min"), "0.71");
    EXPECT_EQ(
        folder.lines("crystals.csv")[0],
        "name,series,outcome,confidence,bravais,centring,a,b,c,alpha,beta,gamma,volume,reflections,indexed,"
        "residual_px,resolution,completeness,axis_deg,axis_esd_deg,handedness,d_min,i_over_sigma,r_meas,"
        "cc_half,space_group,cluster,strain,outlier,recorded,content,cause");
    EXPECT_EQ(
        folder.lines("crystals.csv")[3],
        "one2,/data/one2 <i>.mrc,done,high,oP,P,5.02,6.0,7.0,90.0,90.0,90.0,210.84,400,390,0.5,0.9,0.93,"
        "30.2,0.05,-1,0.85,12.5,0.07,0.998,P m m m,1,0.00199,no,1970-01-01T02:00:00Z,,");
    EXPECT_EQ(field("turned", "cluster") + field("other", "cluster"), "12");
    EXPECT_EQ(field("other", "outlier") + field("bad", "outlier") + field("bad", "a"), "yes");
    EXPECT_EQ(field("bad", "cause"), states.back().record.cause);
    EXPECT_TRUE(says(field("broken", "cause"), "is damaged"));
    EXPECT_EQ(field("nothing", "outcome"), "nothing found");

    // The axis of the others is 30.1 in the mean, one of them counted from the other end.
    ASSERT_TRUE(collection.trend.common);
    EXPECT_EQ(collection.trend.rows.size(), 5U);
    EXPECT_EQ(collection.trend.elsewhere.size(), 1U);
    const vrk::InstrumentCalibration known = vrk::readInstrumentFile(batch.instrument());
    EXPECT_NEAR(known.axisAngle->value, (30.0 + 30.1 + 30.2 + 30.2 + 30.1) / 5, 1e-3);
    EXPECT_NEAR(known.ellipse->value, (0.010 + 0.011 + 0.012 + 0.013 + 0.010) / 5, 1e-5);
    EXPECT_NEAR(known.ellipseAzimuth->value, 30, 0.01);
    EXPECT_NEAR(known.radial->value, 0.004, 1e-5);
    EXPECT_NEAR(known.tiltScale->value, 1.003, 1e-5);
    EXPECT_NEAR(known.axisTilt->value, 0.2, 1e-5);
    EXPECT_EQ(known.width, 128);

    const std::string page = folder.read("batch.html");
    EXPECT_FALSE(says(page, "<script>alert"));
    EXPECT_TRUE(says(page, "&lt;script&gt;alert(&#39;1&#39;)&lt;/script&gt; &amp; &quot;more&quot;"));
    EXPECT_TRUE(says(page, {"default-src 'none'", "results/one0/report.html", ">oP<", "<svg",
                            "--tilt-axis 30.1", ">5.020(10)<", ">2 (alone)<", ">0.0112(4)<", ">30.12(4)<"}));
    for (const char* loaded : {"http:", "https:", " src=\"/", "@import"})
        EXPECT_FALSE(says(page, loaded)) << loaded;
    SoFar soFar;
    const std::string told = folder.read("crystals.json") + page.substr(page.find("<style"));
    soFar.addText(std::regex_replace(told, std::regex("/[^ ;]*/vrk_\\w*/"), ""));
    EXPECT_NEAR(soFar.sum(), 30748.0066, 1e-3);
}

TEST_F(Collecting, GivesTheSameBytesWhateverItTook) {
    for (int i = 0; i < 4; ++i)
        add(std::string("c").append(std::to_string(i)), vrk::JobOutcome::Done,
            summaryOf({5, 6, 7 + 0.02 * i, 90, 90, 90}, 30, 0.01));
    collect();
    const std::string csv = folder.read("crystals.csv"), text = folder.read("crystals.json"),
                      geometry = folder.read("instrument.json");
    for (vrk::JobState& state : states) {
        state.record.seconds *= 2;
        ++state.record.attempts;
        json summary = json::parse(folder.read("results/" + state.job.name + "/summary.json"));
        summary["seconds"]["total"] = 99;
        summary["peak_memory_mib"] = 1;
        std::ofstream(batch.result(state.job.name) / "summary.json") << summary;
    }
    collect();
    EXPECT_EQ(folder.read("crystals.csv"), csv);
    EXPECT_EQ(folder.read("crystals.json"), text);
    EXPECT_EQ(folder.read("instrument.json"), geometry);
    EXPECT_EQ(folder.lines("cost.csv")[1], "c0,done,1,2.00,99.00,1,");

    // A geometry that jobs are run with is part of their key: it stays.
    states[0].job.options = {{"distortion", folder / "instrument.json"}};
    std::ofstream(batch.result("c1") / "summary.json") << summaryOf({5, 6, 7, 90, 90, 90}, 31, 0.01);
    collect();
    EXPECT_EQ(folder.read("instrument.json"), geometry);
    states[0].job.options.clear();
    collect();
    EXPECT_NE(folder.read("instrument.json"), geometry);
}

}  // namespace
