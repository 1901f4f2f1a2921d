#pragma once

#include "TavloCoreSDK/TVKExport.hpp"

#include <boost/json/object.hpp>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Dispatch/SerialQueue.hpp"
#include "TavloCoreSDK/TVKError.hpp"
#include "TavloMessagingSDK/TVKGetMessagesConfiguration.hpp"
#include <cstdint>
#include "TavloCoreSDK/DQDataObject.hpp"
#include <string_view>

namespace tavlo {

class TVKChatMessage;

/// The index that names no message: the largest signed 64-bit integer.
inline constexpr std::uint64_t kTVKNotFoundIndex = 0x7FFFFFFFFFFFFFFF;

/// One file of an archive: the messages of one contiguous time span. Time stamps are unsigned
/// milliseconds since 1970 (a time before 1970 is the two's-complement bit pattern of the negative
/// count); an unset bound reads as 0 in comparisons.
///
/// The file's messages are fetched once and kept in `cachedMessages`, in the order the service
/// sent them, which the searches take to be ascending creation time. Plain data without locks:
/// the archived chat reads and writes it on its own queue.
class TAVLO_EXPORT TVKArchivedMessagesFile : public DQDataObject {
  public:
    using Messages = std::vector<std::shared_ptr<TVKChatMessage>>;

    /// Time stamp of the file's first and last message ("start", "end").
    const std::optional<std::uint64_t>& start() const { return start_; }
    const std::optional<std::uint64_t>& end() const { return end_; }
    /// Number of messages as the service counts them ("len"); informative only.
    const std::optional<std::uint64_t>& len() const { return len_; }
    /// The file's id within its archive ("id").
    const std::optional<std::string>& fileId() const { return fileId_; }

    /// The file's messages once fetched; nullopt until then.
    const std::optional<Messages>& cachedMessages() const { return cachedMessages_; }
    /// Stores the fetched messages together with their creation times.
    void setCachedMessages(std::optional<Messages> messages);

    /// True when start <= t <= end, compared as signed 64-bit integers.
    bool containsTimeStamp(std::uint64_t t) const;

    /// Creation time of the cached message at `index` (its `createdDate` through
    /// `unixTimeValue`); `kTVKNotFoundIndex` when there is no such message.
    std::uint64_t timestampForCachedMessageByIndex(std::uint64_t index) const;

    /// Binary search of the cached messages for `t`: with `isStart` the first message at or after
    /// t, otherwise the last one at or before t; `kTVKNotFoundIndex` when t lies before the first
    /// (isStart) or after the last (not isStart) message. Among messages of equal time the search
    /// answers whichever it meets first. `messages` gives only the count; the times are always
    /// read from the cached messages. Arithmetic is unsigned and wraps as such.
    std::uint64_t indexForTimestamp(std::uint64_t t, bool isStart, const Messages& messages) const;

    /// The cached messages created within [start, end], in stored order; empty when nothing is
    /// cached, nothing falls in the range, or start > end.
    Messages getCachedMessagesWithStart(std::uint64_t start, std::uint64_t end) const;

    bool mapJSON(const boost::json::object& json) override;

  private:
    std::optional<std::uint64_t> start_;
    std::optional<std::uint64_t> end_;
    std::optional<std::uint64_t> len_;
    std::optional<std::string> fileId_;
    std::optional<Messages> cachedMessages_;
    // Creation time of each cached message, parsed once when the messages are stored.
    std::vector<std::uint64_t> cachedTimestamps_;
};

/// An archive time stamp from JSON: an integral number as an unsigned 64-bit value (negative
/// ones as their two's complement); nothing for anything else.
TAVLO_EXPORT std::optional<std::uint64_t> archiveTimestampFromJSON(const boost::json::object& json,
                                                                   std::string_view key);

}  // namespace tavlo


