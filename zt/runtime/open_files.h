/// @file
/// The registry of what a process has open: an entry for each open object, with the place that opened it.
///
/// An entry is found by its kind (a small number for each sort of object) and its key, the address of the
/// object's control block. The key is compared and never followed, so an entry may be removed after its block
/// was freed. Meanwhile another thread may get the same address for a new object; therefore a removal takes
/// the oldest entry with that kind and key.
///
/// Threads may call all of this at the same time; one lock guards the registry. Nothing here is for signal
/// handlers. A forked child may use the registry at once, whatever the parent's threads were doing: on its
/// first call the child gives itself a fresh lock. It keeps the entries it inherited (`pid` tells whose they
/// are), unless the fork came in the middle of a change; then it starts with an empty registry. No fork
/// handler is registered for that.
#ifndef ZT_RUNTIME_OPEN_FILES_H
#define ZT_RUNTIME_OPEN_FILES_H

#include <stdint.h>
#include <sys/types.h>
#include <zt/runtime/api.h>
#include <zt/runtime/status.h>

/// One open object, as zt_ifile_list() shows it.
struct zt_file_entry {
    int kind;         ///< the sort of object, as given
    const void* key;  ///< address of the object's block, only to be compared
    char name[256];   ///< what is open, cut to 255 characters
    char file[64];    ///< source file that opened it, shortened to 63 characters
    int line;         ///< line in that file
    pid_t pid;        ///< process that opened it
};

extern "C" {

/// Prepares the registry for this process. May be called any number of times, at any time; nothing depends
/// on it, since the other functions prepare what they need.
///
/// @param zero   0; reserved and not looked at.
/// @param status the record for a failure; null is allowed. There is nothing that fails today, so it is
///               untouched.
/// @return 0.
///
/// Safe in any thread; not for signal handlers. `errno` stays as it was.
///
/// @code
/// if (zt_file_init(0, &status) != 0) std::puts(status.what());
/// @endcode
ZT_API uint32_t zt_file_init(int zero, zt::Status* status);

/// Enters an object.
///
/// @param kind  the sort of object, any number.
/// @param name  what is open, copied and cut to 255 characters; null is the empty text.
/// @param block the object's control block, the key of the entry; it is not read. Must not be null.
/// @param zero  0; reserved and not looked at.
/// @param file  source file of the caller, copied and shortened to 63 characters; null is the empty text.
/// @param line  line of the caller.
/// @return 0, or -1 with `errno` EINVAL (`block` is null) or ENOMEM. `errno` stays as it was on success.
///
/// The registry owns the entry, one block of memory class 3. Cost does not depend on how many there are, up
/// to tens of thousands.
///
/// @code
/// zt_ifile_add_entry(6, "sort -r", pipe, 0, __FILE__, __LINE__);
/// ...
/// zt_ifile_del_entry(6, pipe);
/// @endcode
ZT_API int zt_ifile_add_entry(int kind, const char* name, void* block, int zero, const char* file, int line);

/// Removes the oldest entry with this kind and key.
///
/// @param kind the sort of object, as entered.
/// @param key  address of the block, as entered; it is not read. Null matches nothing.
/// @return 1 when an entry was removed, 0 when there was none. `errno` stays as it was.
///
/// Frees the entry. For an example see zt_ifile_add_entry().
ZT_API int zt_ifile_del_entry(int kind, const void* key);

/// Counts the entries of a kind, those that were inherited over a fork included.
///
/// @param kind the sort of object.
/// @return the number of entries; 0 for a kind that nobody entered. `errno` stays as it was.
///
/// Takes time in proportion to all entries. Safe in any thread; not for signal handlers.
///
/// @code
/// printf("%d pipes are open\n", zt_ifile_count(6));
/// @endcode
ZT_API int zt_ifile_count(int kind);

/// Shows the entries of a kind, oldest first.
///
/// @param kind    the sort of object.
/// @param visit   called for each entry, which is valid during the call. The registry is locked meanwhile:
///                `visit` must not call it, nor open or close what it lists. Null only counts.
/// @param context passed on to `visit`; may be null.
/// @return the number of entries shown.
///
/// @code
/// zt_ifile_list(6, [](const zt_file_entry* e, void*) {
///     printf("%s, opened at %s:%d\n", e->name, e->file, e->line);
/// }, nullptr);
/// @endcode
ZT_API int zt_ifile_list(int kind, void (*visit)(const zt_file_entry*, void*), void* context);
}

#endif
