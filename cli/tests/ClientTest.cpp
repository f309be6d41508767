#include <gtest/gtest.h>

#include "ScriptedClient.h"

namespace {

// Frames over real sockets, refused connections and rejected addresses are the end-to-end
// journeys' part; here only what needs no service.
TEST(WebsocketClient, SendingWhileClosedThrowsAPointer) {
    try {
        WebsocketClient().sendMessage(Json::Value("x"));
        FAIL() << "nothing thrown";
    } catch (std::runtime_error* error) {
        EXPECT_STREQ(error->what(), "Illegal state: can only send messages while connected.");
        delete error;
    }
}

TEST(WebsocketClient, OneReaderServesEveryPayloadAndOnlyItsOwnErrorsAreCaught) {
    WebsocketClient client;
    std::string log;
    client.onMessage([&](Json::Value message) { log += compactJson(message) + "\n"; });
    testing::internal::CaptureStdout();
    const std::string deep = std::string(999, '[') + std::string(999, ']');
    for (const std::string& payload : {std::string("[1]"), std::string(1001, '['), deep}) {
        client.receivePayload(payload);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout() + log,
              "Failed to parse JSON message: Exceeded stackLimit in readValue().\n[1]\n" + deep + "\n");
    client.onMessage([](Json::Value) { throw std::logic_error("from the callback"); });
    EXPECT_THROW(client.receivePayload("{}"), std::logic_error);
}

} // namespace