namespace tavlo {

/// The meta document of one archive: what it holds and the list of its files, ordered by time,
/// oldest first. Time stamps are unsigned milliseconds since 1970, compared as unsigned 64-bit
/// integers; an unset time reads as 0.
class TAVLO_EXPORT TVKArchivedMessagesMeta : public DQDataObject {
  public:
    using Files = std::vector<std::shared_ptr<TVKArchivedMessagesFile>>;

    /// The message type the archive holds, as sent.
    const std::optional<std::string>& msgType() const { return msgType_; }
    /// Times of the archive's oldest and latest message, as sent.
    const std::optional<std::uint64_t>& oldestDate() const { return oldestDate_; }
    const std::optional<std::uint64_t>& latestDate() const { return latestDate_; }
    const std::optional<std::string>& platform() const { return platform_; }
    /// The archive's files; empty when "files" is missing or any of its entries is not an object.
    const Files& files() const { return files_; }
    const std::optional<std::string>& chatroomName() const { return chatroomName_; }
    /// The service's flag that more exists beyond this document; kept, not acted upon.
    bool hasMore() const { return hasMore_; }

    // --- The archive index ----------------------------------------------------------------------

    /// The first file's start and the last file's end; nothing without files.
    std::optional<std::uint64_t> firstMessageTimestamp() const;
    std::optional<std::uint64_t> lastMessageTimestamp() const;

    /// The first file with this id (a linear scan), or nullptr.
    std::shared_ptr<TVKArchivedMessagesFile> getArchivedMessagesFileByFileId(
        std::string_view fileId) const;

    /// The files that overlap [start, end], oldest first. Nothing (nullopt) when a bound is unset,
    /// start > end, the range lies wholly before or after the archive, or there are no files. An
    /// empty list when the range lies wholly inside a gap between two files.
    std::optional<Files> getArchivedFilesByStart(std::optional<std::uint64_t> start,
                                                 std::optional<std::uint64_t> end) const;

    /// Binary search of the files for `t`: the file that contains it, or, when t falls into a gap
    /// between files, the file after the gap (isStart) or the one before it (not isStart). A time
    /// at or before the first file gives 0, at or after the last file the last index.
    std::uint64_t binarySearchForArchivedFileIndexByTimestamp(std::uint64_t t, bool isStart) const;

    /// The files from `first` to `last`, both inclusive; empty when last < first or an index lies
    /// beyond the list.
    Files getSubFilesByFirstIndex(std::uint64_t first, std::uint64_t last) const;

    bool mapJSON(const boost::json::object& json) override;

  private:
    std::optional<std::string> msgType_;
    std::optional<std::uint64_t> oldestDate_;
    std::optional<std::uint64_t> latestDate_;
    std::optional<std::string> platform_;
    Files files_;
    std::optional<std::string> chatroomName_;
    bool hasMore_ = false;
};

}  // namespace tavlo


namespace tavlo {

class TVKArcmsgHTTPClient;
class TVKChatMessage;
class TVKMessagingHTTPClient;

/// The archived history of one chatroom: answers "the messages of archive A between times S and
/// E" from the archive service, fetching each archive's meta document and each of its files at
/// most once and keeping them for the archived chat's whole life (nothing is evicted).
///
/// It is made in one of two ways. From a chatroom that is held, with the archive service's URL
/// that the chatroom already knows (`chatWithArcmsgHTTPURL`): it is ready at once and never
/// touches the messaging service. Otherwise from the chatroom's name, platform and the messaging
/// service's URL (`chatForChatroomName`): the first request then runs the initial process, which
/// reads the chatroom profile for the archive URL and joins the chatroom as a guest.
///
/// Every completion runs on the archived chat's serial queue (the owner's, normally the chat
/// manager's). Operations may be called from any thread: they run on that queue, inline when the
/// caller is already on it, so a cached answer is delivered before the call returns. Pending
/// requests reach the archived chat through a weak reference and report nothing once it is gone.
/// Errors arrive in the library's internal domains; null callbacks are skipped.
class TAVLO_EXPORT TVKArchivedChat : public std::enable_shared_from_this<TVKArchivedChat> {
    struct Passkey {
        explicit Passkey() = default;
    };

