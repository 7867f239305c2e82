// Holds a conversation: each request is a line, each reply ends with a newline.
#include <zt/ztpipe.h>

#include <cstdio>
#include <string>

// The reply without its newline; empty when there is none, with the reason in the record.
static std::string ask(int bc, const std::string& request, zt::Status& status)
{
    std::string line = request + "\n";
    if (zt_pipe_write(bc, line.data(), static_cast<int>(line.size()), &status) < 0) return {};
    char* reply = nullptr;
    int length = zt_pipe_read_unlimited(bc, &reply, 0, "\n", &status);
    return length > 0 && reply ? std::string(reply, static_cast<std::size_t>(length - 1)) : std::string();
}

int main()
{
    zt::Status status;
    // bc breaks long numbers into lines; a reply must be one line here.
    const char* environment[] = {"BC_LINE_LENGTH=0", nullptr};
    int bc = ZT_PIPE_OPEN("bc -l", "PROGRAM, MERGE_ENV", nullptr, environment, &status);
    if (bc < 0) {
        std::fprintf(stderr, "%s\n", status.what());
        return 1;
    }
    for (const char* request : {"6*7", "2^100", "scale=5; 1/7", "1/0"}) {
        std::string reply = ask(bc, request, status);
        if (reply.empty()) break;
        std::printf("%s is %s\n", request, reply.c_str());
    }
    if (status.code != 0 || status.subcode != 0) std::fprintf(stderr, "%s\n", status.what());
    return ZT_PIPE_CLOSE(bc, "NOKILL", &status);  // end of input ends bc; it is waited for
}
