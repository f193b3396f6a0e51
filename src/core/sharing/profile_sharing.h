#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/paths.h"
#include "profiles/profile_document.h"
#include "sharing/share_settings.h"

namespace veerline {

// What sharing found or did in one profile's data folder for one tool.
struct ShareReport {
    ToolKind tool = ToolKind::claudeCode;
    std::string profileName;
    std::string folder;
    // The items out of date (a dry run) or brought up to date: "CLAUDE.md", "commands/",
    // "settings.json", "MCP servers".
    std::vector<std::string> changes;
    // The profile's own items moved aside for a link, under their names there ("CLAUDE.md.veerline-own").
    std::vector<std::string> keptAside;
    // The source's settings that sign in or pick an account, which no profile gets: "apiKeyHelper",
    // "env.ANTHROPIC_API_KEY", "forced_login_method".
    std::vector<std::string> signInKept;
    // What the profile has that the shared setup lacks: "MCP server NAME", "setting NAME".
    std::vector<std::string> onlyHere;
    // Why the folder was left alone.
    std::optional<std::string> skipped;
    // Skipped because something went wrong rather than by rule.
    bool failed = false;

    static ShareReport failure(ToolKind tool, std::string profileName, std::string why) {
        ShareReport report;
        report.tool = tool;
        report.profileName = std::move(profileName);
        report.skipped = std::move(why);
        report.failed = true;
        return report;
    }
};

// Shares one tool's setup from a source folder with one managed profile's data folder. Only the
// allow-listed items are touched: instructions, commands and the like become symbolic links into
// the source, settings and MCP servers are merged with the profile's own, the profile winning;
// sign-in state, sessions, history and caches stay the profile's. A record in the folder says
// what Veerline wrote, so that undoing takes back exactly that and keeps what the user changed;
// it is written before the files it describes, so it never says less than what they hold.
class ProfileSharing {
public:
    static constexpr std::string_view recordName = ".veerline-share.json";
    static constexpr std::string_view asideSuffix = ".veerline-own";

    ProfileSharing(Paths paths, ToolKind tool, std::string source)
        : paths_(std::move(paths)), tool_(tool), source_(std::move(source)) {}

    // The names linked into the source: CLAUDE.md, commands... for Claude Code; AGENTS.md and
    // prompts for Codex.
    static const std::vector<std::string>& linkedNames(ToolKind tool);
    // The Claude Code source's .claude.json: ~/.claude.json for ~/.claude, else inside the folder.
    std::string claudeStateFile() const;

    // Refuses (VeerlineError::io) a source that is, or that holds a file or link that resolves,
    // inside Veerline's own folders: there every profile keeps its sign-in and its own files.
    void checkSource() const;

    // Brings the profile's folder in line with the source (making the folder when needed); with
    // `dryRun` only says what is out of date and writes nothing. Throws VeerlineError.
    ShareReport apply(const Profile& profile, bool dryRun) const;
    // Takes back what the record says Veerline did, and puts the profile's own items back.
    ShareReport undo(const Profile& profile) const;

    // Every managed profile of `document` that uses a shared tool (`only` narrows to one), each
    // brought up to date or, with `dryRun`, checked. A failure is reported as the profile's
    // `skipped` reason, so one broken folder doesn't stop the others. The caller holds the
    // SharingLock (share_files.h).
    static std::vector<ShareReport> applyAll(const Paths& paths, const ProfileDocument& document,
                                             const ShareSettings& settings, bool dryRun,
                                             std::optional<ToolKind> only = std::nullopt);

private:
    struct Run;

    Paths paths_;
    ToolKind tool_;
    std::string source_;
};

}  // namespace veerline
