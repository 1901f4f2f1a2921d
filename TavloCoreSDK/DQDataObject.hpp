#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <boost/json.hpp>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavlo {

/// Base of the records built from the service's JSON. A record exists only when mapping
/// succeeded: `withJSON` yields nullptr for anything but a JSON object, or when the record's own
/// `mapJSON` refuses the object. Mapping is lenient field by field: a member of an unexpected
/// type is left unset, never an error, unless the record says otherwise.
class TAVLO_EXPORT DQDataObject {
  public:
    virtual ~DQDataObject() = default;

    /// Builds a `Record` from `json`, or nullptr.
    template <class Record>
    static std::shared_ptr<Record> withJSON(const boost::json::value& json) {
        const auto* object = json.if_object();
        if (!object) return nullptr;
        auto record = std::make_shared<Record>();
        if (!record->mapJSON(*object)) return nullptr;
        return record;
    }

    /// Builds one record per element of a JSON array. Nothing (nullopt) when `json` is not an
    /// array or any element fails to map.
    template <class Record>
    static std::optional<std::vector<std::shared_ptr<Record>>> objectsWithArrayOfJSON(
        const boost::json::value& json) {
        const auto* array = json.if_array();
        if (!array) return std::nullopt;
        std::vector<std::shared_ptr<Record>> records;
        records.reserve(array->size());
        for (const auto& element : *array) {
            auto record = withJSON<Record>(element);
            if (!record) return std::nullopt;
            records.push_back(std::move(record));
        }
        return records;
    }

    /// Reads the members the record needs; false refuses the whole record. Called once, by
    /// `withJSON`, on a freshly made record.
    virtual bool mapJSON(const boost::json::object& json) = 0;
};

/// Lenient readers for record mapping: the value when the member exists with a fitting type.
namespace json_read {
TAVLO_EXPORT std::optional<std::string> string(const boost::json::object& json,
                                               std::string_view key);
/// Integral numbers, and doubles that hold an integral value within range.
TAVLO_EXPORT std::optional<std::int64_t> int64(const boost::json::object& json,
                                               std::string_view key);
TAVLO_EXPORT std::optional<double> number(const boost::json::object& json, std::string_view key);
TAVLO_EXPORT std::optional<bool> boolean(const boost::json::object& json, std::string_view key);
TAVLO_EXPORT const boost::json::object* object(const boost::json::object& json,
                                               std::string_view key);
TAVLO_EXPORT const boost::json::array* array(const boost::json::object& json, std::string_view key);
/// The member as it stands (null pointer when absent; a JSON null is present).
TAVLO_EXPORT const boost::json::value* any(const boost::json::object& json, std::string_view key);
}  // namespace json_read

}  // namespace tavlo
