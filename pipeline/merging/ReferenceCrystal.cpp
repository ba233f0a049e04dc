#include "pipeline/merging/ReferenceCrystal.h"

#include <Eigen/LU>
#include <algorithm>
#include <cctype>
#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/integration/SeriesGeometry.h"

namespace vrk {
namespace {

namespace fs = std::filesystem;

/// The numbers of the line; none where it is not made of numbers alone.
std::vector<double> wordsOf(const std::string& line) {
    std::vector<double> numbers;
    std::istringstream words(line);
    for (std::string word; words >> word;) {
        if (!parseNumber(word, numbers.emplace_back())) return {};
    }
    return numbers;
}

/// The numbers in columns of 4, 4, 4, 8 and 8 characters, between which there may be no blanks.
std::vector<double> columnsOf(const std::string& line) {
    constexpr std::array<std::size_t, 5> kWidths = {4, 4, 4, 8, 8};
    std::vector<double> numbers;
    std::size_t at = 0;
    for (const std::size_t width : kWidths) {
        if (at + width > line.size()) return {};
        if (!parseNumber(line.substr(at, width), numbers.emplace_back())) return {};
        at += width;
    }
    return numbers;
}

bool isIndex(double number) {
    constexpr double kMost = 10000;
    return std::abs(number) < kMost && number == std::round(number);
}

std::vector<Observation> readReflections(const fs::path& path) {
    std::ifstream file(path);
    if (!file) throw Failure("cannot read the reference " + path.string());
    std::vector<Observation> list;
    std::size_t number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        if (line.find_first_not_of(" \t\r") == std::string::npos) break;
        std::vector<double> values = columnsOf(line);
        if (values.empty()) values = wordsOf(line);
        if (values.size() < 5 || !std::all_of(values.begin(), values.begin() + 3, isIndex))
            throw Failure(
                path.string() + ", line " + std::to_string(number) +
                ": that is not h, k, l, intensity and sigma; a reference is an HKL file (HKLF 4) or a "
                "folder of 'vrk run' or 'vrk merge'");
        Observation one;
        for (std::size_t i = 0; i < 3; ++i)
            one.hkl[i] = static_cast<int>(values[i]);
        // The line of zeros ends the list; instructions may follow.
        if (one.hkl == Indices{}) break;
        one.intensity = values[3];
        one.sigma = values[4];
        if (one.sigma > 0) list.push_back(one);
    }
    if (file.bad()) throw Failure("cannot read the reference " + path.string() + " to its end");
    if (list.empty()) throw Failure(path.string() + " holds no reflection with an uncertainty");
    return list;
}

/// CELL and LATT of instructions. \returns whether there is a cell
bool takeInstructions(const fs::path& path, CrystalCell& cell) {
    constexpr std::string_view kLattices = "PIRFABC";
    std::ifstream file(path);
    bool isThere = false;
    for (std::string line; std::getline(file, line);) {
        std::transform(line.begin(), line.end(), line.begin(),
                       [](unsigned char sign) { return static_cast<char>(std::toupper(sign)); });
        const std::vector<double> numbers = line.size() > 5 ? wordsOf(line.substr(5)) : std::vector<double>();
        if (line.starts_with("CELL ") && numbers.size() == 7) {
            std::copy(numbers.begin() + 1, numbers.end(), cell.cell.begin());
            isThere = true;
        }
        if (line.starts_with("LATT ") && numbers.size() == 1) {
            const auto lattice = static_cast<std::size_t>(std::min(std::abs(numbers[0]), 8.0));
            if (lattice >= 1 && lattice <= kLattices.size()) cell.centring = kLattices[lattice - 1];
        }
    }
    return isThere;
}

CrystalData readHkl(const fs::path& path, const std::optional<std::array<double, 6>>& cell,
                    const CrystalData& like) {
    CrystalData crystal;
    crystal.name = path.string();
    crystal.bravais = like.bravais;
    crystal.cell.centring = like.cell.centring;
    const auto ins = fs::path(path).replace_extension(".ins"), res = fs::path(path).replace_extension(".res");
    if (cell)
        crystal.cell.cell = *cell;
    else if (!takeInstructions(ins, crystal.cell) && !takeInstructions(res, crystal.cell) &&
             !takeInstructions(path.parent_path() / "crystal.ins", crystal.cell))
        throw Failure(
            "nothing says the cell of the reference " + path.string() +
                ": give it by --reference-cell A,B,C,ALPHA,BETA,GAMMA, or put its instructions beside "
                "it, as " +
                ins.filename().string(),
            FailureKind::Usage);
    // Throws for what is no cell.
    const ReducedCell reduced(crystal.cell);
    crystal.observations = readReflections(path);
    const Eigen::Matrix3d reciprocal = standardVectors(crystal.cell.cell).inverse().transpose();
    for (Observation& one : crystal.observations)
        one.spacing = 1 / (reciprocal * Eigen::Vector3d(one.hkl[0], one.hkl[1], one.hkl[2])).norm();
    return crystal;
}

}  // namespace

CrystalData readReferenceCrystal(const fs::path& path, const std::optional<std::array<double, 6>>& cell,
                                 const CrystalData& like) {
    std::error_code error;
    if (!fs::is_directory(path, error)) {
        if (!fs::exists(path, error))
            throw Failure("there is no reference " + path.string(), FailureKind::Usage);
        return readHkl(path, cell, like);
    }
    if (cell)
        throw Failure("the reference " + path.string() + " is a folder, which says its cell itself",
                      FailureKind::Usage);
    if (fs::exists(path / "merge.json", error)) return readHkl(path / "merged.hkl", std::nullopt, like);
    std::vector<CrystalData> crystals = readCrystals(path);
    if (crystals.empty())
        throw Failure(path.string() + " holds no intensities measured on the frames", FailureKind::Usage);
    return std::move(crystals.front());
}

}  // namespace vrk
