#include "Fleet.h"

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

namespace devsim {

const char* modeWord(Mode mode) {
    switch (mode) {
    case Mode::Normal:
        return "normal";
    case Mode::Failsafe:
        return "failsafe";
    case Mode::Safe:
        return "safe";
    case Mode::None:
        break;
    }
    return "unknown";
}

Mode modeOf(const Json::Value& device) {
    const Json::Value& safe = device["isSafeModeDevice"];
    if (!safe.isBool() || !safe.asBool())
        return Mode::Normal;
    const Json::Value& version = device["safeModeVersion"];
    if (!version.isInt() || version.asInt() == 0)
        return Mode::None;
    return version.asInt() == 1 ? Mode::Failsafe : Mode::Safe;
}

bool equalsIgnoreCase(const std::string& a, const std::string& b) {
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    }
    return true;
}

std::string stringMember(const Json::Value& object, const char* key) {
    if (!object.isObject() || !object.isMember(key) || !object[key].isString())
        return {};
    return object[key].asString();
}

std::string nestedId(const Json::Value& device, const char* key) {
    return device.isObject() ? stringMember(device[key], "id") : std::string();
}

std::string deviceVersion(const Json::Value& device) {
    const Json::Value& product = device["product"];
    std::string text = stringMember(product, "version");
    return text.empty() ? stringMember(product, "versionString") : text;
}

void setDeviceVersion(Json::Value& device, const std::string& version) {
    Json::Value& product = device["product"];
    if (!product.isObject())
        product = Json::Value(Json::objectValue);
    product["version"] = version;
    // A stale build string would otherwise win over the new version.
    if (product.isMember("versionString"))
        product["versionString"] = version;
}

std::string bumpVersion(const std::string& version) {
    // Increment the last run of digits: 2.0.3 -> 2.0.4, 1.9-rc2 -> 1.9-rc3.
    size_t end = version.find_last_of("0123456789");
    if (end == std::string::npos)
        return version.empty() ? "1.0.1" : version + ".1";
    size_t begin = end;
    while (begin > 0 && std::isdigit(static_cast<unsigned char>(version[begin - 1])))
        --begin;
    if (end - begin >= 9)
        return version + ".1";
    unsigned long number = std::stoul(version.substr(begin, end - begin + 1));
    return version.substr(0, begin) + std::to_string(number + 1) + version.substr(end + 1);
}

namespace {

int intMember(const Json::Value& sim, const char* key, int fallback, const std::string& where) {
    if (!sim.isMember(key))
        return fallback;
    if (!sim[key].isInt())
        throw std::runtime_error(where + ": sim." + key + " must be an integer");
    return sim[key].asInt();
}

std::string textMember(const Json::Value& sim, const char* key, const std::string& fallback, const std::string& where) {
    if (!sim.isMember(key))
        return fallback;
    if (!sim[key].isString())
        throw std::runtime_error(where + ": sim." + key + " must be a string");
    return sim[key].asString();
}

Script readScript(const Json::Value& sim, const std::string& where) {
    Script script;
    script.errorReason = textMember(sim, "errorReason", "Flash write error", where);
    script.errorCode = intMember(sim, "errorCode", 1, where);
    script.resultCode = intMember(sim, "resultCode", 1, where);
    script.desc = textMember(sim, "desc", "Device rejected the job", where);
    if (sim.isMember("refuse") && !sim["refuse"].isBool())
        throw std::runtime_error(where + ": sim.refuse must be true or false");
    script.refuse = sim.get("refuse", false).asBool();

    int ends = 0;
    if (sim.isMember("failAt")) {
        script.end = Script::End::Fail;
        script.at = intMember(sim, "failAt", 0, where);
        ++ends;
    }
    if (sim.isMember("resultAt") || (sim.isMember("resultCode") && !script.refuse)) {
        script.end = Script::End::Result;
        script.at = intMember(sim, "resultAt", 0, where);
        ++ends;
    }
    if (sim.isMember("stallAt")) {
        script.end = Script::End::Stall;
        script.at = intMember(sim, "stallAt", 0, where);
        ++ends;
    }
    if (ends > 1 || (ends == 1 && script.refuse))
        throw std::runtime_error(where + ": give only one of failAt, resultCode/resultAt, stallAt, refuse");
    if (script.at < 0 || script.at > 100)
        throw std::runtime_error(where + ": the percent of a scripted end must be 0..100");
    if ((script.end == Script::End::Result || script.refuse) && script.resultCode == 0)
        throw std::runtime_error(where + ": sim.resultCode must not be 0");
    return script;
}

const std::set<std::string> kSimKeys = {"failAt",       "errorReason",   "errorCode", "resultCode",     "resultAt",
                                        "desc",         "stallAt",       "refuse",    "recoverVersion", "appearAfterMs",
                                        "leaveAfterMs", "changeAfterMs", "changeTo"};

} // namespace

