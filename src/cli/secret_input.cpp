#include "cli/secret_input.h"

#include <openssl/crypto.h>
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
    const bool terminal = ::isatty(STDIN_FILENO) == 1;
    // Room for the key and a line ending; one byte more tells that the input goes on.
    const std::size_t bound = maxSecretSize + 2;
    std::string secret;
    auto readInput = [&] {
        char buffer[4096];
        // On a terminal the key is one line; otherwise all of the input, but never past the bound:
        // `yes | veerline secret set ...` must end, not fill the memory.
        while (secret.size() <= bound && !(terminal && secret.find('\n') != std::string::npos)) {
            ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
            if (count == 0) break;
            if (count < 0) {
                if (errno == EINTR) continue;
                throw VeerlineError::io("Couldn't read standard input: " + std::string(std::strerror(errno)));
            }
            secret.append(buffer, static_cast<std::size_t>(count));
        }
        if (auto end = secret.find('\n'); terminal && end != std::string::npos) secret.resize(end + 1);
    };
    if (terminal) {
        std::cerr << prompt << std::flush;
        {
            EchoOff echoOff;
            readInput();
        }
        std::cerr << "\n";
    } else {
        readInput();
    }
    if (!secret.empty() && secret.back() == '\n') secret.pop_back();
    if (!secret.empty() && secret.back() == '\r') secret.pop_back();
    if (secret.size() > maxSecretSize) {
        OPENSSL_cleanse(secret.data(), secret.size());
        throw UsageError("The key on standard input is over " + std::to_string(maxSecretSize / 1024) +
                         " KiB, far more than any API key. Nothing was stored.");
    }
    if (secret.empty()) throw UsageError("No secret was given on standard input.");
    return secret;
}

}  // namespace veerline::cli
