// The crystals of several results that have the commonest cell, in one data set: merge_crystals OUTPUT RESULT
// RESULT ...
#include <iostream>

#include "pipeline/Pipeline.h"

int main(int count, char** arguments) {
    const std::vector<std::filesystem::path> folders(arguments + 2, arguments + count);
    vrk::MergeOptions options;
    options.leaveOut = true;  // crystals with another cell
    const auto merge = vrk::mergeCrystals(folders, options);
    const auto files = merge ? vrk::writeMergedCrystals(*merge, arguments[1]) : merge.error();
    if (!files) {
        std::cerr << files.error().text << '\n';
        return 1;
    }
    for (const vrk::MergedCrystal& crystal : merge->crystals)
        std::cout << crystal.name << (crystal.used ? ": correlation " : ": left out, ")
                  << (crystal.used ? std::to_string(crystal.indexing.correlation) : crystal.reason) << '\n';
    std::cout << merge->bravais << ", " << merge->data.merged.size() << " reflections, CC1/2 of the crystals "
              << merge->ccHalf << '\n';
}
