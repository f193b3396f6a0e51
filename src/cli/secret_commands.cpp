// `veerline secret set|get|delete PROFILE TOOL`: a tool's API key for a profile, kept in the
// system's secret store (the Keychain, or the Secret Service on Linux). Keys never appear in any
// other output, message, file or command line.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <memory>

#include "base/error.h"
#include "base/file_io.h"
#include "base/json_input.h"
#include "cli/cli.h"
#include "cli/options.h"
#include "cli/output.h"
#include "cli/secret_input.h"
#include "platform/platform.h"
#include "profiles/profile_store.h"
#include "resolution/binary_locator.h"
#include "secrets/secret_store.h"
#include "shell/shell_quote.h"
#include "tools/claude_code_adapter.h"

namespace veerline::cli {

namespace {

// Claude Code's settings are a small JSON file a person edits.
constexpr std::size_t settingsFileLimit = 8 * 1024 * 1024;

struct SecretOptions {
    std::string profile;
    std::string tool;
};

struct Target {
    ProfileID id;
    std::string name;  // as the user knows it: the profile's name, or the id of a removed one
    ToolKind tool;

    std::string service() const { return KeychainStore::service(id, tool); }
    std::string keyName() const { return std::string(toolkind::displayName(tool)) + " key"; }
};

// A removed profile's id still reaches its keys, so that keys kept with --keep-data can go.
Target target(const Context& context, const SecretOptions& options, bool allowRemoved) {
    ToolKind tool = parseTool(options.tool);
    ProfileDocument document = ProfileStore(context.paths).load();
    try {
        const Profile& profile = findProfile(document, options.profile);
        return {profile.id, profile.name, tool};
    } catch (const VeerlineError& error) {
        ProfileID id(options.profile);
        if (error.kind() != VeerlineError::Kind::profileNotFound || !allowRemoved || !id.isValid()) throw;
        return {id, options.profile, tool};
    }
}

std::string apiKeyPrompt(const Target& target) {
    return "API key for " + std::string(toolkind::displayName(target.tool)) + " in " + curlyQuoted(target.name) + ": ";
}

int setSecret(const Context& context, const SecretOptions& options) {
    Target key = target(context, options, false);
    std::string secret = readSecret(apiKeyPrompt(key));
    KeychainStore().write(secret, key.service(), std::string(KeychainStore::apiKeyAccount));
    std::cout << "Stored the " << key.keyName() << " of " << curlyQuoted(key.name) << ".\n";
    return 0;
}

int getSecret(const Context& context, const SecretOptions& options) {
    Target key = target(context, options, false);
    auto secret = KeychainStore().read(key.service(), std::string(KeychainStore::apiKeyAccount));
    if (!secret) {
        std::cerr << "veerline: " << curlyQuoted(key.name) << " has no " << key.keyName() << ". Store one with `veerline secret set "
                  << ShellQuote::quote(key.name) << " " << toolkind::rawValue(key.tool) << "`.\n";
        return 1;
    }
    // The key feeds programs (Claude Code's key helper): its bytes go out exactly, past the
    // escaping of control characters that guards the terminal from names in files. A line feed
    // follows only on a terminal, for the prompt's sake.
    std::cout.flush();
    int error = writeAll(STDOUT_FILENO, *secret);
    OPENSSL_cleanse(secret->data(), secret->size());
    if (error == 0 && context.outputIsTerminal) error = writeAll(STDOUT_FILENO, "\n");
    if (error != 0) throw ioErrorFromErrno("write to standard output", error);
    return 0;
}

int deleteSecret(const Context& context, const SecretOptions& options) {
    Target key = target(context, options, true);
    KeychainStore().remove(key.service(), std::string(KeychainStore::apiKeyAccount));
    std::cout << "No " << key.keyName() << " is stored for " << curlyQuoted(key.name) << " now.\n";
    return 0;
}

}  // namespace

int removeProfileSecrets(const Profile& profile) {
    try {
        KeychainStore store;
        for (ToolKind tool : toolkind::allCases) {
            store.remove(KeychainStore::service(profile.id, tool), std::string(KeychainStore::apiKeyAccount));
        }
        return 0;
    } catch (const VeerlineError& error) {
        // Without any secret store there is nothing to reach; the rest of the removal stands.
        bool unreachable = error.kind() == VeerlineError::Kind::keychain && error.status() == KeychainStore::notAvailableStatus;
        std::cerr << "veerline: Couldn't delete the keys of " << curlyQuoted(profile.name) << ": " << error.errorDescription()
                  << "\n";
        return unreachable ? 0 : 1;
    }
}

namespace {

// The `veerline` that Claude Code runs for the key: the one the user runs from PATH, else this one.
// Never a copy inside ~/.veerline, which `shell uninstall` deletes. A link on PATH stays a link,
// so that an upgrade that moves the program behind it keeps the helper working.
std::string helperExecutable(const Context& context) {
    const std::string own = context.paths.home + "/.veerline";
    auto outsideOwnFolder = [&](const std::string& path) {
        auto real = PathUtil::realPath(path);
        return real && !PathUtil::isSameOrInside(*real, own, true) && !PathUtil::isSameOrInside(path, own, true);
    };
    const std::string* searchPath = lookup(context.environment, "PATH");
    BinaryLocator locator(searchPath ? *searchPath : std::string(), {own + "/bin", own + "/libexec"});
    if (auto onPath = locator.find("veerline"); onPath && outsideOwnFolder(*onPath)) return *onPath;
    if (auto self = platform::executablePath(); self && outsideOwnFolder(*self)) return *self;
    throw VeerlineError::io("Couldn't find a veerline outside " + context.paths.abbreviate(own) +
                            " for Claude Code to ask for the key (the copy there goes with `veerline shell "
                            "uninstall`). Put Veerline's own veerline on your PATH and try again.");
}

}  // namespace

int loginClaudeCodeWithApiKey(const Context& context, const Profile& profile) {
    if (profile.storage == Profile::Storage::system) {
        throw VeerlineError::unsupported(curlyQuoted(profile.name) +
                                         " uses Claude Code's default setup, whose settings are your own, so Veerline "
                                         "won't set a key helper there. Use a profile with managed storage.");
    }
    ClaudeCodeAdapter adapter(ToolContext{context.paths, context.environment});
    std::string settingsFile = adapter.dataDirectory(profile).value_or("") + "/settings.json";

    // A damaged settings file stops everything before a key is stored, and is never replaced.
    nlohmann::ordered_json settings = nlohmann::ordered_json::object();
    JsonInput::Problem problem = JsonInput::Problem::none;
    if (auto text = readRegularFile(settingsFile, settingsFileLimit)) {
        settings = JsonInput::parseOrdered(*text, &problem).value_or(nullptr);
        if (!settings.is_object()) {
            const std::string why = problem == JsonInput::Problem::tooDeep ? JsonInput::describe(problem)
                                                                             : "it isn't a JSON object";
            throw VeerlineError::io("Couldn't read " + context.paths.abbreviate(settingsFile) + ": " + why +
                                    ". Fix it or move it away, then try again.");
        }
    }
    const std::string helper = helperExecutable(context);

    Target key{profile.id, profile.name, ToolKind::claudeCode};
    std::string secret = readSecret(apiKeyPrompt(key));
    KeychainStore().write(secret, key.service(), std::string(KeychainStore::apiKeyAccount));
    adapter.createDataDirectory(profile);
    // Claude Code runs this command through a shell whenever it needs the key; the id survives
    // renames.
    settings["apiKeyHelper"] = ShellQuote::quote(helper) + " secret get " + ShellQuote::quote(profile.id.rawValue) +
                               " " + std::string(toolkind::rawValue(ToolKind::claudeCode));
    // Through a link to the settings the user keeps elsewhere, that file is updated and the link stays.
    std::string target = settingsFile;
    if (struct stat info {}; ::lstat(settingsFile.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
        target = PathUtil::realPath(settingsFile).value_or(settingsFile);
    }
    // Private like the tool's other files: it names how the profile signs in.
    writeFileAtomically(target, settings.dump(2) + "\n", 0600, context.paths.abbreviate(settingsFile));
    std::cout << "Stored the " << key.keyName() << " of " << curlyQuoted(profile.name) << "; Claude Code asks Veerline for it ("
              << context.paths.abbreviate(settingsFile) << ").\n";
    return 0;
}

void addSecretCommands(CLI::App& app, const Context& context, Action& chosen) {
    CLI::App* group = app.add_subcommand("secret", "Keep a tool's API key for a profile in the system's secret store");
    group->require_subcommand(0, 1);
    auto options = std::make_shared<SecretOptions>();
    auto addArguments = [&](CLI::App* command) {
        command->add_option("profile", options->profile, "The profile's name (any case) or id")->required();
        command->add_option("tool", options->tool, "claude-code (or claude), codex, claude-desktop or chatgpt-app")->required();
    };

    CLI::App* set = group->add_subcommand("set", "Store a key read from standard input (typed without echo on a terminal)");
    addArguments(set);
    onSelected(set, chosen, [&context, options] { return setSecret(context, *options); });

    CLI::App* get = group->add_subcommand("get", "Print the stored key");
    addArguments(get);
    onSelected(get, chosen, [&context, options] { return getSecret(context, *options); });

    CLI::App* remove = group->add_subcommand("delete", "Delete the stored key (nothing stored is fine)");
    addArguments(remove);
    onSelected(remove, chosen, [&context, options] { return deleteSecret(context, *options); });
    group->footer("Keys live in the Keychain on macOS and in the Secret Service (gnome-keyring, KeePassXC...) on "
                  "Linux, under the service app.veerline.profile.ID.TOOL and the account api-key.");
}

}  // namespace veerline::cli
