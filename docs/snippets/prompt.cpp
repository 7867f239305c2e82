// Reads to a prompt: what comes before it is the reply, however many lines it has.
#include <zt/ztpipe.h>

#include <cstdio>
#include <string>

static const std::string prompt = ">>> ";

static std::string read_to_prompt(int python, zt::Status& status)
{
    char* text = nullptr;
    int length = zt_pipe_read_unlimited(python, &text, 0, prompt.c_str(), &status);
    if (length < 0 || !text) return status.what();
    std::string reply(text, static_cast<std::size_t>(length));
    const std::size_t end = reply.rfind(prompt);
    return end == std::string::npos ? reply : reply.substr(0, end);
}

int main()
{
    zt::Status status;
    int python = ZT_PIPE_OPEN("python3 -i -q", "PROGRAM", nullptr, nullptr, &status);
    read_to_prompt(python, status);  // it speaks first
    for (const std::string request : {"print('one', 'two', sep='\\n')\n", "6 * 7\n"}) {
        zt_pipe_write(python, request.data(), static_cast<int>(request.size()), &status);
        std::printf("[%s]\n", read_to_prompt(python, status).c_str());
    }
    return ZT_PIPE_CLOSE(python, "NOKILL", &status);
}
