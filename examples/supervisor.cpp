// Starts a worker again and again until it ends normally, and logs how it ended each time.
#include <zt/ztpipe.h>

#include <cstdio>
#include <string>

// This worker fails at first: with an exit code, by a signal, and without having said a word.
static const char worker[] = R"(
    if [ $RUN = 3 ]; then exit 4; fi
    echo "worker $RUN at work"
    case $RUN in 1) exit 3;; 2) kill -KILL $$;; esac
)";

// Prints what the worker says, to its end. True when that was a normal one.
static bool run(int number)
{
    const std::string variable = "RUN=" + std::to_string(number);
    const char* environment[] = {variable.c_str(), nullptr};
    const char* words[] = {"sh", "-c", worker, nullptr};
    zt::Status status;
    int handle = ZT_PIPE_OPEN("worker", "PROGRAM, MERGE_ENV", words, environment, &status);
    if (handle < 0) {
        std::printf("not started: %s\n", status.what());
        return false;
    }

    char* text = nullptr;
    int length = zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status);
    if (length > 0 && text) std::fwrite(text, 1, static_cast<std::size_t>(length), stdout);
    // The read saw the end of the output, waited for the child and left its end in the record: beside what
    // the child said, or as the failure of the read where it said nothing and did not end normally.
    const bool judged = zt_pipe_termination(true, &status);
    if (!judged) {
        std::printf("run %d: %s\n", number, status.what());
    } else if (status.code != 0) {
        std::printf("run %d ended %s (%d)\n", number, status.sparm[0], status.iparm[0]);
    } else {
        std::printf("run %d ended %s\n", number, status.sparm[0]);
    }
    const bool normal = judged && status.code == 0;
    ZT_PIPE_CLOSE(handle, "", &status);
    return normal;
}

int main()
{
    for (int number = 1; number <= 5; ++number)
        if (run(number)) return 0;
    std::printf("given up\n");
    return 1;
}
