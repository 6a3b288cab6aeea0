#include "view/TileWorkers.h"

#include <algorithm>

namespace NuvekTool {

TileWorkers::TileWorkers(int count, std::size_t maxPending) : maxPending(std::max<std::size_t>(1, maxPending))
{
    for (int i = 0; i < std::max(1, count); ++i)
        threads.emplace_back([this] { work(); });
}

TileWorkers::~TileWorkers()
{
    std::deque<Task> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
        dropped.swap(pending);
    }
    wake.notify_all();
    for (Task& task : dropped)
        task.drop();
    for (std::thread& thread : threads)
        thread.join();
}

void TileWorkers::submit(std::function<void()> run, std::function<void()> drop)
{
    std::deque<Task> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping)
        {
            dropped.push_back(Task{std::move(run), std::move(drop), {}});
        }
        else
        {
            pending.push_back(Task{std::move(run), std::move(drop), std::chrono::steady_clock::now()});
            while (pending.size() > maxPending)
            {
                dropped.push_back(std::move(pending.front()));
                pending.pop_front();
            }
        }
    }
    wake.notify_one();
    for (Task& task : dropped)
        task.drop();
}

void TileWorkers::work()
{
    for (;;)
    {
        Task task;
        {
            std::unique_lock<std::mutex> lock(mutex);
            wake.wait(lock, [this] { return stopping || !pending.empty(); });
            if (pending.empty())
                return;
            if (std::chrono::steady_clock::now() - pending.front().queued > patience)
            {
                task = std::move(pending.front());
                pending.pop_front();
            }
            else
            {
                task = std::move(pending.back());
                pending.pop_back();
            }
        }
        task.run();
    }
}

} // namespace NuvekTool
