// Archived history. It needs no connection: an archive reader is made per chatroom name, from the
// connected chatroom's archive address when there is one, else by asking the service for it.

#include "Dispatch/Internal/QueueConfinement.hpp"
#include "TavloMessagingSDK/TVKArchivedChat.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"
#include "TavloMessagingSDK/TVKGetMessagesConfiguration.hpp"
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace tavlo {

std::shared_ptr<TVKArchivedChat> TVKChatManager::getArchivedChatWithChatroomName(
    const std::string& chatroomName, const std::string& accountId) {
    std::shared_ptr<TVKArchivedChat> archived;
    queue_->sync([&] { archived = archivedChatOnQueue(chatroomName, accountId); });
    return archived;
}

std::shared_ptr<TVKArchivedChat> TVKChatManager::archivedChatOnQueue(
    const std::string& chatroomName, const std::string& accountId) {
    TAVLO_ASSERT_ON_QUEUE(queue_);
    // Made once per name and kept for the manager's life; the account id of later calls is not
    // looked at.
    if (auto found = archivedChats_.find(chatroomName); found != archivedChats_.end()) {
        return found->second;
    }
    const auto current = settings();
    std::shared_ptr<TVKArchivedChat> archived;
    if (auto chat = chats_.find(chatroomName); chat != chats_.end()) {
        archived = TVKArchivedChat::chatWithArcmsgHTTPURL(chat->second->arcHTTPHostURL(), queue_,
                                                          current.caFile, current.proxy);
    } else {
        archived = TVKArchivedChat::chatForChatroomName(
            chatroomName, accountId, current.HTTPHostURL, queue_, current.caFile, current.proxy);
    }
    if (archived) archivedChats_[chatroomName] = archived;
    return archived;
}

void TVKChatManager::getArchivedMessageMetaForChatroom(const std::string& chatroomName,
                                                       const std::string& archivedId,
                                                       ArchivedMetaSuccess success,
                                                       Failure failure) {
    if (!isLegalArchivedId(archivedId)) {
        reportRefusal(failure, TVKMSGArchivedIdNotFoundError());
        return;
    }
    withArchivedChat(chatroomName, failure, [&](TVKArchivedChat& archived) {
        archived.getArchivedMessagesMetabyArchivedId(archivedId, wrapResult(std::move(success)),
                                                     wrapFailure(failure));
    });
}

void TVKChatManager::getArchivedMessagesForChatroom(
    const std::string& chatroomName, const TVKGetArchivedMessagesConfiguration& configuration,
    ArchivedMessagesSuccess success, Failure failure) {
    const auto& archiveId = configuration.archiveId();
    if (!archiveId || !isLegalArchivedId(*archiveId)) {
        reportRefusal(failure, TVKMSGArchivedIdNotFoundError());
        return;
    }
    if (!configuration.isValidConfiguration()) {
        reportRefusal(failure, TVKMSGArchivedInputTimestampError());
        return;
    }
    withArchivedChat(chatroomName, failure, [&](TVKArchivedChat& archived) {
        archived.getArchivedMessagesWithConfigs(configuration, wrapResult(std::move(success)),
                                                wrapFailure(failure));
    });
}

void TVKChatManager::withArchivedChat(const std::string& chatroomName, const Failure& failure,
                                      const std::function<void(TVKArchivedChat&)>& read) {
    const auto account = accountId().value_or("");
    std::optional<TVKError> refusal;
    queue_->sync([&] {
        auto archived = archivedChatOnQueue(chatroomName, account);
        if (archived) {
            read(*archived);
        } else {
            refusal = TVKMSGInternalError();
        }
    });
    reportRefusal(failure, refusal);
}

}  // namespace tavlo
