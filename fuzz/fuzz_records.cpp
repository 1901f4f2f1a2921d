// Maps arbitrary JSON into every record the service's answers and events are turned into: users,
// messages (plain and sticker), sticker sets, profiles, aggregated counters and batches, and
// metadata. No input may crash, throw, leak or trip a sanitizer.
#include <boost/json.hpp>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "TavloMessagingSDK/DQChatProfile.hpp"
#include "TavloMessagingSDK/TVKChatUser.hpp"
#include "TavloMessagingSDK/TVKAggregatedData.hpp"
#include "TavloMessagingSDK/TVKChatMessage.hpp"
#include "TavloMessagingSDK/TVKChatMetadata.hpp"

namespace {

using namespace tavlo;

// Reads every field, so that a record's state is exercised and not only its construction.
void touch(const TVKChatUser& user) {
    (void)user.hash();
    (void)(user == user);
    (void)user.accessLevel();
    (void)user.isGuest();
    (void)user.isBoundWithChat();
    (void)user.notAllowedErrorForPinMessage();
    (void)user.name();
    (void)user.identities();
}

void touch(const TVKChatMessage& message) {
    (void)message.hash();
    (void)(message == message);
    if (message.text()) (void)message.text()->size();
    if (message.rawData()) (void)message.rawData()->kind();
    if (message.creator()) touch(*message.creator());
}

void mapEveryRecord(const boost::json::value& json) {
    if (auto user = DQDataObject::withJSON<TVKChatUser>(json)) touch(*user);
    (void)DQDataObject::withJSON<DQChatUser>(json);

    auto message = DQDataObject::withJSON<TVKChatMessage>(json);
    if (message) touch(*message);
    if (auto sticker = TVKChatMessage::withJSON(json, "https://cdn.example/s.png")) {
        touch(*sticker);
        if (message) (void)(*sticker == *message);
    }

    if (auto set = DQDataObject::withJSON<TVKChatSticker>(json)) {
        if (message && message->text()) (void)set->stickerURLWithText(*message->text());
        (void)set->stickerURLWithText("");
    }
    if (auto profile = DQDataObject::withJSON<DQChatProfile>(json)) {
        profile->setInputInterval(profile->inputInterval().value_or(0) + 1);
    }
    if (auto item = DQDataObject::withJSON<TVKAggregatedItem>(json)) {
        item->addCount(item->count().value_or(0));
    }
    if (auto batch = DQDataObject::withJSON<TVKAggregatedData>(json); batch && batch->items()) {
        for (const auto& item : *batch->items()) item->addCount(~std::uint64_t{0});
    }
    (void)DQDataObject::withJSON<TVKChatMetadata>(json);
    (void)labelFromJSON(json);
}

void mapEveryList(const boost::json::value& json) {
    (void)DQDataObject::objectsWithArrayOfJSON<TVKChatUser>(json);
    (void)DQDataObject::objectsWithArrayOfJSON<TVKChatMessage>(json);
    (void)DQDataObject::objectsWithArrayOfJSON<TVKChatSticker>(json);
    (void)DQDataObject::objectsWithArrayOfJSON<TVKAggregatedItem>(json);
    (void)DQDataObject::objectsWithArrayOfJSON<TVKAggregatedData>(json);
    for (const auto& [key, entry] : TVKChatMetadata::dictionaryWithArrayOfJSON(json)) {
        (void)key;
        (void)entry->value();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    boost::system::error_code error;
    const auto json =
        boost::json::parse(std::string_view(reinterpret_cast<const char*>(data), size), error);
    if (error) return 0;

    mapEveryRecord(json);
    mapEveryList(json);
    // Records arrive nested in answers and events: map the members and elements one level down.
    if (const auto* object = json.if_object()) {
        for (const auto& member : *object) {
            mapEveryRecord(member.value());
            mapEveryList(member.value());
        }
    } else if (const auto* array = json.if_array()) {
        for (const auto& element : *array) mapEveryRecord(element);
    }
    return 0;
}
