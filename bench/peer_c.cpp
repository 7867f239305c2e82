#include <glib.h>
#include <sys/wait.h>
#include <uv.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/peers.h"

namespace bench {

std::size_t run_glib(const char* program, const char* argument)
{
    char* words[] = {const_cast<char*>(program), const_cast<char*>(argument), nullptr};
    int from = -1;
    GPid pid;
    if (!g_spawn_async_with_pipes(nullptr, words, nullptr, G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr, &pid,
                                  nullptr, &from, nullptr, nullptr))
        std::exit(1);
    GIOChannel* const channel = g_io_channel_unix_new(from);
    g_io_channel_set_encoding(channel, nullptr, nullptr);
    char* text = nullptr;
    gsize length = 0;
    g_io_channel_read_to_end(channel, &text, &length, nullptr);
    g_free(text);
    g_io_channel_shutdown(channel, FALSE, nullptr);
    g_io_channel_unref(channel);
    int status;
    waitpid(pid, &status, 0);
    return length;
}

namespace {

struct UvOutput {
    std::string bytes;
    char block[65536];
};

void uv_room(uv_handle_t* handle, size_t, uv_buf_t* buffer)
{
    auto* const output = static_cast<UvOutput*>(handle->data);
    *buffer = uv_buf_init(output->block, sizeof output->block);
}

void uv_bytes(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer)
{
    auto* const output = static_cast<UvOutput*>(stream->data);
    if (count > 0) output->bytes.append(buffer->base, static_cast<std::size_t>(count));
    if (count < 0) uv_close(reinterpret_cast<uv_handle_t*>(stream), nullptr);
}

}  // namespace

std::size_t run_libuv(const char* program, const char* argument)
{
    uv_loop_t loop;
    uv_loop_init(&loop);
    UvOutput output;
    uv_pipe_t pipe;
    uv_pipe_init(&loop, &pipe, 0);
    pipe.data = &output;
    uv_stdio_container_t stdio[3];
    stdio[0].flags = UV_IGNORE;
    stdio[1].flags = static_cast<uv_stdio_flags>(UV_CREATE_PIPE | UV_WRITABLE_PIPE);
    stdio[1].data.stream = reinterpret_cast<uv_stream_t*>(&pipe);
    stdio[2].flags = UV_INHERIT_FD;
    stdio[2].data.fd = 2;
    char* words[] = {const_cast<char*>(program), const_cast<char*>(argument), nullptr};
    uv_process_options_t options{};
    options.file = program;
    options.args = words;
    options.stdio = stdio;
    options.stdio_count = 3;
    options.exit_cb = [](uv_process_t* process, int64_t, int) {
        uv_close(reinterpret_cast<uv_handle_t*>(process), nullptr);
    };
    uv_process_t process;
    if (uv_spawn(&loop, &process, &options) != 0) std::exit(1);
    uv_read_start(reinterpret_cast<uv_stream_t*>(&pipe), uv_room, uv_bytes);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
    return output.bytes.size();
}

double seconds_in_python(const char* program, const char* argument, int count)
{
    const std::string script = std::string("import subprocess,time\nt=time.perf_counter()\nfor i in range(") +
                               std::to_string(count) + "): subprocess.run(['" + program + "','" + argument +
                               "'],stdout=subprocess.PIPE)\nprint((time.perf_counter()-t)/" +
                               std::to_string(count) + ")";
    std::FILE* const stream = popen(("python3 -c \"" + script + "\"").c_str(), "r");
    double seconds = 0;
    if (stream == nullptr || std::fscanf(stream, "%lf", &seconds) != 1) std::exit(1);
    pclose(stream);
    return seconds;
}

}  // namespace bench
