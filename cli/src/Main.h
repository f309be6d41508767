#pragma once

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>

// A device's mode as the service reports it. The numbers double as job kinds,
// so they are fixed.
enum class DeviceMode : int32_t {
    None = 0,
    Normal = 1,
    Failsafe = 2,
    Safe = 3,
};

// The run's whole configuration, filled from the command line. A plain value:
// copying and moving are member-wise.
struct ToolConfig {
    bool updateAll = false;
    bool listDevices = false;
    bool longLived = false;
    bool reboot = false;
    int32_t port = 0;
    std::filesystem::path firmwareFile;
    std::filesystem::path recoverSafeFile;
    bool recoverSafe = false;
    bool recoverFailsafe = false;
    bool force = false;
    std::set<DeviceMode> deviceModes;
    std::set<std::string> deviceNames;
    std::set<std::string> deviceIps;
    std::set<std::string> deviceMacs;
    std::set<std::string> manufacturers;
    std::set<std::string> models;
};

// The one case folding of the tool: A-Z to a-z and every other byte as is, which is all
// that tolower does in the C locale the tool never leaves. The parser folds option words
// with it and compareIgnoreCase folds filter values.
inline char asciiLower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// Writes the usage text to standard output.
void printUsage(const std::string& programName);
