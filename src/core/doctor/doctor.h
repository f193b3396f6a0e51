#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "doctor/doctor_check.h"
#include "profiles/profile_document.h"
#include "tools/tool_adapter.h"

namespace veerline {

// Finds everything that can make `claude` or `codex` run under the wrong account, and changes
// nothing. Every problem, its own included, becomes a check in the report.
struct Doctor {
    // Where a deep run stands, each time a tool is asked or answers.
    struct Progress {
        std::size_t answered = 0;
        std::size_t total = 0;
        // "Work · Claude Code" for each question still open, in report order.
        std::vector<std::string> waitingOn;
    };

    static constexpr std::string_view managedMarkerVariable = "VEERLINE_MANAGED_VARS";
    static constexpr std::array<std::string_view, 9> conflictingExecutables = {
        "claude-swap",    "cswap",           "ccswitch",            "ccswitcher",  "claude-switch",
        "claude-profile", "claude-profiles", "claude-multiprofile", "codex-switch"};
    static constexpr std::array<std::string_view, 3> conflictingAppFragments = {"CCSwitcher", "Claude Switcher",
                                                                                "Multi Instance for Claude"};
    static constexpr std::array<std::string_view, 6> aliasFiles = {".zshrc",  ".zprofile",      ".zshenv",
                                                                   ".bashrc", ".bash_profile", ".profile"};
    static constexpr std::string_view desktopDownloadAddress = "https://claude.ai/download";

    Doctor(ToolContext toolContext, std::function<ProfileDocument()> load,
           std::optional<DesktopInstall> desktopInstall = std::nullopt,
           std::function<std::vector<DoctorCheck>(const ProfileDocument&)> extra = {})
        : context(std::move(toolContext)), loadDocument(std::move(load)), desktop(std::move(desktopInstall)),
          extraChecks(std::move(extra)) {}

    ToolContext context;
    // Normally the profile store's load; whatever it throws becomes the "profiles" failure.
    std::function<ProfileDocument()> loadDocument;
    std::optional<DesktopInstall> desktop;
    // The caller's own checks, placed after the shell block checks.
    std::function<std::vector<DoctorCheck>(const ProfileDocument&)> extraChecks;
    // How many tools a deep run asks at once. Each question is a child process that mostly
    // waits, so a few in parallel cut the wait without crowding the machine.
    std::size_t concurrentQuestions = 4;
    // Called, one call at a time, from the threads that ask the tools.
    std::function<void(const Progress&)> onProgress;

    // The checks in report order; `deep` adds every profile's sign-in state and shared accounts.
    std::vector<DoctorCheck> run(bool deep) const;
};

}  // namespace veerline
