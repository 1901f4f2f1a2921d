#include "TavloMessagingSDK/TVKArchivedChat.hpp"

#include <atomic>

#include "TavloCoreSDK/DQDataObject.hpp"
#include "TavloMessagingSDK/Internal/TVKArcmsgHTTPClient.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingError.hpp"
#include "TavloMessagingSDK/Internal/TVKMessagingHTTPClient.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"

namespace tavlo {

namespace {

using Files = TVKArchivedMessagesMeta::Files;
using Messages = TVKArchivedChat::Messages;

std::shared_ptr<dispatch::SerialQueue> queueOrOwn(std::shared_ptr<dispatch::SerialQueue> queue) {
    return queue ? std::move(queue) : dispatch::SerialQueue::create("TVKArchivedChat");
}

// One message per element, or nothing when any element is not a message.
std::optional<Messages> messagesFromJSON(const boost::json::array& array) {
    Messages messages;
    messages.reserve(array.size());
    for (const auto& element : array) {
        auto message = DQDataObject::withJSON<TVKChatMessage>(element);
        if (!message) return std::nullopt;
        messages.push_back(std::move(message));
    }
    return messages;
}

/// The shared state of one query over several files. All file requests run at once; each
/// success counts, and the one that completes the count joins the answer. A failure never
/// counts, so after one the answer never comes; only the first failure is reported.
class MultiFileQuery {
  public:
    MultiFileQuery(Files files, std::uint64_t start, std::uint64_t end,
                   TVKArchivedChat::MessagesSuccess success, TVKArchivedChat::Failure failure)
        : files_(std::move(files)),
          start_(start),
          end_(end),
          success_(std::move(success)),
          failure_(std::move(failure)) {}

    const Files& files() const { return files_; }

    void fileArrived() {
        if (arrived_.fetch_add(1) + 1 == files_.size()) deliver();
    }

    void fileFailed(const TVKError& error) {
        // The first failure claims the report; the application's callback then runs with no
        // lock of ours held, so it may call back into the SDK.
        if (failed_.exchange(true)) return;
        if (failure_) failure_(error);
    }

  private:
    void deliver() const {
        Messages joined;
        for (const auto& file : files_) {
            auto part = file->getCachedMessagesWithStart(start_, end_);
            joined.insert(joined.end(), part.begin(), part.end());
        }
        if (success_) success_(joined);
    }

