#include "ArgsParser.h"

#include <stdexcept>
#include <string>

int ArgumentParser::DEFAULT_PORT = 7070;

namespace {

// Takes the value after `prefix` when `arg` starts with it; the value may be empty.
bool takePrefix(const std::string& arg, const char* prefix, std::string& value) {
    const std::string p(prefix);
    if (arg.size() < p.size() || arg.compare(0, p.size(), p) != 0) {
        return false;
    }
    value = arg.substr(p.size());
    return true;
}

DeviceMode parseDeviceMode(const std::string& value) {
    std::string word = value;
    for (char& c : word) {
        c = asciiLower(c);
    }
    if (word == "normal") {
        return DeviceMode::Normal;
    }
    if (word == "failsafe") {
        return DeviceMode::Failsafe;
    }
    if (word == "safe") {
        return DeviceMode::Safe;
    }
    // The text names 'safemode' although only "safe" is accepted; scripts match on it.
    throw std::invalid_argument("Invalid device mode specified. Valid modes are 'normal', 'failsafe', or 'safemode'.");
}

} // namespace

std::unique_ptr<ToolConfig> ArgumentParser::parseArguments(int argc, const char* const argv[]) {
    auto config = std::make_unique<ToolConfig>();
    bool portSeen = false;

    for (int i = 1; i < argc; ++i) {
        const std::string arg(argv[i]);
        std::string value;
        // The order of these tests decides which option an argument is; keep it.
        // "--all" is the real spelling even though the usage text says "--update-all".
        if (arg == "--all" || arg == "-a") {
            config->updateAll = true;
        } else if (arg == "--list") {
            config->listDevices = true;
        } else if (arg == "--long-lived") {
            config->longLived = true;
        } else if (takePrefix(arg, "--port=", value)) {
            config->port = std::stoi(value);
            portSeen = true;
        } else if (arg == "--force" || arg == "-f") {
            config->force = true;
        } else if (takePrefix(arg, "--file=", value)) {
            config->firmwareFile = value;
        } else if (arg == "--recover-safe") {
            config->recoverSafe = true;
        } else if (takePrefix(arg, "--recover-safe=", value)) {
            config->recoverSafeFile = value;
            config->recoverSafe = true;
        } else if (arg == "--recover-failsafe") {
            config->recoverFailsafe = true;
        } else if (takePrefix(arg, "--device-mode=", value)) {
            config->deviceModes.insert(parseDeviceMode(value));
        } else if (takePrefix(arg, "--device-name=", value)) {
            config->deviceNames.insert(value);
        } else if (takePrefix(arg, "--device-ip=", value)) {
            config->deviceIps.insert(value);
        } else if (takePrefix(arg, "--device-mac=", value)) {
            config->deviceMacs.insert(value);
        } else if (takePrefix(arg, "--manufacturer=", value)) {
            config->manufacturers.insert(value);
        } else if (takePrefix(arg, "--model=", value)) {
            config->models.insert(value);
        } else if (arg == "--reboot") {
            config->reboot = true;
        } else {
            return nullptr;
        }
    }

    if (!portSeen) {
        config->port = DEFAULT_PORT;
    }

    const bool hasAction =
        config->listDevices || !config->firmwareFile.empty() || config->recoverFailsafe || config->recoverSafe;
    if (!hasAction) {
        throw std::invalid_argument(
            "One of either --list, --file, --recover-safe or --recover-failsafe must be specified");
    }
    return config;
}
