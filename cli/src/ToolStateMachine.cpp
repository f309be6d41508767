#include "ToolStateMachine.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <string_view>
#include <thread>
#include <utility>

namespace {

constexpr std::string_view UPGRADE_STATUS_DONE = "Done";
constexpr std::string_view UPGRADE_STATUS_FAIL = "Fail";

// The member `key` of an object; null for a missing member or a value that is not
// an object, so service input of the wrong shape reads as absent.
const Json::Value& memberOf(const Json::Value& value, const char* key) {
    return value.isObject() ? value[key] : Json::Value::nullSingleton();
}

// A string member, or `fallback` when it is missing or not a string.
std::string stringOf(const Json::Value& value, const char* key, const std::string& fallback = std::string()) {
    const Json::Value& member = memberOf(value, key);
    return member.isString() ? member.asString() : fallback;
}

// Like stringOf, but the bytes stay in `value`: for members that are only compared or
// printed, so that no string is built per message or per device.
std::string_view viewOf(const Json::Value& value, const char* key, std::string_view fallback = std::string_view()) {
    const Json::Value& member = memberOf(value, key);
    if (!member.isString()) {
        return fallback;
    }
    const char* begin = nullptr;
    const char* end = nullptr;
    return member.getString(&begin, &end) ? std::string_view(begin, static_cast<std::size_t>(end - begin))
                                          : std::string_view();
}

// A failure text from the service, "FAILED" when it gives none.
std::string failureText(const Json::Value& message, const char* key) {
    std::string text = stringOf(message, key);
    return text.empty() ? "FAILED" : text;
}

// The "msg" member's bytes, compared in place: a message type is not worth a copy.
// Empty when it is missing or not a string, and no message type is empty.
std::string_view messageType(const Json::Value& message) {
    return viewOf(message, protocol::kMsg);
}

// The label in front of a device line, "Found[Normal]: " and the like, padded with
// blanks to 17 characters so that the device fields start in one column.
void appendDeviceLabel(std::string& line, const char* event, DeviceMode mode) {
    const std::size_t start = line.size();
    line += event;
    line += '[';
    line += deviceModeWord(mode);
    line += "]: ";
    constexpr std::size_t width = 17;
    if (line.size() - start < width) {
        line.append(width - (line.size() - start), ' ');
    }
}

// The device line of printDevice, line end included. `name` is the device's "name"
// when the caller has already read it; empty means look it up (an empty or missing
// name prints as the member says).
void appendDevice(std::string& line, const Json::Value& device, std::string_view name = std::string_view()) {
    const Json::Value& manufacturer = memberOf(device, protocol::kManufacturer);
    const Json::Value& product = memberOf(device, protocol::kProduct);
    // "versionString" wins only when it is non-empty; an empty "version" still prints.
    std::string_view version = viewOf(product, protocol::kVersionString);
    if (version.empty()) {
        version = viewOf(product, protocol::kVersion, "?");
    }
    line += name.empty() ? viewOf(device, protocol::kName, "?") : name;
    line += ',';
    line += viewOf(manufacturer, protocol::kName, "?");
    line += ',';
    line += viewOf(product, protocol::kName, "?");
    line += ',';
    line += version;
    line += '\n';
}

bool matchesAnyIgnoringCase(const std::set<std::string>& filters, const std::string& value) {
    for (const std::string& filter : filters) {
        if (compareIgnoreCase(value, filter)) {
            return true;
        }
    }
    return false;
}

// Makes a bare file name (or one starting with "./") absolute against the current
// directory; other relative paths stay relative because the service resolves them.
void makeBareNameAbsolute(std::filesystem::path& file) {
    if (file.empty()) {
        return;
    }
    std::filesystem::path dir = file.parent_path();
    const std::string name = file.filename().string();
    if (dir.empty() || dir == std::filesystem::path(".")) {
        dir = std::filesystem::current_path();
    }
    std::string joined = dir.string();
    if (joined.empty() || joined.back() != '/') {
        joined += '/';
    }
    file = joined + name;
}

} // namespace

