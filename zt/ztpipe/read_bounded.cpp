// Reading into the caller's buffer.
#include <zt/ztpipe/read.h>

namespace zt::pipe {
namespace {

constexpr char routine[] = "zt_pipe_read";

namespace at {
constexpr Site no_buffer{2824, ZT_PIPE_E_NULLARG};
constexpr ReadSites reading{.stream_interrupted = {2861, ZT_PIPE_E_INTERRUPTED},
                            .stream_failed = {2866, ZT_PIPE_E_READ},
                            .stream_empty = {2880, ZT_PIPE_E_READ},
                            .read_interrupted = {2901, ZT_PIPE_E_INTERRUPTED},
                            .read_failed = {2906, ZT_PIPE_E_READ},
                            .not_collected = {2920, ZT_PIPE_E_READ}};
constexpr Site interrupted_at_exit{2944, ZT_PIPE_E_INTERRUPTED};
constexpr Site negative_size{4041, ZT_PIPE_E_TOOLONG};
}  // namespace at

class CallersBuffer : public Destination {
  public:
    CallersBuffer(void* buffer, int size) : buffer_(static_cast<char*>(buffer)), size_(size) {}
    bool make_room(Operation&, int) override { return true; }
    char* at(int total) override { return buffer_ + total; }
    std::size_t request(int total) const override { return static_cast<std::size_t>(size_ - total); }
    bool full(int total) const override { return total == size_; }

  private:
    char* const buffer_;
    const int size_;
};

void read_steps(Operation& op, int handle, void* buffer, int size, const char* delimiter, Progress& progress)
{
    zt_pipe* pipe;
    if (!op.enter(handle, pipe)) return;
    if (buffer == nullptr) return op.fail_null_argument(at::no_buffer, "buffer");
    if (size < 0) return op.fail_limit(at::negative_size, "size", size, INT_MAX);
    if (size == 0) return;
    op.work_on(pipe);
    CallersBuffer into{buffer, size};
    read_until(op, *pipe, into, delimiter, at::reading, progress);
}

}  // namespace
}  // namespace zt::pipe

using namespace zt::pipe;

extern "C" int zt_pipe_read(int handle, void* buffer, int size, const char* delimiter, zt::Status* status)
{
    if (status == nullptr) return -1;
    Operation op{routine, *status, Category::read};
    const Call call{handle, size, delimiter};
    Progress progress;
    begin_read(op, call);
    read_steps(op, handle, buffer, size, delimiter, progress);
    op.finish(at::interrupted_at_exit);
    return conclude_read(op, call, progress, static_cast<const char*>(buffer));
}
