#include "app/RunVrk.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <fstream>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <set>
#include <stdexcept>

#include "foundation/Version.h"
#include "support/ReportedData.h"
#include "support/SoFar.h"

namespace {

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

/// A temporary file that vanishes with its last handle.
File scratchFile() {
    File file(std::tmpfile(), &std::fclose);
    if (!file) throw std::runtime_error("no temporary file");
    return file;
}

/// What execv takes for the program and these arguments, which must stay.
std::vector<char*> argvOf(const std::vector<std::string>& arguments) {
    std::vector<char*> argv = {const_cast<char*>(VRK_PROGRAM)};
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    return argv;
}

int exitCodeOf(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string textOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text(std::istreambuf_iterator<char>(file), {});
    for (std::size_t at = 0; (at = text.find(VRK::kVersion, at)) != std::string::npos;)
        text.erase(at, std::string_view(VRK::kVersion).size());
    return text;
}

/// The sums of the rows and columns of a picture.
void addPicture(SoFar& soFar, const std::filesystem::path& path) {
    const cv::Mat picture = cv::imread(path.string(), cv::IMREAD_GRAYSCALE);
    for (const int direction : {0, 1}) {
        cv::Mat_<double> sums;
        cv::reduce(picture, sums, direction, cv::REDUCE_SUM, CV_64F);
        for (const double sum : sums)
            soFar.addTame(sum);
    }
}

/// A block of a page, what is packed in it unpacked.
void addBlock(SoFar& soFar, const Json& block) {
    if (block.is_object() && block.contains("type")) {
        for (const double number : unpacked(block))
            soFar.addTame(number);
    } else if (block.is_structured()) {
        for (const Json& part : block)
            addBlock(soFar, part);
    } else if (const std::string text = block.dump(); text.size() > 60 && text[1] == 'e') {
        for (const unsigned char byte : inflated(block))
            soFar.addTame(byte);
    } else {
        soFar.addText(text);
    }
}

std::string contents(std::FILE* file) {
    std::string text;
    std::array<char, 65536> block{};
    std::rewind(file);
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), file))
        text.append(block.data(), got);
    return text;
}

}  // namespace

StartedVrk::StartedVrk(const std::vector<std::string>& arguments, const std::string& folder)
    : m_out(scratchFile()), m_err(scratchFile()), m_folder(folder) {
    const std::vector<char*> argv = argvOf(arguments);
    m_child = fork();
    if (m_child < 0) throw std::runtime_error("cannot fork");
    if (m_child == 0) {
        // The superuser may read and write everything; users may not.
        for (const unsigned long right : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH})
            prctl(PR_CAPBSET_DROP, right, 0, 0, 0);
        const int input = open("/dev/null", O_RDONLY);
        dup2(input, STDIN_FILENO);
        dup2(fileno(m_out.get()), STDOUT_FILENO);
        dup2(fileno(m_err.get()), STDERR_FILENO);
        if (chdir(folder.c_str()) == 0) execv(VRK_PROGRAM, argv.data());
        _exit(127);
    }
}

StartedVrk::~StartedVrk() {
    if (m_child < 0) return;
    signal(SIGKILL);
    waitpid(m_child, nullptr, 0);
}

void StartedVrk::signal(int number) const {
    kill(m_child, number);
}

VrkResult StartedVrk::wait() {
    int status = 0;
    if (waitpid(m_child, &status, 0) != m_child) throw std::runtime_error("lost the program");
    m_child = -1;
    VrkResult result;
    result.exitCode = exitCodeOf(status);
    if (result.exitCode == 127) throw std::runtime_error("cannot start " VRK_PROGRAM " in " + m_folder);
    result.out = contents(m_out.get());
    result.err = contents(m_err.get());
    return result;
}

VrkResult runVrkInTerminal(const std::string& line, const std::string& folder, int columns,
                           const char* term) {
    const std::vector<std::string> arguments = words(line);
    const std::vector<char*> argv = argvOf(arguments);
    winsize size = {};
    size.ws_row = 24;
    size.ws_col = static_cast<unsigned short>(columns);
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, &size);
    if (child < 0) throw std::runtime_error("no terminal");
    if (child == 0) {
        setenv("TERM", term, 1);
        unsetenv("COLUMNS");
        if (chdir(folder.c_str()) == 0) execv(VRK_PROGRAM, argv.data());
        _exit(127);
    }
    VrkResult result;
    std::array<char, 65536> block{};
    // Reading fails when nobody writes any more.
    for (ssize_t got = 0; (got = read(terminal, block.data(), block.size())) > 0;)
        result.out.append(block.data(), static_cast<std::size_t>(got));
    close(terminal);
    int status = 0;
    waitpid(child, &status, 0);
    result.exitCode = exitCodeOf(status);
    return result;
}

VrkResult runVrk(const std::vector<std::string>& arguments, const std::string& folder) {
    return StartedVrk(arguments, folder).wait();
}

double soFarOf(const std::string& place) {
    using Entries = std::filesystem::recursive_directory_iterator;
    const std::set<std::string> texts = {".txt", ".csv",      ".hkl", ".HKL", ".ins",
                                         ".cif", ".cif_pets", ".dat", ".plt"};
    SoFar soFar;
    std::set<std::filesystem::path> paths = {place};
    if (std::filesystem::is_directory(place)) paths.insert(Entries(place), {});
    for (const std::filesystem::path& path : paths) {
        const std::string kind = path.extension();
        if (texts.contains(kind)) soFar.addText(textOf(path));
        if (kind == ".png" && path.parent_path().filename() != "plots") addPicture(soFar, path);
        if (kind == ".html")
            for (const auto& [name, block] : blocksOf(textOf(path)))
                if (name != "summary" && name != "folder") addBlock(soFar, block);
        if (kind != ".json") continue;
        Json document = Json::parse(textOf(path));
        for (const char* cost : {"program", "inputs", "seconds", "memory_mib", "peak_memory_mib"})
            document.erase(cost);
        soFar.addText(document.dump());
    }
    return soFar.sum();
}

std::vector<std::string> words(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

void expectRefused(const std::vector<RefusedLine>& lines, const std::string& folder,
                   const std::string& before) {
    std::vector<std::unique_ptr<StartedVrk>> started;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        // A few at a time: a program spends most of its time on being loaded.
        constexpr std::size_t together = 4;
        for (; started.size() < std::min(i + together, lines.size());)
            started.push_back(
                std::make_unique<StartedVrk>(words(before + lines[started.size()].line), folder));
        SCOPED_TRACE(before + lines[i].line);
        const VrkResult result = started[i]->wait();
        EXPECT_EQ(result.exitCode, lines[i].exitCode);
        EXPECT_NE(result.err.find(lines[i].message), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
        // The library's own words do not stand beside the message.
        std::istringstream text(result.err);
        int messages = 0;
        for (std::string line; std::getline(text, line);)
            messages += line.starts_with("vrk: ") && !line.starts_with("vrk: warning: ") ? 1 : 0;
        EXPECT_EQ(messages, 1) << result.err;
    }
}
