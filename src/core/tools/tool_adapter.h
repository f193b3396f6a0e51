#pragma once

// The vocabulary shared by the command-line tool adapters, and the adapter interface.
//
// Blocking model: every adapter operation runs on the caller's thread. `status` and `removeData`
// block while the tool's own command runs (at most `ToolContext::commandTimeout` plus the
// process runner's termination steps, about 4 s more); callers that want several answers at once
// run them on threads of their own (std::async). `environment` and `prepare` never start a
// process, so the resolver can call them on every run.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "resolution/binary_locator.h"
#include "base/environment.h"
#include "base/paths.h"
#include "profiles/profile.h"

namespace veerline {

// What every adapter is made with.
struct ToolContext {
    Paths paths;
    // The caller's environment: where tools are searched for, and the source of the base
    // environment of their child processes.
    Environment environment;
    // Time-out, in seconds, of the tools' own commands (status, sign-out).
    double commandTimeout = 15.0;

    BinaryLocator locator() const { return BinaryLocator(environment, paths); }

    bool operator==(const ToolContext&) const = default;
};

// An account as a tool describes it; every field may be missing.
struct AccountInfo {
    std::optional<std::string> email;
    std::optional<std::string> organizationName;
    std::optional<std::string> organizationID;
    std::optional<std::string> plan;
    std::optional<std::string> method;

    // Lower-cased email, "|" and the organization id (empty when absent); nothing without email.
    std::optional<std::string> sameAccountKey() const;

    // An object with the five field names as keys; absent fields are left out.
    nlohmann::json toJSON() const;
    // Missing keys and nulls read as absent. Nothing when the value is not an object or a field
    // is not a string.
    static std::optional<AccountInfo> fromJSON(const nlohmann::json& json);

    bool operator==(const AccountInfo&) const = default;
};

// A tool's sign-in state for one profile.
struct ToolStatus {
    enum class Kind { signedIn, ready, needsAttention, notInstalled, notSetUp };

    Kind kind = Kind::notSetUp;
    AccountInfo account;  // signedIn only
    std::string text;     // the detail of `ready`, the sentence for the user of `needsAttention`

    static ToolStatus signedIn(AccountInfo account);
    static ToolStatus ready(std::string detail);
    static ToolStatus needsAttention(std::string message);
    static ToolStatus notInstalled();
    static ToolStatus notSetUp();

    // "Signed in", "Set up", "Needs attention", "Not installed", "Not set up".
    static std::string_view label(Kind kind) noexcept;
    std::string_view label() const noexcept { return label(kind); }

    bool operator==(const ToolStatus&) const = default;
};

// The command that signs a user in, for the user to run in a terminal.
struct SignInCommand {
    std::string executable;
    std::vector<std::string> arguments;
    Environment environment;         // variables to set
    std::vector<std::string> unset;  // variables to remove, in this order

    // One line to paste into a POSIX shell: "env -u A -u B X=1 Y=2 exe args", each part present
    // only when needed; values, the executable and the arguments shell-quoted.
    std::string shellLine() const;

    bool operator==(const SignInCommand&) const = default;
};

// One command-line tool: where its data lives for a profile and how to ask it about sign-in.
class ToolAdapter {
public:
    virtual ~ToolAdapter() = default;

    ToolKind kind() const noexcept { return kind_; }
    const ToolContext& context() const noexcept { return context_; }

    virtual bool isInstalled() const = 0;
    // The variables that point the tool at the profile's data folder; empty for `system` storage.
    virtual Environment environment(const Profile& profile) const = 0;
    // Asks the tool itself; blocks while its command runs. Every problem becomes a status.
    virtual ToolStatus status(const Profile& profile) const noexcept = 0;
    // Makes the profile's data folder ready for use. Throws VeerlineError.
    virtual void prepare(const Profile& profile) const = 0;
    // Prepares, then describes the sign-in command; nothing when the tool is not installed.
    virtual std::optional<SignInCommand> setUp(const Profile& profile) const = 0;
    // Signs the tool out of the profile's data folder if it can, then deletes the folder; never
    // touches a `system` profile's data. Blocks while the sign-out runs. Throws VeerlineError.
    virtual void removeData(const Profile& profile) const = 0;
    // Command-line tools have nothing to launch: throws VeerlineError::unsupported.
    virtual void launch(const Profile& profile) const;

    // Nothing for `system` storage; otherwise the tool's folder for the profile in the support
    // directory.
    std::optional<std::string> dataDirectory(const Profile& profile) const;
    static std::optional<std::string> dataDirectory(ToolKind kind, const Paths& paths, const Profile& profile);
    // Creates the data folder and missing parents (0700); an existing folder is fine.
    std::optional<std::string> createDataDirectory(const Profile& profile) const;
    static std::optional<std::string> createDataDirectory(ToolKind kind, const Paths& paths, const Profile& profile);
    // Deletes the data folder and everything in it; refuses (unsafeDeletion) a folder outside the
    // support directory.
    void deleteDataDirectory(const Profile& profile) const;

    // The environment of the tool's own commands: the base environment of the context's
    // environment plus the profile's variables.
    Environment helperEnvironment(const Profile& profile) const;

protected:
    ToolAdapter(ToolKind kind, ToolContext context) : kind_(kind), context_(std::move(context)) {}
    ToolAdapter(const ToolAdapter&) = default;
    ToolAdapter& operator=(const ToolAdapter&) = default;

private:
    ToolKind kind_;
    ToolContext context_;
};

}  // namespace veerline