void Fleet::add(const Json::Value& entry, const std::string& where) {
    if (!entry.isObject())
        throw std::runtime_error(where + ": a device must be a JSON object");
    if (!entry["name"].isString() || entry["name"].asString().empty())
        throw std::runtime_error(where + ": a device needs a non-empty string \"name\"");
    std::string name = entry["name"].asString();
    if (!loadedNames.insert(name).second)
        throw std::runtime_error(where + ": duplicate device name \"" + name + "\"");

    Device device;
    device.object = entry;
    device.object.removeMember("sim");
    if (entry.isMember("sim")) {
        const Json::Value& sim = entry["sim"];
        std::string at = where + " (" + name + ")";
        if (!sim.isObject())
            throw std::runtime_error(at + ": \"sim\" must be an object");
        for (const std::string& key : sim.getMemberNames()) {
            if (!kSimKeys.count(key))
                throw std::runtime_error(at + ": unknown sim member \"" + key + "\"");
        }
        device.script = readScript(sim, at);
        device.recoverVersion = textMember(sim, "recoverVersion", device.recoverVersion, at);
        device.appearAfterMs = intMember(sim, "appearAfterMs", -1, at);
        device.leaveAfterMs = intMember(sim, "leaveAfterMs", -1, at);
        device.changeAfterMs = intMember(sim, "changeAfterMs", -1, at);
        device.hidden = device.appearAfterMs >= 0;
        if (sim.isMember("changeTo") != (device.changeAfterMs >= 0))
            throw std::runtime_error(at + ": changeAfterMs and changeTo go together");
        if (sim.isMember("changeTo")) {
            if (!sim["changeTo"].isObject() || sim["changeTo"].isMember("name"))
                throw std::runtime_error(at + ": sim.changeTo must be an object without \"name\"");
            device.changeTo = sim["changeTo"];
        }
    }
    entries.push_back(std::move(device));
}

Fleet Fleet::fromFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot open fleet file " + path);
    Json::CharReaderBuilder builder;
    Json::Value root;
    std::string errors;
    if (!Json::parseFromStream(builder, in, &root, &errors))
        throw std::runtime_error(path + ": not valid JSON: " + errors);
    const Json::Value* list = &root;
    if (root.isObject())
        list = &root["devices"];
    if (!list->isArray())
        throw std::runtime_error(path + ": expected an array of devices or {\"devices\": [...]}");
    Fleet fleet;
    for (Json::ArrayIndex i = 0; i < list->size(); ++i)
        fleet.add((*list)[i], path + ": device " + std::to_string(i));
    return fleet;
}

namespace {

Json::Value makeDevice(const std::string& id, const std::string& name, const std::string& maker,
                       const std::string& makerName, const std::string& model, const std::string& modelName,
                       const std::string& version, const std::string& ip, const std::string& mac) {
    Json::Value device(Json::objectValue);
    device["id"] = id;
    device["name"] = name;
    device["manufacturer"]["id"] = maker;
    device["manufacturer"]["name"] = makerName;
    device["product"]["id"] = model;
    device["product"]["name"] = modelName;
    if (!version.empty())
        device["product"]["version"] = version;
    Json::Value nic(Json::objectValue);
    nic["name"] = "eth0";
    nic["ipAddress"] = ip;
    nic["macAddr"] = mac;
    device["interfaces"].append(nic);
    return device;
}

} // namespace

