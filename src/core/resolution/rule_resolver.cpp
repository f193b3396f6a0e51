#include "resolution/rule_resolver.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <string_view>

#include "base/file_io.h"
#include "base/paths.h"
#include "base/unicode.h"
#include "platform/platform.h"

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

// The real path of `path` when it names the working folder (nearly always, in the shim): the
// kernel keeps that one, so it costs a call or three instead of resolving the path.
std::optional<std::string> realWorkingFolder(const std::string& path) {
    std::optional<std::string> cwd = currentDirectory();
    if (!cwd || !cwd->starts_with('/')) return std::nullopt;
    if (path != *cwd) {
        auto identity = FileIdentity::of(path);
        if (!identity || identity != FileIdentity::of(".")) return std::nullopt;
    }
    return cwd;
}

// How many leading bytes `a` and `b` share. Rule paths share long leading folders; eight bytes at a
// time keeps that cheap.
std::size_t sharedLength(std::string_view a, std::string_view b) {
    std::size_t length = std::min(a.size(), b.size());
    std::size_t i = 0;
    for (; i + 8 <= length; i += 8) {
        std::uint64_t x = 0, y = 0;
        std::memcpy(&x, a.data() + i, 8);
        std::memcpy(&y, b.data() + i, 8);
        if (x != y) break;
    }
    while (i < length && a[i] == b[i]) ++i;
    return i;
}

std::string join(std::string_view folder, std::string_view name) {
    std::string path;
    path.reserve(folder.size() + 1 + name.size());
    if (folder != "/") path.append(folder);
    return path.append(1, '/').append(name);
}

// Real paths of normalised paths for the length of one resolution. The target's real path is
// asked of the system in one go; every folder on it is real itself, so the rules' folders above
// the target cost nothing more. Other folders are looked at once each (rules mostly share leading
// folders): one lstat per name instead of a readlink per component of every path, and a folder
// holding many rule folders is listed once instead. Symbolic links are left to realpath.
class RealPaths {
public:
    std::optional<std::string> ofTarget(const std::string& path) {
        realTarget_ = realWorkingFolder(path);
        targetIsWorkingFolder_ = realTarget_.has_value();
        if (!realTarget_) realTarget_ = PathUtil::realPath(path);
        return realTarget_;
    }

    // The process's working folder (its real path) when the target is that folder.
    const std::string* workingFolder() const { return targetIsWorkingFolder_ ? &*realTarget_ : nullptr; }

