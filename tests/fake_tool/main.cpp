// Stands in for a real `claude` or `codex` in tests. By default it prints exactly what it
// received. Installed under the name `codex`, it answers the sign-in commands word for word as
// codex-cli 0.169.0 does on a machine without a Secret Service: with
// `cli_auth_credentials_store = "keyring"` in its config.toml every sign-in fails, otherwise the
// key is kept in auth.json in CODEX_HOME.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

extern char** environ;

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

int answerAsCodex(const std::vector<std::string_view>& arguments) {
    auto variable = [](const char* name) { return std::string(std::getenv(name) ? std::getenv(name) : ""); };
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

}  // namespace

int main(int argc, char** argv) {
    std::string_view invokedAs = argc > 0 ? argv[0] : "";
    bool codex = invokedAs == "codex" || invokedAs.ends_with("/codex");
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
