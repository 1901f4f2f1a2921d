#pragma once

// Helpers shared by the parts of TVKChat (creation and queries, the connection, the events).
// Not part of the public interface.

#include <boost/json.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "TavloMessagingSDK/Internal/TVKChatReport.hpp"
#include "TavloMessagingSDK/Internal/TVKChatSession.hpp"

namespace tavlo::chat_internal {

/// A record of `json`, or nullptr when the record refuses it. Maps in place, without copying the
/// object into a JSON value first.
template <class Record>
std::shared_ptr<Record> recordOf(const boost::json::object& json) {
    auto record = std::make_shared<Record>();
    if (!record->mapJSON(json)) return nullptr;
    return record;
}

/// One record per element, or nothing when an element is not an object or is refused.
template <class Record>
std::optional<std::vector<std::shared_ptr<Record>>> recordsOf(const boost::json::array& json) {
    std::vector<std::shared_ptr<Record>> records;
    records.reserve(json.size());
    for (const auto& element : json) {
        const auto* object = element.if_object();
        auto record = object ? recordOf<Record>(*object) : nullptr;
        if (!record) return std::nullopt;
        records.push_back(std::move(record));
    }
    return records;
}

/// Calls `failure` with `error` unless it is empty.
inline void report(const TVKChatSession::Failure& failure, const TVKError& error) {
    if (failure) failure(error);
}

/// Hands `report` of `chat` to its owner, when the owner is still alive.
inline void tell(const TVKChatSession::EventDelegate& owner, const std::shared_ptr<TVKChat>& chat,
                 TVKChatReport&& report) {
    if (auto alive = owner.lock()) alive->chatReported(chat, std::move(report));
}

/// The chatroom's public metadata entries of `list`, by key.
TVKChatMetadataDictionary metadataDictionary(const boost::json::array& list);

/// `a + b` in two's complement: counts the service sends are stored as received, and a sum past
/// the top wraps around instead of being undefined.
inline std::int64_t wrappingSum(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

}  // namespace tavlo::chat_internal
