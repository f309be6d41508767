#include "WebsocketClient.h"

#include <chrono>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <utility>

WebsocketClient::WebsocketClient()
    : client(), connectionState(Closed), connection(), reader(Json::CharReaderBuilder().newCharReader()) {
    client.init_asio();
    using std::placeholders::_1;
    using std::placeholders::_2;
    client.set_message_handler(std::bind(&WebsocketClient::onMessageHandler, this, _1, _2));
    client.set_open_handler(std::bind(&WebsocketClient::onOpenHandler, this, _1));
    client.set_close_handler(std::bind(&WebsocketClient::onCloseHandler, this, _1));
    client.set_fail_handler(std::bind(&WebsocketClient::onFailHandler, this, _1));
    // No access log at all; the error log keeps the library's defaults and is the
    // tool's only output on standard error.
    client.clear_access_channels(websocketpp::log::alevel::all);
}

void WebsocketClient::connect(const std::string& uri) {
    websocketpp::lib::error_code ec;
    Endpoint::connection_ptr con = client.get_connection(uri, ec);
    if (ec) {
        std::cout << "Error initializing connection: " << ec.message() << "\n" << std::flush;
        return;
    }
    client.connect(con);
}

void WebsocketClient::disconnect() {
    // A sent frame is written by a handler the endpoint posts to the loop. Stopping
    // from a handler posted behind those writes lets every frame sent so far reach
    // the socket first. No close frame is sent and no state changes.
    client.get_io_service().post([this] { stopWhenFlushed(); });
}

void WebsocketClient::stopWhenFlushed() {
    websocketpp::lib::error_code ec;
    Endpoint::connection_ptr con = client.get_con_from_hdl(connection, ec);
    if (con && con->get_buffered_amount() > 0) {
        // Frames still queued behind a write in progress: look again shortly, without
        // spinning while a slow peer drains the socket.
        auto retry = std::make_shared<asio::steady_timer>(client.get_io_service(), std::chrono::milliseconds(1));
        retry->async_wait([this, retry](const asio::error_code&) { stopWhenFlushed(); });
        return;
    }
    client.stop();
}

void WebsocketClient::onStateChange(std::function<void(IWebsocketClient::State)> callback) {
    stateChangeCallback = std::move(callback);
}

IWebsocketClient::State WebsocketClient::getState() const {
    return connectionState;
}

void WebsocketClient::onMessage(std::function<void(Json::Value)> callback) {
    messageCallback = std::move(callback);
}

void WebsocketClient::sendMessage(Json::Value message) {
    if (connectionState != Open) {
        // Thrown as a pointer on purpose: handlers that catch std::exception by
        // reference must not swallow it.
        throw new std::runtime_error("Illegal state: can only send messages while connected.");
    }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    // The compact writer's output, trailing newline included, is what the service expects.
    Json::FastWriter writer;
#pragma GCC diagnostic pop
    const std::string text = writer.write(message);
    client.send(connection, text, websocketpp::frame::opcode::text);
}

void WebsocketClient::run() {
    client.run();
}

void WebsocketClient::onMessageHandler(websocketpp::connection_hdl, Endpoint::message_ptr message) {
    receivePayload(message->get_payload());
}

void WebsocketClient::receivePayload(const std::string& payload) {
    Json::Value value;
    std::string errors;
    bool parsed = false;
    try {
        parsed = reader->parse(payload.data(), payload.data() + payload.size(), &value, &errors);
    } catch (const Json::Exception& e) {
        // Nesting deeper than the reader's limit throws instead of failing; to the
        // service it is just another payload that does not parse.
        errors = e.what();
    }
    if (!parsed) {
        std::cout << "Failed to parse JSON message: " << errors << "\n" << std::flush;
        return;
    }
    if (messageCallback) {
        // The parsed tree is not used again here, so the callee gets it without a copy.
        messageCallback(std::move(value));
    }
}

void WebsocketClient::onOpenHandler(websocketpp::connection_hdl hdl) {
    connectionState = Open;
    connection = hdl;
    if (stateChangeCallback) {
        stateChangeCallback(Open);
    }
}

void WebsocketClient::onCloseHandler(websocketpp::connection_hdl) {
    connectionState = Closed;
    connection.reset();
    if (stateChangeCallback) {
        stateChangeCallback(Closed);
    }
}

void WebsocketClient::onFailHandler(websocketpp::connection_hdl) {
    // Unlike a close, a failed attempt leaves the stored handle as it was; sending is
    // refused anyway because the state is Closed.
    connectionState = Closed;
    if (stateChangeCallback) {
        stateChangeCallback(Closed);
    }
}
