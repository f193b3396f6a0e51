#include "support/test_support.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace veerline::testing {

namespace fs = std::filesystem;

TempDir::TempDir(const std::string& prefix) {
    const char* tmp = std::getenv("TMPDIR");
    std::string base = (tmp != nullptr && tmp[0] == '/') ? tmp : "/tmp";
    std::string pattern = base + "/" + prefix + "-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    char* resolved = realpath(buffer.data(), nullptr);
    path_ = resolved != nullptr ? resolved : buffer.data();
    std::free(resolved);
}

TempDir::~TempDir() {
    removeTree(path_);
}

void removeTree(const std::string& path) {
    std::error_code ec;
    // Tests make folders read-only on purpose; give the owner write access back first.
    for (auto it = fs::recursive_directory_iterator(path, fs::directory_options::skip_permission_denied, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec)) {
            ::chmod(it->path().c_str(), 0700);
        }
    }
    ::chmod(path.c_str(), 0700);
    fs::remove_all(path, ec);
}

void makeDirs(const std::string& path, mode_t mode) {
    std::error_code ec;
    fs::create_directories(path, ec);
    if (ec) throw std::runtime_error("create_directories " + path + ": " + ec.message());
    ::chmod(path.c_str(), mode);
}

void writeFile(const std::string& path, const std::string& content, mode_t mode) {
    fs::create_directories(fs::path(path).parent_path());
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        if (!out) throw std::runtime_error("cannot write " + path);
        out << content;
    }
    ::chmod(path.c_str(), mode);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

mode_t fileMode(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return 0;
    return st.st_mode & 07777;
}

void makeSymlink(const std::string& target, const std::string& linkPath) {
    fs::create_directories(fs::path(linkPath).parent_path());
    if (::symlink(target.c_str(), linkPath.c_str()) != 0) {
        throw std::runtime_error("symlink " + linkPath + ": " + std::strerror(errno));
    }
}

RunResult run(const std::string& executable, const std::vector<std::string>& arguments,
              const RunOptions& options) {
    int inPipe[2];
    int outPipe[2];
    int errPipe[2];
    if (pipe2(inPipe, O_CLOEXEC) != 0 || pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }

    std::vector<std::string> argvStrings;
    argvStrings.push_back(options.argv0.value_or(executable));
    argvStrings.insert(argvStrings.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& a : argvStrings) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> envStrings;
    for (const auto& [name, value] : options.environment) envStrings.push_back(name + "=" + value);
    envStrings.insert(envStrings.end(), options.rawEntries.begin(), options.rawEntries.end());
    std::vector<char*> envp;
    for (auto& e : envStrings) envp.push_back(e.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, inPipe[0], 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    if (options.cwd) posix_spawn_file_actions_addchdir_np(&actions, options.cwd->c_str());

    pid_t pid = 0;
    int rc = posix_spawn(&pid, executable.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(inPipe[0]);
    close(outPipe[1]);
    close(errPipe[1]);
    if (rc != 0) {
        close(inPipe[1]);
        close(outPipe[0]);
        close(errPipe[0]);
        RunResult failed;
        failed.exitCode = 127;
        failed.err = std::string("spawn failed: ") + std::strerror(rc);
        return failed;
    }

    // Feed stdin and drain both outputs together so no pipe can fill up and stall the child.
    RunResult result;
    std::size_t written = 0;
    int inFd = inPipe[1];
    if (options.input.empty()) {
        close(inFd);
        inFd = -1;
    }
    int fds[2] = {outPipe[0], errPipe[0]};
    std::string* sinks[2] = {&result.out, &result.err};
    signal(SIGPIPE, SIG_IGN);
    while (fds[0] >= 0 || fds[1] >= 0 || inFd >= 0) {
        pollfd polls[3];
        int count = 0;
        int index[3];
        for (int i = 0; i < 2; ++i) {
            if (fds[i] >= 0) {
                polls[count] = {fds[i], POLLIN, 0};
                index[count++] = i;
            }
        }
        if (inFd >= 0) {
            polls[count] = {inFd, POLLOUT, 0};
            index[count++] = 2;
        }
        if (poll(polls, static_cast<nfds_t>(count), -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int p = 0; p < count; ++p) {
            if (polls[p].revents == 0) continue;
            if (index[p] == 2) {
                ssize_t n = write(inFd, options.input.data() + written, options.input.size() - written);
                if (n > 0) written += static_cast<std::size_t>(n);
                if (n < 0 || written == options.input.size()) {
                    close(inFd);
                    inFd = -1;
                }
                continue;
            }
            char buffer[65536];
            ssize_t n = read(fds[index[p]], buffer, sizeof buffer);
            if (n > 0) {
                sinks[index[p]]->append(buffer, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[index[p]]);
                fds[index[p]] = -1;
            }
        }
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

void writeFakeTool(const std::string& path) {
    fs::create_directories(fs::path(path).parent_path());
    fs::copy_file(VEERLINE_FAKE_TOOL_BINARY, path, fs::copy_options::overwrite_existing);
    ::chmod(path.c_str(), 0755);
}

FakeToolReport parseFakeToolReport(const std::string& output) {
    FakeToolReport report;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.starts_with("ARGV0:")) {
            report.argv0 = line.substr(6);
        } else if (line.starts_with("ARG:")) {
            report.arguments.push_back(line.substr(4));
        } else if (line.starts_with("ENV:")) {
            auto entry = line.substr(4);
            auto equals = entry.find('=');
            if (equals != std::string::npos) report.environment[entry.substr(0, equals)] = entry.substr(equals + 1);
        }
    }
    return report;
}

std::string systemPath() {
    const char* path = std::getenv("PATH");
    return path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
}

}  // namespace veerline::testing
