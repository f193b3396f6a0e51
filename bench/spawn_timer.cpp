// Starts programs many times with posix_spawn and prints, per program, the mean and median wall
// time of one start-to-exit in microseconds. The programs take turns run by run, so that drift in
// the machine's load falls on all of them alike.
//
//   spawn_timer RUNS -- PROGRAM [ARGUMENTS...] [-- PROGRAM [ARGUMENTS...]]...

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

bool runOnce(const std::vector<char*>& argv, const posix_spawn_file_actions_t* actions) {
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], actions, nullptr, argv.data(), environ) != 0) return false;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return false;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4 || std::strcmp(argv[2], "--") != 0) {
        std::fprintf(stderr, "usage: spawn_timer RUNS -- PROGRAM [ARGUMENTS...] [-- PROGRAM ...]\n");
        return 2;
    }
    long runs = std::max(std::strtol(argv[1], nullptr, 10), 1L);
    std::vector<std::vector<char*>> programs;
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0) {
            programs.emplace_back();
        } else {
            programs.back().push_back(argv[i]);
        }
    }
    for (auto& program : programs) {
        if (program.empty()) {
            std::fprintf(stderr, "spawn_timer: empty command\n");
            return 2;
        }
        program.push_back(nullptr);
    }

    // The programs' output would only measure the terminal.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);

    std::vector<std::vector<double>> micros(programs.size());
    const long warmup = std::max(runs / 10, 5L);
    for (long i = 0; i < warmup + runs; ++i) {
        for (std::size_t p = 0; p < programs.size(); ++p) {
            auto start = std::chrono::steady_clock::now();
            if (!runOnce(programs[p], &actions)) {
                std::fprintf(stderr, "spawn_timer: %s failed\n", programs[p][0]);
                return 1;
            }
            if (i >= warmup) {
                micros[p].push_back(
                    std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
            }
        }
    }
    posix_spawn_file_actions_destroy(&actions);

    for (auto& times : micros) {
        double sum = 0;
        for (double value : times) sum += value;
        std::sort(times.begin(), times.end());
        std::printf("%.1f %.1f\n", sum / static_cast<double>(times.size()), times[times.size() / 2]);
    }
    return 0;
}
