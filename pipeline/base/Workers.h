/// \file
/// The threads of the pipeline.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "foundation/WorkSharing.h"
#include "pipeline/base/RecordedMessages.h"

namespace vrk {

/// A loop that was shared, in seconds of processor time, which other programs on the machine do not lengthen.
struct SharedLoopCost {
    std::size_t items = 0;
    double all = 0.0;      ///< of all items together
    double longest = 0.0;  ///< of one item
};

/// Threads that share the loops of what the thread that made them calls while they live. Items are handed out
/// in their order to whoever is free; what they log is told in their order, in the thread that made the
/// workers. Where that thread has workers already, these stay without work.
class Workers : public VRK::WorkSharing {
public:
    /// \param jobs  lanes, the calling thread's included; 0: as many as the process has cores
    explicit Workers(int jobs);
    ~Workers() override;
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    std::size_t lanes() const override { return m_threads.size() + 1; }
    bool share(std::size_t items, const Work& work, const Progress& progress) override;

    class Aside;

    /// Cores that the process may use, at least 1.
    static int cores();

    /// The loops that were shared so far.
    const std::vector<SharedLoopCost>& loops() const { return m_loops; }
    /// What the thread that made the workers spent outside of items since then, seconds of processor time. To
    /// be asked in that thread.
    double secondsAlone() const;

private:
    struct Loop;

    void serve(const std::stop_token& stop, std::size_t lane);
    /// The loop whose next item a worker does; null when there is none.
    Loop* waiting() const;
    /// Does the next item of the loop. \param lock  of m_mutex; released while the item is worked on
    void doNext(Loop& loop, std::size_t lane, std::unique_lock<std::mutex>& lock);
    void attend(Loop& loop, std::unique_lock<std::mutex>& lock);

    std::mutex m_mutex;
    std::condition_variable_any m_wake;
    std::condition_variable m_changed;  ///< an item of the loop is done
    Loop* m_loop = nullptr;
    std::vector<Loop*> m_asides;  ///< of one item each, which workers do when the loop needs them no more
    std::vector<SharedLoopCost> m_loops;
    double m_start;          ///< of the thread that made the workers, seconds of processor time
    double m_inItems = 0.0;  ///< of that thread
    VRK::SharedWork m_lent;
    std::vector<std::jthread> m_threads;
};

/// Work that a thread goes on without until it needs what comes of it. A worker of the thread does it when no
/// loop needs it; where none came to it, it is done when it is asked for.
class Workers::Aside {
public:
    explicit Aside(Work work);
    /// Work that was begun is waited for, its failure forgotten; work that was not begun is left out.
    ~Aside();
    Aside(const Aside&) = delete;
    Aside& operator=(const Aside&) = delete;

    /// Returns when it is done, and tells what it logged. Throws what it threw. To be called once, in the
    /// thread that made it.
    void finish();

private:
    Work m_work;
    Workers* m_workers;  ///< null: none
    std::unique_ptr<Loop> m_loop;
};

}  // namespace vrk
