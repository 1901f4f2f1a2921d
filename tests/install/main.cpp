// The README's "connect and send a message" example, word for word between the two markers
// (scripts/test.d/30-install.sh compares them). It joins the lobby of a local emulator as a
// guest, sends one message and prints "sent" or the error.
//
// Usage: connect_and_send [SERVICE_URL]

// README example: begin
#include <future>
#include <iostream>

#include "TavloMessagingSDK/TavloMessagingSDK.hpp"

// Events arrive on the SDK's queue; this delegate sends once the chatroom is live.
struct Greeter : tavlo::TVKChatEventDelegate {
    std::weak_ptr<tavlo::TVKChatManager> manager;
    std::promise<std::string> outcome;  // "sent", or what went wrong

    void chatroomConnected(const std::shared_ptr<tavlo::TVKChat>& chat) override {
        manager.lock()->sendMessage(
            "Hello from C++!", chat, [this] { outcome.set_value("sent"); },
            [this](const tavlo::TVKError& error) { outcome.set_value(error.describe()); });
    }
    void chatroomFailToConnect(const std::shared_ptr<tavlo::TVKChat>&,
                               const tavlo::TVKError& error) override {
        outcome.set_value(error.describe());
    }
};

int main(int argc, char** argv) {
    auto& account = tavlo::TVKSDKAuthManager::sharedManager();
    account.setAccountId("demo-account");
    account.setAccountToken("your-account-token");

    auto manager = tavlo::TVKChatManager::create();
    manager->setHTTPHostURL(argc > 1 ? argv[1] : "http://127.0.0.1:8380");
    auto greeter = std::make_shared<Greeter>();
    greeter->manager = manager;
    manager->connectToChatroom("lobby", "" /* a member's JWT; "" joins as a guest */, 0, greeter);

    const std::string outcome = greeter->outcome.get_future().get();
    std::cout << outcome << '\n';
    manager->disconnectFromChatroom(manager->chatForChatroomName("lobby", false));
    return outcome == "sent" ? 0 : 1;
}
// README example: end
