#pragma once

#include <map>
#include <string>

namespace veerline {

// A process environment: variable names to values. Iteration order carries no meaning.
using Environment = std::map<std::string, std::string>;

// The environment of the running process.
Environment currentEnvironment();

// Looks a variable up; nullptr when it is not set.
inline const std::string* lookup(const Environment& environment, const std::string& name) {
    auto found = environment.find(name);
    return found == environment.end() ? nullptr : &found->second;
}

}  // namespace veerline
