#include "pipeline/batch/JobRun.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <system_error>

#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/batch/BatchPlan.h"
#include "pipeline/batch/ChildProcess.h"
#include "pipeline/batch/JobLock.h"
#include "pipeline/batch/Thumbnail.h"

namespace vrk {
namespace {

namespace fs = std::filesystem;

constexpr int kNothingFound = 3;
constexpr int kSignal = 128;
constexpr int kKilled = kSignal + 9;

std::string hostName() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

/// The sentence that the program ended with. The lines behind it say where files are.
std::string messageOf(const std::string& lastWords) {
    std::istringstream lines(lastWords);
    std::string message;
    for (std::string line; std::getline(lines, line);) {
        constexpr std::string_view kWarning = "vrk: warning: ";
        constexpr std::string_view kSays = "vrk: ";
        if (line.starts_with(kSays) && !line.starts_with(kWarning)) message = line.substr(kSays.size());
    }
    return message;
}

std::string causeOf(const std::string& what, const ChildEnd& end) {
    if (std::string message = messageOf(end.lastWords); !message.empty()) return message;
    if (end.exitCode == kKilled)
        return what + " was killed; its memory may not have been enough, the next attempt asks for more";
    if (end.exitCode > kSignal)
        return what + " was ended by signal " + std::to_string(end.exitCode - kSignal);
    return what + " ended with code " + std::to_string(end.exitCode);
}

std::vector<std::string> joined(std::vector<std::string> words, const std::vector<std::string>& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

/// One line, written at once, so that those of several jobs do not mix.
void writeDiary(const BatchFolder& folder, const std::string& name, const JobRecord& record) {
    std::string line = name + '\t' + nameOf(record.outcome) + formatted("\t%.1f s", record.seconds);
    if (!record.cause.empty()) line += '\t' + record.cause.substr(0, record.cause.find('\n'));
    line += '\n';
    const int file = open(folder.diary().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (file < 0) return;
    [[maybe_unused]] const ssize_t written = write(file, line.data(), line.size());
    close(file);
}

class JobRun {
public:
    JobRun(const BatchJob& job, const JobContext& context, Session& session)
        : m_job(job), m_context(context), m_session(session), m_scratch(context.folder.scratch(job.name)) {}
    ~JobRun() {
        std::error_code ignored;
        fs::remove_all(m_scratch, ignored);
    }
    JobRun(const JobRun&) = delete;
    JobRun& operator=(const JobRun&) = delete;

    void fill(JobRecord& record) {
        const ChildEnd end = process();
        // Who asked this process to stop has not asked for a verdict on the series.
        m_session.checkCanceled();
        record.outcome = end.exitCode == 0               ? JobOutcome::Done
                         : end.exitCode == kNothingFound ? JobOutcome::NothingFound
                                                         : JobOutcome::Failed;
        if (record.outcome != JobOutcome::Done) record.cause = causeOf(m_step, end);
        if (end.exitCode != kKilled) record.unended = 0;
    }

private:
    ChildEnd process() {
        fs::path series = m_job.series.input;
        if (m_job.series.needsImport) {
            makeFolder(m_scratch);
            series = m_scratch / "series.mrc";
            m_step = "vrk import";
            ChildEnd end = inProcess([&] {
                return m_context.program(
                    joined({"import", m_job.series.input.string(), "-o", series.string()},
                           importWords(m_job, m_context.kinds)));
            });
            if (end.exitCode != 0) return end;
        }
        m_step = "vrk run";
        const fs::path result = m_context.folder.result(m_job.name);
        return inProcess([&] {
            const int code = m_context.program(
                joined({"run", series.string(), "-o", result.string()}, runWords(m_job, m_context.kinds)));
            if (code == 0) writeThumbnail(result, m_context.folder.thumbnail(m_job.name));
            return code;
        });
    }

    ChildEnd inProcess(const std::function<int()>& work) const {
        ChildCommand child;
        child.work = work;
        return runChild(child, [this] { return m_session.canceled(); });
    }

    const BatchJob& m_job;
    const JobContext& m_context;
    Session& m_session;
    fs::path m_scratch;
    std::string m_step;
};

}  // namespace

JobRecord runJob(const std::string& name, const JobContext& context, Session& session) {
    using Clock = std::chrono::steady_clock;
    const BatchFolder& folder = context.folder;
    const BatchJob job = readJob(folder, name);
    const fs::path path = folder.record(name);
    makeFolder(path.parent_path());
    makeFolder(folder.scratch(name).parent_path());
    const JobLock lock(folder.scratch(name).parent_path() / "locks", name);
    const std::string settings = settingsKey(job.options, context.version);
    JobRecord record = readRecord(path);
    JobRecord next;
    const Clock::time_point start = Clock::now();
    try {
        const bool isSame = isCurrent(record, settings, job.series.input);
        const bool isThere =
            record.outcome == JobOutcome::NothingFound || fs::exists(folder.result(name) / "summary.json");
        if (isSame && record.hasResult() && isThere) return record;
        next.attempts = record.attempts + 1;
        // Who finds this record knows that the attempt ended without a word.
        next.unended = isSame && record.outcome == JobOutcome::Started ? record.unended + 1 : 1;
        next.outcome = JobOutcome::Started;
        next.settings = settings;
        next.stamp = stampOf(job.series.input);
        next.content = contentKey(job.series.input);
        next.host = hostName();
        next.cause =
            "it ended without a word, as it does when it runs into a limit of memory or time, or when "
            "its machine stops; the next attempt asks for more";
        writeRecord(next, path);
        next.cause.clear();
        JobRun(job, context, session).fill(next);
    } catch (const Failure& failure) {
        if (failure.kind() == FailureKind::Canceled) {
            // Slurm stops jobs at their limits as well, a user does it alone.
            if (std::getenv("SLURM_JOB_ID")) throw;
            next.outcome = JobOutcome::Failed;
            next.cause = "it was stopped";
            next.unended = std::max(next.unended - 1, 0);
            writeRecord(next, path);
            throw;
        }
        next.outcome = JobOutcome::Failed;
        next.cause = failure.what();
        next.settings = settings;
        next.unended = 0;
    }
    next.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    writeRecord(next, path);
    writeDiary(folder, name, next);
    return next;
}

}  // namespace vrk
