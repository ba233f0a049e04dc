#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "commands/Commands.h"
#include "console/MergeReport.h"
#include "pictures/MergePlots.h"
#include "pipeline/base/ResultFolder.h"
#include "pipeline/formats/CellInput.h"
#include "pipeline/formats/ReflectionFormats.h"
#include "pipeline/merging/CrystalMerge.h"
#include "pipeline/merging/MergeFiles.h"

namespace vrk::app {
namespace {

struct MergeArguments {
    std::vector<std::string> folders;
    std::filesystem::path output;
    MergeOptions merge;
    double tolerance = 100 * MergeOptions().cellTolerance;  ///< per cent
    CrystalText text;
    LogOptions log;
    bool pictures = true;
    bool json = false;
};

void mergeResults(const MergeArguments& options, const std::string& given, const std::string& commandText,
                  Host& host) {
    MergeOptions choices = options.merge;
    choices.cellTolerance = options.tolerance / 100;
    // What is wrong from the start leaves the folder as it is.
    if (!options.text.formula.empty()) parseFormula(options.text.formula);
    refuseFolderOfRun(options.output);
    const std::vector<std::filesystem::path> folders(options.folders.begin(), options.folders.end());
    const std::vector<CrystalData> crystals = readCrystals(folders, host.session());
    ResultFolder results(options.output);
    host.openLog(results.path() / "vrk.log", options.log.level, {"options: " + given});
    const CrystalMerge merge = mergeCrystals(crystals, choices, host.session());
    CrystalText text = options.text;
    text.title = options.output.filename().string();
    writeMergedFiles(merge, text, results.path());
    if (options.pictures) writeMergePlots(merge, results.path());
    host.session().checkCanceled();
    const std::string json = mergeJson(merge, commandText, host.warnings());
    writeMergeSummary(json, commandText, results.written(), results.path());
    // What is told from here on is in no checksum.
    host.closeLog();
    results.commit();
    if (options.json)
        host.out() << json << '\n';
    else
        printMerge(host.out(), merge);
}

}  // namespace

void addMergeCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<MergeArguments>();
    Command command = line.command("merge", "Put the intensities of several crystals into one data set");
    command.option("RESULT", options->folders, "Folders that 'vrk run' wrote, two or more")
        .required()
        .typeName("FOLDER ...");
    command.option("-o,--output", options->output, "Folder for the merged data")
        .required()
        .typeName("FOLDER");
    command
        .option("--cell-tolerance", options->tolerance,
                "Strain in per cent up to which cells are taken for the same")
        .range(0.01, 7.0)
        .showDefault();
    command.flag("--leave-out", options->merge.leaveOut,
                 "Leave out crystals with another cell than most have, instead of refusing them");
    command.flag("--keep-all", options->merge.keepAll, "Keep crystals that make the data worse");
    command.option("--d-min", options->merge.dMin, "Finest spacing in Angstrom [the finest of a crystal]")
        .positive();
    command
        .option("--reference", options->merge.reference,
                "Data set whose indices are taken over, where a crystal could be indexed in several ways: "
                "folder of 'vrk run' or 'vrk merge', or HKL file, whose cell stands in the .ins or .res file "
                "of the same name")
        .typeName("FOLDER|FILE.hkl");
    command
        .parsedOption(
            "--reference-cell",
            [options](const std::string& text) {
                options->merge.referenceCell = cellNumbers(text, "--reference-cell");
            },
            "Cell of the reference, where it is an HKL file without such a file beside it")
        .typeName("A,B,C,ALPHA,BETA,GAMMA");
    command.option("--formula", options->text.formula,
                   "Formula unit for crystal.ins, as \"Ca3 Al2 Si3 O12\"");
    command.flag("!--no-pictures", options->pictures, "Draw no plots");
    addLogLevelOption(command, options->log);
    command.flag("--json", options->json, "Print merge.json instead of the report");
    command.footer(
        "Crystals must have one cell. Where lattice and symmetry leave several ways to index them, the\n"
        "intensities say which; crystals whose intensities do not fit the others are left out and named.\n\n"
        "Example:\n  vrk merge result1 result2 result3 -o merged");
    command.action([options, command, &line, &host] {
        mergeResults(*options, command.givenOptions(), line.text(), host);
    });
}

}  // namespace vrk::app
