// Feeds arbitrary bytes to the validation rules and the message query translation: as a time
// stamp, a metadata key, an archive identifier, a chatroom name, raw text, and, when the bytes
// parse as JSON, as a metadata value and as page numbers. None may crash, hang or throw, and the
// cheap invariants between them must hold.

#include <boost/json.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "TavloMessagingSDK/TVKGetMessagesConfiguration.hpp"
#include "TavloMessagingSDK/TVKMSGUtility.hpp"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

void fuzzText(std::string_view text) {
    (void)tavlo::unixTimeValue(text);
    (void)tavlo::isLegalArchivedId(text);
    check(!tavlo::isLegalChatMetadataKey(text) || (!text.empty() && text.size() <= 30));

    // A UTF-16 length never exceeds the UTF-8 length, and is never zero for non-empty text.
    const std::size_t units = tavlo::utf16Length(text);
    check(units <= text.size() && (units > 0) == !text.empty());

    const std::string prefixed = tavlo::addPersonalChatPrefix(text);
    check(tavlo::isKindOfPersonalChatroomName(prefixed));
    check(tavlo::withoutPrefixChatroomName(prefixed) == text);

    // A string value is measured with its two quotes.
    const boost::json::value string(text);
    const bool broadcastLegal = tavlo::isLegalChatMetadataValue(string, true);
    check(broadcastLegal == (units + 2 <= 1024));
    check(!broadcastLegal || tavlo::isLegalChatMetadataValue(string, false));
}

void fuzzJSON(const boost::json::value& json) {
    const auto text = tavlo::convertToJSONValueString(json);
    const bool legal = tavlo::isLegalChatMetadataValue(json, false);
    check(!legal || text.has_value());
    check(!tavlo::isLegalChatMetadataValue(json, true) || legal);

    // A compact container text is valid JSON. (Not compared after a second reading: the JSON
    // parser's own number reading may differ from the shortest text in the last digit.)
    if (text && (json.is_array() || json.is_object())) {
        boost::system::error_code error;
        (void)boost::json::parse(*text, error);
        check(!error);
    }

    tavlo::TVKGetMessagesConfiguration configuration;
    const auto* array = json.if_array();
    configuration.setPage(array && !array->empty() ? array->front() : json);
    configuration.setPerPage(array && array->size() > 1 ? (*array)[1] : json);
    const auto parameters = configuration.getConfigurationDictionary();
    const std::uint64_t count = parameters.at("count").as_uint64();
    check(count >= 1 && count <= 100 && parameters.at("offset").as_int64() >= 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    fuzzText(text);

    boost::system::error_code error;
    const boost::json::value json = boost::json::parse(text, error);
    if (!error) fuzzJSON(json);
    return 0;
}
