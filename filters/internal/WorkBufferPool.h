#pragma once

#include <nuvek/core/Lock.h>

#include <cstddef>
#include <vector>

namespace Nuvek {

/// \brief Work buffers that a filter reuses from call to call without making its calls wait for each
/// other: every call borrows a buffer of its own, and the lock is held only to take or give one back.
///
/// A returned buffer is cut to at most `retained` values (its storage is kept), also when the call
/// ends with an exception, so that one very large request does not keep a large buffer alive. The pool
/// keeps one idle buffer per call that ran at the same time as others; one thread at a time is served
/// by one buffer, reused exactly as a single cache would be.
class WorkBufferPool
{
public:
    /// One borrowed buffer, given back to its pool when the loan ends.
    class Loan
    {
    public:
        Loan(Loan const&) = delete;
        Loan& operator=(Loan const&) = delete;
        ~Loan();

        std::vector<double>& buffer() { return values; }

    private:
        friend class WorkBufferPool;
        Loan(WorkBufferPool& pool, std::vector<double> values);

        WorkBufferPool& pool;
        std::vector<double> values;
    };

    explicit WorkBufferPool(std::size_t retained);
    WorkBufferPool(WorkBufferPool const&) = delete;
    WorkBufferPool& operator=(WorkBufferPool const&) = delete;

    /// An idle buffer, as the last call that used it left it, or an empty one when none is idle.
    Loan take();

    /// The number of values the most recently returned buffer holds (0 before any).
    std::size_t getLastReturnedSize() const;

private:
    void giveBack(std::vector<double>& values);

    std::size_t retained;
    std::vector<std::vector<double>> idle;
    std::size_t lastReturnedSize = 0;
    mutable Lock lock;
};

} // namespace Nuvek
