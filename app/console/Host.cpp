#include "console/Host.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <streambuf>

#include "foundation/Version.h"
#include "pipeline/base/Failure.h"

namespace vrk::app {
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

/// Moves the standard output to another descriptor and leaves nothing in its place.
int standardOutputAside() {
    const int aside = dup(STDOUT_FILENO);
    redirectStandardOutput(open("/dev/null", O_WRONLY | O_CLOEXEC));
    return aside;
}

}  // namespace

ConsoleObserver::ConsoleObserver() : m_terminal(isatty(STDERR_FILENO) != 0) {}

void ConsoleObserver::stageBegan(const std::string& name) {
    m_stage = name;
    m_lastPercent = -1;
}

void ConsoleObserver::progressed(int step, int steps) {
    if (!m_terminal || steps <= 0) return;
    const int percent = static_cast<int>(std::clamp(100LL * step / steps, 0LL, 100LL));
    if (percent == m_lastPercent) return;
    m_lastPercent = percent;
    constexpr int width = 30;
    const int filled = percent * width / 100;
    std::cerr << '\r' << m_stage << " [" << std::string(static_cast<std::size_t>(filled), '#')
              << std::string(static_cast<std::size_t>(width - filled), '.') << "] " << percent << " %\x1b[K"
              << std::flush;
}

void ConsoleObserver::stageEnded() {
    wipe();
}

void ConsoleObserver::wipe() {
    if (m_terminal && m_lastPercent >= 0) std::cerr << "\r\x1b[K" << std::flush;
    m_lastPercent = -1;
}

void ConsoleObserver::warned(const std::string& text, bool isError) {
    wipe();
    std::cerr << "vrk: " << (isError ? "" : "warning: ") << text << '\n';
}

void ConsoleObserver::logged(const char* message, VRK::MessageType type) {
    static constexpr std::array<const char*, 6> kNames = {"", "! ", "!! ", "ERROR ", "debug ", "WARNING "};
    const auto index = static_cast<std::size_t>(type);
    // The standard output is the log, so that messages and narration keep their order.
    std::cout << (index < kNames.size() ? kNames[index] : "") << message << '\n';
}

bool ConsoleObserver::canceled() {
    return interrupted != 0;
}

Host::Host() : m_stdout(standardOutputAside()), m_session(m_observer) {
    m_buffer = std::make_unique<DescriptorBuffer>(m_stdout);
    m_out = std::make_unique<std::ostream>(m_buffer.get());
    catchInterrupts();
}

Host::~Host() {
    m_observer.wipe();
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

}  // namespace vrk::app
