#pragma once

#include <boost/json/object.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "TavloCoreSDK/TVKError.hpp"

namespace tavlo {

class TVKChatMessage;

/// One attempt to fetch what a chatroom missed while its connection was down: the text and the
/// raw messages from a time on, oldest first, page by page through the message list, at most a
/// limit in all. Nothing is delivered here; the caller gets the whole result or one failure, so
/// a failure on a later page leaves no partial delivery behind.
///
/// Paging follows the time rather than a fixed offset: each page starts at the time of the last
/// message received, so a message removed meanwhile cannot shift later ones out of sight. Only
/// when a whole page shares one millisecond does the next page move by offset.
class TVKMissedMessageFetch : public std::enable_shared_from_this<TVKMissedMessageFetch> {
  public:
    enum class Kind { text, raw };
    struct Missed {
        std::shared_ptr<TVKChatMessage> message;
        Kind kind;
        std::int64_t time;
    };
    struct Result {
        /// In time order; within one kind in the service's order.
        std::vector<Missed> messages;
        /// More were missed than the limit: the range from `resumeAt` on was not fetched whole.
        bool truncated = false;
        std::int64_t resumeAt = 0;
    };
    using Messages = std::vector<std::shared_ptr<TVKChatMessage>>;
    using Failure = std::function<void(const TVKError&)>;
    /// Asks the service for one page of the message list with these query parameters.
    using ListPage =
        std::function<void(const boost::json::object& query,
                           std::function<void(const Messages&)> success, Failure failure)>;
    using IsDelivered = std::function<bool(const TVKChatMessage&)>;
    using Completion = std::function<void(const Result&)>;

    static constexpr unsigned kPageSize = 100;

    /// Starts fetching messages from `since` (inclusive) on; messages for which `isDelivered`
    /// holds are left out. Exactly one of `completion` and `failure` is called, from the
    /// completions of `listPage`.
    static void start(ListPage listPage, std::int64_t since, IsDelivered isDelivered,
                      unsigned limit, Completion completion, Failure failure);

    /// The query of one page: the page size, `page` (from 1), the time bound, oldest first.
    static boost::json::object pageQuery(Kind kind, std::int64_t oldestDate, std::int64_t page);

    struct Private {};
    TVKMissedMessageFetch(Private, ListPage listPage, std::int64_t since, IsDelivered isDelivered,
                          unsigned limit, Completion completion, Failure failure);

  private:
    void requestPage();
    void received(const Messages& page);
    void kindDone(bool truncated);
    void finish();

    const ListPage listPage_;
    const std::int64_t since_;
    const IsDelivered isDelivered_;
    const unsigned limit_;
    const Completion completion_;
    const Failure failure_;

    Kind kind_ = Kind::text;
    std::int64_t oldestDate_;
    std::int64_t page_ = 1;
    std::unordered_set<std::string> seenIds_;
    std::vector<Missed> collected_;
    /// The earliest time at which a kind stopped for the limit; later messages are not complete.
    std::optional<std::int64_t> horizon_;
};

}  // namespace tavlo
