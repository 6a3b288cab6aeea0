#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace Nuvek {

namespace OrderedWorkDetail {

// What the workers and the consuming thread share: which index goes out next, which results wait
// in the ring of `window` slots, and whether (and why) the run stops early.
class Shared
{
public:
    Shared(long long count, long long window)
        : count(count), window(window), ring(static_cast<std::size_t>(window)),
          ready(static_cast<std::size_t>(window), false)
    {
    }

    // The next index to compute, or -1 once the run stops or every index is out. Waits while the
    // window is full.
    long long takeNext()
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return stop || handedOut >= count || handedOut < consumed + window; });
        if (stop || handedOut >= count)
            return -1;
        return handedOut++;
    }

    // Stores a computed result in its slot; `bytes` gets the slot's old buffer back for reuse.
    void publish(long long index, std::vector<unsigned char>& bytes)
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::size_t const slot = slotOf(index);
        ring[slot].swap(bytes);
        ready[slot] = true;
        changed.notify_all();
    }

    // Waits for the result of `index` and moves it into `bytes`; false when the run stopped first.
    bool collect(long long index, std::vector<unsigned char>& bytes)
    {
        std::unique_lock<std::mutex> lock(mutex);
        std::size_t const slot = slotOf(index);
        changed.wait(lock, [&] { return stop || ready[slot]; });
        if (stop)
            return false;
        bytes.swap(ring[slot]);
        ready[slot] = false;
        consumed = index + 1;
        changed.notify_all();
        return true;
    }

    // Stops the run; the first exception recorded is the one rethrown at the end.
    void fail(std::exception_ptr exception)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (exception && !error)
            error = exception;
        stop = true;
        changed.notify_all();
    }

    void rethrowAnyError() const
    {
        if (error)
            std::rethrow_exception(error);
    }

private:
    std::size_t slotOf(long long index) const { return static_cast<std::size_t>(index % window); }

    long long const count;
    long long const window;
    std::mutex mutex;
    std::condition_variable changed;
    long long handedOut = 0;
    long long consumed = 0;
    bool stop = false;
    std::exception_ptr error;
    std::vector<std::vector<unsigned char>> ring;
    std::vector<bool> ready;
};

} // namespace OrderedWorkDetail

// Runs compute(worker, index, bytes) for indices 0..count-1 on the workers and hands the results to
// consume(index, bytes) on the calling thread, in index order. At most `window` results wait to
// be consumed. Returns false when consume asked to stop; rethrows the first exception.
template <typename Worker, typename Compute, typename Consume>
bool runInOrder(long long count, std::vector<Worker>& workers, long long window, Compute compute, Consume consume)
{
    OrderedWorkDetail::Shared shared(count, window);

    // Each worker computes the indices it takes until none is left or the run stops.
    auto work = [&](Worker& worker) {
        std::vector<unsigned char> bytes;
        for (long long index = shared.takeNext(); index >= 0; index = shared.takeNext())
        {
            try
            {
                compute(worker, index, bytes);
            }
            catch (...)
            {
                shared.fail(std::current_exception());
                return;
            }
            shared.publish(index, bytes);
        }
    };
    std::vector<std::thread> threads;
    threads.reserve(workers.size());
    for (Worker& worker : workers)
        threads.emplace_back(work, std::ref(worker));

    // The calling thread consumes the results in order.
    bool completed = true;
    std::vector<unsigned char> bytes;
    for (long long index = 0; index < count && shared.collect(index, bytes); ++index)
    {
        bool keepGoing = false;
        try
        {
            keepGoing = consume(index, bytes);
        }
        catch (...)
        {
            shared.fail(std::current_exception());
            break;
        }
        if (!keepGoing)
        {
            completed = false;
            shared.fail(nullptr);
            break;
        }
    }
    for (std::thread& thread : threads)
        thread.join();
    shared.rethrowAnyError();
    return completed;
}

} // namespace Nuvek
