#include "pipeline/base/Workers.h"

#include <algorithm>
#include <ctime>

#ifdef __linux__
#include <sched.h>
#endif

#include "foundation/Narration.h"
#include "foundation/VRKLogger.h"

namespace vrk {
namespace {

/// Processor time of this thread.
double threadSeconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

}  // namespace

struct Workers::Loop {
    Loop(std::size_t count, const Work& does) : items(count), work(does), states(count) {}

    bool hasNext() const { return !stopped && next < items; }
    bool isOver() const { return busy == 0 && !hasNext(); }

    struct Item {
        bool done = false;
        RecordedMessages messages;
        std::exception_ptr failure;
    };

    const std::size_t items;
    const Work& work;
    std::vector<Item> states;
    std::size_t next = 0;  ///< first that was not handed out
    std::size_t done = 0;  ///< first that is not done, or not told yet
    std::size_t busy = 0;
    bool stopped = false;
    SharedLoopCost cost;
};

Workers::Workers(int jobs)
    : m_start(threadSeconds()), m_lent(WorkSharing::ofThisThread() ? WorkSharing::ofThisThread() : this) {
    // The logger is made by whoever asks for it first.
    VRKLogger::getInstance();
    if (WorkSharing::ofThisThread() != this) return;
    const int threads = (jobs > 0 ? jobs : cores()) - 1;
    for (int i = 0; i < threads; ++i)
        m_threads.emplace_back(
            [this, i](const std::stop_token& stop) { serve(stop, static_cast<std::size_t>(i) + 1); });
}

Workers::~Workers() = default;

int Workers::cores() {
#ifdef __linux__
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) == 0) return std::max(CPU_COUNT(&set), 1);
#endif
    return std::max(static_cast<int>(std::thread::hardware_concurrency()), 1);
}

double Workers::secondsAlone() const {
    return threadSeconds() - m_start - m_inItems;
}

Workers::Loop* Workers::waiting() const {
    if (m_loop && m_loop->hasNext()) return m_loop;
    const auto aside =
        std::find_if(m_asides.begin(), m_asides.end(), [](const Loop* loop) { return loop->hasNext(); });
    return aside == m_asides.end() ? nullptr : *aside;
}

void Workers::serve(const std::stop_token& stop, std::size_t lane) {
    std::unique_lock lock(m_mutex);
    while (m_wake.wait(lock, stop, [this] { return waiting() != nullptr; }))
        doNext(*waiting(), lane, lock);
}

void Workers::doNext(Loop& loop, std::size_t lane, std::unique_lock<std::mutex>& lock) {
    Loop::Item& item = loop.states[loop.next];
    const std::size_t number = loop.next++;
    ++loop.busy;
    lock.unlock();
    const double start = threadSeconds();
    try {
        const RecordedMessages::Recording recording(item.messages);
        const VRK::SharedWork alone(nullptr);
        const VRK::QuietNarration quiet;
        loop.work(number, lane);
    } catch (...) {
        item.failure = std::current_exception();
    }
    const double seconds = threadSeconds() - start;
    lock.lock();
    loop.cost.all += seconds;
    loop.cost.longest = std::max(loop.cost.longest, seconds);
    if (lane == 0) m_inItems += seconds;
    --loop.busy;
    item.done = true;
    loop.stopped = loop.stopped || item.failure;
    m_changed.notify_all();
}

/// Tells what the items logged that are done with all before them. Throws what the first of them threw that
/// failed.
void Workers::attend(Loop& loop, std::unique_lock<std::mutex>& lock) {
    while (loop.done < loop.items && loop.states[loop.done].done) {
        Loop::Item& item = loop.states[loop.done++];
        lock.unlock();
        item.messages.tell();
        if (item.failure) std::rethrow_exception(item.failure);
        lock.lock();
    }
}

bool Workers::share(std::size_t items, const Work& work, const Progress& progress) {
    Loop loop(items, work);
    std::unique_lock lock(m_mutex);
    m_loop = &loop;
    std::exception_ptr failure;
    try {
        m_wake.notify_all();
        std::size_t told = items;
        while (true) {
            attend(loop, lock);
            if (loop.done != told && loop.done < items) {
                told = loop.done;
                lock.unlock();
                const bool goesOn = progress(told);
                lock.lock();
                loop.stopped = loop.stopped || !goesOn;
            }
            if (loop.hasNext())
                doNext(loop, 0, lock);
            else if (loop.isOver())
                break;
            else if (!loop.states[loop.done].done)
                m_changed.wait(lock);
        }
        attend(loop, lock);
    } catch (...) {
        failure = std::current_exception();
        if (!lock.owns_lock()) lock.lock();
        loop.stopped = true;
    }
    m_changed.wait(lock, [&loop] { return loop.busy == 0; });
    m_loop = nullptr;
    loop.cost.items = items;
    m_loops.push_back(loop.cost);
    if (failure) std::rethrow_exception(failure);
    return loop.done == items;
}

Workers::Aside::Aside(Work work)
    : m_work(std::move(work)), m_workers(dynamic_cast<Workers*>(WorkSharing::ofThisThread())) {
    if (!m_workers) return;
    m_loop = std::make_unique<Loop>(1, m_work);
    const std::lock_guard lock(m_workers->m_mutex);
    m_workers->m_asides.push_back(m_loop.get());
    m_workers->m_wake.notify_one();
}

Workers::Aside::~Aside() {
    if (!m_loop) return;
    std::unique_lock lock(m_workers->m_mutex);
    std::erase(m_workers->m_asides, m_loop.get());
    m_workers->m_changed.wait(lock, [this] { return m_loop->busy == 0; });
}

void Workers::Aside::finish() {
    if (!m_workers) return m_work(0, 0);
    std::unique_lock lock(m_workers->m_mutex);
    if (m_loop->hasNext()) m_workers->doNext(*m_loop, 0, lock);
    m_workers->m_changed.wait(lock, [this] { return m_loop->busy == 0; });
    m_loop->cost.items = 1;
    m_workers->m_loops.push_back(m_loop->cost);
    m_workers->attend(*m_loop, lock);
}

}  // namespace vrk
