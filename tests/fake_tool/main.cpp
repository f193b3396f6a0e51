// Stands in for a real `claude` or `codex` in tests: prints exactly what it received.
#include <cstdio>

extern char** environ;

int main(int argc, char** argv) {
    std::printf("ARGV0:%s\n", argc > 0 ? argv[0] : "");
    for (int i = 1; i < argc; ++i) std::printf("ARG:%s\n", argv[i]);
    for (char** entry = environ; *entry != nullptr; ++entry) std::printf("ENV:%s\n", *entry);
    return 0;
}
