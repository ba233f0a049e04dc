#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "commands/Commands.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/report/ResultCheck.h"

namespace vrk::app {
namespace {

struct VerifyArguments {
    std::filesystem::path folder;
    std::filesystem::path input;
    bool json = false;
};

nlohmann::ordered_json toJson(const ResultCheck& check) {
    return {{"whole", check.isWhole()},
            {"version", check.version},
            {"files", check.files},
            {"changed", check.changed},
            {"missing", check.missing},
            {"extra", check.extra},
            {"disagreements", check.disagreements},
            {"input", check.inputMatches ? nlohmann::ordered_json(*check.inputMatches ? "same" : "other")
                                         : nlohmann::ordered_json()}};
}

void print(std::ostream& out, const ResultCheck& check) {
    const auto list = [&](const char* what, const std::vector<std::string>& texts) {
        for (const std::string& text : texts)
            out << what << text << '\n';
    };
    list("changed     ", check.changed);
    list("missing     ", check.missing);
    list("disagrees   ", check.disagreements);
    list("not of it   ", check.extra);
    if (check.inputMatches)
        out << "input       " << (*check.inputMatches ? "is that of the result" : "is another one") << '\n';
    if (check.isWhole())
        out << "whole: " << check.files << " files of vrk " << check.version
            << " as they were written, and their numbers agree\n";
}

void verify(const VerifyArguments& options, Host& host) {
    const ResultCheck check = checkResult(options.folder, options.input);
    if (options.json)
        host.out() << jsonText(toJson(check), 2) << '\n';
    else
        print(host.out(), check);
    host.out().flush();
    if (!check.changed.empty() || !check.missing.empty() || !check.disagreements.empty())
        throw Failure(options.folder.string() +
                      " is not as it was written: " + std::to_string(check.changed.size()) +
                      " files changed, " + std::to_string(check.missing.size()) + " missing, " +
                      std::to_string(check.disagreements.size()) + " disagreements; make it again");
    if (!check.isWhole())
        throw Failure(options.input.string() + " is not the series that " + options.folder.string() +
                      " was made of; run it");
}

}  // namespace

void addVerifyCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<VerifyArguments>();
    Command command = line.command("verify", "Check that a result is whole and consistent");
    command.option("RESULT", options->folder, "Folder that 'vrk run' or 'vrk merge' wrote")
        .required()
        .typeName("FOLDER");
    command
        .option("--input", options->input, "Check too that the result is of this series, whatever its name")
        .typeName("SERIES.mrc");
    command.flag("--json", options->json, "Print what was found as JSON");
    command.footer(
        "Files that were changed or are missing are named, and those that are not of the result, which do\n"
        "no harm. Exit code 1 when the result is not whole or the series is another one.\n"
        "'sha256sum -c SHA256SUMS' in the folder compares the files alone.\n\n"
        "Example:\n  vrk verify result --input series.mrc");
    command.action([options, &host] { verify(*options, host); });
}

}  // namespace vrk::app
