#include "WebsocketClient.h"

#include <iostream>
#include <memory>
#include <stdexcept>
#include <utility>

WebsocketClient::WebsocketClient()
    : client(), connectionState(Closed), connection(), reader(Json::CharReaderBuilder().newCharReader()),
      outbox(std::make_shared<Outbox>(client)) {
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
    // No close frame and no state change: the loop stops once every frame sent so far is
    // on the socket, and run() then sees them read before it returns.
    outbox->stopWhenWritten();
}

WebsocketClient::Outbox::Outbox(Endpoint& owner)
    : endpoint(owner), messages(std::make_shared<Config::con_msg_manager_type>()), framer(false, false, messages, rng) {
}

WebsocketClient::Endpoint::message_ptr WebsocketClient::Outbox::frame(const std::string& text) {
    Endpoint::message_ptr payload = messages->get_message(websocketpp::frame::opcode::text, text.size());
    payload->append_payload(text);
    // The count outlives neither the client nor the frame: a frame released after the
    // client has gone finds nothing to update.
    Endpoint::message_ptr frame(new Config::message_type(messages),
                                [owner = weak_from_this()](Config::message_type* done) {
                                    delete done;
                                    if (std::shared_ptr<Outbox> box = owner.lock()) {
                                        box->released();
                                    }
                                });
    ++held;
    sentAny = true;
    websocketpp::lib::error_code ec = framer.prepare_data_frame(payload, frame);
    if (ec) {
        throw websocketpp::exception(ec);
    }
    return frame;
}

bool WebsocketClient::Outbox::anySent() const {
    return sentAny;
}

void WebsocketClient::Outbox::stopWhenWritten() {
    if (held == 0) {
        endpoint.stop();
    } else {
        stopping = true;
    }
}

void WebsocketClient::Outbox::released() {
    if (--held == 0 && stopping) {
        endpoint.stop();
    }
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
    client.send(connection, outbox->frame(writer.write(message)));
}

void WebsocketClient::run() {
    client.run();
    websocketpp::lib::error_code ec;
    Endpoint::connection_ptr con = client.get_con_from_hdl(connection, ec);
    if (!con || connectionState != Open) {
        return; // the connection ended inside the loop and has been reported there
    }
    asio::ip::tcp::socket& socket = con->get_raw_socket();
    if (!outbox->anySent()) {
        discardUnread(socket); // nothing to deliver: close at once
        return;
    }
    if (con->get_state() != websocketpp::session::state::open || !deliver(socket)) {
        // Requests may be lost; the controller must learn it even though its run is over.
        onCloseHandler(connection);
    }
}

bool WebsocketClient::discardUnread(asio::ip::tcp::socket& socket) {
    // Closing a socket that still holds unread bytes aborts the connection, and an abort
    // throws away whatever the socket has not sent yet. A read ends with an error (would
    // block, end of stream, reset) exactly when there is nothing left.
    asio::error_code readError;
    socket.non_blocking(true, readError);
    char unread[65536];
    while (!readError) {
        socket.read_some(asio::buffer(unread), readError);
    }
    return readError == asio::error::would_block;
}

bool WebsocketClient::deliver(asio::ip::tcp::socket& socket) {
    // Bytes on our socket are not yet read by the service, and a service answers while it
    // reads: closing now would reset the connection and lose what it has not taken. So
    // end our sending side (the end of stream travels behind the last frame), read and
    // drop its answers, and close only once it has closed its side: a service does that
    // after reading everything before the end of stream. An end or an error before our
    // end of stream went out means the service never read it all.
    if (!discardUnread(socket)) {
        return false;
    }
    asio::error_code ec;
    socket.non_blocking(false, ec);
    socket.shutdown(asio::ip::tcp::socket::shutdown_send, ec);
    char unread[65536];
    while (!ec) {
        socket.read_some(asio::buffer(unread), ec);
    }
    return ec == asio::error::eof;
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
