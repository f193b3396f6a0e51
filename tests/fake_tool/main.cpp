// Stands in for a real `claude` or `codex` in tests. By default it prints exactly what it
// received. Installed under the name `codex`, it answers the sign-in commands word for word as
// codex-cli 0.169.0 does on a machine without a Secret Service: with
// `cli_auth_credentials_store = "keyring"` in its config.toml every sign-in fails, otherwise the
// key is kept in auth.json in CODEX_HOME.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

extern char** environ;

namespace {

enum class Store { keyring, automatic, file, notKeyring };
enum class Auth { signedIn, signedOut, any };
enum class Effect { none, saveKey, forget };

struct Answer {
    std::vector<std::string_view> arguments;
    Store store;
    Auth auth;
    Effect effect;
    std::string_view text;  // on standard error; "{key}" stands for the masked key
    int exitCode;
};

#define NO_KEYRING                                                                                         \
    "Platform secure storage failure: no secret service provider or dbus session found: Platform secure " \
    "storage failure: no secret service provider or dbus session found: no secret service provider or "   \
    "dbus session found\n"
#define READING "Reading API key from stdin...\n"

const Answer codexAnswers[] = {
    {{"login", "status"}, Store::keyring, Auth::any, Effect::none,
     "Error checking login status: failed to load CLI auth from keyring: " NO_KEYRING, 1},
    {{"login", "status"}, Store::notKeyring, Auth::signedIn, Effect::none,
     "API key configured - {key}\nAuthentication is checked when you send a request.\n", 0},
    {{"login", "status"}, Store::notKeyring, Auth::signedOut, Effect::none, "Not logged in\n", 1},
    {{"login", "--with-api-key"}, Store::keyring, Auth::any, Effect::none,
     READING "Error logging in: failed to write OAuth tokens to keyring: " NO_KEYRING, 1},
    {{"login", "--with-api-key"}, Store::notKeyring, Auth::any, Effect::saveKey,
     READING "API key saved. Authentication is checked when you send a request.\n", 0},
    {{"logout"}, Store::keyring, Auth::any, Effect::none,
     "Error logging out: failed to delete auth from keyring: " NO_KEYRING, 1},
    {{"logout"}, Store::automatic, Auth::any, Effect::none,
     "Error logging out: failed to delete auth from keyring: " NO_KEYRING, 1},
    {{"logout"}, Store::file, Auth::signedIn, Effect::forget, "Successfully logged out\n", 0},
    {{"logout"}, Store::file, Auth::signedOut, Effect::none, "Not logged in\n", 0},
};

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string readWhole(std::istream& in) {
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string trimmed(const std::string& text) {
    auto begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) return "";
    return text.substr(begin, text.find_last_not_of(" \t\r\n") - begin + 1);
}

// The value of `cli_auth_credentials_store`; Codex keeps credentials in a file by default.
Store storeOf(const std::string& config) {
    std::istringstream lines(config);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with("cli_auth_credentials_store")) continue;
        if (line.find("\"keyring\"") != std::string::npos) return Store::keyring;
        if (line.find("\"auto\"") != std::string::npos) return Store::automatic;
    }
    return Store::file;
}

bool matches(Store wanted, Store actual) {
    return wanted == actual || (wanted == Store::notKeyring && actual != Store::keyring);
}

// "***" for a short key, else its first 8 and last 5 characters around "***".
std::string masked(const std::string& key) {
    if (key.size() <= 13) return "***";
    return key.substr(0, 8) + "***" + key.substr(key.size() - 5);
}

int answerAsCodex(const Answer& answer, const std::string& home, const std::string& savedKey) {
    std::string authFile = home + "/auth.json";
    std::string key = savedKey;
    if (answer.arguments.back() == "--with-api-key") {
        key = trimmed(readWhole(std::cin));
        if (key.empty()) {
            std::cerr << READING "No API key provided via stdin.\n";
            return 1;
        }
    }
    if (answer.effect == Effect::saveKey) {
        std::ofstream(authFile) << "{\n  \"auth_mode\": \"apikey\",\n  \"OPENAI_API_KEY\": \"" << key << "\"\n}";
        ::chmod(authFile.c_str(), 0600);
    }
    if (answer.effect == Effect::forget) std::remove(authFile.c_str());
    std::string text(answer.text);
    if (auto slot = text.find("{key}"); slot != std::string::npos) text.replace(slot, 5, masked(key));
    std::cerr << text;
    return answer.exitCode;
}

}  // namespace

int main(int argc, char** argv) {
    std::string_view invokedAs = argc > 0 ? argv[0] : "";
    if (invokedAs == "codex" || invokedAs.ends_with("/codex")) {
        std::string home = variable("CODEX_HOME");
        if (home.empty()) home = variable("HOME") + "/.codex";
        std::ifstream configFile(home + "/config.toml");
        Store store = storeOf(readWhole(configFile));
        std::ifstream authFile(home + "/auth.json");
        std::string auth = readWhole(authFile);
        std::string keyField = "\"OPENAI_API_KEY\": \"";
        auto keyStart = auth.find(keyField);
        std::string savedKey;
        if (keyStart != std::string::npos) {
            keyStart += keyField.size();
            savedKey = auth.substr(keyStart, auth.find('"', keyStart) - keyStart);
        }
        std::vector<std::string_view> arguments(argv + 1, argv + argc);
        bool signedIn = !savedKey.empty();
        for (const Answer& answer : codexAnswers) {
            if (answer.arguments == arguments && matches(answer.store, store) &&
                (answer.auth == Auth::any || (answer.auth == Auth::signedIn) == signedIn)) {
                return answerAsCodex(answer, home, savedKey);
            }
        }
    }
    std::printf("ARGV0:%s\n", argc > 0 ? argv[0] : "");
    for (int i = 1; i < argc; ++i) std::printf("ARG:%s\n", argv[i]);
    for (char** entry = environ; *entry != nullptr; ++entry) std::printf("ENV:%s\n", *entry);
    return 0;
}
