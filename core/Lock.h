#pragma once

#include <mutex>

namespace Nuvek {

class LockGuard;

/// \brief A mutex that an object holds as a member; acquired and released through LockGuard.
class Lock
{
public:
    Lock() = default;
    Lock(Lock const&) = delete;
    Lock& operator=(Lock const&) = delete;

private:
    friend class LockGuard;
    std::mutex mutex;
};

} // namespace Nuvek
