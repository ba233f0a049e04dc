#include "pipeline/merging/CrystalData.h"

#include <cmath>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "pipeline/base/CellJson.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/FileText.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/formats/ReflectionTable.h"

namespace vrk {
namespace {

using Json = nlohmann::ordered_json;

CrystalCell cellOf(const Json& parameters, const std::string& bravais) {
    CrystalCell cell;
    cell.cell = cellParametersOf(parameters);
    cell.centring = bravais.size() > 1 ? bravais[1] : 'P';
    return cell;
}

std::vector<CrystalData> crystalsOf(const Json& summary, const std::filesystem::path& folder) {
    std::vector<CrystalData> crystals;
    for (const Json& one : summary.at("crystals")) {
        CrystalData crystal;
        const std::size_t number = crystals.size() + 1;
        crystal.name = folder.string() + (number > 1 ? ", crystal " + std::to_string(number) : "");
        crystal.bravais = one.at("bravais").get<std::string>();
        // Spots on the frames give the better cell.
        const Json& intensities = summary.at("intensities");
        const bool better = number == 1 && intensities.is_object();
        crystal.cell = cellOf(better ? intensities.at("cell") : one.at("cell"), crystal.bravais);
        if (intensities.is_object()) crystal.dMin = intensities.at("resolution").at("d_min").get<double>();
        crystal.kiloVolts = summary.at("parameters").at("voltage_kv").get<double>();
        crystals.push_back(std::move(crystal));
    }
    return crystals;
}

}  // namespace

std::vector<CrystalData> readCrystals(const std::filesystem::path& folder) {
    const std::filesystem::path file = folder / "summary.json";
    const std::optional<std::string> text = wholeFile(file);
    std::error_code ignored;
    if (!text && std::filesystem::exists(file, ignored)) throw Failure(file.string() + " cannot be read");
    if (!text)
        throw Failure(folder.string() + " holds no summary.json; give folders that 'vrk run' made",
                      FailureKind::Usage);
    std::vector<CrystalData> crystals;
    try {
        const auto summary = parsedJson<Json>(*text);
        if (summary.contains("merge"))
            throw Failure(folder.string() + " holds merged crystals; give the folders of the crystals",
                          FailureKind::Usage);
        crystals = crystalsOf(summary, folder);
    } catch (const Json::exception&) {
        throw Failure(file.string() + " is not complete; run the series again");
    }
    for (const ListedReflection& one : readReflectionTable(folder / "reflections.csv")) {
        if (!one.measured() || one.crystal < 1 || one.crystal > static_cast<int>(crystals.size())) continue;
        Observation observation;
        observation.hkl = one.hkl;
        observation.intensity = one.intensity;
        observation.sigma = one.sigma;
        observation.spacing = one.spacing;
        crystals[static_cast<std::size_t>(one.crystal) - 1].observations.push_back(observation);
    }
    std::erase_if(crystals, [](const CrystalData& crystal) { return crystal.observations.empty(); });
    return crystals;
}

std::vector<CrystalData> readCrystals(std::span<const std::filesystem::path> folders, Session& session) {
    const Stage stage(session, "read");
    std::vector<CrystalData> crystals;
    std::set<std::filesystem::path> known;
    for (const std::filesystem::path& folder : folders) {
        session.checkCanceled();
        if (!known.insert(std::filesystem::weakly_canonical(folder)).second)
            throw Failure(folder.string() + " is given twice; its crystals would count twice",
                          FailureKind::Usage);
        std::vector<CrystalData> more = readCrystals(folder);
        if (more.empty())
            session.warn(folder.string() +
                         " has no intensities measured on the frames and is left out; run its series again "
                         "without --no-integration");
        crystals.insert(crystals.end(), std::make_move_iterator(more.begin()),
                        std::make_move_iterator(more.end()));
        session.advance(static_cast<double>(known.size()) / static_cast<double>(folders.size()));
    }
    return crystals;
}

std::vector<Observation> reindexed(const std::vector<Observation>& observations,
                                   const Eigen::Matrix3d& base) {
    std::vector<Observation> result;
    result.reserve(observations.size());
    for (Observation one : observations) {
        const Eigen::Vector3d hkl = base.transpose() * Eigen::Vector3d(one.hkl[0], one.hkl[1], one.hkl[2]);
        const Eigen::Vector3d whole = hkl.array().round();
        if ((hkl - whole).cwiseAbs().maxCoeff() > 0.01) continue;
        one.hkl = {static_cast<int>(whole[0]), static_cast<int>(whole[1]), static_cast<int>(whole[2])};
        result.push_back(one);
    }
    return result;
}

}  // namespace vrk
