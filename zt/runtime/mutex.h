/// @file
/// Mutual exclusion between the threads of one process.
///
/// @code
///     static zt::Mtx table_mtx;
///
///     table_mtx.lock();
///     table[slot] = nullptr;
///     table_mtx.unlock();
/// @endcode
#ifndef ZT_RUNTIME_MUTEX_H
#define ZT_RUNTIME_MUTEX_H

#include <pthread.h>
#include <zt/runtime/api.h>

namespace zt {

/// A lock that one thread at a time holds.
///
/// A static object of this class is ready before any constructor runs and still works in the destructors of
/// other static objects: it is constant-initialised and trivially destructible, so there is nothing to order.
/// It meets the needs of `std::lock_guard`. It cannot be copied or moved.
///
/// It is not recursive: a thread that locks it twice waits for itself for ever. It is not safe in a signal
/// handler. After a `fork` of a process with several threads, the child must not wait for a lock that another
/// thread may have held.
class ZT_API Mtx {
  public:
    constexpr Mtx() noexcept = default;
    ~Mtx() = default;
    Mtx(const Mtx&) = delete;
    Mtx& operator=(const Mtx&) = delete;

    /// Waits until no thread holds the lock, then holds it. `errno` is left alone.
    void lock() noexcept;

    /// Gives the lock back. Only the thread that holds it may do so. `errno` is left alone.
    void unlock() noexcept;

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace zt

#endif
