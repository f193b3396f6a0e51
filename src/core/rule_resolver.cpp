#include "core/rule_resolver.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <string_view>

#include "core/file_io.h"
#include "core/paths.h"
#include "core/unicode.h"

namespace veerline {

namespace {

// Length of the line break starting at `i`, or 0: LF, VT, FF, CR (CR LF as one), NEL, LS, PS.
std::size_t newlineLength(std::string_view text, std::size_t i) {
    switch (static_cast<unsigned char>(text[i])) {
        case '\n':
        case '\v':
        case '\f':
            return 1;
        case '\r':
            return i + 1 < text.size() && text[i + 1] == '\n' ? 2 : 1;
        case 0xC2:
            return i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0x85 ? 2 : 0;
        case 0xE2:
            if (i + 2 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0x80) {
                auto third = static_cast<unsigned char>(text[i + 2]);
                if (third == 0xA8 || third == 0xA9) return 3;
            }
            return 0;
        default:
            return 0;
    }
}

std::string_view trimSpacesAndTabs(std::string_view line) {
    auto first = line.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    return line.substr(first, line.find_last_not_of(" \t") - first + 1);
}

// Case-insensitive volumes compare lower-cased paths. Folding each path once up front keeps the
// comparisons themselves free of allocations; on case-sensitive volumes nothing is copied.
class ComparisonKeys {
public:
    ComparisonKeys(const std::vector<std::string>& paths, bool caseSensitive) : keys_(&paths) {
        if (caseSensitive) return;
        folded_.reserve(paths.size());
        for (const auto& path : paths) folded_.push_back(unicode::lowercased(path));
        keys_ = &folded_;
    }
    ComparisonKeys(const ComparisonKeys&) = delete;
    ComparisonKeys& operator=(const ComparisonKeys&) = delete;

    const std::vector<std::string>& get() const { return *keys_; }

private:
    std::vector<std::string> folded_;
    const std::vector<std::string>* keys_;
};

// The real path of `path` when it names the working folder (nearly always, in the shim): the
// kernel keeps that one, so it costs a call or three instead of resolving the path.
std::optional<std::string> realWorkingFolder(const std::string& path) {
    std::unique_ptr<char, decltype(&std::free)> cwd(::getcwd(nullptr, 0), &std::free);
    if (!cwd || cwd.get()[0] != '/') return std::nullopt;
    if (path != cwd.get()) {
        auto identity = FileIdentity::of(path);
        if (!identity || identity != FileIdentity::of(".")) return std::nullopt;
    }
    return std::string(cwd.get());
}

// Real paths of normalised paths for the length of one resolution. The target's real path is
// asked of the system in one go; every folder on it is real itself, so the rules' folders above
// the target cost nothing more. Other folders are looked at once each (rules mostly share leading
// folders): one lstat per new folder instead of a readlink per component of every path.
// Symbolic links are left to the system's realpath.
class RealPaths {
public:
    std::optional<std::string> ofTarget(const std::string& path) {
        realTarget_ = realWorkingFolder(path);
        if (!realTarget_) realTarget_ = PathUtil::realPath(path);
        if (realTarget_ != path) memo_.emplace(path, realTarget_);
        return realTarget_;
    }

    std::optional<std::string> of(const std::string& path) {
        if (path == "/" || onRealTarget(path)) return path;
        auto known = memo_.find(path);
        if (known != memo_.end()) return known->second;

        std::optional<std::string> real;
        std::size_t slash = path.rfind('/');
        if (std::optional<std::string> parent = of(slash == 0 ? std::string("/") : path.substr(0, slash))) {
            struct stat info {};
            if (lookUp(*parent, path.c_str() + slash + 1, info)) {
                std::string candidate = *parent == "/" ? std::string() : std::move(*parent);
                candidate.append(path, slash, std::string::npos);
                real = S_ISLNK(info.st_mode) ? PathUtil::realPath(candidate) : std::move(candidate);
            }
        }
        return memo_.emplace(path, std::move(real)).first->second;
    }

private:
    // lstat of `name` inside the real folder `folder`. Rules often sit side by side in one folder;
    // from the second neighbour on, the lookup goes through an open descriptor of that folder,
    // which spares the kernel walking the whole path again each time.
    bool lookUp(const std::string& folder, const char* name, struct stat& info) {
        if (folder == lastFolder_ && !lastFolderOpened_) {
            lastFolderOpened_ = true;
            lastFolderFD_ = FileDescriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        } else if (folder != lastFolder_) {
            lastFolder_ = folder;
            lastFolderOpened_ = false;
            lastFolderFD_ = FileDescriptor();
        }
        if (lastFolderFD_) return ::fstatat(lastFolderFD_.get(), name, &info, AT_SYMLINK_NOFOLLOW) == 0;
        std::string full = folder == "/" ? std::string() : folder;
        full.append(1, '/').append(name);
        return ::lstat(full.c_str(), &info) == 0;
    }