Fleet Fleet::builtIn() {
    Fleet fleet;
    auto acme = [&](const std::string& id, const std::string& name, const std::string& version, const std::string& ip,
                    const std::string& mac) {
        return makeDevice(id, name, "acme", "Acme", "x100", "X100 Controller", version, ip, mac);
    };
    auto northwind = [&](const std::string& id, const std::string& name, const std::string& version,
                         const std::string& ip, const std::string& mac) {
        return makeDevice(id, name, "northwind", "Northwind", "nw200", "NW-200 Gateway", version, ip, mac);
    };

    fleet.add(acme("AC1000417", "lobby-panel-01", "2.0.3", "192.168.50.11", "00:1b:2c:00:04:17"), "built-in");
    fleet.add(acme("AC1000418", "lobby-panel-02", "2.0.3", "192.168.50.12", "00:1b:2c:00:04:18"), "built-in");
    Json::Value gw1 = northwind("NW7731022", "warehouse-gw-01", "4.1.0", "192.168.50.21", "a4:5e:60:31:10:22");
    gw1["product"]["versionString"] = "4.1.0 (build 5512)";
    Json::Value wifi(Json::objectValue);
    wifi["name"] = "wlan0";
    wifi["ipAddress"] = "192.168.60.21";
    wifi["macAddr"] = "a4:5e:60:31:10:23";
    gw1["interfaces"].append(wifi);
    fleet.add(gw1, "built-in");
    fleet.add(northwind("NW7731023", "warehouse-gw-02", "4.0.9", "192.168.50.22", "a4:5e:60:31:10:2a"), "built-in");

    Json::Value safe = acme("AC1000502", "dock-controller-03", "2.0.1", "192.168.50.31", "00:1b:2c:00:05:02");
    safe["isSafeModeDevice"] = true;
    safe["safeModeVersion"] = 2;
    safe["product"]["version"] = "safe-2.4";
    fleet.add(safe, "built-in");

    Json::Value failsafe = northwind("NW7730990", "yard-gw-07", "", "192.168.50.41", "a4:5e:60:30:99:0c");
    failsafe["isSafeModeDevice"] = true;
    failsafe["safeModeVersion"] = 1;
    fleet.add(failsafe, "built-in");

    // Claims safe mode without saying which one.
    Json::Value unknown = acme("AC1000533", "lab-unit-09", "", "192.168.50.51", "00:1b:2c:00:05:33");
    unknown["isSafeModeDevice"] = true;
    fleet.add(unknown, "built-in");

    for (Device& device : fleet.entries)
        device.recoverVersion = equalsIgnoreCase(nestedId(device.object, "manufacturer"), "acme") ? "2.0.0" : "4.0.0";
    return fleet;
}

Fleet Fleet::generated(unsigned count) {
    Fleet fleet;
    fleet.entries.reserve(count);
    char name[32], ip[32], mac[32], id[32];
    for (unsigned i = 0; i < count; ++i) {
        std::snprintf(name, sizeof name, "node-%05u", i + 1);
        std::snprintf(id, sizeof id, "GN%07u", i + 1);
        std::snprintf(ip, sizeof ip, "10.%u.%u.%u", (i >> 16) & 0xff, (i >> 8) & 0xff, i & 0xff);
        std::snprintf(mac, sizeof mac, "02:00:00:%02x:%02x:%02x", (i >> 16) & 0xff, (i >> 8) & 0xff, i & 0xff);
        Device device;
        device.object =
            (i % 2 == 0) ? makeDevice(id, name, "acme", "Acme", "x100", "X100 Controller", "2.0.3", ip, mac)
                         : makeDevice(id, name, "northwind", "Northwind", "nw200", "NW-200 Gateway", "4.1.0", ip, mac);
        fleet.entries.push_back(std::move(device));
    }
    return fleet;
}

Device* Fleet::find(const std::string& name) {
    if (byName.empty()) {
        for (size_t i = 0; i < entries.size(); ++i)
            byName.emplace(stringMember(entries[i].object, "name"), i);
    }
    auto known = byName.find(name);
    if (known != byName.end()) {
        Device& device = entries[known->second];
        if (!device.hidden && stringMember(device.object, "name") == name)
            return &device;
    }
    for (Device& device : entries) {
        if (!device.hidden && device.object["name"].asString() == name)
            return &device;
    }
    return nullptr;
}

Device* Fleet::findByNameOrMac(const std::string& key) {
    if (Device* device = find(key))
        return device;
    for (Device& device : entries) {
        if (device.hidden)
            continue;
        const Json::Value& nics = device.object["interfaces"];
        if (!nics.isArray())
            continue;
        for (const Json::Value& nic : nics) {
            if (equalsIgnoreCase(stringMember(nic, "macAddr"), key))
                return &device;
        }
    }
    return nullptr;
}

size_t Fleet::visibleCount() const {
    size_t count = 0;
    for (const Device& device : entries)
        count += device.hidden ? 0 : 1;
    return count;
}

bool readImage(const std::string& path, ImageInfo& info, std::string& error) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) {
        error = "Cannot read firmware file " + path;
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "Cannot read firmware file " + path;
        return false;
    }
    // Only the first line matters; images can be large and need not have one.
    char head[512];
    in.read(head, sizeof head);
    if (in.bad()) {
        error = "Cannot read firmware file " + path;
        return false;
    }
    std::string line(head, static_cast<size_t>(in.gcount()));
    line = line.substr(0, line.find('\n'));
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    info = ImageInfo();
    std::istringstream words(line);
    std::string word;
    if (!(words >> word) || word != "DEVFW1")
        return true;
    info.hasHeader = true;
    while (words >> word) {
        size_t eq = word.find('=');
        if (eq == std::string::npos)
            continue;
        std::string key = word.substr(0, eq), value = word.substr(eq + 1);
        if (key == "manufacturer")
            info.manufacturer = value;
        else if (key == "model")
            info.model = value;
        else if (key == "version")
            info.version = value;
    }
    return true;
}

} // namespace devsim
