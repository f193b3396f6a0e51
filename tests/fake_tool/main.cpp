// Stands in for a real `claude` or `codex` in tests. By default it prints exactly what it
// received. Installed under the name `codex`, it answers the sign-in commands word for word as
// codex-cli 0.169.0 does on a machine without a Secret Service: with
// `cli_auth_credentials_store = "keyring"` in its config.toml every sign-in fails, otherwise the
// key is kept in auth.json in CODEX_HOME. `codex mcp add` and `claude mcp add` add a server the way
// the real tools do: Codex rewrites config.toml whole, dropping its comments; Claude Code rewrites
// .claude.json while holding its lock folder ".claude.json.lock", as it does on every start (set
// VEERLINE_FAKE_CLAUDE_STARTUPS to N for N such rewrites, each counting "numStartups" up).
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>
#include <toml++/toml.h>

extern "C" char** environ;

namespace {

// Answers are for one or more `cli_auth_credentials_store` settings, and for either sign-in state unless told.
enum Store { keyring = 1, automatic = 2, file = 4, notKeyring = automatic | file };

struct Answer {
    std::vector<std::string_view> arguments;
    int stores;
    std::optional<bool> signedIn;
    const char* text;  // printed on standard error, "%s" standing for the masked key
    int exitCode;
};

#define NO_SERVICE "no secret service provider or dbus session found"
#define STORAGE_FAILURE "Platform secure storage failure: " NO_SERVICE
#define NO_KEYRING STORAGE_FAILURE ": " STORAGE_FAILURE ": " NO_SERVICE "\n"
#define READING "Reading API key from stdin...\n"

// A successful `login --with-api-key` saves the key, a successful `logout` while signed in forgets it.
const Answer codexAnswers[] = {
    {{"login", "status"}, keyring, std::nullopt,
     "Error checking login status: failed to load CLI auth from keyring: " NO_KEYRING, 1},
    {{"login", "status"}, notKeyring, true,
     "API key configured - %s\nAuthentication is checked when you send a request.\n", 0},
    {{"login", "status"}, notKeyring, false, "Not logged in\n", 1},
    {{"login", "--with-api-key"}, keyring, std::nullopt,
     READING "Error logging in: failed to write OAuth tokens to keyring: " NO_KEYRING, 1},
    {{"login", "--with-api-key"}, notKeyring, std::nullopt,
     READING "API key saved. Authentication is checked when you send a request.\n", 0},
    {{"logout"}, keyring | automatic, {}, "Error logging out: failed to delete auth from keyring: " NO_KEYRING, 1},
    {{"logout"}, file, true, "Successfully logged out\n", 0},
    {{"logout"}, file, false, "Not logged in\n", 0},
};

template <typename Stream>
std::string readWhole(Stream&& in) { return {std::istreambuf_iterator<char>(in), {}}; }

// The value of `cli_auth_credentials_store`; Codex keeps credentials in a file by default.
Store storeOf(std::istream&& config) {
    for (std::string line; std::getline(config, line);) {
        if (!line.starts_with("cli_auth_credentials_store")) continue;
        if (line.find("\"keyring\"") != std::string::npos) return keyring;
        if (line.find("\"auto\"") != std::string::npos) return automatic;
    }
    return file;
}

std::string variable(const char* name) {
    return std::getenv(name) ? std::getenv(name) : "";
}

int answerAsCodex(const std::vector<std::string_view>& arguments) {
    std::string folder = variable("CODEX_HOME").empty() ? variable("HOME") + "/.codex" : variable("CODEX_HOME");
    std::string authFile = folder + "/auth.json", auth = readWhole(std::ifstream(authFile));
    Store store = storeOf(std::ifstream(folder + "/config.toml"));
    const std::string field = "\"OPENAI_API_KEY\": \"";
    auto start = auth.find(field) == std::string::npos ? auth.size() : auth.find(field) + field.size();
    std::string key = auth.substr(start, auth.find('"', start) - start);
    bool signedIn = !key.empty();
    for (const Answer& answer : codexAnswers) {
        bool stateMatches = !answer.signedIn || *answer.signedIn == signedIn;
        if (answer.arguments != arguments || (answer.stores & store) == 0 || !stateMatches) continue;
        if (arguments.back() == "--with-api-key") {
            key = readWhole(std::cin);
            key.erase(0, key.find_first_not_of(" \t\r\n"));
            key.erase(key.find_last_not_of(" \t\r\n") + 1);
            if (key.empty()) {
                std::fprintf(stderr, READING "No API key provided via stdin.\n");
                return 1;
            }
            if (answer.exitCode == 0) {
                std::ofstream(authFile) << "{\n  \"auth_mode\": \"apikey\",\n  \"OPENAI_API_KEY\": \"" + key + "\"\n}";
                ::chmod(authFile.c_str(), 0600);
            }
        }
        if (arguments.back() == "logout" && answer.exitCode == 0 && signedIn) std::remove(authFile.c_str());
        // "***" for a short key, else its first 8 and last 5 characters around "***".
        std::string masked = key.size() <= 13 ? "***" : key.substr(0, 8) + "***" + key.substr(key.size() - 5);
        std::fprintf(stderr, answer.text, masked.c_str());
        return answer.exitCode;
    }
    return -1;
}

// Replaces `path` by way of a temporary file and rename, as both tools do.
void replace(const std::string& path, const std::string& content) {
    std::string temporary = path + ".tmp." + std::to_string(::getpid());
    std::ofstream(temporary) << content;
    ::chmod(temporary.c_str(), 0600);
    std::rename(temporary.c_str(), path.c_str());
}

// `mcp add [--scope user] [--env K=V]... NAME -- COMMAND ARGS...`: the server's table.
nlohmann::json serverFrom(const std::vector<std::string_view>& arguments, std::string& name, std::string& scope) {
    nlohmann::json server = {{"command", ""}, {"args", nlohmann::json::array()}};
    std::size_t at = 2;
    for (; at < arguments.size() && arguments[at] != "--"; ++at) {
        if (arguments[at] == "--scope" || arguments[at] == "-s") {
            scope = arguments[++at];
        } else if (arguments[at] == "--env" || arguments[at] == "-e") {
            std::string entry(arguments[++at]);
            server["env"][entry.substr(0, entry.find('='))] = entry.substr(entry.find('=') + 1);
        } else {
            name = arguments[at];
        }
    }
    if (++at < arguments.size()) server["command"] = arguments[at];
    for (++at; at < arguments.size(); ++at) server["args"].push_back(arguments[at]);
    return server;
}

int codexMcpAdd(const std::vector<std::string_view>& arguments) {
    std::string folder = variable("CODEX_HOME").empty() ? variable("HOME") + "/.codex" : variable("CODEX_HOME");
    std::string name, scope;
    nlohmann::json server = serverFrom(arguments, name, scope);
    toml::table config = toml::parse_file(folder + "/config.toml");
    toml::table entry{{"command", server["command"].get<std::string>()}};
    toml::array args;
    for (const auto& arg : server["args"]) args.push_back(arg.get<std::string>());
    entry.insert("args", args);
    if (server.contains("env")) {
        toml::table env;
        for (const auto& [key, value] : server["env"].items()) env.insert(key, value.get<std::string>());
        entry.insert("env", env);
    }
    if (!config.contains("mcp_servers")) config.insert("mcp_servers", toml::table{});
    config["mcp_servers"].as_table()->insert_or_assign(name, entry);
    std::ostringstream text;
    text << config << "\n";
    replace(folder + "/config.toml", text.str());
    std::printf("Added global MCP server '%s'.\n", name.c_str());
    return 0;
}

// Claude Code's lock on its state file: a folder made by mkdir, taken over when stale.
struct StateLock {
    std::string folder;
    explicit StateLock(std::string path) : folder(std::move(path) + ".lock") {
        while (::mkdir(folder.c_str(), 0755) != 0) {
            struct stat info {};
            if (::stat(folder.c_str(), &info) == 0 && ::time(nullptr) - info.st_mtime > 10) ::rmdir(folder.c_str());
            ::usleep(500);
        }
    }
    ~StateLock() { ::rmdir(folder.c_str()); }
};

std::string claudeStateFile() {
    return variable("CLAUDE_CONFIG_DIR").empty() ? variable("HOME") + "/.claude.json"
                                                 : variable("CLAUDE_CONFIG_DIR") + "/.claude.json";
}

// One read-modify-write of the state file under the lock.
template <typename Change>
void rewriteState(Change&& change) {
    const std::string path = claudeStateFile();
    StateLock lock(path);
    nlohmann::ordered_json state = nlohmann::ordered_json::parse(readWhole(std::ifstream(path)), nullptr, false);
    if (!state.is_object()) state = nlohmann::ordered_json::object();
    change(state);
    replace(path, state.dump(2));
}

int claudeMcpAdd(const std::vector<std::string_view>& arguments) {
    std::string name, scope = "local";
    nlohmann::json server = serverFrom(arguments, name, scope);
    server["type"] = "stdio";
    rewriteState([&](nlohmann::ordered_json& state) {
        // Without --scope user the server is the working folder's only.
        char cwd[4096];
        auto& servers = scope == "user" ? state["mcpServers"] : state["projects"][::getcwd(cwd, sizeof cwd)]["mcpServers"];
        servers[name] = server;
    });
    std::printf("Added stdio MCP server %s to %s config\n", name.c_str(), scope.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string_view> arguments(argv + 1, argv + argc);
    const bool addsServer = arguments.size() > 1 && arguments[0] == "mcp" && arguments[1] == "add";
    if (argc > 0 && std::string_view(argv[0]).ends_with("claude")) {
        for (int startup = std::atoi(variable("VEERLINE_FAKE_CLAUDE_STARTUPS").c_str()); startup > 0; --startup)
            rewriteState([](nlohmann::ordered_json& state) { state["numStartups"] = state.value("numStartups", 0) + 1; });
        if (addsServer) return claudeMcpAdd(arguments);
    }
    std::string_view invokedAs = argc > 0 ? argv[0] : "";
    bool codex = invokedAs == "codex" || invokedAs.ends_with("/codex");
    if (codex && addsServer) return codexMcpAdd(arguments);
    if (int exitCode = codex ? answerAsCodex({argv + 1, argv + argc}) : -1; exitCode >= 0) return exitCode;
    std::printf("ARGV0:%s\n", argc > 0 ? argv[0] : "");
    for (int i = 1; i < argc; ++i) std::printf("ARG:%s\n", argv[i]);
    for (char** entry = environ; *entry != nullptr; ++entry) std::printf("ENV:%s\n", *entry);
    // Descriptors beyond the standard three: whatever the tool was handed besides its arguments.
    if (DIR* open = opendir("/proc/self/fd")) {
        while (const dirent* entry = readdir(open)) {
            int fd = std::atoi(entry->d_name);
            if (entry->d_name[0] != '.' && fd > 2 && fd != dirfd(open)) std::printf("FD:%d\n", fd);
        }
        closedir(open);
    }
    return 0;
}
