#include "app/RunVrk.h"

namespace {

/// What bash offers for a command line whose last word is being typed.
std::string offered(const std::string& script, const std::string& line, int words) {
    const std::string command = "bash -c 'source " + script + "; COMP_WORDS=(" + line +
                                "); COMP_CWORD=" + std::to_string(words - 1) +
                                "; _vrk; echo \" ${COMPREPLY[*]} \"'";
    const TemporaryFolder folder;
    return std::system((command + " > " + (folder / "text")).c_str()) == 0 ? folder.read("text") : "failed";
}

TEST(CompletionTest, BashCompletesCommandsOptionsAndChoices) {
    const TemporaryFolder folder;
    const std::string script = folder.write("vrk.bash", runVrkLine("completion bash").out);
    for (const auto& [line, count, expected] : {std::tuple("vrk re", 2, " reconstruct report \n"),
                                                {"vrk run --keep", 3, " --keep-volume \n"},
                                                {"vrk index --format sh", 4, " shelx \n"},
                                                {"vrk completion z", 3, " zsh \n"},
                                                {"vrk run ser", 3, "  \n"}})
        EXPECT_EQ(offered(script, line, count), expected) << line;
}

TEST(CompletionTest, BothScriptsKnowEveryCommandOfTheHelpText) {
    std::istringstream help(runVrk({"--help"}).out);
    const std::string bash = runVrk({"completion", "bash"}).out;
    const std::string zsh = runVrk({"completion", "zsh"}).out;
    int commands = 0;
    bool listed = false;
    for (std::string line; std::getline(help, line);) {
        if (line == "Commands:") listed = true;
        if (line == "Options:") break;
        if (!listed || line.rfind("  ", 0) != 0 || line[2] == ' ') continue;
        const std::string name = line.substr(2, line.find(' ', 2) - 2);
        ++commands;
        EXPECT_TRUE(says(bash, "\n            " + name + ") words='")) << name;
        EXPECT_TRUE(says(zsh, "\n        " + name + ") _arguments")) << name;

        const std::string text = runVrk({name, "--help"}).out;
        EXPECT_TRUE(says(text, {"Example", "vrk " + name + ' '})) << name;
        EXPECT_TRUE(std::isupper(static_cast<unsigned char>(text[0]))) << text;
    }
    EXPECT_GE(commands, 13);
    // Files for an argument, the choices of one that has some, and a flag without a value.
    EXPECT_TRUE(says(
        zsh, {"        'verify:", " '*:value:_files' \\\n", " '*:value:(bash zsh)' ",
              "'--mode[How the crystal turned \\[found\\]]:value:(continuous stepwise",
              "'-o[Cell file to write]:value:_files' '--output[", " '--json[Print the summary as JSON]' ",
              "'--axis[Axis to draw, degrees \\[as the series states\\]]:value:_files'",
              "for '\\''vrk preprocess --rotate'\\'' and"}));
}

}  // namespace
