#include "TavloCoreSDK/DQDataObject.hpp"

#include <cmath>

namespace tavlo::json_read {

const boost::json::value* any(const boost::json::object& json, std::string_view key) {
    return json.if_contains(key);
}

std::optional<std::string> string(const boost::json::object& json, std::string_view key) {
    const auto* value = any(json, key);
    if (!value || !value->is_string()) return std::nullopt;
    return std::string(value->get_string());
}

std::optional<std::int64_t> int64(const boost::json::object& json, std::string_view key) {
    const auto* value = any(json, key);
    if (!value) return std::nullopt;
    if (value->is_int64()) return value->get_int64();
    if (value->is_uint64()) {
        auto u = value->get_uint64();
        if (u > static_cast<std::uint64_t>(INT64_MAX)) return std::nullopt;
        return static_cast<std::int64_t>(u);
    }
    if (value->is_double()) {
        double d = value->get_double();
        if (!std::isfinite(d) || std::trunc(d) != d || d < -9.2e18 || d > 9.2e18) return std::nullopt;
        return static_cast<std::int64_t>(d);
    }
    return std::nullopt;
}

std::optional<double> number(const boost::json::object& json, std::string_view key) {
    const auto* value = any(json, key);
    if (!value) return std::nullopt;
    if (value->is_double()) return value->get_double();
    if (value->is_int64()) return static_cast<double>(value->get_int64());
    if (value->is_uint64()) return static_cast<double>(value->get_uint64());
    return std::nullopt;
}

std::optional<bool> boolean(const boost::json::object& json, std::string_view key) {
    const auto* value = any(json, key);
    if (!value || !value->is_bool()) return std::nullopt;
    return value->get_bool();
}

const boost::json::object* object(const boost::json::object& json, std::string_view key) {
    const auto* value = any(json, key);
    return value ? value->if_object() : nullptr;
}

const boost::json::array* array(const boost::json::object& json, std::string_view key) {
    const auto* value = any(json, key);
    return value ? value->if_array() : nullptr;
}

}  // namespace tavlo::json_read
