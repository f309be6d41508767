#include <chrono>
#include <condition_variable>
#include <functional>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <websocketpp/config/asio_no_tls.hpp>
#include <websocketpp/server.hpp>

#include "WebsocketClient.h"

namespace {

using Server = websocketpp::server<websocketpp::config::asio>;
using OpenAction = std::function<void(Server&, websocketpp::connection_hdl)>;

// A WebSocket server on an ephemeral loopback port, run on its own thread. It keeps
// every frame it receives and does `onOpen` for each new connection.
class LocalServer {
public:
    explicit LocalServer(OpenAction onOpen) {
        server.init_asio();
        server.set_reuse_addr(true);
        server.clear_access_channels(websocketpp::log::alevel::all);
        server.clear_error_channels(websocketpp::log::elevel::all);
        server.set_open_handler([this, onOpen](websocketpp::connection_hdl hdl) { onOpen(server, hdl); });
        server.set_message_handler([this](websocketpp::connection_hdl, Server::message_ptr message) {
            std::lock_guard<std::mutex> lock(mutex);
            frames.push_back(message->get_payload());
            arrived.notify_all();
        });
        server.listen(asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), 0));
        server.start_accept();
        asio::error_code ec;
        port = server.get_local_endpoint(ec).port();
        thread = std::thread([this] { server.run(); });
    }

    ~LocalServer() {
        server.stop();
        thread.join();
    }

    std::string uri() const { return "ws://127.0.0.1:" + std::to_string(port); }

    std::vector<std::string> waitForFrames(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        arrived.wait_for(lock, std::chrono::seconds(10), [&] { return frames.size() >= count; });
        return frames;
    }

private:
    Server server;
    unsigned short port = 0;
    std::thread thread;
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<std::string> frames;
};

// Collects what a client reports while it runs, with standard output captured.
struct Observed {
    std::vector<IWebsocketClient::State> states;
    std::vector<Json::Value> messages;
    std::string output;
};

Observed runClient(WebsocketClient& client, const std::string& uri,
                   std::function<void(IWebsocketClient::State)> onState = nullptr) {
    Observed seen;
    client.onStateChange([&](IWebsocketClient::State state) {
        seen.states.push_back(state);
        if (onState) {
            onState(state);
        }
    });
    client.onMessage([&](Json::Value message) { seen.messages.push_back(std::move(message)); });
    std::ostringstream captured;
    std::streambuf* saved = std::cout.rdbuf(captured.rdbuf());
    client.connect(uri);
    client.run();
    std::cout.rdbuf(saved);
    seen.output = captured.str();
    return seen;
}

unsigned short unusedPort() {
    asio::io_context io;
    asio::ip::tcp::acceptor acceptor(io, asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    return acceptor.local_endpoint().port();
}

TEST(WebsocketClient, ReportsOpenThenClosedWhenThePeerCloses) {
    LocalServer server(
        [](Server& s, websocketpp::connection_hdl hdl) { s.close(hdl, websocketpp::close::status::normal, ""); });
    WebsocketClient client;
    const Observed seen = runClient(client, server.uri());
    EXPECT_EQ(seen.states, (std::vector<IWebsocketClient::State>{IWebsocketClient::Open, IWebsocketClient::Closed}));
    EXPECT_EQ(client.getState(), IWebsocketClient::Closed);
}

TEST(WebsocketClient, RefusedConnectionGivesOneClosedAndRunReturns) {
    WebsocketClient client;
    const Observed seen = runClient(client, "ws://127.0.0.1:" + std::to_string(unusedPort()));
    EXPECT_EQ(seen.states, std::vector<IWebsocketClient::State>{IWebsocketClient::Closed});
    EXPECT_EQ(seen.output, "");
}

TEST(WebsocketClient, RejectedAddressPrintsOneLineAndRunsNothing) {
    WebsocketClient client;
    const Observed seen = runClient(client, "ws://127.0.0.1:0");
    EXPECT_TRUE(seen.states.empty());
    EXPECT_EQ(seen.output.rfind("Error initializing connection: ", 0), 0u) << seen.output;
    EXPECT_EQ(seen.output.find('\n'), seen.output.size() - 1);
}

TEST(WebsocketClient, UnparsableFrameIsReportedAndTheLoopGoesOn) {
    LocalServer server([](Server& s, websocketpp::connection_hdl hdl) {
        s.send(hdl, "this is not json", websocketpp::frame::opcode::text);
        s.send(hdl, R"({"msg":"text"})", websocketpp::frame::opcode::text);
        s.send(hdl, R"({"msg":"binary"})", websocketpp::frame::opcode::binary);
        s.close(hdl, websocketpp::close::status::normal, "");
    });
    WebsocketClient client;
    const Observed seen = runClient(client, server.uri());
    const std::string prefix = "Failed to parse JSON message: ";
    EXPECT_EQ(seen.output.rfind(prefix, 0), 0u) << seen.output;
    EXPECT_EQ(seen.output.find(prefix, 1), std::string::npos);
    EXPECT_EQ(seen.output.back(), '\n');
    ASSERT_EQ(seen.messages.size(), 2u);
    EXPECT_EQ(seen.messages[0]["msg"], "text");
    EXPECT_EQ(seen.messages[1]["msg"], "binary");
    EXPECT_EQ(seen.states.back(), IWebsocketClient::Closed);
}

TEST(WebsocketClient, FramesSentJustBeforeDisconnectArriveCompactWithNewline) {
    LocalServer server([](Server&, websocketpp::connection_hdl) {});
    WebsocketClient client;
    const Observed seen = runClient(client, server.uri(), [&](IWebsocketClient::State state) {
        if (state != IWebsocketClient::Open) {
            return;
        }
        Json::Value reboot(Json::objectValue);
        reboot["msg"] = "reboot";
        client.sendMessage(reboot);
        Json::Value upgrade(Json::objectValue);
        upgrade["msg"] = "upgrade";
        upgrade["override"] = "false";
        upgrade["device"] = "Unit 8";
        client.sendMessage(upgrade);
        client.disconnect();
    });
    // run() returned without a close: no Closed report.
    EXPECT_EQ(seen.states, std::vector<IWebsocketClient::State>{IWebsocketClient::Open});
    EXPECT_EQ(server.waitForFrames(2),
              (std::vector<std::string>{"{\"msg\":\"reboot\"}\n",
                                        "{\"device\":\"Unit 8\",\"msg\":\"upgrade\",\"override\":\"false\"}\n"}));
}

TEST(WebsocketClient, SendingBeforeOpenThrowsARuntimeErrorPointer) {
    WebsocketClient client;
    Json::Value message(Json::objectValue);
    message["msg"] = "reboot";
    try {
        client.sendMessage(message);
        FAIL() << "nothing thrown";
    } catch (std::runtime_error* error) {
        EXPECT_STREQ(error->what(), "Illegal state: can only send messages while connected.");
        delete error;
    }
}

} // namespace