DeviceMode evalDeviceMode(const Json::Value& device) {
    const Json::Value& safeFlag = memberOf(device, protocol::kIsSafeModeDevice);
    if (!safeFlag.isBool() || !safeFlag.asBool()) {
        return DeviceMode::Normal;
    }
    const Json::Value& version = memberOf(device, protocol::kSafeModeVersion);
    if (!version.isInt()) {
        return DeviceMode::None;
    }
    // Version 0 means no usable mode, 1 failsafe, anything else safe mode.
    switch (version.asInt()) {
    case 0:
        return DeviceMode::None;
    case 1:
        return DeviceMode::Failsafe;
    default:
        return DeviceMode::Safe;
    }
}

bool compareIgnoreCase(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (asciiLower(a[i]) != asciiLower(b[i])) {
            return false;
        }
    }
    return true;
}

std::string deviceModeWord(DeviceMode mode) {
    switch (mode) {
    case DeviceMode::Normal:
        return "Normal";
    case DeviceMode::Failsafe:
        return "Failsafe";
    case DeviceMode::Safe:
        return "Safe";
    default:
        return "None";
    }
}

void printDevice(std::ostream& out, const Json::Value& device) {
    std::string line;
    appendDevice(line, device);
    out.write(line.data(), static_cast<std::streamsize>(line.size()));
    out.flush();
}

void printProgressBar(std::ostream& out, const std::string& device, int percent, std::string status) {
    constexpr int cells = 50;
    // The multiply wraps like 32-bit arithmetic instead of overflowing; the percent is
    // deliberately not clamped.
    const auto product = static_cast<int32_t>(static_cast<int64_t>(percent) * cells);
    const int head = static_cast<int>(static_cast<double>(product) / 100.0);
    // Assembled first and written at once: one write and one flush per bar.
    constexpr std::string_view prefix = "Updating ";
    constexpr std::string_view open = " : [";
    constexpr std::string_view close = "] ";
    constexpr std::string_view separator = " - ";
    char number[16];
    char* numberEnd = std::to_chars(number, number + sizeof number, percent).ptr;
    std::string line;
    line.reserve(prefix.size() + device.size() + open.size() + cells + close.size() + sizeof number + separator.size() +
                 status.size());
    line += prefix;
    line += device;
    line += open;
    // Cells before the head are "=", the head itself ">" when it falls inside the bar,
    // the rest blank.
    const int filled = std::clamp(head, 0, cells);
    line.append(static_cast<std::size_t>(filled), '=');
    if (head >= 0 && head < cells) {
        line += '>';
        line.append(static_cast<std::size_t>(cells - head - 1), ' ');
    } else {
        line.append(static_cast<std::size_t>(cells - filled), ' ');
    }
    line += close;
    line.append(number, numberEnd);
    line += '%';
    if (!status.empty()) {
        line += separator;
        line += status;
    }
    out.write(line.data(), static_cast<std::streamsize>(line.size()));
    out.flush();
}

ToolStateMachine::ToolStateMachine(ToolConfig runConfig, std::ostream& console,
                                   std::shared_ptr<IWebsocketClient> serviceClient)
    : config(std::move(runConfig)), output(console), client(std::move(serviceClient)) {
    makeBareNameAbsolute(config.firmwareFile);
    makeBareNameAbsolute(config.recoverSafeFile);
}

ToolStateMachine::~ToolStateMachine() = default;

void ToolStateMachine::run() {
    setState(Idle);
    connectToWebSocket();
    client->run();
}

ToolStateMachine::State ToolStateMachine::getState() const {
    return state;
}

void ToolStateMachine::setState(State next) {
    if (next == state) {
        return;
    }
    onExitState(state);
    state = next;
    onEnterState(next);
}

void ToolStateMachine::onExitState(State left) {
    if (left == Working) {
        currentJobKind = JobKind::None;
        currentJobDevice.clear();
        updateTftpServer();
    }
}

void ToolStateMachine::onEnterState(State) {}

void ToolStateMachine::connectToWebSocket() {
    client->onStateChange([this](IWebsocketClient::State connectionState) { onConnectionState(connectionState); });
    client->onMessage([this](Json::Value message) { onServiceMessage(std::move(message)); });
    setState(Connecting);
    client->connect("ws://127.0.0.1:" + std::to_string(config.port));
}

void ToolStateMachine::onConnectionState(IWebsocketClient::State connectionState) {
    if (connectionState == IWebsocketClient::Open) {
        if (state != Connected) {
            setState(Connected);
        }
    } else if (connectionState == IWebsocketClient::Closed) {
        // Losing the service fails the run silently, also once it is over: a finished run
        // hears of it only when what it sent last may not have been read.
        if (state != Failed) {
            setState(Failed);
        }
    }
}

