#include "support/test_support.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace veerline::testing {

namespace fs = std::filesystem;

TempDir::TempDir(const std::string& prefix) {
    const char* tmp = std::getenv("TMPDIR");
    std::string base = (tmp != nullptr && tmp[0] == '/') ? tmp : "/tmp";
    std::string buffer = base + "/" + prefix + "-XXXXXX";
    if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    char* resolved = realpath(buffer.data(), nullptr);
    path_ = resolved != nullptr ? resolved : buffer;
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
        if (it->is_directory(ec) && !it->is_symlink(ec)) ::chmod(it->path().c_str(), 0700);
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
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + path);
    out << content;
    out.close();
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

void bindSocket(const std::string& path) {
    const fs::path here = fs::current_path(), name = fs::path(path).filename();
    fs::current_path(fs::path(path).parent_path());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, name.c_str(), sizeof address.sun_path - 1);
    const int bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), error = errno;
    ::close(fd);
    fs::current_path(here);
    if (bound != 0) throw std::runtime_error("bind " + path + ": " + std::strerror(error));
}

bool holdsUnprivileged(const std::string& tree, const std::function<bool()>& check) {
    constexpr uid_t nobody = 65534;
    constexpr gid_t nogroup = 65534;
    const bool root = ::geteuid() == 0;
    if (root) {
        if (::lchown(tree.c_str(), nobody, nogroup) != 0) throw std::runtime_error("lchown " + tree);
        for (const auto& entry : std::filesystem::recursive_directory_iterator(tree)) {
            if (::lchown(entry.path().c_str(), nobody, nogroup) != 0) throw std::runtime_error("lchown " + entry.path().string());
        }
    }
    pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) {
        bool dropped = !root || (::setgroups(0, nullptr) == 0 && ::setresgid(nogroup, nogroup, nogroup) == 0 &&
                                 ::setresuid(nobody, nobody, nobody) == 0);
        ::_exit(dropped && check() ? 0 : 1);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

FoldersPastPathLimit::FoldersPastPathLimit(const std::string& folder)
    : lastThatFits(folder), top(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), last(::dup(top.get())) {
    auto makeNext = [&] {
        if (::mkdirat(last.get(), name.c_str(), 0755) != 0) throw std::runtime_error("mkdirat: " + std::string(std::strerror(errno)));
    };
    for (; lastThatFits.size() + 1 + name.size() < PATH_MAX; lastThatFits += "/" + name) {
        makeNext();
        last = FileDescriptor(::openat(last.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    makeNext();
    tooLong = lastThatFits + "/" + name;
}

// Standard input comes from an unlinked temporary file, so nothing has to feed it while the child
// runs; its two outputs are pipes (a file would fall under the child's own `ulimit -f`), drained
// together so that neither can fill up and stall it.
namespace {
int inputFile(const std::string& content) {
    char name[] = "/tmp/veerline-run-XXXXXX";
    int fd = ::mkstemp(name);
    if (fd < 0) throw std::runtime_error("mkstemp failed");
    ::unlink(name);
    if (::write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
        throw std::runtime_error("cannot write standard input");
    }
    ::lseek(fd, 0, SEEK_SET);
    return fd;
}
void drain(int fd, std::string& sink) {
    char buffer[65536];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) != 0;) {
        if (n > 0) sink.append(buffer, static_cast<std::size_t>(n));
        else if (errno != EINTR) break;
    }
    ::close(fd);
}
}  // namespace

RunResult run(const std::string& executable, const std::vector<std::string>& arguments,
              const RunOptions& options) {
    std::vector<std::string> argvStrings{options.argv0.value_or(executable)};
    argvStrings.insert(argvStrings.end(), arguments.begin(), arguments.end());
    std::vector<std::string> envStrings(options.rawEntries);
    for (const auto& [name, value] : options.environment) envStrings.push_back(name + "=" + value);
    std::vector<char*> argv, envp;
    for (auto& a : argvStrings) argv.push_back(a.data());
    for (auto& e : envStrings) envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);

    int input = inputFile(options.input), out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    if (options.cwd) posix_spawn_file_actions_addchdir_np(&actions, options.cwd->c_str());
    pid_t pid = 0;
    int rc = posix_spawn(&pid, executable.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    for (int fd : {input, out[1], err[1]}) ::close(fd);
    RunResult result;
    std::thread errors(drain, err[0], std::ref(result.err));
    drain(out[0], result.out);
    errors.join();
    int status = 0;
    while (rc == 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exitCode = rc != 0 ? 127 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (rc != 0) result.err = std::string("spawn failed: ") + std::strerror(rc);
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
        } else if (line.starts_with("FD:")) {
            report.descriptors.push_back(line.substr(3));
        }
    }
    return report;
}

std::string systemPath() {
    const char* path = std::getenv("PATH");
    return path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
}

}  // namespace veerline::testing
