#include "usage/status_line_input.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include <nlohmann/json.hpp>

namespace veerline::StatusLineInput {

namespace {

using nlohmann::json;

// Follows the parser's events and keeps the two texts as the document would hold them, so that
// what was read before a cut still counts. A key's value replaces what an earlier member of the
// same name left, the whole of it.
class FolderReader final : public nlohmann::json_sax<json> {
public:
    std::optional<std::string> result() { return currentDir_ ? currentDir_ : cwd_; }

    bool null() override { return scalar(); }
    bool boolean(bool) override { return scalar(); }
    bool number_integer(number_integer_t) override { return scalar(); }
    bool number_unsigned(number_unsigned_t) override { return scalar(); }
    bool number_float(number_float_t, const string_t&) override { return scalar(); }
    bool binary(binary_t&) override { return scalar(); }

    bool string(string_t& value) override {
        if (place() == Place::root && pending_ == Key::cwd) cwd_ = std::move(value);
        if (place() == Place::workspace && pending_ == Key::currentDir) currentDir_ = std::move(value);
        return scalar();
    }

    bool key(string_t& name) override {
        pending_ = Key::other;
        if (place() == Place::root && name == "workspace") {
            pending_ = Key::workspace;
            currentDir_.reset();
        } else if (place() == Place::root && name == "cwd") {
            pending_ = Key::cwd;
            cwd_.reset();
        } else if (place() == Place::workspace && name == "current_dir") {
            pending_ = Key::currentDir;
            currentDir_.reset();
        }
        return true;
    }

    bool start_object(std::size_t) override {
        Place inner = Place::other;
        if (places_.empty()) inner = Place::root;
        else if (place() == Place::root && pending_ == Key::workspace) inner = Place::workspace;
        places_.push_back(inner);
        pending_ = Key::other;
        return true;
    }

    bool start_array(std::size_t) override {
        places_.push_back(Place::other);
        pending_ = Key::other;
        return true;
    }

    bool end_object() override { return leave(); }
    bool end_array() override { return leave(); }

    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }

private:
    enum class Place { root, workspace, other };
    enum class Key { other, workspace, cwd, currentDir };

    Place place() const { return places_.empty() ? Place::other : places_.back(); }

    bool scalar() {
        pending_ = Key::other;
        return true;
    }

    bool leave() {
        places_.pop_back();
        pending_ = Key::other;
        return true;
    }

    std::vector<Place> places_;
    Key pending_ = Key::other;
    std::optional<std::string> cwd_;
    std::optional<std::string> currentDir_;
};

}  // namespace

std::string readWithin(int fd, std::size_t limit, std::chrono::milliseconds wait) noexcept {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + wait;
    std::string input;
    try {
        char buffer[16384];
        while (input.size() < limit) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) break;
            struct pollfd ready {fd, POLLIN, 0};
            int events = ::poll(&ready, 1, static_cast<int>(left));
            if (events < 0 && errno == EINTR) continue;
            if (events <= 0) break;
            ssize_t count = ::read(fd, buffer, std::min(sizeof buffer, limit - input.size()));
            if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            if (count <= 0) break;
            input.append(buffer, static_cast<std::size_t>(count));
        }
    } catch (...) {
        // Out of memory: what arrived so far is the answer.
    }
    return input;
}

std::optional<std::string> folder(std::string_view input) noexcept {
    try {
        FolderReader reader;
        json::sax_parse(input, &reader);
        return reader.result();
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace veerline::StatusLineInput
