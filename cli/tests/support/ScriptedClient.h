#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "WebsocketClient.h"

// Parses `text` with the reader settings the real client uses; null when it does not parse.
inline Json::Value parseJson(const std::string& text) {
    Json::Value value;
    std::string errors;
    std::unique_ptr<Json::CharReader>(Json::CharReaderBuilder().newCharReader())
        ->parse(text.data(), text.data() + text.size(), &value, &errors);
    return value;
}

// An in-memory IWebsocketClient: run() plays a script of connection states and
// already-parsed messages until the script ends or the controller disconnects, and
// every sent message is kept as compact JSON text.
class ScriptedClient : public IWebsocketClient {
public:
    struct Event {
        bool isState = false;
        IWebsocketClient::State state = Closed;
        Json::Value message;
    };

    void addState(IWebsocketClient::State reported) { script.push_back(Event{true, reported, Json::Value()}); }
    void addMessage(Json::Value message) { script.push_back(Event{false, Closed, std::move(message)}); }

    void addText(const std::string& text) { addMessage(parseJson(text)); }

    void connect(const std::string& address) override { uri = address; }
    void disconnect() override { disconnected = true; }
    void onStateChange(std::function<void(IWebsocketClient::State)> callback) override {
        stateCallback = std::move(callback);
    }
    State getState() const override { return current; }
    void onMessage(std::function<void(Json::Value)> callback) override { messageCallback = std::move(callback); }

    void sendMessage(Json::Value message) override {
        if (current != Open) {
            throw new std::runtime_error("Illegal state: can only send messages while connected.");
        }
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "";
        sent.push_back(Json::writeString(writer, message));
    }

    void run() override {
        for (; next < script.size() && !disconnected; ++next) {
            Event& event = script[next];
            if (event.isState) {
                current = event.state;
                if (stateCallback) {
                    stateCallback(event.state);
                }
            } else if (messageCallback) {
                messageCallback(std::move(event.message));
            }
        }
    }

    std::vector<Event> script;
    std::size_t next = 0;
    std::vector<std::string> sent;
    std::string uri;
    bool disconnected = false;
    State current = Closed;

private:
    std::function<void(IWebsocketClient::State)> stateCallback;
    std::function<void(Json::Value)> messageCallback;
};
