#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace Nuvek {

// Runs compute(index, worker) for indices 0..count-1 on the workers and hands the results to
// consume(index, bytes) on the calling thread, in index order. At most `window` results wait to
// be consumed. Returns false when consume asked to stop; rethrows the first exception.
template <typename Worker, typename Compute, typename Consume>
bool runInOrder(long long count, std::vector<Worker>& workers, long long window, Compute compute, Consume consume)
{
    std::mutex mutex;
    std::condition_variable changed;
    long long handedOut = 0;
    long long consumed = 0;
    bool stop = false;
    std::exception_ptr error;
    std::vector<std::vector<unsigned char>> ring(static_cast<std::size_t>(window));
    std::vector<bool> ready(static_cast<std::size_t>(window), false);

    auto work = [&](Worker& worker) {
        std::vector<unsigned char> encoded;
        while (true)
        {
            long long index;
            {
                std::unique_lock<std::mutex> lock(mutex);
                changed.wait(lock, [&] { return stop || handedOut >= count || handedOut < consumed + window; });
                if (stop || handedOut >= count)
                    return;
                index = handedOut++;
            }
            try
            {
                compute(worker, index, encoded);
            }
            catch (...)
            {
                std::lock_guard<std::mutex> lock(mutex);
                if (!error)
                    error = std::current_exception();
                stop = true;
                changed.notify_all();
                return;
            }
            std::lock_guard<std::mutex> lock(mutex);
            std::size_t const slot = static_cast<std::size_t>(index % window);
            ring[slot].swap(encoded);
            ready[slot] = true;
            changed.notify_all();
        }
    };

    std::vector<std::thread> threads;
    threads.reserve(workers.size());
    for (Worker& worker : workers)
        threads.emplace_back(work, std::ref(worker));

    bool completed = true;
    std::vector<unsigned char> bytes;
    for (long long index = 0; index < count; ++index)
    {
        {
            std::unique_lock<std::mutex> lock(mutex);
            std::size_t const slot = static_cast<std::size_t>(index % window);
            changed.wait(lock, [&] { return stop || ready[slot]; });
            if (stop)
                break;
            bytes.swap(ring[slot]);
            ready[slot] = false;
            consumed = index + 1;
            changed.notify_all();
        }
        bool keepGoing = false;
        try
        {
            keepGoing = consume(index, bytes);
        }
        catch (...)
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (!error)
                error = std::current_exception();
            stop = true;
            changed.notify_all();
            break;
        }
        if (!keepGoing)
        {
            std::lock_guard<std::mutex> lock(mutex);
            stop = true;
            completed = false;
            changed.notify_all();
            break;
        }
    }
    for (std::thread& thread : threads)
        thread.join();
    if (error)
        std::rethrow_exception(error);
    return completed;
}

} // namespace Nuvek
