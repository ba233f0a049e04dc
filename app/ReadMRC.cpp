#include "ReadMRC.h"

#include <iostream>
#include <string>

#include "Failure.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"

namespace host {
namespace {

/// Keeps library messages off the standard error stream while it lives.
class QuietLog {
public:
    explicit QuietLog(LogObserver& log) : m_log(log), m_before(log.quiet) { m_log.quiet = true; }
    ~QuietLog() { m_log.quiet = m_before; }
    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;

private:
    LogObserver& m_log;
    bool m_before;
};

std::string withoutErrorMark(std::string text) {
    const std::string mark = "ERROR: ";
    if (text.starts_with(mark)) text.erase(0, mark.size());
    return text;
}

}  // namespace

std::unique_ptr<VoxMRCData> readMRC(Host& host, const std::filesystem::path& path) {
    const std::size_t warningsBefore = host.warnings().size();
    VoxMRCFileHandler handler;
    handler.registerObserver(&host.progress());
    host.progress().stage("read");
    std::unique_ptr<VoxMRCData> data;
    {
        // A refusal is one line on the standard error stream: that of the Failure.
        const QuietLog quiet(host.log());
        data.reset(handler.readMRCFile(path.string()));
    }
    host.progress().finish();
    if (!data) {
        host.checkCanceled();
        throw Failure(withoutErrorMark(host.log().lastError()));
    }
    if (!host.log().quiet) {
        const std::vector<std::string> warnings = host.warnings();
        for (std::size_t i = warningsBefore; i < warnings.size(); ++i)
            std::cerr << "vrk: warning: " << withoutErrorMark(warnings[i]) << '\n';
    }
    return data;
}

}  // namespace host
