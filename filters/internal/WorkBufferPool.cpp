#include "filters/internal/WorkBufferPool.h"

#include <nuvek/core/LockGuard.h>

#include <utility>

namespace Nuvek {

WorkBufferPool::Loan::Loan(WorkBufferPool& pool, std::vector<double> values) : pool(pool), values(std::move(values))
{
}

WorkBufferPool::Loan::~Loan()
{
    pool.giveBack(values);
}

WorkBufferPool::WorkBufferPool(std::size_t retained) : retained(retained)
{
}

WorkBufferPool::Loan WorkBufferPool::take()
{
    std::vector<double> values;
    {
        LockGuard guard(lock);
        if (!idle.empty())
        {
            values = std::move(idle.back());
            idle.pop_back();
        }
    }
    return Loan(*this, std::move(values));
}

std::size_t WorkBufferPool::getLastReturnedSize() const
{
    LockGuard guard(lock);
    return lastReturnedSize;
}

void WorkBufferPool::giveBack(std::vector<double>& values)
{
    // Cut outside the lock: resize never allocates when it shrinks.
    if (values.size() > retained)
        values.resize(retained);
    LockGuard guard(lock);
    lastReturnedSize = values.size();
    // A failed push_back leaves the buffer with the loan, which frees it; nothing else is lost.
    try
    {
        idle.push_back(std::move(values));
    }
    catch (...)
    {
    }
}

} // namespace Nuvek