void ToolStateMachine::onServiceMessage(Json::Value received) {
    const Json::Value& message = received;
    if (!message.isObject()) {
        return;
    }
    const std::string_view type = messageType(message);
    if (type == protocol::kDevicesMsg) {
        handleDeviceList(message[protocol::kDevices]);
    } else if (type == protocol::kDeviceAddedMsg) {
        // A one-shot run works only from the list it got when it connected.
        if (config.longLived) {
            handleDeviceAdded(message[protocol::kDevice]);
            if (state == Waiting) {
                startNext();
            }
        }
    } else if (type == protocol::kDeviceRemovedMsg) {
        if (config.longLived) {
            handleDeviceRemoved(message[protocol::kDevice]);
        }
    } else if (type == protocol::kDeviceChangedMsg) {
        if (config.longLived) {
            handleDeviceChanged(message[protocol::kFrom], message[protocol::kTo]);
            if (state == Waiting) {
                startNext();
            }
        }
    } else if (type == protocol::kUpgradeProgressMsg) {
        handleUpgradeProgress(message);
    } else if (type == protocol::kUpgradeResultMsg) {
        handleUpgradeResult(message);
    }
}

void ToolStateMachine::handleUpgradeProgress(const Json::Value& message) {
    const std::string_view device = viewOf(message, protocol::kDevice);
    if (currentJobKind == JobKind::None || device != currentJobDevice) {
        return;
    }
    const Json::Value& progressValue = message[protocol::kProgress];
    const double progress = progressValue.isNumeric() ? progressValue.asDouble() : 0.0;
    const std::string_view status = viewOf(message, protocol::kStatus);
    const int percent = static_cast<int32_t>(std::lround(progress));
    // "Done" wins over any error the same message carries; otherwise any "error"
    // member marks a failure, whatever its value.
    if (status == UPGRADE_STATUS_DONE) {
        finishJob(std::string(device), 100, "SUCCESS");
    } else if (message.isMember(protocol::kError) || status == UPGRADE_STATUS_FAIL) {
        anyJobFailed = true;
        finishJob(std::string(device), percent, failureText(message, protocol::kErrorReason));
    } else {
        output << '\r';
        printProgressBar(output, currentJobDevice, percent, std::string());
    }
}

void ToolStateMachine::handleUpgradeResult(const Json::Value& message) {
    const std::string_view device = viewOf(message, protocol::kDevice);
    if (currentJobKind == JobKind::None || device != currentJobDevice) {
        return;
    }
    // Success is only ever taken from a "Done" progress event; a result matters only
    // when it carries a non-zero code.
    const Json::Value& code = message[protocol::kErrorCode];
    if (!code.isInt() || code.asInt() == 0) {
        return;
    }
    anyJobFailed = true;
    finishJob(std::string(device), 0, failureText(message, protocol::kDesc));
}

void ToolStateMachine::finishJob(const std::string& device, int percent, const std::string& statusText) {
    output << '\r';
    printProgressBar(output, currentJobDevice, percent, statusText);
    output << '\n';
    // Failed jobs are rebooted too.
    if (config.reboot) {
        rebootDevice(device);
    }
    currentJobDevice.clear();
    currentJobKind = JobKind::None;
    if (config.updateAll) {
        if (startNext()) {
            return;
        }
        if (config.longLived) {
            setState(Waiting);
            return;
        }
    }
    // Without --all the run ends after its first job, queued devices or not.
    setState(anyJobFailed ? Failed : Done);
    client->disconnect();
}

bool ToolStateMachine::filterDevice(const Json::Value& device) const {
    return filterDevice(device, evalDeviceMode(device));
}

