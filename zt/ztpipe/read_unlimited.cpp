// Reading into the buffer that the pipe owns and grows.
#include <zt/ztpipe/read.h>

namespace zt::pipe {
namespace {

constexpr char routine[] = "zt_pipe_read_unlimited";
constexpr int growth_line = 3032;

namespace at {
constexpr Site no_result{3013, ZT_PIPE_E_NULLARG};
constexpr Site no_room{3035, ZT_PIPE_E_NOMEM};
constexpr ReadSites reading{.stream_interrupted = {3059, ZT_PIPE_E_INTERRUPTED},
                            .stream_failed = {3064, ZT_PIPE_E_READ},
                            .stream_empty = {3078, ZT_PIPE_E_READ},
                            .read_interrupted = {3099, ZT_PIPE_E_INTERRUPTED},
                            .read_failed = {3104, ZT_PIPE_E_READ},
                            .not_collected = {3118, ZT_PIPE_E_READ}};
constexpr Site interrupted_at_exit{3140, ZT_PIPE_E_INTERRUPTED};
constexpr Site negative_offset{4051, ZT_PIPE_E_TOOLONG};
constexpr Site bad_read_size{4052, ZT_PIPE_E_TOOLONG};
constexpr Site count_exhausted{4053, ZT_PIPE_E_NOMEM};
}  // namespace at

class PipesBuffer : public Destination {
  public:
    PipesBuffer(zt_pipe& pipe, int offset)
        : pipe_(pipe), offset_(offset), data_(pipe.buffer), capacity_(pipe.buffer_size)
    {
    }

    // Room for one full request and the terminator, at the start of every pass, also of the one that will see
    // the end of the data.
    bool make_room(Operation& op, int total) override
    {
        const std::int64_t need = std::int64_t{offset_} + total + pipe_.read_size + 1;
        if (need <= pipe_.buffer_size) return true;
        if (need > INT_MAX) {
            op.fail_memory(at::count_exhausted, "p->buf", INT_MAX, ENOMEM);
            return false;
        }
        return grow(op, static_cast<int>(need));
    }
    char* at(int total) override { return data_ + offset_ + total; }
    std::size_t request(int) const override { return static_cast<std::size_t>(pipe_.read_size); }
    bool full(int) const override { return false; }
    // Also in a block that could not grow and is the caller's now: what was read into it is a text as before.
    void terminate(int total)
    {
        if (data_ != nullptr && offset_ + total < capacity_) *at(total) = '\0';
    }

  private:
    // A buffer that cannot grow leaves the pipe and is not freed: the caller may still be reading what an
    // earlier call handed out.
    bool grow(Operation& op, int need)
    {
        pipe_.buffer = static_cast<char*>(zt_mem_irealloc(
            pipe_memory, pipe_.buffer, static_cast<std::size_t>(need), 0, module_name, growth_line));
        pipe_.buffer_size = pipe_.buffer != nullptr ? need : 0;
        if (pipe_.buffer == nullptr) {
            op.fail_memory(at::no_room, "p->buf", need);
            return false;
        }
        data_ = pipe_.buffer;
        capacity_ = need;
        return true;
    }

    zt_pipe& pipe_;
    const int offset_;
    char* data_;
    int capacity_;
};

void read_steps(Operation& op, zt_pipe& pipe, char** result, int offset, const char* delimiter,
                Progress& progress)
{
    if (result == nullptr) return op.fail_null_argument(at::no_result, "buffer");
    if (offset < 0) return op.fail_limit(at::negative_offset, "offset", offset, INT_MAX);
    if (pipe.read_size < 1) return op.fail_limit(at::bad_read_size, "READSIZE", pipe.read_size, INT_MAX);
    op.work_on(&pipe);
    PipesBuffer into{pipe, offset};
    read_until(op, pipe, into, delimiter, at::reading, progress);
    into.terminate(progress.total);
}

}  // namespace
}  // namespace zt::pipe

using namespace zt::pipe;

extern "C" int zt_pipe_read_unlimited(int handle, char** result, int offset, const char* delimiter,
                                      zt::Status* status)
{
    if (status == nullptr) return -1;
    Operation op{routine, *status, Category::read};
    const Call call{handle, offset, delimiter};
    Progress progress;
    begin_read(op, call);
    zt_pipe* pipe = nullptr;
    const bool found = op.enter(handle, pipe);
    if (found) read_steps(op, *pipe, result, offset, delimiter, progress);
    char* const buffer = found ? pipe->buffer : nullptr;
    op.finish(at::interrupted_at_exit);
    if (found && result != nullptr) *result = buffer;
    return conclude_read(op, call, progress,
                         progress.total > 0 && buffer != nullptr ? buffer + offset : nullptr);
}
