// Starts a program many times with posix_spawn and prints the mean and median wall time of one
// start-to-exit in microseconds. The prompt benchmark falls back to it when hyperfine is missing.
//
//   spawn_timer RUNS PROGRAM [ARGUMENTS...]

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

extern char** environ;

namespace {

bool runOnce(char** argv, const posix_spawn_file_actions_t* actions) {
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], actions, nullptr, argv, environ) != 0) return false;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return false;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: spawn_timer RUNS PROGRAM [ARGUMENTS...]\n");
        return 2;
    }
    long runs = std::strtol(argv[1], nullptr, 10);
    if (runs <= 0) runs = 1;
    char** program = argv + 2;

    // The program's output would only measure the terminal.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);

    for (long i = 0; i < std::max(runs / 10, 5L); ++i) {
        if (!runOnce(program, &actions)) {
            std::fprintf(stderr, "spawn_timer: %s failed\n", program[0]);
            return 1;
        }
    }
    std::vector<double> micros;
    micros.reserve(static_cast<std::size_t>(runs));
    for (long i = 0; i < runs; ++i) {
        auto start = std::chrono::steady_clock::now();
        if (!runOnce(program, &actions)) {
            std::fprintf(stderr, "spawn_timer: %s failed\n", program[0]);
            return 1;
        }
        micros.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    posix_spawn_file_actions_destroy(&actions);

    double sum = 0;
    for (double value : micros) sum += value;
    std::sort(micros.begin(), micros.end());
    std::printf("%.1f %.1f\n", sum / static_cast<double>(runs), micros[micros.size() / 2]);
    return 0;
}
