#include "TavloMessagingSDK/Internal/TVKMissedMessageFetch.hpp"

#include <algorithm>

#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKGetMessagesConfiguration.hpp"
#include "TavloMessagingSDK/Internal/TVKMessageCursor.hpp"

namespace tavlo {

void TVKMissedMessageFetch::start(ListPage listPage, std::int64_t since, IsDelivered isDelivered,
                                  unsigned limit, Completion completion, Failure failure) {
    auto fetch = std::make_shared<TVKMissedMessageFetch>(Private{}, std::move(listPage), since,
                                                         std::move(isDelivered), limit,
                                                         std::move(completion), std::move(failure));
    fetch->requestPage();
}

TVKMissedMessageFetch::TVKMissedMessageFetch(Private, ListPage listPage, std::int64_t since,
                                             IsDelivered isDelivered, unsigned limit,
                                             Completion completion, Failure failure)
    : listPage_(std::move(listPage)),
      since_(since),
      isDelivered_(std::move(isDelivered)),
      limit_(limit),
      completion_(std::move(completion)),
      failure_(std::move(failure)),
      oldestDate_(since) {}

boost::json::object TVKMissedMessageFetch::pageQuery(Kind kind, std::int64_t oldestDate,
                                                     std::int64_t page) {
    TVKGetMessagesConfiguration configuration;
    configuration.setPage(page);
    configuration.setPerPage(kPageSize);
    configuration.setOldestDate(oldestDate);
    configuration.setOrder(0);
    configuration.setMsgType(kind == Kind::text ? TVKChatMessageTypeNormalText
                                                : TVKChatMessageTypeRawData);
    return configuration.getConfigurationDictionary();
}

void TVKMissedMessageFetch::requestPage() {
    // The request's callbacks keep the fetch alive until its answer; nothing else holds it.
    auto self = shared_from_this();
    listPage_(
        pageQuery(kind_, oldestDate_, page_),
        [self](const Messages& page) { self->received(page); },
        [self](const TVKError& error) { self->failure_(error); });
}

void TVKMissedMessageFetch::received(const Messages& page) {
    std::size_t collectedOfKind = 0;
    for (const auto& missed : collected_) collectedOfKind += missed.kind == kind_;
    for (const auto& message : page) {
        if (!message) continue;
        const auto& id = message->messageId();
        // Consecutive pages overlap at their boundary millisecond; the overlap is known by id.
        if (id && !seenIds_.insert(*id).second) continue;
        if (isDelivered_(*message)) continue;
        collected_.push_back({message, kind_, TVKMessageCursor::timeOf(*message)});
        ++collectedOfKind;
    }
    // One more than the limit tells "exactly the limit" from "more than the limit".
    if (collectedOfKind > limit_) return kindDone(true);
    if (page.size() < kPageSize) return kindDone(false);
    const std::int64_t lastTime = page.back() ? TVKMessageCursor::timeOf(*page.back()) : 0;
    if (lastTime > oldestDate_) {
        oldestDate_ = lastTime;
        page_ = 1;
    } else {
        ++page_;  // a whole page in one millisecond: step past it by offset
    }
    requestPage();
}

void TVKMissedMessageFetch::kindDone(bool truncated) {
    if (truncated) {
        std::int64_t last = since_;
        for (const auto& missed : collected_) {
            if (missed.kind == kind_) last = std::max(last, missed.time);
        }
        horizon_ = horizon_ ? std::min(*horizon_, last) : last;
    }
    if (kind_ == Kind::raw) return finish();
    kind_ = Kind::raw;
    oldestDate_ = since_;
    page_ = 1;
    requestPage();
}

void TVKMissedMessageFetch::finish() {
    // Each kind came in the service's order; a stable merge by time keeps it. Between a text and
    // a raw message of the same millisecond the service gives no order (ids are not sequential).
    std::stable_sort(collected_.begin(), collected_.end(),
                     [](const Missed& a, const Missed& b) { return a.time < b.time; });
    Result result;
    result.truncated = horizon_.has_value();
    for (auto& missed : collected_) {
        // Past the horizon one kind is incomplete: delivering the other kind there would put
        // later messages before earlier ones that are still to be fetched.
        if (horizon_ && missed.time > *horizon_) break;
        if (result.messages.size() == limit_) {
            result.truncated = true;
            break;
        }
        result.messages.push_back(std::move(missed));
    }
    if (result.truncated) {
        result.resumeAt = result.messages.empty() ? since_ : result.messages.back().time;
    }
    completion_(result);
}

}  // namespace tavlo
