#include "visualisation/GnuplotScript.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include "foundation/VRKLogger.h"

extern char** environ;

namespace {

constexpr int kNotStarted = -1;

/// What became of a program: its exit code (or kNotStarted with the reason) and its words.
struct Outcome {
    int exitCode = kNotStarted;
    int startError = 0;
    std::string errorText;
};

class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&m_actions); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&m_actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;

    posix_spawn_file_actions_t* get() { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions;
};

std::string readAll(int descriptor) {
    constexpr std::size_t kKept = 2000;
    std::string text;
    std::array<char, 512> buffer;
    while (true) {
        const ssize_t got = read(descriptor, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return text;
        if (text.size() < kKept) text.append(buffer.data(), static_cast<std::size_t>(got));
    }
}

/// Runs gnuplot on a script in a folder. The program gets no input and no other open file of this process.
Outcome runGnuplot(const std::string& folder, const std::string& script) {
    Outcome outcome;
    std::array<int, 2> words;
    if (pipe2(words.data(), O_CLOEXEC) != 0) {
        outcome.startError = errno;
        return outcome;
    }
    SpawnActions actions;
    posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(actions.get(), STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(actions.get(), words[1], STDERR_FILENO);
    posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1);
    posix_spawn_file_actions_addchdir_np(actions.get(), folder.c_str());

    std::string program = "gnuplot";
    std::string noUserSettings = "-d";
    std::string scriptArgument = script;
    const std::array<char*, 4> arguments = {program.data(), noUserSettings.data(), scriptArgument.data(),
                                            nullptr};
    pid_t child = 0;
    outcome.startError =
        posix_spawnp(&child, program.c_str(), actions.get(), nullptr, arguments.data(), environ);
    close(words[1]);
    if (outcome.startError == 0) {
        outcome.errorText = readAll(words[0]);
        int status = 0;
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    close(words[0]);
    return outcome;
}

void appendNumber(std::string& text, double value) {
    if (!std::isfinite(value)) {
        text += "NaN";
        return;
    }
    std::array<char, 32> digits;
    const auto end =
        std::to_chars(digits.data(), digits.data() + digits.size(), value, std::chars_format::general, 9);
    text.append(digits.data(), end.ptr);
}

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (file) file.write(text.data(), static_cast<std::streamsize>(text.size()));
    file.close();
    if (file) return true;
    VRKLogger::getInstance()->log(
        "Cannot write the plot file " + path + ": " + std::strerror(errno) +
            ". Check that the folder exists and may be written to, and the space left.",
        VRK::Error, VRK::Information);
    return false;
}

}  // namespace

GnuplotScript::GnuplotScript(std::string folder, std::string name, int width, int height)
    : m_folder(folder.empty() ? "." : std::move(folder)),
      m_name(std::move(name)),
      m_width(width),
      m_height(height) {}

std::string GnuplotScript::addData(std::string_view comment, std::span<const double> values,
                                   std::size_t columns) {
    DataFile file;
    file.name = m_name + "_" + std::to_string(m_data.size() + 1) + ".dat";
    file.text.reserve(comment.size() + 4 + values.size() * 10);
    file.text.append("# ").append(comment).append("\n");
    for (std::size_t row = 0; columns > 0 && row + columns <= values.size(); row += columns) {
        for (std::size_t column = 0; column < columns; ++column) {
            if (column > 0) file.text += ' ';
            appendNumber(file.text, values[row + column]);
        }
        file.text += '\n';
    }
    m_data.push_back(std::move(file));
    return quoted(m_data.back().name);
}

void GnuplotScript::addCommand(std::string command) {
    m_commands.push_back(std::move(command));
}

bool GnuplotScript::save() const {
    for (const DataFile& file : m_data)
        if (!writeFile(pathOf(file.name), file.text)) return false;
    return writeFile(scriptPath(), scriptText());
}

bool GnuplotScript::render() const {
    std::error_code ignored;
    std::filesystem::remove(imagePath(), ignored);
    if (!save()) return false;

    const std::string script = m_name + ".plt";
    const Outcome outcome = runGnuplot(m_folder, script);
    if (outcome.exitCode == kNotStarted) {
        const std::string why = outcome.startError == ENOENT ? "gnuplot is not installed"
                                                             : std::string("gnuplot could not be started (") +
                                                                   std::strerror(outcome.startError) + ")";
        VRKLogger::getInstance()->log("Plot not rendered: " + why + ". Run \"gnuplot " + script + "\" in " +
                                          m_folder + " to render it.",
                                      VRK::Normal, VRK::Information);
        return false;
    }
    const bool made = outcome.exitCode == 0 && std::filesystem::file_size(imagePath(), ignored) > 0 &&
                      std::filesystem::is_regular_file(imagePath(), ignored);
    if (!made)
        VRKLogger::getInstance()->log("gnuplot could not render " + scriptPath() + ": " + outcome.errorText,
                                      VRK::Warning, VRK::Information);
    return made;
}

std::string GnuplotScript::scriptPath() const {
    return pathOf(m_name + ".plt");
}

std::string GnuplotScript::imagePath() const {
    return pathOf(m_name + ".png");
}

std::string GnuplotScript::quoted(std::string_view text) {
    std::string result = "'";
    for (const char c : text) {
        if (c == '\'') result += '\'';
        result += c == '\n' || c == '\r' ? ' ' : c;
    }
    return result + "'";
}

std::string GnuplotScript::pathOf(const std::string& fileName) const {
    return (std::filesystem::path(m_folder) / fileName).string();
}

std::string GnuplotScript::scriptText() const {
    const std::string size = std::to_string(m_width) + "," + std::to_string(m_height);
    std::string text = "set encoding utf8\n";
    text += "if (strstrt(GPVAL_TERMINALS, 'pngcairo') > 0) {\n  set terminal pngcairo enhanced size " + size +
            "\n} else {\n  set terminal png size " + size + "\n}\n";
    text += "set output " + quoted(m_name + ".png") + "\n";
    for (const std::string& command : m_commands)
        text += command + '\n';
    return text + "set output\n";
}
