#include <nuvek/core/LockGuard.h>

namespace Nuvek {

LockGuard::LockGuard(Lock& lock) : lock(lock)
{
    lock.mutex.lock();
}

LockGuard::~LockGuard()
{
    lock.mutex.unlock();
}

} // namespace Nuvek
