#include <sys/mman.h>
#include <unistd.h>
#include <zt/runtime/errno_guard.h>
#include <zt/runtime/memory.h>
#include <zt/runtime/trace.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

/// Stands right before each block.
struct alignas(16) Header {
    std::size_t size;      // as the caller asked
    std::size_t capacity;  // as malloc gave it, this header included
    std::int32_t memory_class;
    std::uint32_t mark;
};
static_assert(sizeof(Header) % 16 == 0, "the block behind it keeps malloc's alignment");

constexpr std::uint32_t block_mark = 0x7a746d62;
constexpr std::size_t largest_block = static_cast<std::size_t>(PTRDIFF_MAX) / 2;

/// From this size on a block that grows gets room ahead, and so much of it: the price in memory is at most
/// that.
constexpr std::size_t large_block = std::size_t{1} << 20;
constexpr std::size_t room_ahead = std::size_t{1} << 20;

/// Bytes in use. Counters only, nothing is published through them.
std::atomic<std::size_t> bytes_in_use[ZT_MEM_CLASSES];

bool is_class(int memory_class)
{
    return memory_class >= 0 && memory_class < ZT_MEM_CLASSES;
}

/// Failures leave through here: null, with the reason in errno.
void* fail(int error)
{
    errno = error;
    return nullptr;
}

/// count * size, or more than any block may have.
std::size_t array_size(std::size_t count, std::size_t size)
{
    std::size_t bytes;
    return __builtin_mul_overflow(count, size, &bytes) ? SIZE_MAX : bytes;
}

void* enter(Header* header, int memory_class, std::size_t size, std::size_t capacity,
            std::size_t size_before = 0)
{
    *header = {size, capacity, memory_class, block_mark};
    // Unsigned arithmetic wraps, so that this takes away from the count where a block became smaller.
    bytes_in_use[memory_class].fetch_add(size - size_before, std::memory_order_relaxed);
    return header + 1;
}

/// The header of a block that was taken with this class; otherwise null, and the trace tells why.
Header* owned(int memory_class, void* block, const char* routine, const char* file, int line)
{
    Header* header = static_cast<Header*>(block) - 1;
    if (header->mark == block_mark && header->memory_class == memory_class) return header;
    const char* const caller = file ? file : "?";
    if (header->mark == block_mark) {
        zt_trace_msg("   %s: block %p of class %d was given back as class %d at %s:%d, so it is kept",
                     routine, block, header->memory_class, memory_class, caller, line);
    } else {
        zt_trace_msg("   %s: %p, given back at %s:%d, is no block of this allocator, so it is left alone",
                     routine, block, caller, line);
    }
    return nullptr;
}

struct Room {
    Header* header;
    std::size_t capacity;
};

/// Has the pages of a range faulted in at one go. Where the system refuses, they come one by one as ever.
void fault_in(char* begin, char* end)
{
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::uintptr_t first = (reinterpret_cast<std::uintptr_t>(begin) + page - 1) / page * page;
    const std::uintptr_t last = reinterpret_cast<std::uintptr_t>(end) / page * page;
    if (first < last) madvise(reinterpret_cast<void*>(first), last - first, MADV_POPULATE_WRITE);
}

/// A large block that grows gets some room ahead. In a buffer that grows by a little again and again the
/// fresh pages decide the cost, more than the resizing (realloc moves pages, not bytes).
Room make_room(Header* old, std::size_t needed)
{
    const std::size_t capacity = old ? old->capacity : 0;
    if (needed > large_block && needed <= capacity && capacity - needed <= room_ahead) return {old, capacity};
    if (old && needed > large_block && needed > capacity) {
        const std::size_t generous = needed + room_ahead;
        if (auto* header = static_cast<Header*>(std::realloc(old, generous))) {
            char* const begin = reinterpret_cast<char*>(header);
            fault_in(begin + capacity, begin + generous);
            return {header, generous};
        }
    }
    return {static_cast<Header*>(std::realloc(old, needed)), needed};
}

/// Resizes a block, or takes one when there is no old one. Bytes beyond the old size are not defined.
void* resize(int memory_class, void* old, std::size_t size, const char* routine, const char* file, int line)
{
    Header* const header = old ? owned(memory_class, old, routine, file, line) : nullptr;
    if (old ? !header : !is_class(memory_class)) return fail(EINVAL);
    if (size > largest_block) return fail(ENOMEM);

    const int error = errno;
    const std::size_t size_before = header ? header->size : 0;
    const Room room = make_room(header, sizeof(Header) + size);
    if (!room.header) return fail(ENOMEM);
    errno = error;
    return enter(room.header, memory_class, size, room.capacity, size_before);
}

}  // namespace

extern "C" void* zt_mem_icalloc(int memory_class, std::size_t count, std::size_t size, int, const char*, int)
{
    if (!is_class(memory_class)) return fail(EINVAL);
    const std::size_t bytes = array_size(count, size);
    if (bytes > largest_block) return fail(ENOMEM);

    const int error = errno;
    auto* header = static_cast<Header*>(std::calloc(1, sizeof(Header) + bytes));
    if (!header) return fail(ENOMEM);
    errno = error;
    return enter(header, memory_class, bytes, sizeof(Header) + bytes);
}

extern "C" void* zt_mem_irecalloc(int memory_class, void* old, std::size_t count, std::size_t size,
                                  std::size_t old_count, int, const char* file, int line)
{
    const std::size_t bytes = array_size(count, size);
    // Read before the resize, but only believed after it: it has made sure that the block is ours.
    const std::size_t old_bytes = old ? (static_cast<Header*>(old) - 1)->size : 0;
    void* resized = resize(memory_class, old, bytes, "zt_mem_irecalloc", file, line);
    if (!resized) return nullptr;

    const std::size_t kept = std::min(array_size(old_count, size), old_bytes);
    if (bytes > kept) std::memset(static_cast<char*>(resized) + kept, 0, bytes - kept);
    return resized;
}

extern "C" void* zt_mem_irealloc(int memory_class, void* old, std::size_t size, int, const char* file,
                                 int line)
{
    return resize(memory_class, old, size, "zt_mem_irealloc", file, line);
}

extern "C" void zt_mem_ifree(int memory_class, void* block, const char* file, int line)
{
    if (!block) return;
    const zt::ErrnoGuard keep;
    Header* header = owned(memory_class, block, "zt_mem_ifree", file, line);
    if (!header) return;
    bytes_in_use[memory_class].fetch_sub(header->size, std::memory_order_relaxed);
    header->mark = 0;
    std::free(header);
}

extern "C" int zt_heapsize(void)
{
    std::size_t total = 0;
    for (const auto& bytes : bytes_in_use) total += bytes.load(std::memory_order_relaxed);
    return static_cast<int>(std::min<std::size_t>(total, INT_MAX));
}

extern "C" long zt_heapsize_class(int memory_class)
{
    if (!is_class(memory_class)) return 0;
    return static_cast<long>(bytes_in_use[memory_class].load(std::memory_order_relaxed));
}
