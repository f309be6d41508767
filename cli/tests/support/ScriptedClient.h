#pragma once

#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "ArgsParser.h"
#include "WebsocketClient.h"

// Parses `text` with the reader settings the real client uses; null when it does not parse.
inline Json::Value parseJson(const std::string& text) {
    Json::Value value;
    std::string errors;
    std::unique_ptr<Json::CharReader>(Json::CharReaderBuilder().newCharReader())
        ->parse(text.data(), text.data() + text.size(), &value, &errors);
    return value;
}

// A value as one line of JSON, the form the real client puts on the wire.
inline std::string compactJson(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

// The parser's verdict on a command line given as blank-separated words; the parser's
// exceptions travel on.
inline std::unique_ptr<ToolConfig> parseArgs(const std::string& line) {
    std::istringstream in("devupdate " + line);
    const std::vector<std::string> words((std::istream_iterator<std::string>(in)), {});
    std::vector<const char*> argv;
    for (const std::string& word : words) {
        argv.push_back(word.c_str());
    }
    return ArgumentParser::parseArguments(static_cast<int>(argv.size()), argv.data());
}

// An in-memory IWebsocketClient: run() plays a script of connection states and
// already-parsed messages until the script ends or, once the controller has
// disconnected, a message is next. Every sent message is kept as compact JSON text.
// A later run() goes on where the last one stopped, so a script can grow between runs.
class ScriptedClient : public IWebsocketClient {
public:
    void addState(State reported) { script.emplace_back(reported, Json::Value()); }
    void addMessage(Json::Value message) { script.emplace_back(std::nullopt, std::move(message)); }
    void addText(const std::string& text) { addMessage(parseJson(text)); }

    void connect(const std::string& address) override { uri = address; }
    void disconnect() override { disconnected = true; }
    void onStateChange(std::function<void(State)> callback) override { stateCallback = std::move(callback); }
    State getState() const override { return current; }
    void onMessage(std::function<void(Json::Value)> callback) override { messageCallback = std::move(callback); }

    void sendMessage(Json::Value message) override {
        if (current != Open) {
            throw new std::runtime_error("Illegal state: can only send messages while connected.");
        }
        sent.push_back(compactJson(message));
    }

    // The controller registers both callbacks before it runs the client. A real client may
    // still report a lost connection after the disconnect, while it delivers.
    void run() override {
        for (; next < script.size() && (!disconnected || script[next].first); ++next) {
            auto& [state, message] = script[next];
            if (state) {
                stateCallback(current = *state);
            } else {
                messageCallback(std::move(message));
            }
        }
    }

    std::vector<std::pair<std::optional<State>, Json::Value>> script;
    std::size_t next = 0;
    std::vector<std::string> sent;
    std::string uri;
    bool disconnected = false;
    State current = Closed;

private:
    std::function<void(State)> stateCallback;
    std::function<void(Json::Value)> messageCallback;
};
