#include <future>
#include <iostream>
#include <thread>

#include <gtest/gtest.h>
#include <websocketpp/config/asio_no_tls.hpp>
#include <websocketpp/server.hpp>

#include "WebsocketClient.h"

namespace {

using Server = websocketpp::server<websocketpp::config::asio>;
using Hdl = websocketpp::connection_hdl;

// A server on an ephemeral loopback port, on its own thread: it runs `onOpen` for each
// connection, and `frames` gets the text of the first two frames it receives.
struct LocalServer {
    explicit LocalServer(std::function<void(Server&, Hdl)> onOpen) {
        server.init_asio();
        server.clear_access_channels(websocketpp::log::alevel::all);
        server.clear_error_channels(websocketpp::log::elevel::all);
        server.set_open_handler([this, onOpen](Hdl hdl) { onOpen(server, hdl); });
        server.set_message_handler([this](Hdl, Server::message_ptr message) {
            if ((received += message->get_payload()).back() == '\n' && ++count == 2) {
                frames.set_value(received);
            }
        });
        server.listen(asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), 0));
        server.start_accept();
        uri = "ws://127.0.0.1:" + std::to_string(server.get_local_endpoint(ec).port());
        thread = std::thread([this] { server.run(); });
    }
    ~LocalServer() {
        server.stop();
        thread.join();
    }

    Server server;
    asio::error_code ec;
    std::string uri, received;
    int count = 0;
    std::promise<std::string> frames;
    std::thread thread;
};

// Runs the client against `uri` (when given), then hands it `payloads` as received frames.
// Gives what it wrote to standard output, then each state it reported ("open", "closed") and
// each message it delivered (compact, one a line); `onState` runs after each state.
std::string logOf(
    WebsocketClient& client, const std::string& uri, std::function<void()> onState = [] {},
    const std::vector<std::string>& payloads = {}) {
    std::string log;
    client.onStateChange([&](IWebsocketClient::State state) {
        log += state == IWebsocketClient::Open ? "open\n" : "closed\n";
        onState();
    });
    client.onMessage([&](Json::Value message) {
        Json::StreamWriterBuilder compact;
        compact["indentation"] = "";
        log += Json::writeString(compact, message) + "\n";
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

TEST(WebsocketClient, ParsesTextAndBinaryFramesReportsTheRestAndSeesTheClose) {
    LocalServer server([](Server& s, Hdl hdl) {
        s.send(hdl, "this is not json", websocketpp::frame::opcode::text);
        s.send(hdl, "[\"text\"]", websocketpp::frame::opcode::text);
        s.send(hdl, "[\"binary\"]", websocketpp::frame::opcode::binary);
        s.close(hdl, websocketpp::close::status::normal, "");
    });
    WebsocketClient client;
    EXPECT_EQ(logOf(client, server.uri), "Failed to parse JSON message: * Line 1, Column 1\n"
                                         "  Syntax error: value, object or array expected.\n\n"
                                         "open\n[\"text\"]\n[\"binary\"]\nclosed\n");
}

TEST(WebsocketClient, FramesSentJustBeforeDisconnectArriveCompactWithALineFeed) {
    LocalServer server([](Server&, Hdl) {});
    WebsocketClient client;
    const auto sendTwiceAndStop = [&] {
        Json::Value message(Json::objectValue);
        message["msg"] = "reboot";
        client.sendMessage(message);
        message["device"] = "Unit 8";
        client.sendMessage(message);
        client.disconnect();
    };
    EXPECT_EQ(logOf(client, server.uri, sendTwiceAndStop), "open\n"); // stopped without a close
    auto frames = server.frames.get_future();
    ASSERT_EQ(frames.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(frames.get(), "{\"msg\":\"reboot\"}\n{\"device\":\"Unit 8\",\"msg\":\"reboot\"}\n");
}

TEST(WebsocketClient, RefusedOrRejectedAddressesAndSendingWhileClosed) {
    asio::io_context io;
    asio::ip::tcp::acceptor taken(io, asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    const std::string refused = "ws://127.0.0.1:" + std::to_string(taken.local_endpoint().port());
    taken.close();
    WebsocketClient client, rejected;
    EXPECT_EQ(logOf(client, refused, [&] { client.disconnect(); }), "closed\n");
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
    EXPECT_EQ(logOf(client, "", [] {}, {"{", "nope", "[1]", std::string(1001, '['), deep, "[2]"}),
              "Failed to parse JSON message: * Line 1, Column 2\n"
              "  Missing '}' or object member name\n\n"
              "Failed to parse JSON message: * Line 1, Column 1\n"
              "  Syntax error: value, object or array expected.\n\n"
              "Failed to parse JSON message: Exceeded stackLimit in readValue().\n"
              "[1]\n" +
                  deep + "\n[2]\n");
    client.onMessage([](Json::Value) { throw std::logic_error("from the callback"); });
    EXPECT_THROW(client.receivePayload("{}"), std::logic_error);
}

} // namespace
