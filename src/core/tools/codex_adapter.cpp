#include "tools/codex_adapter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/error.h"
#include "base/file_io.h"
#include "base/unicode.h"
#include "platform/platform.h"
#include "tools/process_runner.h"

namespace veerline {

namespace {

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

// Whether `path` is a regular file holding exactly a starter text of an earlier version.
bool holdsOutdatedStarter(const std::string& path) noexcept {
    try {
        auto outdated = platform::outdatedCodexStarterConfigs();
        std::size_t longest = 0;
        for (std::string_view text : outdated) longest = std::max(longest, text.size());
        if (longest == 0) return false;
        std::optional<std::string> text = readRegularFile(path, longest, Links::refuse);
        return text && std::find(outdated.begin(), outdated.end(), *text) != outdated.end();
    } catch (...) {
        // Too large, a link or not a file: not a starter text, so it is the user's.
        return false;
    }
}

// Nothing when the hint is missing, not a small regular file, or not UTF-8.
std::optional<std::string> readHint(const std::string& path) noexcept {
    try {
        std::optional<std::string> text = readRegularFile(path, maxHintFileSize);
        if (!text || !unicode::isValidUTF8(*text)) return std::nullopt;
        return text;
    } catch (...) {
        return std::nullopt;
    }
}

// Length of the line break starting at `position`, or 0: LF, CR, VT, FF, NEL, LS, PS.
std::size_t lineBreakLength(std::string_view text, std::size_t position) {
    unsigned char c = static_cast<unsigned char>(text[position]);
    if (c == '\n' || c == '\r' || c == '\v' || c == '\f') return 1;
    auto rest = text.substr(position);
    if (rest.starts_with("\xC2\x85")) return 2;
    if (rest.starts_with("\xE2\x80\xA8") || rest.starts_with("\xE2\x80\xA9")) return 3;
    return 0;
}

std::string_view trimSpacesAndTabs(std::string_view line) {
    auto begin = line.find_first_not_of(" \t");
    if (begin == std::string_view::npos) return {};
    auto end = line.find_last_not_of(" \t");
    return line.substr(begin, end - begin + 1);
}

// The lines of a tool's answer, trimmed of spaces and tabs, empty ones left out.
std::vector<std::string_view> answerLines(std::string_view text) {
    std::vector<std::string_view> lines;
    std::size_t start = 0;
    std::size_t position = 0;
    while (start <= text.size()) {
        std::size_t breakLength = 0;
        while (position < text.size() && (breakLength = lineBreakLength(text, position)) == 0) ++position;
        if (auto line = trimSpacesAndTabs(text.substr(start, position - start)); !line.empty()) lines.push_back(line);
        if (position >= text.size()) break;
        position += breakLength;
        start = position;
    }
    return lines;
}

// A line of the tool's own to quote to the user: at most `limit` characters, "…" ending one that
// was cut.
std::string quotedLine(std::string_view line, std::size_t limit) {
    if (line.size() <= limit) return std::string(line);
    auto characters = unicode::graphemeClusters(line);
    if (characters.size() <= limit) return std::string(line);
    std::string cut;
    for (std::size_t i = 0; i + 1 < limit; ++i) cut += characters[i];
    return cut + "\u2026";
}

}  // namespace

std::string_view CodexAdapter::managedConfig() noexcept {
    return platform::codexStarterConfig();
}

std::string CodexAdapter::bundledHintFile(const Paths& paths) {
    return paths.supportDirectory() + "/codex-app-path";
}

std::vector<std::string> CodexAdapter::bundledCandidates(const Paths& paths) {
    std::vector<std::string> bundles;
    if (auto hint = readHint(bundledHintFile(paths))) {
        std::string bundle = unicode::trimmed(*hint);
        if (bundle.ends_with(".app")) bundles.push_back(std::move(bundle));
    }
    bundles.push_back(paths.applicationsDirectory + "/ChatGPT.app");
    bundles.push_back(paths.applicationsDirectory + "/Codex.app");
    bundles.push_back(paths.home + "/Applications/ChatGPT.app");
    bundles.push_back(paths.home + "/Applications/Codex.app");
    for (auto& bundle : bundles) bundle += "/Contents/Resources/codex-cli/bin/codex";
    return bundles;
}

std::optional<std::string> CodexAdapter::bundledCodex(const Paths& paths) {
    for (auto& candidate : bundledCandidates(paths)) {
        if (PathUtil::isExecutableFile(candidate)) return candidate;
    }
    return std::nullopt;
}

std::optional<std::string> CodexAdapter::binaryPath() const {
    if (auto found = context().locator().find(std::string(binaryName))) return found;
    return bundledCodex(context().paths);
}

bool CodexAdapter::usesBundledCodex() const {
    return !context().locator().find(std::string(binaryName)) && bundledCodex(context().paths);
}

CodexAdapter::LoginState CodexAdapter::parseLoginStatus(std::string_view text) {
    static constexpr std::string_view signedInPrefix = "Logged in using ";
    for (std::string_view line : answerLines(text)) {
        if (line.starts_with(signedInPrefix)) {
            std::string_view method = line.substr(signedInPrefix.size());
            if (method.starts_with("an ")) method.remove_prefix(3);
            if (auto dash = method.find(" - "); dash != std::string_view::npos) method = method.substr(0, dash);
            return LoginState::signedIn(std::string(method));
        }
        // codex-cli 0.169.0 reports a key as "API key configured - sk-proj-***12345".
        if (line.starts_with("API key configured")) return LoginState::signedIn("API key");
        if (line.starts_with("Not logged in")) return LoginState::signedOut();
    }
    return LoginState::unknown();
}

bool CodexAdapter::isInstalled() const {
    return binaryPath().has_value();
}

Environment CodexAdapter::environment(const Profile& profile) const {
    return environmentIn(context().paths, profile);
}

Environment CodexAdapter::environmentIn(const Paths& paths, const Profile& profile) {
    auto folder = dataDirectory(ToolKind::codex, paths, profile);
    if (!folder) return {};
    return {{"CODEX_HOME", *folder}};
}

ToolStatus CodexAdapter::status(const Profile& profile) const noexcept {
    try {
        auto binary = binaryPath();
        if (!binary) return ToolStatus::notInstalled();
        auto folder = dataDirectory(profile);
        if (folder && !PathUtil::isDirectory(*folder)) return ToolStatus::notSetUp();

        ProcessResult result = ProcessRunner::runSync(*binary, {"login", "status"}, helperEnvironment(profile),
                                                      context().commandTimeout);
        if (result.timedOut) return ToolStatus::needsAttention("`codex login status` didn't answer in time.");
        // The tool has answered on either stream over its versions.
        std::string answer = result.combinedOutput();
        LoginState state = parseLoginStatus(answer);
        switch (state.kind) {
            case LoginState::Kind::signedIn: {
                AccountInfo account;
                account.method = std::move(state.method);
                return ToolStatus::signedIn(std::move(account));
            }
            case LoginState::Kind::signedOut:
                if (!folder) return ToolStatus::notSetUp();
                return ToolStatus::needsAttention("Signed out. Sign in again.");
            case LoginState::Kind::unknown:
                break;
        }
        std::string message = "Couldn't read `codex login status` (exit " + std::to_string(result.exitCode) + ")";
        // The tool's own words usually say what is wrong, such as a keyring it cannot reach.
        auto lines = answerLines(answer);
        if (!lines.empty()) return ToolStatus::needsAttention(message + ": " + quotedLine(lines.front(), 200));
        return ToolStatus::needsAttention(message + ".");
    } catch (const std::exception& error) {
        return ToolStatus::needsAttention(error.what());
    }
}

void CodexAdapter::prepare(const Profile& profile) const {
    prepareIn(context().paths, profile);
}

void CodexAdapter::prepareIn(const Paths& paths, const Profile& profile) {
    auto folder = createDataDirectory(ToolKind::codex, paths, profile);
    if (!folder) return;
    // Whatever is there is the user's: the starter lines are written once, never again, unless
    // they are an earlier version's, untouched since.
    std::string config = *folder + "/config.toml";
    if (!exists(config)) {
        placeNewFileAtomically(config, managedConfig(), 0600);
    } else if (holdsOutdatedStarter(config)) {
        writeFileAtomically(config, managedConfig(), 0600);
    }
}

std::optional<SignInCommand> CodexAdapter::setUp(const Profile& profile) const {
    prepare(profile);
    auto binary = binaryPath();
    if (!binary) return std::nullopt;
    SignInCommand command;
    command.executable = *binary;
    command.arguments = {"login"};
    command.environment = environment(profile);
    if (profile.storage == Profile::Storage::system) command.unset = {"CODEX_HOME"};
    return command;
}

void CodexAdapter::removeData(const Profile& profile) const {
    auto folder = dataDirectory(profile);
    if (!folder) return;
    // Refuse before signing anything out, not only before deleting.
    if (!profile.id.isValid() || !context().paths.isInsideSupportDirectory(*folder)) {
        throw VeerlineError::unsafeDeletion(*folder);
    }
    if (auto binary = binaryPath(); binary && PathUtil::isDirectory(*folder)) {
        // Best effort: a sign-out that fails or hangs doesn't stop the deletion.
        ProcessRunner::runSync(*binary, {"logout"}, helperEnvironment(profile), context().commandTimeout);
    }
    deleteDataDirectory(profile);
}

}  // namespace veerline
