// Both reads against the model of the tests: the input says the output, how it is cut, and what goes wrong.
#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>
#include <zt/ztpipe/internal.h>

#include "fuzz/check.h"
#include "tests/support/read_model.h"

namespace {

using namespace read_model;

constexpr std::size_t calls_an_input = 5;
constexpr int exited_with_3 = 3 << 8;

/// A pipe of each kind. Their children have ended; the data come from the fuzzer, so that no input costs a
/// process.
int open_pipe(const char* options)
{
    zt::Status status;
    const int handle = ZT_PIPE_OPEN("/bin/true", options, nullptr, nullptr, &status);
    fuzz::holds(status.what(), handle > 0);
    return handle;
}

int pipe_of(const Kind& kind)
{
    static const int program = open_pipe("PROGRAM");
    static const int command = open_pipe("COMMAND READ");
    return kind.command ? command : program;
}

/// The pipe reads these data while this object lives.
class Feeding {
  public:
    Feeding(zt_pipe& pipe, const std::string& output, int wait_status, int read_size)
        : pipe_(pipe), before_(pipe)
    {
        int ends[2];
        fuzz::equal("pipe", pipe2(ends, O_CLOEXEC), 0);
        fuzz::equal("output", write(ends[1], output.data(), output.size()),
                    static_cast<ssize_t>(output.size()));
        close(ends[1]);
        pipe_.read_size = read_size;
        pipe_.bulk_reads = 0;
        pipe_.wait_status = wait_status;
        if (pipe_.mode == ZT_PIPE_MODE_COMMAND)
            pipe_.fh = fdopen(ends[0], "r");
        else
            pipe_.read_fd = ends[0];
    }
    ~Feeding()
    {
        if (pipe_.mode == ZT_PIPE_MODE_COMMAND)
            fclose(pipe_.fh);
        else
            close(pipe_.read_fd);
        pipe_.fh = before_.fh;
        pipe_.read_fd = before_.read_fd;
    }
    Feeding(const Feeding&) = delete;
    Feeding& operator=(const Feeding&) = delete;

  private:
    zt_pipe& pipe_;
    const zt_pipe before_;
};

Attempt attempt_from(FuzzedDataProvider& input, bool command)
{
    constexpr int errors[] = {EINTR, EINTR, EINTR, EAGAIN, EIO};
    Attempt result = undisturbed;
    const auto choice = input.ConsumeIntegral<std::uint8_t>();
    result.interrupt = choice % 16 == 0;
    if (choice % 4 == 1)
        result.error = input.PickValueInArray(errors);
    else if (choice % 4 == 2)
        result.most = input.ConsumeIntegralInRange<std::size_t>(command ? 0 : 1, 40);
    return result;
}

Call call_from(FuzzedDataProvider& input, const Kind& kind, std::size_t read_size)
{
    Call call{kind.bounded ? input.ConsumeIntegralInRange<std::size_t>(1, 300) : read_size, {}, {}};
    if (input.ConsumeBool()) {
        const std::string bytes = input.ConsumeRandomLengthString(6);
        call.delimiter = bytes.c_str();
    }
    for (std::size_t i = input.ConsumeIntegralInRange<std::size_t>(0, max_planned_attempts); i > 0; --i)
        call.attempts.push_back(attempt_from(input, kind.command));
    return call;
}

void check(const Outcome& seen, const Outcome& expected)
{
    fuzz::equal("result", seen.result, expected.result);
    fuzz::equal("data", seen.data, expected.data);
    fuzz::equal("code", seen.code, expected.code);
    fuzz::equal("subcode", seen.subcode, expected.subcode);
    fuzz::equal("line", seen.line, expected.line);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    std::signal(SIGINT,
                SIG_DFL);  // as where no handler of the fuzzer is: an interrupt ends the operation only
    const Kind& kind = kinds[input.ConsumeIntegralInRange<std::size_t>(0, 3)];
    const bool fails = input.ConsumeBool();
    const std::size_t read_size = input.ConsumeIntegralInRange<std::size_t>(1, 300);
    const std::string output = input.ConsumeRandomLengthString(2000);

    const int handle = pipe_of(kind);
    const Feeding feeding(*Zt_pipes[handle], output, fails ? exited_with_3 : 0, static_cast<int>(read_size));
    Model model(kind, output, fails);
    Reader reader(kind, handle);
    for (std::size_t i = 0; i < calls_an_input && input.remaining_bytes() > 0; ++i) {
        const Call call = call_from(input, kind, read_size);
        const std::size_t offset = input.ConsumeIntegralInRange<std::size_t>(0, reader.earlier() + 5);
        check(reader.read(call, offset), model.read(call));
        fuzz::holds("what was read before is kept", reader.kept());
    }
    return 0;
}
