// The WebSocket side of the simulator: clients, requests, jobs and the
// faults a test can ask for.
#pragma once

#include "Fleet.h"

#include <asio.hpp>
#include <websocketpp/config/asio_no_tls.hpp>
#include <websocketpp/server.hpp>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace devsim {

struct Options {
    unsigned port = 7070;
    unsigned tickMs = 200;
    unsigned progressSteps = 10;
    std::string recordFile;
    // Fault injection; -1 means off. Counts are per client and count the
    // protocol messages sent to that client.
    long closeAfter = -1;
    long garbageAfter = -1;
    long muteAfter = -1;
    long oversizeAfter = -1;
    long notObjectAfter = -1;
    long deepAfter = -1;
    long dropAfter = -1;
    long resetAfter = -1;
    long pauseReadingMs = -1; // after every message sent, read nothing from that client for this long
    bool binary = false;
};

class Service {
public:
    Service(asio::io_context& context, const Options& settings, Fleet served);

    // Binds 127.0.0.1:port and starts accepting; returns the bound port.
    // Throws std::runtime_error when the port cannot be bound.
    unsigned start();
    // Stops accepting, closes every client and ends all jobs; `whenDrained` runs
    // once the last client has gone.
    void stop(std::function<void()> whenDrained);

private:
    using Server = websocketpp::server<websocketpp::config::asio>;
    using Hdl = websocketpp::connection_hdl;

    // The frames handed to a connection that it has not finished writing. The connection
    // lets go of a frame only once its write has completed (or the connection is gone);
    // its send buffer empties earlier, when a batch is handed to the socket.
    struct Unwritten {
        std::size_t count = 0;
        std::function<void()> whenWritten; // runs once, when the count next reaches zero
    };

    struct Client {
        int id = 0;
        std::string peer;
        long sent = 0;
        bool muted = false;
        bool closing = false; // a close or a drop is under way: nothing more is sent
        bool garbageDone = false;
        bool oversizeDone = false;
        bool notObjectDone = false;
        bool deepDone = false;
        bool pauseDue = false;                         // a message went out since reading last paused
        std::shared_ptr<asio::steady_timer> readPause; // resumes reading once it expires
        std::shared_ptr<Unwritten> unwritten = std::make_shared<Unwritten>();
    };

    struct Job {
        std::string device;
        Hdl client;
        int clientId = 0;
        bool recovery = false;
        Json::Value after; // the device object once the job has succeeded
        Script script;
        unsigned step = 0;
        std::unique_ptr<asio::steady_timer> timer;
    };

    void onOpen(Hdl hdl);
    void onClose(Hdl hdl);
    void onFail(Hdl hdl);
    void onMessage(Hdl hdl, Server::message_ptr message);
    void handleFrame(Hdl hdl, const std::string& payload);

    void handleUpgrade(Hdl hdl, Client& client, const Json::Value& request);
    void handleRecover(Hdl hdl, Client& client, const Json::Value& request);
    void handleReboot(Client& client, const Json::Value& request);

    void startJob(Hdl hdl, Client& client, Device& device, Json::Value after, bool recovery);
    void schedule(const std::shared_ptr<Job>& job);
    void advance(const std::shared_ptr<Job>& job);
    void finishJob(const std::shared_ptr<Job>& job);

    void refuse(Hdl hdl, Client& client, const std::string& device, int code, const std::string& desc);
    void sendProgress(const Job& job, int percent, const std::string& status);

    void send(Hdl hdl, const Json::Value& message);
    void sendText(Hdl hdl, const std::string& text);
    void broadcast(const Json::Value& message);
    // Every frame goes out through here, counted in the client's Unwritten.
    void write(Hdl hdl, Client& client, const std::string& text, std::error_code& ec);
    void applyFaults(Hdl hdl, Client& client);
    // Ends the TCP connection under the library: a drop once the frames sent so far are
    // written, a reset at once.
    void cutConnection(Hdl hdl, Client& client, bool reset);
    void pauseReading(Hdl hdl, Client& client);

    const std::string& devicesText();
    void startTimeline();
    void after(long ms, std::function<void()> action);

    Client* clientOf(Hdl hdl);
    void log(const std::string& line) const;

    asio::io_context& io;
    Options options;
    Fleet fleet;
    Server server;
    // Frames are prepared here rather than by the connection, so that each one handed to it
    // is the very object it writes and releases.
    using Config = websocketpp::config::asio;
    Config::rng_type rng;
    Config::con_msg_manager_type::ptr messages = std::make_shared<Config::con_msg_manager_type>();
    websocketpp::processor::hybi13<Config> framer{false, true, messages, rng};
    std::map<Hdl, Client, std::owner_less<Hdl>> clients;
    std::map<std::string, std::shared_ptr<Job>> jobs;
    std::vector<std::unique_ptr<asio::steady_timer>> timeline;
    bool timelineStarted = false;
    bool stopped = false;
    std::function<void()> drained;
    std::string devicesCache; // the "devices" message, rebuilt after changes
    int nextClientId = 1;
    std::ofstream record;
};

} // namespace devsim
