// Runs many children on a few threads: each thread has its own record and its own pipe.
#include <zt/ztpipe.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

static constexpr int jobs = 40, threads = 4;
static std::array<int, jobs> results;
static std::atomic<int> next_job{0};

// What expr prints for the square of a number; -1 when it went wrong.
static int square(int number)
{
    const std::string text = std::to_string(number);
    const char* words[] = {"expr", text.c_str(), "*", text.c_str(), nullptr};  // quoted for the shell
    zt::Status status;
    int handle = ZT_PIPE_OPEN("expr", "COMMAND, READ", words, nullptr, &status);
    if (handle < 0) return -1;
    char answer[32] = "";
    int length = zt_pipe_read(handle, answer, sizeof answer - 1, nullptr, &status);
    const int code = ZT_PIPE_CLOSE(handle, "", &status);
    return length > 0 && code == 0 ? std::atoi(answer) : -1;
}

static void work()
{
    for (int job; (job = next_job++) < jobs;) results[static_cast<std::size_t>(job)] = square(job + 1);
}

int main()
{
    std::vector<std::thread> pool;
    for (int i = 0; i < threads; ++i) pool.emplace_back(work);
    for (std::thread& thread : pool) thread.join();
    long sum = 0;
    for (int result : results) sum += result;
    std::printf("The squares of 1 to %d make %ld.\n", jobs, sum);
}