    // Rules are about to ask after these folders; where many sit in one folder, that folder is
    // worth listing. Says, path by path, whether its folder will be listed.
    std::vector<bool> expect(const std::vector<std::string>& paths) {
        std::vector<std::pair<std::string_view, std::size_t>> parents;  // and the path's index
        parents.reserve(paths.size());
        for (std::size_t i = 0; i < paths.size(); ++i) {
            std::size_t slash = paths[i].rfind('/');
            if (slash != std::string::npos && slash > 0) parents.emplace_back(std::string_view(paths[i].data(), slash), i);
        }
        std::sort(parents.begin(), parents.end());
        std::vector<bool> listed(paths.size());
        for (auto run = parents.begin(); run != parents.end();) {
            auto next = std::find_if(run, parents.end(), [&](const auto& other) { return other.first != run->first; });
            if (next - run >= listingPaysFrom) {
                entry(run->first)->second.list = true;
                for (auto member = run; member != next; ++member) listed[member->second] = true;
            }
            run = next;
        }

        // Folders where many of the other rule paths part ways (~/r1/x, ~/r2/x, ...): one listing
        // tells which of them lead nowhere. Neighbours in sorted order part at their deepest shared
        // folder. Paths on the real target need no looking at.
        std::vector<std::string_view> sorted;
        for (std::size_t i = 0; i < paths.size(); ++i) {
            if (!listed[i] && !onRealTarget(paths[i])) sorted.emplace_back(paths[i]);
        }
        std::sort(sorted.begin(), sorted.end());
        std::vector<std::pair<std::string_view, std::ptrdiff_t>> partings;
        for (std::size_t i = 1; i < sorted.size(); ++i) {
            std::string_view a = sorted[i - 1], b = sorted[i];
            std::size_t same = sharedLength(a, b);
            if (same == a.size() && b.size() > same && b[same] == '/') continue;  // a holds b
            std::size_t slash = a.rfind('/', same == 0 ? 0 : same - 1);
            if (slash == std::string_view::npos) continue;
            std::string_view shared = slash == 0 ? std::string_view("/") : a.substr(0, slash);
            auto found = std::find_if(partings.begin(), partings.end(), [&](const auto& p) { return p.first == shared; });
            if (found == partings.end()) {
                partings.emplace_back(shared, 2);
            } else {
                ++found->second;
            }
        }
        for (const auto& [shared, count] : partings) {
            if (count >= listingPaysFrom) partingFolders_.emplace_back(shared);
        }
        // The deepest first: it says the most.
        std::sort(partingFolders_.begin(), partingFolders_.end(),
                  [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
        return listed;
    }

    // Whether `path` is known not to exist from the listing of a folder where rule paths part ways;
    // false when that is not known.
    bool knownMissing(const std::string& path) {
        for (const std::string& shared : partingFolders_) {
            std::size_t start = shared == "/" ? 1 : shared.size() + 1;
            if (path.size() <= start || !path.starts_with(shared) || path[start - 1] != '/') continue;
            std::size_t end = path.find('/', start);
            std::string_view name = std::string_view(path).substr(start, end == std::string::npos ? end : end - start);
            auto found = entry(shared);
            found->second.list = true;
            Folder& holder = folder(found->first);
            if (!holder.real) return true;
            return kindOf(holder, name) == Kind::missing;
        }
        return false;
    }

    // The real path of the normalised path `path`: `path` itself when no link is on the way,
    // nothing when it does not exist. The view lives as long as `path` and this object.
    std::optional<std::string_view> of(const std::string& path) {
        if (path == "/" || onRealTarget(path)) return std::string_view(path);
        std::size_t slash = path.rfind('/');
        std::string_view parentPath = slash == 0 ? std::string_view("/") : std::string_view(path.data(), slash);
        Folder& parent = folder(parentPath);
        if (!parent.real) return std::nullopt;
        std::string_view name = std::string_view(path).substr(slash + 1);
        switch (kindOf(parent, name)) {
            case Kind::other:
                if (*parent.real == parentPath) return std::string_view(path);
                return kept_.emplace_back(join(*parent.real, name));
            case Kind::link:
                if (auto real = PathUtil::realPath(join(*parent.real, name))) return kept_.emplace_back(std::move(*real));
                return std::nullopt;
            default:
                return std::nullopt;
        }
    }

private:
    using Kind = platform::FolderListing::Kind;

    // Listing a folder costs about four calls more than looking up one name in it.
    static constexpr std::ptrdiff_t listingPaysFrom = 6;

    struct Folder {
        bool known = false;  // `real` is worked out
        std::optional<std::string> real;
        bool list = false;
        unsigned lookups = 0;
        bool opened = false;
        FileDescriptor fd;
        std::optional<platform::FolderListing> listing;
    };

    using Folders = std::map<std::string, Folder, std::less<>>;

    Folders::iterator entry(std::string_view path) {
        auto found = folders_.find(path);
        return found != folders_.end() ? found : folders_.emplace(std::string(path), Folder{}).first;
    }

    // The folder with its real path worked out (the key's string outlives the view `of` gives).
    Folder& folder(std::string_view path) {
        auto found = entry(path);
        Folder& result = found->second;
        if (!result.known) {
            result.known = true;
            if (auto real = of(found->first)) result.real = std::string(*real);
        }
        return result;
    }

    // What `name` is inside the existing folder. From the second neighbour on, names are looked up
    // through an open descriptor of the folder, which spares the kernel walking the whole path
    // again each time; a folder expected to hold many is listed instead.
    Kind kindOf(Folder& folder, std::string_view name) {
        if (folder.list || folder.lookups++ > 0) {
            if (!folder.opened) {
                folder.opened = true;
                folder.fd = FileDescriptor(::open(folder.real->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
                if (folder.fd && folder.list) folder.listing = platform::listFolder(folder.fd.get());
            }
            if (folder.listing) {
                if (Kind kind = folder.listing->find(name); kind != Kind::unknown) return kind;
            }
        }
        struct stat info {};
        bool found = folder.fd ? ::fstatat(folder.fd.get(), std::string(name).c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0
                               : ::lstat(join(*folder.real, name).c_str(), &info) == 0;
        if (!found) return Kind::missing;
        return S_ISLNK(info.st_mode) ? Kind::link : Kind::other;
    }

    bool onRealTarget(const std::string& path) const {
        return realTarget_ && realTarget_->starts_with(path) &&
               (realTarget_->size() == path.size() || (*realTarget_)[path.size()] == '/');
    }

    std::optional<std::string> realTarget_;
    bool targetIsWorkingFolder_ = false;
    Folders folders_;
    std::vector<std::string> partingFolders_;
    std::deque<std::string> kept_;
};

// The folders on the real target's path, by device and inode, each looked at only when a rule
// asks. A rule folder (links followed) can only have a real path that holds the target if it is one
// of these folders; the device and inode say so with one stat of the rule folder, where working out
// its real path costs one per name on it.
class TargetAncestors {
public:
    // `relative`: the target is the process's working folder, so "..", "../.." name its ancestors
    // without the kernel walking the whole path.
    TargetAncestors(const std::string& target, bool relative)
        : target_(target), relative_(relative), depth_(PathUtil::componentCount(target)), known_(depth_ + 1) {}

    std::size_t depth() const { return depth_; }

    enum class Place { missing, elsewhere, ancestor };

    // Where the folder `path` (links followed) is: missing, one of the target's ancestors at depth
    // `fromDepth` or deeper (the target itself included), or anywhere else.
    Place of(const std::string& path, std::size_t fromDepth) {
        auto identity = FileIdentity::of(path);
        if (!identity) return Place::missing;
        for (std::size_t depth = depth_ + 1; depth-- > fromDepth;) {
            if (ancestor(depth) == identity) return Place::ancestor;
        }
        return Place::elsewhere;
    }

private:
    const std::optional<FileIdentity>& ancestor(std::size_t depth) {
        auto& slot = known_[depth];
        if (!slot.first) {
            slot.first = true;
            std::string path;
            if (relative_) {
                path = depth == depth_ ? "." : "..";
                for (std::size_t up = depth + 1; up < depth_; ++up) path += "/..";
            } else {
                path = "/";
                std::size_t end = 0;
                for (std::size_t piece = 0; piece < depth; ++piece) end = target_.find('/', end + 1);
                if (depth > 0) path = target_.substr(0, end);
            }
            slot.second = FileIdentity::of(path);
        }
        return slot.second;
    }

    const std::string& target_;
    bool relative_;
    std::size_t depth_;
    std::vector<std::pair<bool, std::optional<FileIdentity>>> known_;  // by depth: looked at, identity
};

bool isASCII(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// Whether `path` is at or inside `base` when ASCII letter case is ignored, read from the leading
// bytes: the first plain ASCII difference settles it, and so does reaching the end of `base` over
// ASCII alone. Other text may change length when lower-cased; only a full comparison tells then.
enum class Likeness { unrelated, insideIgnoringCase, undecided };

Likeness compareIgnoringASCIICase(std::string_view path, std::string_view base) {
    auto lower = [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c | 0x20 : c; };
    for (std::size_t i = sharedLength(path, base); i < base.size(); ++i) {
        if (i == path.size()) return isASCII(base.substr(i)) ? Likeness::unrelated : Likeness::undecided;
        auto p = static_cast<unsigned char>(path[i]);
        auto b = static_cast<unsigned char>(base[i]);
        // Equal bytes lower-case alike; a difference at an ASCII byte is a character boundary.
        if (p == b) continue;
        if ((p | b) >= 0x80) return Likeness::undecided;
        if (lower(p) != lower(b)) return Likeness::unrelated;
    }
    return path.size() == base.size() || path[base.size()] == '/' ? Likeness::insideIgnoringCase
                                                                  : Likeness::unrelated;
}

std::optional<Profile> copyOf(const Profile* profile) {
    return profile != nullptr ? std::optional<Profile>(*profile) : std::nullopt;
}

}  // namespace

RuleResolver::RuleResolver(ProfileDocument profiles, std::string homeFolder, CaseSensitivity caseSensitivity)
    : document(std::move(profiles)), home(std::move(homeFolder)), caseSensitivity_(std::move(caseSensitivity)) {}

Resolution RuleResolver::resolve(const std::string& path, const std::string& cwd) const noexcept {
    std::string normalized = PathUtil::normalize(PathUtil::expandTilde(path, home), cwd);
    RealPaths realPaths;
    std::optional<std::string> real = realPaths.ofTarget(normalized);

    // The volume is asked only when an answer depends on it: a path inside another as written is
    // inside it either way, and plain ASCII paths that differ beyond letter case differ either way.
    std::optional<bool> caseSensitiveVolume;
    auto caseSensitive = [&] {
        if (!caseSensitiveVolume) {
            const std::string& volumePath = real ? *real : normalized;
            caseSensitiveVolume =
                caseSensitivity_ ? caseSensitivity_(volumePath) : PathUtil::isCaseSensitiveVolume(volumePath);
        }
        return *caseSensitiveVolume;
    };
    auto inside = [&](const std::string& candidate, const std::string& base) {
        if (PathUtil::isSameOrInside(candidate, base, true)) return true;
        Likeness likeness = compareIgnoringASCIICase(candidate, base);
        if (likeness == Likeness::unrelated || caseSensitive()) return false;
        return likeness == Likeness::insideIgnoringCase || PathUtil::isSameOrInside(candidate, base, false);
    };

    std::size_t firstReal = real ? (*real == normalized ? 0 : 1) : 1;
    std::vector<std::string> targets = real ? unique({normalized, *real}) : std::vector<std::string>{normalized};

    std::vector<const FolderRule*> rules;
    std::vector<std::string> folders;
    rules.reserve(document.rules.size());
    folders.reserve(document.rules.size());
    for (const FolderRule& rule : document.rules) {
        if (!document.profile(rule.profileID)) continue;
        rules.push_back(&rule);
        folders.push_back(PathUtil::normalize(PathUtil::expandTilde(rule.folderView(), home)));
    }
    std::vector<bool> listed = realPaths.expect(folders);

    // The dotfile does not depend on the rules, and when it names a profile it tells which rules
    // can still matter: only a rule folder at least as deep as the dotfile's can keep it from winning.
    std::optional<Dotfile> dotfile = nearestDotfile(targets, firstReal, realPaths.workingFolder());
    const Profile* dotfileProfile = dotfile ? document.profile(std::string_view(dotfile->reference)) : nullptr;

    // With the target its own real path (the usual case), a rule's real path holds the target only
    // if the rule folder is one of the target's folders: one stat of it settles most rules.
    std::optional<TargetAncestors> ancestors;
    std::size_t floor = 0;
    if (real && *real == normalized) {
        ancestors.emplace(*real, realPaths.workingFolder() != nullptr);
        if (dotfileProfile) floor = PathUtil::componentCount(PathUtil::parent(dotfile->path));
    }

    struct Best {
        const FolderRule* rule;
        std::vector<std::string> forms;
        std::size_t depth;
    };
    std::optional<Best> best;
    for (std::size_t r = 0; r < rules.size(); ++r) {
        const std::string& folder = folders[r];
        // (Once the volume is known to ignore case, every such rule is resolved in full anyway.)
        if (ancestors && !listed[r] && caseSensitiveVolume != false && !inside(*real, folder)) {
            // The folder as written does not hold the target, so only a real path that differs from
            // it could, and only one at least `needed` deep would change the answer (a later rule
            // must be strictly deeper than the best so far).
            std::size_t needed = std::max(floor, best ? best->depth + 1 : 0);
            if (needed > ancestors->depth() || realPaths.knownMissing(folder)) continue;
            auto place = ancestors->of(folder, needed);
            if (place == TargetAncestors::Place::missing) continue;
            // Elsewhere is decisive only when names compare exactly: a real path that differs from an
            // ancestor's in letter case alone still holds the target on a case-insensitive volume.
            if (place == TargetAncestors::Place::elsewhere && caseSensitive()) continue;
        }

        std::optional<std::string_view> realFolder = realPaths.of(folder);
        std::optional<std::string> otherForm;
        if (realFolder && *realFolder != folder) otherForm.emplace(*realFolder);

        // The deeper of the rule's two forms that holds the target.
        std::size_t depth = 0;
        bool matches = false;
        const std::string* forms[2] = {&folder, otherForm ? &*otherForm : nullptr};
        for (const std::string* form : forms) {
            if (form == nullptr) continue;
            if (std::none_of(targets.begin(), targets.end(), [&](const std::string& t) { return inside(t, *form); })) {
                continue;
            }
            matches = true;
            depth = std::max(depth, PathUtil::componentCount(*form));
        }
        if (matches && (!best || best->depth < depth)) {
            std::vector<std::string> bestForms{folder};
            if (otherForm) bestForms.push_back(std::move(*otherForm));
            best = Best{rules[r], std::move(bestForms), depth};
        }
    }

    std::vector<std::string> warnings;
    if (dotfile) {
        if (dotfileProfile != nullptr) {
            const Profile& named = *dotfileProfile;
            if (!best) return {named, Resolution::Source::dotfile(std::move(dotfile->path)), {}};

            // The dotfile only wins from strictly inside the rule's folder.
            std::string folder = PathUtil::parent(dotfile->path);
            std::vector<std::string> dotfileForms{folder};
            if (!dotfile->inRealChain) {
                if (auto realFolder = realPaths.of(folder)) dotfileForms = unique({folder, std::string(*realFolder)});
            }
            for (const std::string& ruleForm : best->forms) {
                std::size_t ruleDepth = PathUtil::componentCount(ruleForm);
                for (const std::string& dotfileForm : dotfileForms) {
                    if (inside(dotfileForm, ruleForm) && ruleDepth < PathUtil::componentCount(dotfileForm)) {
                        return {named, Resolution::Source::dotfile(std::move(dotfile->path)), {}};
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
                                                                  std::size_t firstReal,
                                                                  const std::string* workingFolder) const {
    std::string candidate;
    for (std::size_t i = 0; i < starts.size(); ++i) {
        const std::string& start = starts[i];
        // From the process's working folder, names relative to it ("../.veerline") spare the
        // kernel walking the whole path for every folder on the way up.
        const bool relative = workingFolder != nullptr && start == *workingFolder;
        std::size_t levels = 0;
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

            candidate.clear();
            if (relative) {
                for (std::size_t up = 0; up < levels; ++up) candidate += "../";
            } else {
                candidate.append(folder == "/" ? std::string_view() : folder).append(1, '/');
            }
            candidate += dotfileName;
            // Opened straight away: a missing one costs the open what a stat would, and a present one
            // is then not looked up twice. The read takes regular files only, as a stat would.
            if (auto reference = readReference(candidate)) {
                std::string path(folder == "/" ? std::string_view() : folder);
                path.append(1, '/').append(dotfileName);
                return Dotfile{std::move(path), std::move(*reference), i >= firstReal};
            }
            if (length <= 1) break;
            std::size_t slash = start.rfind('/', length - 1);
            length = slash == 0 || slash == std::string::npos ? 1 : slash;
            ++levels;
        }
    }
    return std::nullopt;
}

std::optional<std::string> RuleResolver::readReference(const std::string& path) noexcept {
    try {
        // A FIFO or device under that name, or a file over the size, is passed over.
        std::optional<std::string> bytes = readRegularFile(path, maxDotfileSize);
        if (!bytes) return std::nullopt;
        std::string_view text(*bytes);
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
