#pragma once

#include <nuvek/core/Lock.h>

namespace Nuvek {

/// \brief Holds a Lock from construction to destruction.
class LockGuard
{
public:
    explicit LockGuard(Lock& lock);
    LockGuard(LockGuard const&) = delete;
    LockGuard& operator=(LockGuard const&) = delete;
    ~LockGuard();

private:
    Lock& lock;
};

} // namespace Nuvek
