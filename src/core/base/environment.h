#pragma once

#include <map>
#include <string>
#include <vector>

namespace veerline {

// A process environment: variable names to values. Iteration order carries no meaning.
using Environment = std::map<std::string, std::string>;

// The environment of the running process.
Environment currentEnvironment();

// Only the named variables of the running process, each as getenv sees it.
Environment currentEnvironment(const std::vector<std::string>& names);

// Looks a variable up; nullptr when it is not set.
inline const std::string* lookup(const Environment& environment, const std::string& name) {
    auto found = environment.find(name);
    return found == environment.end() ? nullptr : &found->second;
}

// An environment for execve made from `source` (usually `environ`) without copying it into a
// map: its "NAME=value" entries in their order, leaving out the names in `replaced`, any later
// definition of a name (getenv only ever sees the first) and entries without "=", then `added`.
// The result is the environment that converting `source` to an Environment, erasing `replaced`
// and inserting `added` would give, in another order.
class ChildEnvironment {
public:
    ChildEnvironment(char** source, const std::vector<std::string>& replaced, const Environment& added);
    ChildEnvironment(const ChildEnvironment&) = delete;
    ChildEnvironment& operator=(const ChildEnvironment&) = delete;

    // Null-terminated; valid as long as this object and `source`.
    char** entries() { return entries_.data(); }

private:
    std::vector<std::string> added_;
    std::vector<char*> entries_;
};

}  // namespace veerline
