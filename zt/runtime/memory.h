/// @file
/// Memory with an account: every block belongs to a class, and the bytes in use are known by class.
///
/// A class is a number from 0 to ZT_MEM_CLASSES - 1 that says what the memory is for (1 is the table of
/// handles, 2 is what belongs to one pipe). A block is resized and freed with the class it was taken with.
/// A call that names another class, or a block that is not one of ours, is refused: it writes a trace line
/// with both classes and the caller's file and line, and the block stays allocated, untouched, with its
/// owner. A leak that is reported is better than memory freed under the one who still uses it.
///
/// A block over 1 MiB that grows gets up to 1 MiB of room ahead, so that a buffer which grows by a little
/// again and again costs time in proportion to its size; the account counts what was asked for.
///
/// Blocks are aligned for any type (16 bytes). A block of 0 bytes is a real block: not null, to be freed.
/// Every function may be called from several threads at once; none may be called from a signal handler,
/// except zt_heapsize and zt_heapsize_class.
///
/// @code
///     char** names = static_cast<char**>(zt_mem_icalloc(2, 16, sizeof *names, 0, __FILE__, __LINE__));
///     if (!names) return report_no_memory(errno, zt_heapsize());
///     ...
///     zt_mem_ifree(2, names, __FILE__, __LINE__);
/// @endcode
#ifndef ZT_RUNTIME_MEMORY_H
#define ZT_RUNTIME_MEMORY_H

#include <zt/runtime/api.h>

#include <cstddef>

/// Number of classes.
enum { ZT_MEM_CLASSES = 16 };

extern "C" {

/// Takes a zeroed block of @p count times @p size bytes.
/// @param memory_class what it is for.
/// @param count  number of elements.
/// @param size   bytes of one element.
/// @param zero   reserved, 0; ignored.
/// @param file   the caller's source file, for the account; null is allowed. Not kept.
/// @param line   the caller's line.
/// @return the block, which the caller frees with zt_mem_ifree; null with `errno` ENOMEM when memory is
///         short or the product does not fit, EINVAL when there is no such class.
ZT_API void* zt_mem_icalloc(int memory_class, std::size_t count, std::size_t size, int zero, const char* file,
                            int line);

/// Resizes an array to @p count elements and zeroes the slots beyond @p old_count.
///
/// Large blocks are resized in place or moved by the page, without copying, so that growing one step at a
/// time costs linear time.
/// @param memory_class the class @p old was taken with.
/// @param old       the block; null takes a new one.
/// @param count     number of elements wanted; fewer than before cuts the array.
/// @param size      bytes of one element.
/// @param old_count number of elements that keep their contents.
/// @param zero      reserved, 0; ignored.
/// @param file      the caller's source file, null allowed; @p line the caller's line.
/// @return the block, perhaps at another address; @p old is then gone. Null on failure, with @p old as it
///         was and `errno` ENOMEM, or EINVAL for a wrong class or a block that is not ours.
///
/// @code
///     void* more = zt_mem_irecalloc(2, names, 32, sizeof *names, 16, 0, __FILE__, __LINE__);
///     if (!more) return report_no_memory(errno, zt_heapsize());   // names is as it was
///     names = static_cast<char**>(more);                          // names[16] to names[31] are null
/// @endcode
ZT_API void* zt_mem_irecalloc(int memory_class, void* old, std::size_t count, std::size_t size,
                              std::size_t old_count, int zero, const char* file, int line);

/// Resizes a block to @p size bytes, as zt_mem_irecalloc does; bytes beyond the old size are not defined.
/// @param memory_class the class @p old was taken with.
/// @param old  the block; null takes a new one.
/// @param size bytes wanted; 0 gives a block of 0 bytes, it does not free.
/// @param zero reserved, 0; ignored.
/// @param file the caller's source file, null allowed.
/// @param line the caller's line.
/// @return the block, perhaps at another address, to be freed with zt_mem_ifree; @p old is then gone. Null on
///         failure, with @p old as it was and `errno` ENOMEM, or EINVAL for a wrong class or a block that is
///         not ours.
///
/// @code
///     void* larger = zt_mem_irealloc(2, buffer, 2 * size, 0, __FILE__, __LINE__);
///     if (larger) buffer = static_cast<char*>(larger), size *= 2;
/// @endcode
ZT_API void* zt_mem_irealloc(int memory_class, void* old, std::size_t size, int zero, const char* file,
                             int line);

/// Frees a block. `errno` is kept.
/// @param memory_class the class the block was taken with; another one is refused (see above).
/// @param block the block; null does nothing.
/// @param file  the caller's source file, null allowed; @p line the caller's line.
ZT_API void zt_mem_ifree(int memory_class, void* block, const char* file, int line);

/// @return the bytes in use in all classes, as they were asked for; INT_MAX when there are more.
///         Safe in a signal handler. While other threads allocate, a value of about that moment.
ZT_API int zt_heapsize(void);

/// @param memory_class any number.
/// @return the bytes in use in one class; 0 for a class that does not exist. Safe in a signal handler. While
///         other threads allocate, a value of about that moment.
///
/// @code
///     zt_trace_msg("   pipes: %ld bytes", zt_heapsize_class(2));
/// @endcode
ZT_API long zt_heapsize_class(int memory_class);

}  // extern "C"

#endif