bool ToolStateMachine::filterDevice(const Json::Value& device, DeviceMode mode) const {
    if (mode == DeviceMode::None) {
        return true;
    }
    if (!config.deviceModes.empty() && config.deviceModes.count(mode) == 0) {
        return true;
    }
    // The ids are read only when a filter asks for them.
    if (!config.manufacturers.empty() &&
        !matchesAnyIgnoringCase(config.manufacturers,
                                stringOf(memberOf(device, protocol::kManufacturer), protocol::kId))) {
        return true;
    }
    if (!config.models.empty() &&
        !matchesAnyIgnoringCase(config.models, stringOf(memberOf(device, protocol::kProduct), protocol::kId))) {
        return true;
    }

    // Name, IP and MAC form one group: any one given kind matching admits the device.
    const bool nameMatched =
        !config.deviceNames.empty() && matchesAnyIgnoringCase(config.deviceNames, stringOf(device, protocol::kName));
    if (config.deviceIps.empty() && config.deviceMacs.empty()) {
        return !config.deviceNames.empty() && !nameMatched;
    }

    bool ipMatched = false;
    bool macMatched = false;
    const Json::Value& interfaces = memberOf(device, protocol::kInterfaces);
    if (interfaces.isArray()) {
        for (const Json::Value& entry : interfaces) {
            // The member tests below are deliberately the library's own: an entry that
            // is neither an object nor null raises its logic error to the caller.
            if (!ipMatched && !config.deviceIps.empty()) {
                const std::string ip = entry.isMember(protocol::kIpAddress) && entry[protocol::kIpAddress].isString()
                                           ? entry[protocol::kIpAddress].asString()
                                           : std::string();
                ipMatched = config.deviceIps.count(ip) != 0;
            }
            if (!macMatched && !config.deviceMacs.empty()) {
                const std::string mac = entry.isMember(protocol::kMacAddr) && entry[protocol::kMacAddr].isString()
                                            ? entry[protocol::kMacAddr].asString()
                                            : std::string();
                macMatched = matchesAnyIgnoringCase(config.deviceMacs, mac);
            }
        }
    }
    return !(nameMatched || ipMatched || macMatched);
}

void ToolStateMachine::handleDeviceList(const Json::Value& devices) {
    // A second list is ignored.
    if (state != Connected) {
        return;
    }
    const bool hasJob = !config.firmwareFile.empty() || config.recoverSafe || config.recoverFailsafe;
    if (hasJob || config.listDevices) {
        state = Waiting;
    }
    for (const Json::Value& device : devices) {
        handleDeviceAdded(device);
    }
    if (state == Waiting) {
        startNext();
    }
    if (currentJobKind == JobKind::None && !config.longLived) {
        if (hasJob) {
            output << "No matching devices found." << '\n' << std::flush;
            setState(Failed);
        } else {
            setState(Done);
        }
        client->disconnect();
    }
}

void ToolStateMachine::printDeviceLine(const char* event, DeviceMode mode, const Json::Value& device,
                                       std::string_view name) {
    // Label and device line leave in one write, flushed once like printDevice's line.
    std::string line;
    appendDeviceLabel(line, event, mode);
    appendDevice(line, device, name);
    // The label used to be padded through the stream, which left it left-adjusted;
    // keep the stream in that state for whoever shares it.
    output.setf(std::ios::left, std::ios::adjustfield);
    output.write(line.data(), static_cast<std::streamsize>(line.size()));
    output.flush();
}

void ToolStateMachine::handleDeviceAdded(const Json::Value& device) {
    const DeviceMode mode = evalDeviceMode(device);
    if (filterDevice(device, mode)) {
        return;
    }
    const std::string_view name = viewOf(device, protocol::kName);
    // The device under work comes back after the reboot that ends its update; it is
    // not a new device.
    if (name.empty() || name == currentJobDevice) {
        return;
    }
    if (state == Waiting) {
        if (config.listDevices) {
            printDeviceLine("Found", mode, device, name);
        }
        if (config.reboot && config.firmwareFile.empty() && !config.recoverSafe && !config.recoverFailsafe) {
            rebootDevice(std::string(name));
        }
    }
    // Queued whatever the state: a device announced during a job waits its turn.
    switch (mode) {
    case DeviceMode::Safe:
        if (config.recoverSafe) {
            safeQueue.emplace_back(name);
        }
        break;
    case DeviceMode::Failsafe:
        if (config.recoverFailsafe) {
            failsafeQueue.emplace_back(name);
        }
        break;
    case DeviceMode::Normal:
        if (!config.firmwareFile.empty()) {
            upgradeQueue.emplace_back(name);
        }
        break;
    default:
        break;
    }
}

