#include <zt/runtime/mutex.h>

#include <type_traits>

namespace zt {

static_assert(std::is_trivially_destructible_v<Mtx>, "static destructors still lock");

// A plain mutex that is used as agreed has no failure to report.
void Mtx::lock() noexcept
{
    pthread_mutex_lock(&mutex_);
}

void Mtx::unlock() noexcept
{
    pthread_mutex_unlock(&mutex_);
}

}  // namespace zt
