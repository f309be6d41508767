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
#include <set>
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
    // Limits, as a real service has them. The defaults never stop the tool's largest run: a
    // device list of 32,000,000 bytes with a reboot of every device, every answer read.
    std::size_t maxClients = 32;          // open connections; more are refused with HTTP 503
    std::size_t maxUnwritten = 64u << 20; // bytes handed to one client and not yet written
    std::size_t maxMessage = 16u << 20;   // bytes of one message from a client
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

    using Server = websocketpp::server<websocketpp::config::asio>;
    using Hdl = websocketpp::connection_hdl;

    // For a driver in the same process (the fuzz target): a client on a connection that is
    // never opened, so that whatever is sent to it goes nowhere, and a frame from a client.
    Server::connection_ptr addUnconnectedClient();
    void handleFrame(Hdl hdl, const std::string& payload, bool binary);

private:
    // The frames handed to a connection that it has not finished writing. The connection
    // lets go of a frame only once its write has completed (or the connection is gone);
    // its send buffer empties earlier, when a batch is handed to the socket.
    struct Unwritten {
        std::size_t count = 0;
        std::size_t bytes = 0;             // what they cost, bookkeeping included
        std::function<void()> whenWritten; // runs once, when the count next reaches zero
        std::size_t below = 0;
        std::function<void()> whenBelow; // runs once, when the bytes next fall to `below`
    };

    struct Client {
        int id = 0;
        std::string peer;
        long sent = 0;
        bool muted = false;
        bool closing = false; // a close or a drop is under way: nothing more is sent
        std::string closedBy; // why devsim ended the connection, when it did
        bool garbageDone = false;
        bool oversizeDone = false;
        bool notObjectDone = false;
        bool deepDone = false;
        bool pauseDue = false;                         // a message went out since reading last paused
        std::shared_ptr<asio::steady_timer> readPause; // resumes reading once it expires
        bool faultPaused = false;                      // reading waits for readPause
        bool backedUp = false;                         // reading waits for the unwritten bytes to fall
        bool readingHeld = false;                      // the connection reads nothing for either reason
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
    bool onValidate(Hdl hdl);
    void onMessage(Hdl hdl, Server::message_ptr message);

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
    void sendFrame(Hdl hdl, const Server::message_ptr& frame);
    // The same frame goes to every client: one buffer however many clients hold it.
    void broadcast(const Json::Value& message);
    Server::message_ptr prepare(const std::string& text);
    // Every frame goes out through here, counted in the client's Unwritten. False when the
    // frame would take the client past the cap on unwritten bytes: the client is cut off.
    bool write(Hdl hdl, Client& client, const Server::message_ptr& frame, std::error_code& ec);
    void applyFaults(Hdl hdl, Client& client);
    // Ends the TCP connection under the library: a drop once the frames sent so far are
    // written, a reset at once.
    void cutConnection(Hdl hdl, Client& client, bool reset);
    void pauseReading(Hdl hdl, Client& client);
    void holdReading(Hdl hdl, Client& client);
    void resumeReading(Hdl hdl, Client& client);

    const Server::message_ptr& devicesFrame();
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
    std::set<Hdl, std::owner_less<Hdl>> opening; // admitted, handshake not yet done
    std::map<std::string, std::shared_ptr<Job>> jobs;
    std::vector<std::unique_ptr<asio::steady_timer>> timeline;
    bool timelineStarted = false;
    bool stopped = false;
    std::function<void()> drained;
    Server::message_ptr devicesCache; // the "devices" frame, rebuilt after changes
    int nextClientId = 1;
    std::ofstream record;
};

} // namespace devsim