  public:
    using Messages = TVKArchivedMessagesFile::Messages;
    using Success = std::function<void()>;
    using Failure = std::function<void(const TVKError&)>;
    using MetaSuccess = std::function<void(const std::shared_ptr<TVKArchivedMessagesMeta>&)>;
    using MessagesSuccess = std::function<void(const Messages&)>;
    /// Meta documents by archive id.
    using MetaCache = std::map<std::string, std::shared_ptr<TVKArchivedMessagesMeta>, std::less<>>;

    /// An archived chat that still has to find its archive service, through the messaging
    /// service at `msgHostURL`, looking the chatroom up under `platform` (the account id).
    /// `queue` nullptr gives the archived chat a serial queue of its own; `caFile` is an extra
    /// trust anchor for HTTPS; `proxy` is as `TVKChatManager::setProxy` describes it.
    static std::shared_ptr<TVKArchivedChat> chatForChatroomName(
        const std::string& chatroomName, const std::string& platform, const std::string& msgHostURL,
        std::shared_ptr<dispatch::SerialQueue> queue = nullptr,
        std::optional<std::string> caFile = std::nullopt,
        std::optional<std::string> proxy = std::nullopt);

    /// An archived chat of the archive service at `arcmsgHTTPURL` (a held chatroom's
    /// `arcHTTPHostURL`). It never asks for a profile and never joins the chatroom.
    static std::shared_ptr<TVKArchivedChat> chatWithArcmsgHTTPURL(
        const std::optional<std::string>& arcmsgHTTPURL,
        std::shared_ptr<dispatch::SerialQueue> queue = nullptr,
        std::optional<std::string> caFile = std::nullopt,
        std::optional<std::string> proxy = std::nullopt);

    /// The nickname of the guest that the initial process joins as: "Guest".
    static const char* defaultGuestName() { return "Guest"; }

    TVKArchivedChat(Passkey, std::shared_ptr<dispatch::SerialQueue> queue,
                    std::optional<std::string> caFile, std::optional<std::string> proxy);

    // --- Queries --------------------------------------------------------------------------------

    /// The archive's meta document: from the cache, at once, or fetched (after the initial
    /// process where it is still due) and then cached. A document that cannot be mapped fails
    /// with `TVKDataMappingErrorWithData`; archive service errors arrive unchanged.
    void getArchivedMessagesMetabyArchivedId(const std::optional<std::string>& archivedId,
                                             MetaSuccess success, Failure failure);

    /// The archived messages of `configs.archiveId()` created within [start, end], oldest file
    /// first. See the overload below for how the answer is put together.
    void getArchivedMessagesWithConfigs(const TVKGetArchivedMessagesConfiguration& configs,
                                        MessagesSuccess success, Failure failure);

    /// The same query against a meta document in hand. The files overlapping the range are
    /// selected; when none can be (no meta, a bound unset, start > end, the range wholly before or
    /// after the archive, or an archive without files) the answer is an empty list, at once.
    /// Otherwise every file not yet cached is requested at the same moment; once all have arrived
    /// the messages of each, cut to the range, are joined and delivered in one success. A failing
    /// file reports its error, once for the whole query, and success never follows; files that did
    /// arrive stay cached.
    ///
    /// A range that lies wholly inside a gap between two files selects an empty list of files and
    /// ends quietly: neither callback is ever called. Callers must not wait for it.
    void getArchivedMessagesWithConfigs(const TVKGetArchivedMessagesConfiguration& configs,
                                        const std::shared_ptr<TVKArchivedMessagesMeta>& meta,
                                        MessagesSuccess success, Failure failure);

