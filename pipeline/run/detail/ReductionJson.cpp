#include "pipeline/run/detail/ReductionJson.h"

namespace vrk::detail {
namespace {

using Json = nlohmann::ordered_json;

Json shellJson(const ShellStatistics& shell) {
    return {{"d_max", shell.dMax},
            {"d_min", shell.dMin},
            {"observations", shell.observations},
            {"unique", shell.unique},
            {"possible", shell.possible},
            {"completeness", shell.completeness()},
            {"redundancy", shell.redundancy()},
            {"i_over_sigma", shell.iOverSigma},
            {"r_int", shell.rInt},
            {"r_meas", shell.rMeas},
            {"cc_half", shell.ccHalf}};
}

Json laueJson(const LaueChoice& laue) {
    Json candidates = Json::array();
    for (const LaueCandidate& candidate : laue.candidates)
        candidates.push_back({{"group", candidate.symbol},
                              {"class", candidate.laueClass},
                              {"evidence", candidate.evidence},
                              {"correlation", candidate.correlation},
                              {"r_meas", candidate.rMeas}});
    return {{"class", laue.best().laueClass}, {"candidates", candidates}};
}

Json spaceGroupsJson(const SpaceGroupAnalysis& analysis) {
    constexpr std::size_t kMost = 12;
    Json json = {{"e_square_minus_one", analysis.eSquareMinusOne},
                 {"centrosymmetric_by_statistics", analysis.centricByStatistics}};
    json["conditions"] = Json::array();
    for (const ReflectionCondition& one : analysis.conditions)
        json["conditions"].push_back({{"reflections", one.reflections},
                                      {"condition", one.condition},
                                      {"forbidden", one.violating},
                                      {"forbidden_i_over_sigma", one.violatingISigma},
                                      {"allowed", one.obeying},
                                      {"allowed_i_over_sigma", one.obeyingISigma},
                                      {"ratio", one.ratio},
                                      {"evidence", one.evidence}});
    json["candidates"] = Json::array();
    for (const SpaceGroupCandidate& one : analysis.candidates) {
        if (json["candidates"].size() == kMost) break;
        json["candidates"].push_back({{"number", one.number},
                                      {"symbol", one.symbol},
                                      {"centrosymmetric", one.centrosymmetric},
                                      {"evidence", one.evidence}});
    }
    return json;
}

Json wilsonJson(const WilsonPlot& wilson) {
    Json json = {{"b", wilson.b}, {"ln_scale", wilson.lnScale}, {"bins", Json::array()}};
    for (const WilsonBin& bin : wilson.bins)
        json["bins"].push_back({{"s2", bin.s2}, {"ln_i", bin.lnIntensity}, {"reflections", bin.reflections}});
    return json;
}

}  // namespace

Json reductionJson(const DataReduction& reduction) {
    Json json;
    json["laue"] = laueJson(reduction.laue);
    json["space_groups"] = spaceGroupsJson(reduction.spaceGroups);
    json["overall"] = shellJson(reduction.statistics.overall);
    json["shells"] = Json::array();
    for (const ShellStatistics& shell : reduction.statistics.shells)
        json["shells"].push_back(shellJson(shell));
    json["wilson"] = wilsonJson(reduction.wilson);
    json["friedel_r_int"] = reduction.friedelStatistics.overall.rInt;
    return json;
}

}  // namespace vrk::detail
