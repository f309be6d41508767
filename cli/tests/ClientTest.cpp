#include <iostream>

#include <gtest/gtest.h>

#include "ScriptedClient.h"

namespace {

// Runs the client against `uri` (if any), then hands it `payloads`. Gives its standard output,
// then each state it reported ("open", "closed") and message it delivered, one a line.
std::string logOf(WebsocketClient& client, const std::string& uri, const std::vector<std::string>& payloads = {}) {
    std::string log;
    client.onStateChange(
        [&](IWebsocketClient::State state) { log += state == IWebsocketClient::Open ? "open\n" : "closed\n"; });
    client.onMessage([&](Json::Value message) {
        log += compactJson(message) + "\n";
    });
    std::ostringstream out;
    std::streambuf* saved = std::cout.rdbuf(out.rdbuf());
    if (!uri.empty()) {
        client.connect(uri);
        client.run();
    }
    for (const std::string& payload : payloads) {
        client.receivePayload(payload);
    }
    std::cout.rdbuf(saved);
    return out.str() + log;
}

// Frames over real sockets are the end-to-end journeys' part; here only what needs no service.
TEST(WebsocketClient, RefusedOrRejectedAddressesAndSendingWhileClosed) {
    asio::io_context io;
    asio::ip::tcp::acceptor taken(io, asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    const std::string refused = "ws://127.0.0.1:" + std::to_string(taken.local_endpoint().port());
    taken.close();
    WebsocketClient client, rejected;
    EXPECT_EQ(logOf(client, refused), "closed\n");
    EXPECT_EQ(logOf(rejected, "ws://127.0.0.1:0"), "Error initializing connection: invalid uri\n");
    try {
        rejected.sendMessage(Json::Value("x"));
        FAIL() << "nothing thrown";
    } catch (std::runtime_error* error) {
        EXPECT_STREQ(error->what(), "Illegal state: can only send messages while connected.");
        delete error;
    }
}

TEST(WebsocketClient, OneReaderServesEveryPayloadAndOnlyItsOwnErrorsAreCaught) {
    WebsocketClient client;
    const std::string deep = std::string(999, '[') + std::string(999, ']');
    EXPECT_EQ(logOf(client, "", {"{", "[1]", std::string(1001, '['), deep, "[2]"}),
              "Failed to parse JSON message: * Line 1, Column 2\n"
              "  Missing '}' or object member name\n\n"
              "Failed to parse JSON message: Exceeded stackLimit in readValue().\n"
              "[1]\n" +
                  deep + "\n[2]\n");
    client.onMessage([](Json::Value) { throw std::logic_error("from the callback"); });
    EXPECT_THROW(client.receivePayload("{}"), std::logic_error);
}

} // namespace
