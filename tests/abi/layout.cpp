// The layout of the public records, as programs that were built before rely on it: this file need only
// compile. A change here asks for another soname. zt_pipe is left out: programs hold handles, never blocks.
#include <zt/runtime/errors.h>
#include <zt/runtime/exit_handlers.h>
#include <zt/runtime/mutex.h>
#include <zt/runtime/open_files.h>
#include <zt/runtime/options.h>
#include <zt/ztpipe.h>

#include <cstddef>

static_assert(sizeof(ubstatus) == 3440 && alignof(ubstatus) == 4);
static_assert(offsetof(ubstatus, code) == 0 && offsetof(ubstatus, subcode) == 4);
static_assert(offsetof(ubstatus, sys_errno) == 8 && offsetof(ubstatus, count) == 12);
static_assert(offsetof(ubstatus, iparm) == 16 && offsetof(ubstatus, msg) == 48);
static_assert(offsetof(ubstatus, sys_msg) == 304 && offsetof(ubstatus, where) == 560);
static_assert(offsetof(ubstatus, object) == 816 && offsetof(ubstatus, sparm) == 1072);
static_assert(offsetof(ubstatus, host) == 3120 && offsetof(ubstatus, extra) == 3184);
static_assert(sizeof(zt::Status) == sizeof(std::exception) + sizeof(ubstatus) + 2048);

static_assert(sizeof(zt_pipe_debug_category) == 64 && sizeof(Zt_pipe_debug) == 5 * 64);
static_assert(offsetof(zt_pipe_debug_category, flags) == 0 && offsetof(zt_pipe_debug_category, name) == 32);

static_assert(sizeof(zt_option) == 56 && alignof(zt_option) == 8);
static_assert(offsetof(zt_option, group) == 0 && offsetof(zt_option, keyword) == 1);
static_assert(offsetof(zt_option, attribute1) == 34 && offsetof(zt_option, attribute2) == 35);
static_assert(offsetof(zt_option, value_kind) == 36 && offsetof(zt_option, value) == 40);
static_assert(offsetof(zt_option, present) == 48);
static_assert(sizeof(zt_option_error) == 40);
static_assert(offsetof(zt_option_error, code) == 0 && offsetof(zt_option_error, text) == 4);

static_assert(sizeof(zt_code_text) == 32 && offsetof(zt_code_text, name) == 8);
static_assert(offsetof(zt_code_text, meaning) == 16 && offsetof(zt_code_text, advice) == 24);

static_assert(sizeof(zt_file_entry) == 344 && offsetof(zt_file_entry, key) == 8);
static_assert(offsetof(zt_file_entry, name) == 16 && offsetof(zt_file_entry, file) == 272);
static_assert(offsetof(zt_file_entry, line) == 336 && offsetof(zt_file_entry, pid) == 340);

static_assert(sizeof(zt_exit_hold_state) == 136 && offsetof(zt_exit_hold_state, generation) == 128);
static_assert(sizeof(zt::Mtx) == sizeof(pthread_mutex_t));
