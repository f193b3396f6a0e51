#include "usage/codex_line_reader.h"

#include <cmath>
#include <limits>
#include <vector>

#include <nlohmann/json.hpp>

namespace veerline {

namespace {

using nlohmann::json;

// Follows the line's events, keeping what the document's tree would hold at the few places that
// matter. A key's value replaces what an earlier member of the same name left, the whole of it: a
// second "payload" object starts from nothing.
class Reader final : public nlohmann::json_sax<json> {
public:
    std::optional<CodexTokenCount> result() {
        if (!rootObject_ || !eventMessage_ || !payloadObject_ || !tokenCount_ || !infoObject_ || !usageObject_ ||
            !timestamp_) {
            return std::nullopt;
        }
        figures_.timestamp = std::move(*timestamp_);
        return std::move(figures_);
    }

    bool null() override { return scalar(); }
    bool boolean(bool) override { return scalar(); }
    bool binary(binary_t&) override { return scalar(); }

    bool number_integer(number_integer_t value) override {
        if (std::int64_t* figure = pendingFigure()) *figure = value;
        return scalar();
    }

    bool number_unsigned(number_unsigned_t value) override {
        constexpr auto most = std::numeric_limits<std::int64_t>::max();
        if (std::int64_t* figure = pendingFigure()) *figure = value > std::uint64_t(most) ? most : std::int64_t(value);
        return scalar();
    }

    bool number_float(number_float_t value, const string_t&) override {
        if (std::int64_t* figure = pendingFigure()) {
            // Held at the 64-bit limits, as the integers are: an absurd count must stay absurd.
            double whole = std::trunc(value);
            if (std::isnan(whole)) *figure = 0;
            else if (whole >= 9223372036854775808.0) *figure = std::numeric_limits<std::int64_t>::max();
            else if (whole < -9223372036854775808.0) *figure = std::numeric_limits<std::int64_t>::min();
            else *figure = static_cast<std::int64_t>(whole);
        }
        return scalar();
    }

    bool string(string_t& value) override {
        if (place() == Place::root && pending_ == Key::type) {
            eventMessage_ = value == "event_msg";
        } else if (place() == Place::root && pending_ == Key::timestamp) {
            timestamp_ = std::move(value);
        } else if (place() == Place::payload && pending_ == Key::type) {
            tokenCount_ = value == "token_count";
        }
        return scalar();
    }

    bool key(string_t& name) override {
        pending_ = Key::other;
        switch (place()) {
            case Place::root:
                if (name == "type") {
                    pending_ = Key::type;
                    eventMessage_ = false;
                } else if (name == "timestamp") {
                    pending_ = Key::timestamp;
                    timestamp_.reset();
                } else if (name == "payload") {
                    pending_ = Key::payload;
                    payloadObject_ = tokenCount_ = false;
                    forgetInfo();
                }
                break;
            case Place::payload:
                if (name == "type") {
                    pending_ = Key::type;
                    tokenCount_ = false;
                } else if (name == "info") {
                    pending_ = Key::info;
                    forgetInfo();
                }
                break;
            case Place::info:
                if (name == "last_token_usage") {
                    pending_ = Key::usage;
                    usageObject_ = false;
                    figures_ = {};
                }
                break;
            case Place::usage:
                if (name == "input_tokens") pending_ = Key::input;
                if (name == "cached_input_tokens") pending_ = Key::cachedInput;
                if (name == "output_tokens") pending_ = Key::output;
                if (name == "cache_write_input_tokens") pending_ = Key::cacheWrite;
                if (std::int64_t* figure = pendingFigure()) *figure = 0;
                break;
            case Place::other:
                break;
        }
        return true;
    }

    bool start_object(std::size_t) override {
        Place inner = Place::other;
        if (places_.empty()) {
            rootObject_ = true;
            inner = Place::root;
        } else if (place() == Place::root && pending_ == Key::payload) {
            payloadObject_ = true;
            inner = Place::payload;
        } else if (place() == Place::payload && pending_ == Key::info) {
            infoObject_ = true;
            inner = Place::info;
        } else if (place() == Place::info && pending_ == Key::usage) {
            usageObject_ = true;
            inner = Place::usage;
        }
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
    enum class Place { root, payload, info, usage, other };
    enum class Key { other, type, timestamp, payload, info, usage, input, cachedInput, output, cacheWrite };

    Place place() const { return places_.empty() ? Place::other : places_.back(); }

    std::int64_t* pendingFigure() {
        if (place() != Place::usage) return nullptr;
        switch (pending_) {
            case Key::input: return &figures_.input;
            case Key::cachedInput: return &figures_.cachedInput;
            case Key::output: return &figures_.output;
            case Key::cacheWrite: return &figures_.cacheWriteInput;
            default: return nullptr;
        }
    }

    void forgetInfo() {
        infoObject_ = usageObject_ = false;
        figures_ = {};
    }

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
    bool rootObject_ = false;
    bool eventMessage_ = false;
    bool payloadObject_ = false;
    bool tokenCount_ = false;
    bool infoObject_ = false;
    bool usageObject_ = false;
    std::optional<std::string> timestamp_;
    CodexTokenCount figures_;
};

}  // namespace

std::optional<CodexTokenCount> readCodexTokenCount(std::string_view line) {
    Reader reader;
    if (!json::sax_parse(line, &reader)) return std::nullopt;
    return reader.result();
}

}  // namespace veerline
