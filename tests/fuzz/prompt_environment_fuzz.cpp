// `veerline-resolve --prompt` reads HOME, PWD and VEERLINE_DISABLE from whatever environment the
// shell has; none of it may make the prompt fail. The input holds the
// values separated by NUL bytes; an empty HOME stands for a home with a profiles file in it.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "base/paths.h"
#include "resolution/document_loading.h"
#include "resolution/rule_resolver.h"

using namespace veerline;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string home = [] {
        char pattern[] = "/tmp/veerline-prompt-fuzz-XXXXXX";
        std::string folder = ::mkdtemp(pattern);
        std::filesystem::create_directories(folder + "/.veerline");
        std::ofstream(folder + "/.veerline/profiles.json")
            << R"({"version":1,"profiles":[{"id":"w","name":"Work"}],"rules":[{"path":"~/w","profileID":"w"}],"cliDefault":"w"})";
        return folder;
    }();
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    Environment environment;
    for (const char* name : {"HOME", "PWD", "VEERLINE_DISABLE"}) {
        std::size_t end = std::min(rest.find('\0'), rest.size());
        environment[name] = std::string(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    if (environment["HOME"].empty()) environment["HOME"] = home;
    Paths paths = Paths::forCurrentUser(environment);
    if (auto document = loadDocument(environment, paths)) {
        std::string cwd = logicalWorkingDirectory(environment);
        RuleResolver(std::move(*document), paths.home).resolve(cwd, cwd);
    }
    return 0;
}
