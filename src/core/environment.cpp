#include "core/environment.h"

#include <cstring>

extern char** environ;

namespace veerline {

Environment currentEnvironment() {
    Environment environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const char* equals = std::strchr(*entry, '=');
        if (equals == nullptr) continue;
        // The first definition wins, as getenv does.
        environment.emplace(std::string(static_cast<const char*>(*entry), equals), std::string(equals + 1));
    }
    return environment;
}

}  // namespace veerline
