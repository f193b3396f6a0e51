#include "base/json_input.h"

#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/error.h"

namespace veerline {

namespace {

// Builds the value from nlohmann's non-recursive SAX parse, one open container per frame.
template <typename Json>
class BoundedBuilder {
public:
    using Integer = typename Json::number_integer_t;
    using Unsigned = typename Json::number_unsigned_t;
    using Float = typename Json::number_float_t;
    using String = typename Json::string_t;
    using Binary = typename Json::binary_t;

    JsonInput::Problem problem = JsonInput::Problem::none;
    Json result;

    bool null() { return add(Json(nullptr)); }
    bool boolean(bool value) { return add(Json(value)); }
    bool number_integer(Integer value) { return add(Json(value)); }
    bool number_unsigned(Unsigned value) { return add(Json(value)); }
    bool number_float(Float value, const String&) { return add(Json(value)); }
    bool string(String& value) { return add(Json(std::move(value))); }
    bool binary(Binary& value) { return add(Json::binary(std::move(value))); }
    bool start_object(std::size_t) { return enter(Json::object()); }
    bool start_array(std::size_t) { return enter(Json::array()); }
    bool end_object() { return close(); }
    bool end_array() { return close(); }
    bool key(String& name) {
        frames_.back().key = std::move(name);
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) {
        problem = JsonInput::Problem::invalid;
        return false;
    }

private:
    static constexpr bool ordered = std::is_same_v<Json, nlohmann::ordered_json>;

    struct Frame {
        Json value;
        String key;          // of the next member, in an object
        String keyInParent;  // this container's own key in the object around it
        std::unordered_map<String, std::size_t> positions;  // ordered objects: where each key is
    };
    std::vector<Frame> frames_;

    bool enter(Json container) {
        if (frames_.size() >= JsonInput::maxDepth) {
            problem = JsonInput::Problem::tooDeep;
            return false;
        }
        String keyInParent = frames_.empty() ? String() : std::move(frames_.back().key);
        frames_.push_back(Frame{std::move(container), {}, std::move(keyInParent), {}});
        return true;
    }

    bool close() {
        Frame done = std::move(frames_.back());
        frames_.pop_back();
        if (!frames_.empty() && frames_.back().value.is_object()) frames_.back().key = std::move(done.keyInParent);
        return add(std::move(done.value));
    }

    bool add(Json value) {
        if (frames_.empty()) {
            result = std::move(value);
            return true;
        }
        Frame& frame = frames_.back();
        if (frame.value.is_array()) {
            frame.value.template get_ref<typename Json::array_t&>().push_back(std::move(value));
        } else if constexpr (ordered) {
            // ordered_map finds a key by walking its vector: put members in by position instead.
            auto& members = static_cast<typename Json::object_t::Container&>(frame.value.template get_ref<typename Json::object_t&>());
            auto [at, fresh] = frame.positions.try_emplace(frame.key, members.size());
            if (fresh) {
                members.emplace_back(std::move(frame.key), std::move(value));
            } else {
                members[at->second].second = std::move(value);
            }
        } else {
            frame.value.template get_ref<typename Json::object_t&>()[std::move(frame.key)] = std::move(value);
        }
        return true;
    }
};

template <typename Json>
std::optional<Json> parsed(std::string_view text, JsonInput::Problem* problem) noexcept {
    JsonInput::Problem found = JsonInput::Problem::invalid;
    std::optional<Json> value;
    try {
        BoundedBuilder<Json> builder;
        bool complete = Json::sax_parse(text.begin(), text.end(), &builder);
        found = builder.problem;
        if (complete && found == JsonInput::Problem::none) value = std::move(builder.result);
        if (!complete && found == JsonInput::Problem::none) found = JsonInput::Problem::invalid;
    } catch (...) {
        // Only allocation throws here: the input counts as unreadable.
        found = JsonInput::Problem::invalid;
    }
    if (problem) *problem = found;
    return value;
}

}  // namespace

std::optional<nlohmann::json> JsonInput::parse(std::string_view text, Problem* problem) noexcept {
    return parsed<nlohmann::json>(text, problem);
}

std::optional<nlohmann::ordered_json> JsonInput::parseOrdered(std::string_view text, Problem* problem) noexcept {
    return parsed<nlohmann::ordered_json>(text, problem);
}

std::string JsonInput::describe(Problem problem) {
    if (problem == Problem::tooDeep) {
        return "it is too deeply nested (more than " + std::to_string(maxDepth) + " levels)";
    }
    return "it isn't valid JSON";
}

nlohmann::ordered_json JsonInput::objectOrThrow(std::string_view text, const std::string& shown) {
    Problem problem = Problem::none;
    std::optional<nlohmann::ordered_json> value = parseOrdered(text, &problem);
    if (!value) throw VeerlineError::io("Couldn't read " + shown + ": " + describe(problem) + ".");
    if (!value->is_object()) throw VeerlineError::io("Couldn't read " + shown + ": it isn't a JSON object.");
    return std::move(*value);
}

}  // namespace veerline
