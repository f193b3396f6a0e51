#include "cli/secret_input.h"

#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "base/error.h"
#include "cli/cli.h"

namespace veerline::cli {

namespace {

// Turns terminal echo off for its lifetime; restores the old settings even when reading fails.
class EchoOff {
public:
    EchoOff() {
        if (::tcgetattr(STDIN_FILENO, &saved_) != 0) return;
        termios quiet = saved_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        active_ = ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0;
    }
    ~EchoOff() {
        if (active_) ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_);
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

private:
    termios saved_{};
    bool active_ = false;
};

}  // namespace

std::string readSecret(const std::string& prompt) {
    std::string secret;
    if (::isatty(STDIN_FILENO) == 1) {
        std::cerr << prompt << std::flush;
        {
            EchoOff echoOff;
            std::getline(std::cin, secret);
        }
        std::cerr << "\n";
    } else {
        char buffer[4096];
        for (;;) {
            ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
            if (count == 0) break;
            if (count < 0) {
                if (errno == EINTR) continue;
                throw VeerlineError::io("Couldn't read standard input: " + std::string(std::strerror(errno)));
            }
            secret.append(buffer, static_cast<std::size_t>(count));
        }
    }
    if (!secret.empty() && secret.back() == '\n') secret.pop_back();
    if (!secret.empty() && secret.back() == '\r') secret.pop_back();
    if (secret.empty()) throw UsageError("No secret was given on standard input.");
    return secret;
}

}  // namespace veerline::cli
