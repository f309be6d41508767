// The simulated devices: loading, the built-in fleet, device helpers and
// the firmware image header.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace devsim {

enum class Mode { None, Normal, Failsafe, Safe };

const char* modeWord(Mode mode);

// Same rule the devices use to report themselves: "isSafeModeDevice" true plus
// "safeModeVersion" 1 is failsafe, any other non-zero integer is safe mode,
// anything else while in safe mode is unknown.
Mode modeOf(const Json::Value& device);

// How a job on a device ends, taken from the device's "sim" member.
struct Script {
    enum class End { Done, Fail, Result, Stall };
    End end = End::Done;
    int at = 0;              // percent at which a non-Done end happens
    int errorCode = 1;       // "error" member of a Fail event
    std::string errorReason; // "ErrorReason" of a Fail event
    int resultCode = 0;      // "zor_error_t" of an upgrade_result
    std::string desc;        // "desc" of an upgrade_result
    bool refuse = false;     // answer the request at once with a result
};

struct Device {
    Json::Value object; // as sent on the wire (no "sim" member)
    Script script;
    std::string recoverVersion = "1.0.0";
    bool hidden = false; // not announced yet (appearAfterMs)
    long appearAfterMs = -1;
    long leaveAfterMs = -1;
    long changeAfterMs = -1;
    Json::Value changeTo; // members merged into the object at changeAfterMs
};

class Fleet {
public:
    // Throws std::runtime_error with a readable message on a bad file.
    static Fleet fromFile(const std::string& path);
    static Fleet builtIn();
    static Fleet generated(unsigned count);

    Device* find(const std::string& name);
    // Matches a device name or the MAC address of one of its interfaces.
    Device* findByNameOrMac(const std::string& key);

    std::vector<Device>& devices() { return entries; }
    size_t visibleCount() const;

private:
    void add(const Json::Value& entry, const std::string& where);
    std::vector<Device> entries;
    // Every name added so far: a large fleet file must load in linear time.
    std::unordered_set<std::string> loadedNames;
    // Where each name stood when first looked up: a request per device of a large fleet
    // must not scan the whole fleet each time. Checked on every hit, since a change
    // may rename a device.
    std::unordered_map<std::string, size_t> byName;
};

// The header an image starts with, one text line:
//   DEVFW1 manufacturer=<id> model=<id> version=<text>
// Every key is optional; a file without the line declares nothing.
struct ImageInfo {
    bool hasHeader = false;
    std::string manufacturer;
    std::string model;
    std::string version;
};

// Returns false with `error` set when the file cannot be read.
bool readImage(const std::string& path, ImageInfo& info, std::string& error);

bool equalsIgnoreCase(const std::string& a, const std::string& b);
std::string stringMember(const Json::Value& object, const char* key);
std::string nestedId(const Json::Value& device, const char* key);
std::string deviceVersion(const Json::Value& device);
void setDeviceVersion(Json::Value& device, const std::string& version);
std::string bumpVersion(const std::string& version);

} // namespace devsim