    const Files files_;
    const std::uint64_t start_;
    const std::uint64_t end_;
    const TVKArchivedChat::MessagesSuccess success_;
    const TVKArchivedChat::Failure failure_;
    std::atomic<std::size_t> arrived_{0};
    std::atomic<bool> failed_{false};
};

}  // namespace

// --- Creation -----------------------------------------------------------------------------------

TVKArchivedChat::TVKArchivedChat(Passkey, std::shared_ptr<dispatch::SerialQueue> queue,
                                 std::optional<std::string> caFile,
                                 std::optional<std::string> proxy)
    : queue_(queueOrOwn(std::move(queue))), caFile_(std::move(caFile)), proxy_(std::move(proxy)) {}

std::shared_ptr<TVKArchivedChat> TVKArchivedChat::chatForChatroomName(
    const std::string& chatroomName, const std::string& platform, const std::string& msgHostURL,
    std::shared_ptr<dispatch::SerialQueue> queue, std::optional<std::string> caFile,
    std::optional<std::string> proxy) {
    auto chat = std::make_shared<TVKArchivedChat>(Passkey(), std::move(queue), std::move(caFile),
                                                  std::move(proxy));
    chat->chatroomName_ = chatroomName;
    chat->platform_ = platform;
    chat->msgHTTPClient_ = TVKMessagingHTTPClient::create(msgHostURL, chat->queue_, chat->caFile_);
    chat->msgHTTPClient_->HTTPManager()->setProxy(chat->proxy_);
    return chat;
}

std::shared_ptr<TVKArchivedChat> TVKArchivedChat::chatWithArcmsgHTTPURL(
    const std::optional<std::string>& arcmsgHTTPURL, std::shared_ptr<dispatch::SerialQueue> queue,
    std::optional<std::string> caFile, std::optional<std::string> proxy) {
    auto chat = std::make_shared<TVKArchivedChat>(Passkey(), std::move(queue), std::move(caFile),
                                                  std::move(proxy));
    chat->arcHTTPClient_ = TVKArcmsgHTTPClient::create(arcmsgHTTPURL, chat->queue_, chat->caFile_);
    chat->arcHTTPClient_->HTTPManager()->setProxy(chat->proxy_);
    return chat;
}

// --- State --------------------------------------------------------------------------------------

std::shared_ptr<TVKArcmsgHTTPClient> TVKArchivedChat::arcHTTPClient() const {
    std::shared_ptr<TVKArcmsgHTTPClient> client;
    queue_->sync([&] { client = arcHTTPClient_; });
    return client;
}

std::optional<std::string> TVKArchivedChat::chatId() const {
    std::optional<std::string> chatId;
    queue_->sync([&] { chatId = chatId_; });
    return chatId;
}

TVKArchivedChat::MetaCache TVKArchivedChat::cachedArchivedMetas() const {
    MetaCache metas;
    queue_->sync([&] { metas = cachedArchivedMetas_; });
    return metas;
}

bool TVKArchivedChat::shouldRunInitailProcess() const {
    bool shouldRun = false;
    queue_->sync([&] { shouldRun = arcHTTPClient_ == nullptr; });
    return shouldRun;
}

TVKArchivedChat::Failure TVKArchivedChat::whileAlive(Failure failure) const {
    if (!failure) return nullptr;
    return [weakSelf = weak_from_this(), failure = std::move(failure)](const TVKError& error) {
        if (weakSelf.lock()) failure(error);
    };
}

// --- The initial process ------------------------------------------------------------------------

template <class OnSuccess>
void TVKArchivedChat::sendRepairingOnce(void (TVKArchivedChat::*send)(OnSuccess, Failure),
                                        OnSuccess success, Failure failure) {
    std::weak_ptr<TVKArchivedChat> weakSelf = weak_from_this();
    auto repair = [weakSelf, send, success, failure](const TVKError& error) {
        auto self = weakSelf.lock();
        if (!self) return;
        auto resend = [weakSelf, send, success, failure] {
            if (auto self = weakSelf.lock()) (self.get()->*send)(success, failure);
        };
        self->msgHTTPClient_->handleInvalidRequestError(error, resend, failure);
    };
    (this->*send)(std::move(success), repair);
}

void TVKArchivedChat::startInitailProcess(Success success, Failure failure) {
    queue_->sync([&] {
        if (!canAskTheMessagingService(failure)) return;
        std::weak_ptr<TVKArchivedChat> weakSelf = weak_from_this();
        Failure report = whileAlive(failure);
        ProfileSuccess onProfile = [weakSelf, success, report](const boost::json::object& profile) {
            auto self = weakSelf.lock();
            if (!self) return;
            self->adoptProfile(profile);
            self->addGuestToChat(success, report);
        };
        sendRepairingOnce(&TVKArchivedChat::requestProfile, onProfile, report);
    });
}

bool TVKArchivedChat::canAskTheMessagingService(const Failure& failure) const {
    if (msgHTTPClient_) return true;
    // Made from an archive URL: there is no messaging service to ask.
    if (failure) failure(TVKHTTPInvalidRequestError());
    return false;
}

void TVKArchivedChat::requestProfile(ProfileSuccess success, Failure failure) {
    msgHTTPClient_->getChatProfileForChannel(chatroomName_.value_or(""), platform_.value_or(""),
                                             false, std::move(success), std::move(failure));
}

void TVKArchivedChat::adoptProfile(const boost::json::object& profile) {
    // No "arcMsgURL" is not an error here: the client is made without a base URL and its
    // requests fail later, where a caller is waiting for them.
    arcHTTPClient_ =
        TVKArcmsgHTTPClient::create(json_read::string(profile, "arcMsgURL"), queue_, caFile_);
    arcHTTPClient_->HTTPManager()->setProxy(proxy_);
    chatId_ = json_read::string(profile, "id");
}

void TVKArchivedChat::addGuestToChat(Success success, Failure failure) {
    queue_->sync([&] {
        if (!canAskTheMessagingService(failure)) return;
        std::weak_ptr<TVKArchivedChat> weakSelf = weak_from_this();
        Failure report = whileAlive(failure);
        // The join's user token and socket are of no use: the archive is read without them.
        JoinSuccess onJoined = [weakSelf, success](
                                   const boost::json::value&, const boost::json::value&,
                                   const boost::json::value&, const boost::json::object&) {
            if (weakSelf.lock() && success) success();
        };
        sendRepairingOnce(&TVKArchivedChat::requestGuestJoin, onJoined, report);
    });
}

void TVKArchivedChat::requestGuestJoin(JoinSuccess success, Failure failure) {
    msgHTTPClient_->addGuestToChat(chatId_.value_or(""), defaultGuestName(), std::move(success),
                                   std::move(failure));
}

// --- Meta documents -----------------------------------------------------------------------------

void TVKArchivedChat::getArchivedMessagesMetabyArchivedId(
    const std::optional<std::string>& archivedId, MetaSuccess success, Failure failure) {
    queue_->sync([&] {
        if (archivedId) {
            if (auto cached = cachedArchivedMetas_.find(*archivedId);
                cached != cachedArchivedMetas_.end()) {
                if (success) success(cached->second);
                return;
            }
        }
        std::weak_ptr<TVKArchivedChat> weakSelf = weak_from_this();
        auto fetch = [weakSelf, archivedId, success, failure] {
            if (auto self = weakSelf.lock()) self->fetchMeta(archivedId, success, failure);
        };
        if (shouldRunInitailProcess()) {
            startInitailProcess(fetch, failure);
        } else {
            fetch();
        }
    });
}

void TVKArchivedChat::fetchMeta(const std::optional<std::string>& archivedId, MetaSuccess success,
                                Failure failure) {
    if (!arcHTTPClient_) {
        if (failure) failure(TVKHTTPInvalidRequestError());
        return;
    }
    std::weak_ptr<TVKArchivedChat> weakSelf = weak_from_this();
    auto onMeta = [weakSelf, archivedId, success, failure](const boost::json::object& json) {
        auto self = weakSelf.lock();
        if (!self) return;
        auto meta = DQDataObject::withJSON<TVKArchivedMessagesMeta>(json);
        if (!meta) {
            if (failure) failure(TVKDataMappingErrorWithData(boost::json::value(json)));
            return;
        }
        // Two lookups racing for the same archive both fetch it; the later answer stays.
        self->cachedArchivedMetas_.insert_or_assign(archivedId.value_or(""), meta);
        if (success) success(meta);
    };
    arcHTTPClient_->getArchivedMessagesMetaByArchivedId(archivedId, onMeta, whileAlive(failure));
}

// --- Messages -----------------------------------------------------------------------------------

void TVKArchivedChat::getArchivedMessagesWithConfigs(
    const TVKGetArchivedMessagesConfiguration& configs, MessagesSuccess success, Failure failure) {
    queue_->sync([&] {
        std::weak_ptr<TVKArchivedChat> weakSelf = weak_from_this();
        auto lookUp = [weakSelf, configs, success, failure] {
            auto self = weakSelf.lock();
            if (!self) return;
            auto onMeta = [weakSelf, configs, success,
                           failure](const std::shared_ptr<TVKArchivedMessagesMeta>& meta) {
                if (auto self = weakSelf.lock()) {
                    self->getArchivedMessagesWithConfigs(configs, meta, success, failure);
                }
            };
            self->getArchivedMessagesMetabyArchivedId(configs.archiveId(), onMeta, failure);
        };
        // Running the initial process first lets the meta lookup find the archive client set.
        if (shouldRunInitailProcess()) {
            startInitailProcess(lookUp, failure);
        } else {
            lookUp();
        }
    });
}

void TVKArchivedChat::getArchivedMessagesWithConfigs(
    const TVKGetArchivedMessagesConfiguration& configs,
    const std::shared_ptr<TVKArchivedMessagesMeta>& meta, MessagesSuccess success,
    Failure failure) {
    queue_->sync([&] {
        auto files =
            meta ? meta->getArchivedFilesByStart(configs.start(), configs.end()) : std::nullopt;
        if (!files) {
            if (success) success({});
            return;
        }
        // Deliberately quiet: a range inside a gap between two files selects no file, so no
        // request starts and neither callback is ever called.
        auto query =
            std::make_shared<MultiFileQuery>(std::move(*files), *configs.start(), *configs.end(),
                                             std::move(success), std::move(failure));
        for (const auto& file : query->files()) {
            getArchivedMessagesWithArchiveId(
                configs.archiveId(), file, [query](const Messages&) { query->fileArrived(); },
                [query](const TVKError& error) { query->fileFailed(error); });
        }
    });
}

void TVKArchivedChat::getArchivedMessagesWithArchiveId(
    const std::optional<std::string>& archiveId,
    const std::shared_ptr<TVKArchivedMessagesFile>& file, MessagesSuccess success,
    Failure failure) {
    queue_->sync([&] {
        if (file && file->cachedMessages()) {
            if (success) success(*file->cachedMessages());
            return;
        }
        fetchFile(archiveId, file, std::move(success), std::move(failure));
    });
}

void TVKArchivedChat::fetchFile(const std::optional<std::string>& archiveId,
                                const std::shared_ptr<TVKArchivedMessagesFile>& file,
                                MessagesSuccess success, Failure failure) {
    if (!arcHTTPClient_ || !file) {
        // No archive service yet, or no file to name: nothing can be asked for.
        if (failure) failure(TVKHTTPInvalidRequestError());
        return;
    }
    std::weak_ptr<TVKArchivedChat> weakSelf = weak_from_this();
    auto onMessages = [weakSelf, file, success, failure](const boost::json::array& json) {
        if (!weakSelf.lock()) return;
        auto messages = messagesFromJSON(json);
        if (!messages) {
            if (failure) failure(TVKDataMappingErrorWithData(boost::json::value(json)));
            return;
        }
        file->setCachedMessages(std::move(messages));
        if (success) success(*file->cachedMessages());
    };
    arcHTTPClient_->getArchivedMessagesByArchivedId(archiveId, file->fileId(), onMessages,
                                                    whileAlive(failure));
}

}  // namespace tavlo