    bool onRealTarget(const std::string& path) const {
        return realTarget_ && realTarget_->starts_with(path) &&
               (realTarget_->size() == path.size() || (*realTarget_)[path.size()] == '/');
    }

    std::optional<std::string> realTarget_;
    std::map<std::string, std::optional<std::string>> memo_;
    std::string lastFolder_;
    bool lastFolderOpened_ = false;
    FileDescriptor lastFolderFD_;
};

std::optional<Profile> copyOf(const Profile* profile) {
    return profile != nullptr ? std::optional<Profile>(*profile) : std::nullopt;
}

bool anyInside(const std::vector<std::string>& paths, const std::string& base) {
    return std::any_of(paths.begin(), paths.end(),
                       [&](const std::string& path) { return PathUtil::isSameOrInside(path, base, true); });
}

}  // namespace

RuleResolver::RuleResolver(ProfileDocument profiles, std::string homeFolder, CaseSensitivity caseSensitivity)
    : document(std::move(profiles)), home(std::move(homeFolder)), caseSensitivity_(std::move(caseSensitivity)) {}

Resolution RuleResolver::resolve(const std::string& path, const std::string& cwd) const noexcept {
    std::string normalized = PathUtil::normalize(PathUtil::expandTilde(path, home), cwd);
    RealPaths realPaths;
    std::optional<std::string> real = realPaths.ofTarget(normalized);
    const std::string& volumePath = real ? *real : normalized;
    const bool caseSensitive =
        caseSensitivity_ ? caseSensitivity_(volumePath) : PathUtil::isCaseSensitiveVolume(volumePath);

    std::size_t firstReal = real ? (*real == normalized ? 0 : 1) : 1;
    std::vector<std::string> targets = real ? unique({normalized, *real}) : std::vector<std::string>{normalized};
    const ComparisonKeys targetKeys(targets, caseSensitive);

    struct Best {
        const FolderRule* rule;
        std::vector<std::string> forms;
        std::size_t depth;
    };
    std::optional<Best> best;
    for (const FolderRule& rule : document.rules) {
        if (!document.profile(rule.profileID)) continue;
        std::string folder = PathUtil::normalize(PathUtil::expandTilde(rule.folderPath(), home));
        std::optional<std::string> realFolder = realPaths.of(folder);
        const std::string* forms[2] = {&folder, realFolder && *realFolder != folder ? &*realFolder : nullptr};
        for (const std::string* form : forms) {
            if (form == nullptr) continue;
            if (!anyInside(targetKeys.get(), caseSensitive ? *form : unicode::lowercased(*form))) continue;
            std::size_t depth = PathUtil::componentCount(*form);
            if (!best || best->depth < depth) {
                std::vector<std::string> bestForms{folder};
                if (forms[1] != nullptr) bestForms.push_back(*forms[1]);
                best = Best{&rule, std::move(bestForms), depth};
            }
        }
    }

    std::vector<std::string> warnings;
    if (std::optional<Dotfile> dotfile = nearestDotfile(targets, firstReal)) {
        if (auto named = document.profile(std::string_view(dotfile->reference))) {
            if (!best) return {*named, Resolution::Source::dotfile(std::move(dotfile->path)), {}};

            // The dotfile only wins from strictly inside the rule's folder.
            std::string folder = PathUtil::parent(dotfile->path);
            std::vector<std::string> dotfileForms{folder};
            if (!dotfile->inRealChain) {
                if (auto realFolder = realPaths.of(folder)) dotfileForms = unique({folder, *realFolder});
            }
            const ComparisonKeys dotfileKeys(dotfileForms, caseSensitive);
            const ComparisonKeys ruleKeys(best->forms, caseSensitive);
            for (std::size_t f = 0; f < best->forms.size(); ++f) {
                std::size_t ruleDepth = PathUtil::componentCount(best->forms[f]);
                for (std::size_t d = 0; d < dotfileForms.size(); ++d) {
                    if (PathUtil::isSameOrInside(dotfileKeys.get()[d], ruleKeys.get()[f], true) &&
                        ruleDepth < PathUtil::componentCount(dotfileForms[d])) {
                        return {*named, Resolution::Source::dotfile(std::move(dotfile->path)), {}};
                    }
                }
            }
            return {copyOf(document.profile(best->rule->profileID)), Resolution::Source::folderRule(*best->rule), {}};
        }
        warnings.push_back(dotfile->path + " names \u201C" + dotfile->reference +
                           "\u201D, but there's no profile with that name.");
    }

    if (best) {
        return {copyOf(document.profile(best->rule->profileID)), Resolution::Source::folderRule(*best->rule),
                std::move(warnings)};
    }
    if (document.cliDefault) {
        if (auto fallback = document.profile(*document.cliDefault)) {
            return {*fallback, Resolution::Source::cliDefault(), std::move(warnings)};
        }
    }
    return {std::nullopt, Resolution::Source::none(), std::move(warnings)};
}

std::optional<RuleResolver::Dotfile> RuleResolver::nearestDotfile(const std::vector<std::string>& starts,
                                                                  std::size_t firstReal) const {
    std::string candidate;
    for (std::size_t i = 0; i < starts.size(); ++i) {
        const std::string& start = starts[i];
        std::size_t length = start.size();
        for (;;) {
            std::string_view folder(start.data(), length);
            // An earlier walk already went through this folder and everything above it.
            bool walked = std::any_of(starts.begin(), starts.begin() + static_cast<std::ptrdiff_t>(i),
                                      [&](const std::string& earlier) {
                                          return folder == "/" || earlier == folder ||
                                                 (earlier.starts_with(folder) && earlier[folder.size()] == '/');
                                      });
            if (walked) break;

            candidate.assign(folder == "/" ? std::string_view() : folder);
            candidate += '/';
            candidate += dotfileName;
            struct stat info {};
            if (::stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
                if (auto reference = readReference(candidate)) {
                    return Dotfile{std::move(candidate), std::move(*reference), i >= firstReal};
                }
            }
            if (length <= 1) break;
            std::size_t slash = start.rfind('/', length - 1);
            length = slash == 0 || slash == std::string::npos ? 1 : slash;
        }
    }
    return std::nullopt;
}

std::optional<std::string> RuleResolver::readReference(const std::string& path) noexcept {
    try {
        std::string bytes;
        {
            // Non-blocking so that a FIFO under that name cannot stall the prompt.
            FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
            if (!file) return std::nullopt;
            if (readAll(file.get(), bytes, maxDotfileSize + 1) != 0) return std::nullopt;
        }
        if (bytes.size() > maxDotfileSize) return std::nullopt;
        std::string_view text(bytes);
        if (!unicode::isValidUTF8(text)) return std::nullopt;

        std::size_t lineStart = 0;
        for (std::size_t i = 0; i <= text.size();) {
            std::size_t breakLength = i < text.size() ? newlineLength(text, i) : 1;
            if (breakLength == 0) {
                ++i;
                continue;
            }
            std::string_view line = trimSpacesAndTabs(text.substr(lineStart, i - lineStart));
            if (!line.empty() && line.front() != '#') return std::string(line);
            i += breakLength;
            lineStart = i;
        }
        return std::nullopt;
    } catch (...) {
        return std::nullopt;
    }
}

std::vector<std::string> RuleResolver::unique(std::vector<std::string> list) {
    std::vector<std::string> kept;
    kept.reserve(list.size());
    for (auto& item : list) {
        if (std::find(kept.begin(), kept.end(), item) == kept.end()) kept.push_back(std::move(item));
    }
    return kept;
}

}  // namespace veerline
