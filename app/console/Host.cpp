#include "console/Host.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <map>
#include <streambuf>
#include <system_error>

#include "console/Terminal.h"
#include "foundation/Version.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/OutputFile.h"

namespace vrk::app {
namespace {

volatile std::sig_atomic_t stopRequest = 0;

/// The first signal asks the running operation to stop, a second one ends the program at once.
void onStop(int signal) {
    if (stopRequest != 0) {
        OutputFile::removeAll();
        _exit(128 + signal);
    }
    stopRequest = signal;
}

void catchStopSignals() {
    struct sigaction action = {};
    action.sa_handler = onStop;
    action.sa_flags = static_cast<int>(SA_RESTART);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        // What the caller told the program to ignore, as nohup does, stays ignored.
        struct sigaction before = {};
        sigaction(signal, nullptr, &before);
        if (before.sa_handler != SIG_IGN || signal != SIGHUP) sigaction(signal, &action, nullptr);
    }
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

void ConsoleObserver::partBegan(int number, int count, const std::string& name, int stages) {
    m_progress.partBegan(number, count, name, stages);
}

void ConsoleObserver::partsEnded() {
    m_progress.partsEnded();
}

void ConsoleObserver::stageBegan(const std::string& name) {
    m_progress.stageBegan(name);
}

void ConsoleObserver::progressed(int step, int steps) {
    m_progress.progressed(step, steps);
}

void ConsoleObserver::stageEnded() {
    m_progress.stageEnded();
}

void ConsoleObserver::warned(const std::string& text, bool isError) {
    // The sentence with which a command ends says what an error of the library comes to.
    if (isError) {
        m_errors.push_back(text);
        return;
    }
    wipe();
    std::cerr << "vrk: warning: " << text << '\n';
}

void ConsoleObserver::tellErrors() {
    wipe();
    for (const std::string& text : m_errors)
        std::cerr << "vrk: warning: " << text << '\n';
    m_errors.clear();
}

void ConsoleObserver::openLog(const std::filesystem::path& path, LogLevel level) {
    m_level = level;
    // Appending, because the narration may go to the same file.
    m_log.open(path, std::ios::app);
    if (!m_log)
        throw Failure("cannot write the log file " + path.string() + ": " + std::strerror(errno) +
                      "; check that the folder exists and may be written to");
}

void ConsoleObserver::logged(const char* message, VRK::MessageType type) {
    struct Kind {
        const char* mark;
        LogLevel level;
    };
    static constexpr std::array<Kind, 6> kKinds = {{{"", LogLevel::Info},
                                                    {"! ", LogLevel::Info},
                                                    {"!! ", LogLevel::Error},
                                                    {"ERROR ", LogLevel::Error},
                                                    {"debug ", LogLevel::Debug},
                                                    {"WARNING ", LogLevel::Warning}}};
    const auto index = static_cast<std::size_t>(type);
    if (!m_log.is_open() || index >= kKinds.size() || kKinds[index].level > m_level) return;
    // Messages and narration keep their order.
    if (m_level == LogLevel::Debug) std::cout.flush();
    m_log << kKinds[index].mark << message << std::endl;
}

bool ConsoleObserver::canceled() {
    m_progress.tick();
    return stopRequest != 0;
}

Host::Host() : m_stdout(standardOutputAside()), m_session(m_observer) {
    m_buffer = std::make_unique<DescriptorBuffer>(m_stdout);
    m_out = std::make_unique<std::ostream>(m_buffer.get());
    catchStopSignals();
    limitMemory(memoryFromText("80%", freeMemory()) + residentMemory());
}

Host::~Host() {
    m_observer.wipe();
    m_out->flush();
    close(m_stdout);
}

int Host::columns() const {
    return columnsOf(m_stdout);
}

void Host::limitMemory(std::uint64_t bytes) {
    m_memory.reset();
    m_memory.emplace(bytes);
    m_mostMemory = bytes;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // their shadows take terabytes
    rlimit limit{};
    if (getrlimit(RLIMIT_DATA, &limit) != 0) return;
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, bytes);
    setrlimit(RLIMIT_DATA, &limit);
#endif
}

std::string Host::outOfMemory() const {
    return "more memory is needed than the " + memoryText(m_mostMemory) +
           " that may be taken (--max-memory); bin or sum the frames ('vrk import --bin 2'), or use a "
           "machine with more";
}

int Host::stopSignal() {
    return stopRequest;
}

void Host::openLog(const std::filesystem::path& path, const std::string& level,
                   const std::vector<std::string>& headLines) {
    const std::map<std::string, LogLevel> levels = {{"error", LogLevel::Error},
                                                    {"warning", LogLevel::Warning},
                                                    {"info", LogLevel::Info},
                                                    {"debug", LogLevel::Debug}};
    std::error_code ignored;
    if (std::filesystem::is_regular_file(path, ignored)) std::filesystem::resize_file(path, 0, ignored);
    m_observer.openLog(path, levels.at(level));
    if (levels.at(level) == LogLevel::Debug)
        redirectStandardOutput(open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    m_observer.writeHead(std::string("vrk ") + VRK::kVersion);
    for (const std::string& line : headLines)
        m_observer.writeHead(line);
}

void Host::closeLog() {
    redirectStandardOutput(open("/dev/null", O_WRONLY | O_CLOEXEC));
    m_observer.closeLog();
}

void Host::openLog(const LogOptions& options) {
    if (!options.file.empty()) openLog(options.file, options.level);
}

}  // namespace vrk::app
