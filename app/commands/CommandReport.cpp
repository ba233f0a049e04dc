#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "commands/Commands.h"
#include "pipeline/report/Report.h"

namespace vrk::app {
namespace {

struct ReportArguments {
    std::vector<std::string> folders;
    std::filesystem::path output;
};

std::filesystem::path outputOf(const ReportArguments& options) {
    if (!options.output.empty()) return options.output;
    if (options.folders.size() > 1) return "comparison.html";
    return std::filesystem::path(options.folders.front()) / kReportFile;
}

void makeReport(const ReportArguments& options, Host& host) {
    std::vector<ReportBlocks> results;
    for (const std::string& folder : options.folders)
        results.push_back(readReport(folder));
    const std::filesystem::path output = outputOf(options);
    writeReport(results, output);
    host.out() << output.string() << '\n';
}

}  // namespace

void addReportCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<ReportArguments>();
    Command command = line.command("report", "Make the page of a result again, or one that compares several");
    command.option("RESULT", options->folders, "Folders that 'vrk run' wrote")
        .required()
        .typeName("FOLDER ...");
    command
        .option("-o,--output", options->output,
                "Page to write [report.html in the folder; comparison.html for several]")
        .typeName("FILE.html");
    command.footer(
        "The page is one file that needs no network. Sections and patterns come from the page that the run\n"
        "left; a page of several results has no patterns.\n\n"
        "Examples:\n  vrk report result\n  vrk report one two three -o comparison.html");
    command.action([options, &host] { makeReport(*options, host); });
}

}  // namespace vrk::app