bool ToolStateMachine::handleDeviceRemoved(const Json::Value& device) {
    const DeviceMode mode = evalDeviceMode(device);
    if (filterDevice(device, mode)) {
        return false;
    }
    const std::string_view name = viewOf(device, protocol::kName);
    // The device under work disappears while it reboots; that is expected. A nameless
    // device is let through whenever a job is in flight.
    if (name == currentJobDevice) {
        return false;
    }
    if (state == Waiting && config.listDevices) {
        printDeviceLine("Lost", mode, device, name);
    }
    std::list<std::string>* queue = nullptr;
    switch (mode) {
    case DeviceMode::Safe:
        queue = &safeQueue;
        break;
    case DeviceMode::Failsafe:
        queue = &failsafeQueue;
        break;
    case DeviceMode::Normal:
        queue = &upgradeQueue;
        break;
    default:
        return true;
    }
    // This scan never moves past an entry with another name: a removal behind another
    // queued name is known to stall the tool here. Yielding keeps that turn well-defined.
    auto cursor = queue->begin();
    while (cursor != queue->end()) {
        if (*cursor == name) {
            cursor = queue->erase(cursor);
        } else {
            std::this_thread::yield();
        }
    }
    return true;
}

void ToolStateMachine::handleDeviceChanged(const Json::Value& from, const Json::Value& to) {
    const bool fromFiltered = filterDevice(from);
    const bool toFiltered = filterDevice(to);
    if (fromFiltered && !toFiltered) {
        handleDeviceAdded(to);
        return;
    }
    if (!fromFiltered && toFiltered) {
        handleDeviceRemoved(from);
        return;
    }
    if (fromFiltered && toFiltered) {
        return;
    }
    // Both readings come from `from`, so a change between two matching descriptions
    // is never re-evaluated; queued jobs rely on that and keep their entries.
    const std::string_view oldName = viewOf(from, protocol::kName);
    const std::string_view newName = viewOf(from, protocol::kName);
    if (oldName != newName) {
        if (handleDeviceRemoved(from)) {
            handleDeviceAdded(to);
        }
    }
}

bool ToolStateMachine::startNext() {
    std::list<std::string>* queue = nullptr;
    JobKind kind = JobKind::None;
    if (!upgradeQueue.empty()) {
        queue = &upgradeQueue;
        kind = JobKind::Upgrade;
        // Only a firmware upgrade enters Working; recoveries keep the state as it is.
        if (state != Working) {
            state = Working;
        }
    } else if (!safeQueue.empty()) {
        queue = &safeQueue;
        kind = JobKind::SafeRecover;
    } else if (!failsafeQueue.empty()) {
        queue = &failsafeQueue;
        kind = JobKind::FailsafeRecover;
    } else {
        return false;
    }
    currentJobDevice = std::move(queue->front());
    currentJobKind = kind;
    queue->pop_front();
    updateTftpServer();

    Json::Value request(Json::objectValue);
    const Json::Value overrideWord(config.force ? "true" : "false");
    if (kind == JobKind::Upgrade || (kind == JobKind::SafeRecover && !config.recoverSafeFile.empty())) {
        request[protocol::kMsg] = protocol::kUpgradeMsg;
        request[protocol::kDevice] = currentJobDevice;
        request[protocol::kFilePath] =
            (kind == JobKind::Upgrade ? config.firmwareFile : config.recoverSafeFile).string();
        request[protocol::kOverride] = overrideWord;
    } else if (kind == JobKind::SafeRecover) {
        request[protocol::kMsg] = protocol::kFailsafeRecoverMsg;
        request[protocol::kDevice] = currentJobDevice;
    } else {
        // The service takes a failsafe device's name under "macaddr".
        request[protocol::kMsg] = protocol::kFailsafeRecoverMsg;
        request[protocol::kMacaddr] = currentJobDevice;
    }
    client->sendMessage(std::move(request));
    printProgressBar(output, currentJobDevice, 0, std::string());
    return true;
}

void ToolStateMachine::rebootDevice(std::string name) {
    Json::Value request(Json::objectValue);
    request[protocol::kMsg] = protocol::kRebootMsg;
    request[protocol::kDevice] = std::move(name);
    client->sendMessage(std::move(request));
}

void ToolStateMachine::updateTftpServer() {
    if (currentJobKind != JobKind::None && currentJobKind != tftpServerJobKind) {
        tftpServerJobKind = currentJobKind;
    }
}
