#include "Host.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <streambuf>

#include "Failure.h"
#include "foundation/Version.h"

namespace host {
namespace {

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int) {
    interrupted = 1;
}

/// The first Ctrl-C asks the running operation to stop, a second one kills.
void catchInterrupts() {
    struct sigaction action = {};
    action.sa_handler = onInterrupt;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
    sigaction(SIGINT, &action, nullptr);
}

/// Buffered output to a file descriptor.
class DescriptorBuffer : public std::streambuf {
public:
    explicit DescriptorBuffer(int descriptor) : m_descriptor(descriptor) {
        setp(m_data.data(), m_data.data() + m_data.size());
    }
    ~DescriptorBuffer() override { DescriptorBuffer::sync(); }

protected:
    int_type overflow(int_type c) override {
        if (sync() != 0) return traits_type::eof();
        if (!traits_type::eq_int_type(c, traits_type::eof())) sputc(traits_type::to_char_type(c));
        return traits_type::not_eof(c);
    }
    int sync() override {
        const char* from = pbase();
        while (from < pptr()) {
            const ssize_t written = ::write(m_descriptor, from, static_cast<std::size_t>(pptr() - from));
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) return -1;
            from += written;
        }
        setp(m_data.data(), m_data.data() + m_data.size());
        return 0;
    }

private:
    int m_descriptor;
    std::array<char, 8192> m_data{};
};

void redirectStandardOutput(int target) {
    std::cout.flush();
    std::fflush(stdout);
    dup2(target, STDOUT_FILENO);
    close(target);
}

std::string trimmed(std::string text) {
    const char* blanks = " \t\r\n";
    text.erase(0, std::min(text.find_first_not_of(blanks), text.size()));
    text.erase(text.find_last_not_of(blanks) + 1);
    return text;
}

}  // namespace

void LogObserver::notifyLog(const char* message, VRK::MessageType type, VRK::DebugMessageType) {
    static constexpr std::array<const char*, 6> kNames = {"", "! ", "!! ", "ERROR ", "debug ", "WARNING "};
    const auto index = static_cast<std::size_t>(type);
    // The standard output is the log, so that messages and narration keep their order.
    std::cout << (index < kNames.size() ? kNames[index] : "") << message << '\n';
    if (type != VRK::Warning && type != VRK::Error && type != VRK::Critical) return;

    const std::string text = trimmed(message);
    if (text.empty()) return;
    if (type != VRK::Warning) m_lastError = text;
    if (logOnly && type == VRK::Warning) return;
    if (std::find(m_warnings.begin(), m_warnings.end(), text) != m_warnings.end()) return;
    m_warnings.push_back(text);
    if (!quiet) std::cerr << "vrk: " << (type == VRK::Warning ? "warning: " : "") << text << '\n';
}

ProgressObserver::ProgressObserver() : m_terminal(isatty(STDERR_FILENO) != 0) {}

void ProgressObserver::stage(std::string name) {
    m_stage = std::move(name);
}

void ProgressObserver::setSteps(int steps, std::string title) {
    VoxProgressObserver::setSteps(steps, title);
    m_lastPercent = -1;
}

void ProgressObserver::updateStep(int step) {
    if (interrupted) cancel();
    if (!m_terminal || steps() <= 0) return;
    const int percent = static_cast<int>(std::clamp(100LL * step / steps(), 0LL, 100LL));
    if (percent == m_lastPercent) return;
    m_lastPercent = percent;
    constexpr int width = 30;
    const int filled = percent * width / 100;
    std::cerr << '\r' << m_stage << " [" << std::string(static_cast<std::size_t>(filled), '#')
              << std::string(static_cast<std::size_t>(width - filled), '.') << "] " << percent << " %\x1b[K"
              << std::flush;
}

void ProgressObserver::logMessage(const char* message, Vox::MessageType) {
    std::cout << message << '\n';
}

void ProgressObserver::finish() {
    if (m_terminal && m_lastPercent >= 0) std::cerr << "\r\x1b[K" << std::flush;
    m_lastPercent = -1;
}

Host::Host() : m_stdout(dup(STDOUT_FILENO)) {
    m_buffer = std::make_unique<DescriptorBuffer>(m_stdout);
    m_out = std::make_unique<std::ostream>(m_buffer.get());
    redirectStandardOutput(open("/dev/null", O_WRONLY | O_CLOEXEC));
    catchInterrupts();
    VRKLogger::getInstance()->registerObserver(&m_log);
}

Host::~Host() {
    VRKLogger::getInstance()->registerObserver(nullptr);
    m_progress.finish();
    m_out->flush();
    close(m_stdout);
}

void Host::openLog(const std::filesystem::path& path, const std::vector<std::string>& headLines) {
    const int log = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666);
    if (log < 0)
        throw Failure("cannot write the log file " + path.string() + ": " + std::strerror(errno) +
                      "; check that the folder exists and may be written to");
    redirectStandardOutput(log);
    std::cout << "vrk " << VRK::kVersion << '\n';
    for (const std::string& line : headLines)
        std::cout << line << '\n';
}

void Host::warn(const std::string& text) {
    m_progress.finish();
    m_log.notifyLog(text.c_str(), VRK::Warning, VRK::Information);
}

std::vector<std::string> Host::warnings() const {
    return m_log.warnings();
}

void Host::checkCanceled() const {
    if (interrupted || m_progress.canceled()) throw Failure("stopped on request; nothing was written");
}

}  // namespace host