    /// The messages of one file of the archive: its cached messages at once, or fetched, mapped
    /// and cached. A list that cannot be mapped fails with `TVKDataMappingErrorWithData`.
    void getArchivedMessagesWithArchiveId(const std::optional<std::string>& archiveId,
                                          const std::shared_ptr<TVKArchivedMessagesFile>& file,
                                          MessagesSuccess success, Failure failure);

    // --- The initial process ------------------------------------------------------------------

    /// True while the archive service is not known yet.
    bool shouldRunInitailProcess() const;

    /// Reads the chatroom profile (under `platform`, without stickers), takes the archive service
    /// from its "arcMsgURL" and the chat id from its "id", then joins the chatroom as a guest.
    /// Each of the two requests is repaired once through the messaging client when a credential
    /// is at fault. A profile without "arcMsgURL" still succeeds, leaving an archive client that
    /// cannot reach anything. After a failed profile request the next query tries again. An
    /// archived chat made from an archive URL has no messaging client and fails at once with
    /// `TVKHTTPInvalidRequestError`.
    void startInitailProcess(Success success, Failure failure);

    /// Joins the chatroom (`chatId`) as a guest named `defaultGuestName`; the user token it
    /// yields is not kept, since nothing is ever sent as that guest.
    void addGuestToChat(Success success, Failure failure);

    // --- State -------------------------------------------------------------------------------

    /// The archive service's client; nullptr until the initial process has found the service.
    std::shared_ptr<TVKArcmsgHTTPClient> arcHTTPClient() const;
    /// The messaging service's client; only an archived chat made by name has one.
    const std::shared_ptr<TVKMessagingHTTPClient>& msgHTTPClient() const { return msgHTTPClient_; }
    const std::optional<std::string>& chatroomName() const { return chatroomName_; }
    const std::optional<std::string>& platform() const { return platform_; }
    /// The chatroom's id, learnt by the initial process.
    std::optional<std::string> chatId() const;
    /// A snapshot of the meta documents fetched so far.
    MetaCache cachedArchivedMetas() const;
    const std::shared_ptr<dispatch::SerialQueue>& queue() const { return queue_; }

  private:
    // As TVKMessagingHTTPClient's ObjectSuccess and JoinSuccess, whose header is private.
    using ProfileSuccess = std::function<void(const boost::json::object&)>;
    using JoinSuccess = std::function<void(const boost::json::value&, const boost::json::value&,
                                           const boost::json::value&, const boost::json::object&)>;

    /// Sends a messaging request with `send`; a failure goes to the messaging client's repair,
    /// whose refreshed credential lets the same request go out once more, now reporting straight
    /// to `failure`, so a request is never sent more than twice.
    template <class OnSuccess>
    void sendRepairingOnce(void (TVKArchivedChat::*send)(OnSuccess, Failure), OnSuccess success,
                           Failure failure);
    void requestProfile(ProfileSuccess success, Failure failure);
    void adoptProfile(const boost::json::object& profile);
    // False (after telling `failure`) for a reader made from an archive URL alone.
    bool canAskTheMessagingService(const Failure& failure) const;
    void requestGuestJoin(JoinSuccess success, Failure failure);
    void fetchMeta(const std::optional<std::string>& archivedId, MetaSuccess success,
                   Failure failure);
    void fetchFile(const std::optional<std::string>& archiveId,
                   const std::shared_ptr<TVKArchivedMessagesFile>& file, MessagesSuccess success,
                   Failure failure);
    /// `failure`, silenced once this archived chat is gone.
    Failure whileAlive(Failure failure) const;

    const std::shared_ptr<dispatch::SerialQueue> queue_;
    const std::optional<std::string> caFile_;
    const std::optional<std::string> proxy_;
    std::shared_ptr<TVKArcmsgHTTPClient> arcHTTPClient_;
    std::shared_ptr<TVKMessagingHTTPClient> msgHTTPClient_;
    std::optional<std::string> chatroomName_;
    std::optional<std::string> platform_;
    std::optional<std::string> chatId_;
    MetaCache cachedArchivedMetas_;
};

}  // namespace tavlo
