#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace NuvekTool {

/// \brief The worker threads that compute `nuvek view`'s tiles.
///
/// Newest work first: the tiles a viewer asked for last are the ones on screen now; but a task that
/// has waited longer than `patience` goes first, so that steady new work cannot starve it. At most
/// `maxPending` tasks wait; submitting one more drops the oldest waiting task, whose `drop` runs
/// instead of its `run` (on the submitting thread). Destruction drops whatever still waits and joins
/// the threads after their current task.
class TileWorkers
{
public:
    TileWorkers(int threads, std::size_t maxPending);
    ~TileWorkers();
    TileWorkers(TileWorkers const&) = delete;
    TileWorkers& operator=(TileWorkers const&) = delete;

    void submit(std::function<void()> run, std::function<void()> drop);

    int getNumThreads() const { return static_cast<int>(threads.size()); }

private:
    struct Task
    {
        std::function<void()> run;
        std::function<void()> drop;
        std::chrono::steady_clock::time_point queued;
    };

    static constexpr std::chrono::milliseconds patience{500};

    void work();

    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Task> pending;
    std::size_t maxPending;
    bool stopping = false;
    std::vector<std::thread> threads;
};

} // namespace NuvekTool
