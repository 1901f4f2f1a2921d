#pragma once

// Everything an application uses, in one include:
//
//     #include "TavloMessagingSDK/TavloMessagingSDK.hpp"
//
// Start with `tavlo::TVKChatManager` (TVKChatManager.hpp): configure the core SDK's
// `TVKSDKAuthManager` first, create a manager, connect to a chatroom with a
// `TVKChatEventDelegate` of yours, then act through the manager's operations.

// Core SDK: account, member-token refresh, error values, the log.
#include "TavloCoreSDK/TVKError.hpp"
#include "TavloCoreSDK/TVKLog.hpp"
#include "TavloCoreSDK/TVKSDKAuthManager.hpp"

// The entry point and what it reports.
#include "TavloMessagingSDK/TVKChat.hpp"
#include "TavloMessagingSDK/TVKChatEvent.hpp"
#include "TavloMessagingSDK/TVKChatEventDelegate.hpp"
#include "TavloMessagingSDK/TVKChatManager.hpp"

// Users and records.
#include "TavloMessagingSDK/DQChatProfile.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKAggregatedData.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatMetadata.hpp"

// Queries.
#include "TavloMessagingSDK/TVKGetMessagesConfiguration.hpp"

// Archived history.
#include "TavloMessagingSDK/TVKArchivedChat.hpp"

// Public errors, validation rules and the library's version.
#include "TavloMessagingSDK/TVKMSGError.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"
