#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include <json/json.h>

#include "Main.h"
#include "WebsocketClient.h"

// The kind of job in flight. Each value equals the DeviceMode of the devices the
// job serves, which is why it does not follow the order of the queues.
enum class JobKind : int32_t {
    None = 0,
    Upgrade = 1,
    FailsafeRecover = 2,
    SafeRecover = 3,
};

// Mode of a device object from "isSafeModeDevice" and "safeModeVersion".
DeviceMode evalDeviceMode(const Json::Value& device);
// Equality after folding ASCII A-Z to lower case; every other byte compares as is.
bool compareIgnoreCase(const std::string& a, const std::string& b);
// "Normal", "Failsafe", "Safe", and "None" for any other value.
std::string deviceModeWord(DeviceMode mode);
// One device as "name,maker,model,version" and a line end; "?" where a field is missing.
void printDevice(std::ostream& out, const Json::Value& device);
// The progress line of a job, without any carriage return or line end of its own.
void printProgressBar(std::ostream& out, const std::string& device, int percent, std::string status);

class ToolStateMachine {
public:
    enum State : int32_t {
        Idle = 0,
        Connecting = 1,
        Connected = 2,
        Waiting = 3,
        Working = 4,
        Done = 5,
        Failed = 6,
    };

    ToolStateMachine(ToolConfig runConfig, std::ostream& console, std::shared_ptr<IWebsocketClient> serviceClient);
    ~ToolStateMachine();
    ToolStateMachine(const ToolStateMachine&) = delete;
    ToolStateMachine& operator=(const ToolStateMachine&) = delete;

    // Connects and runs the client's event loop until the run is over.
    void run();
    State getState() const;

    // True when the device is to be ignored by this run's filters.
    bool filterDevice(const Json::Value& device) const;

private:
    void setState(State next);
    void onExitState(State left);
    void onEnterState(State entered);
    void connectToWebSocket();
    void onConnectionState(IWebsocketClient::State connectionState);
    void onServiceMessage(Json::Value message);
    void handleUpgradeProgress(const Json::Value& message);
    void handleUpgradeResult(const Json::Value& message);
    // Draws the job's last bar, then reboots, starts the next job or ends the run.
    void finishJob(const std::string& device, int percent, const std::string& statusText);

    void handleDeviceList(const Json::Value& devices);
    void handleDeviceAdded(const Json::Value& device);
    bool handleDeviceRemoved(const Json::Value& device);
    void handleDeviceChanged(const Json::Value& from, const Json::Value& to);
    bool startNext();
    void rebootDevice(std::string name);
    void updateTftpServer();
    // filterDevice for a device whose mode the caller has already evaluated.
    bool filterDevice(const Json::Value& device, DeviceMode mode) const;
    // The "Found"/"Lost" label and the device line; `name` as for handleDeviceAdded.
    void printDeviceLine(const char* event, DeviceMode mode, const Json::Value& device, std::string_view name);

    ToolConfig config;
    std::ostream& output;
    std::shared_ptr<IWebsocketClient> client;
    State state = Idle;
    bool anyJobFailed = false;
    JobKind tftpServerJobKind = JobKind::None;
    JobKind currentJobKind = JobKind::None;
    std::string currentJobDevice;
    std::list<std::string> upgradeQueue;
    std::list<std::string> safeQueue;
    std::list<std::string> failsafeQueue;
};
