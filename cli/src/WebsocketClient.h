#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <json/json.h>
#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_no_tls_client.hpp>

// Every member name and message type spoken with the device update service, so
// that no other file spells a wire key itself.
namespace protocol {
// Envelope.
inline constexpr char kMsg[] = "msg";

// Message types received.
inline constexpr char kDevicesMsg[] = "devices";
inline constexpr char kDeviceAddedMsg[] = "device_added";
inline constexpr char kDeviceRemovedMsg[] = "device_removed";
inline constexpr char kDeviceChangedMsg[] = "device_changed";
inline constexpr char kUpgradeProgressMsg[] = "upgrade_progress";
inline constexpr char kUpgradeResultMsg[] = "upgrade_result";

// Message types sent.
inline constexpr char kUpgradeMsg[] = "upgrade";
inline constexpr char kFailsafeRecoverMsg[] = "failsafe_recover";
inline constexpr char kRebootMsg[] = "reboot";

// Message members.
inline constexpr char kDevices[] = "devices";
inline constexpr char kDevice[] = "device";
inline constexpr char kFrom[] = "from";
inline constexpr char kTo[] = "to";
inline constexpr char kProgress[] = "progress";
inline constexpr char kStatus[] = "status";
inline constexpr char kError[] = "error";
inline constexpr char kErrorReason[] = "ErrorReason";
inline constexpr char kErrorCode[] = "zor_error_t";
inline constexpr char kDesc[] = "desc";
inline constexpr char kFilePath[] = "filePath";
inline constexpr char kOverride[] = "override";
inline constexpr char kMacaddr[] = "macaddr";

// Device object members.
inline constexpr char kName[] = "name";
inline constexpr char kManufacturer[] = "manufacturer";
inline constexpr char kProduct[] = "product";
inline constexpr char kId[] = "id";
inline constexpr char kVersionString[] = "versionString";
inline constexpr char kVersion[] = "version";
inline constexpr char kInterfaces[] = "interfaces";
inline constexpr char kIpAddress[] = "ipAddress";
inline constexpr char kMacAddr[] = "macAddr";
inline constexpr char kIsSafeModeDevice[] = "isSafeModeDevice";
inline constexpr char kSafeModeVersion[] = "safeModeVersion";
} // namespace protocol

// The controller's whole view of the link to the service.
class IWebsocketClient {
public:
    // Numbered like the WebSocket ready states.
    enum State : int32_t {
        Open = 1,
        Closed = 3,
    };

    virtual ~IWebsocketClient() = default;
    virtual void connect(const std::string& uri) = 0;
    virtual void disconnect() = 0;
    virtual void onStateChange(std::function<void(IWebsocketClient::State)> callback) = 0;
    virtual State getState() const = 0;
    virtual void onMessage(std::function<void(Json::Value)> callback) = 0;
    virtual void sendMessage(Json::Value message) = 0;
    virtual void run() = 0;
};

class WebsocketClient : public IWebsocketClient {
public:
    using Endpoint = websocketpp::client<websocketpp::config::asio_client>;

    WebsocketClient();
    WebsocketClient(const WebsocketClient&) = delete;
    WebsocketClient& operator=(const WebsocketClient&) = delete;

    void connect(const std::string& uri) override;
    void disconnect() override;
    void onStateChange(std::function<void(IWebsocketClient::State)> callback) override;
    State getState() const override;
    void onMessage(std::function<void(Json::Value)> callback) override;
    void sendMessage(Json::Value message) override;
    void run() override;

    // The receive step of every incoming frame: parses the payload and hands the value
    // to the message callback, or reports the parse failure and drops it. Public so
    // that the fuzz harness drives exactly what the message handler runs.
    void receivePayload(const std::string& payload);

    // Called by the endpoint only.
    void onMessageHandler(websocketpp::connection_hdl hdl, Endpoint::message_ptr message);
    void onOpenHandler(websocketpp::connection_hdl hdl);
    void onCloseHandler(websocketpp::connection_hdl hdl);
    void onFailHandler(websocketpp::connection_hdl hdl);

private:
    // Reads and drops whatever has arrived; false when the connection ended meanwhile.
    static bool discardUnread(asio::ip::tcp::socket& socket);
    // Ends the sending side and waits for the service to close its own; false when the
    // connection failed or ended early instead.
    static bool deliver(asio::ip::tcp::socket& socket);

    // The frames handed to the connection and not yet released by it. The connection
    // lets go of a frame only once the transport has finished writing the batch that
    // holds it (or the connection is gone), so a stop that waits for the count to reach
    // zero never cuts a write short. An empty send buffer is no such proof: the
    // connection empties it when it hands the whole queue to one write.
    class Outbox : public std::enable_shared_from_this<Outbox> {
    public:
        explicit Outbox(Endpoint& owner);
        // A masked text frame, ready for the wire, counted until the connection drops it.
        Endpoint::message_ptr frame(const std::string& text);
        // Whether any frame was ever handed out: a run that sent none has nothing to deliver.
        bool anySent() const;
        // Stops the loop now when nothing is held, otherwise once the last frame is released.
        void stopWhenWritten();

    private:
        using Config = websocketpp::config::asio_client;
        void released();

        Endpoint& endpoint;
        std::size_t held = 0;
        bool stopping = false;
        bool sentAny = false;
        Config::rng_type rng;
        Config::con_msg_manager_type::ptr messages;
        websocketpp::processor::hybi13<Config> framer;
    };

    Endpoint client;
    IWebsocketClient::State connectionState;
    std::function<void(IWebsocketClient::State)> stateChangeCallback;
    std::function<void(Json::Value)> messageCallback;
    websocketpp::connection_hdl connection;
    // Built once: a reader resets itself at the start of every parse, and building one
    // costs more than parsing a small message.
    std::unique_ptr<Json::CharReader> reader;
    std::shared_ptr<Outbox> outbox;
};
