// Fuzzes the controller with service traffic. The first input byte picks one of the
// run configurations below (low four bits) and whether the connection closes after
// the last frame (bit 4). The rest is cut into lines; each line is one frame, parsed
// with the JSON library's default reader settings as the real client does (a line
// that does not parse is dropped, as the client drops it), and handed to a
// ToolStateMachine through the in-memory client after an Open report.
//
// Only one exception may leave the controller: the JSON library's logic error for an
// "interfaces" entry that is neither an object nor null, which the device filter lets
// through on purpose. Anything else thrown is a finding, and so is a hang.
//
// The one deliberate hang is steered around, and nothing else: in a long-lived run, a
// removal (a "device_removed", or a "device_changed" whose old description matches and
// whose new one does not) of a device whose mode's queue holds another name never
// returns. To tell that case exactly, the harness keeps its own copy of the three job
// queues and of the device under work, built only from the controller's public face
// (filterDevice, evalDeviceMode, the requests it sends, what it prints), and checks that
// copy against the controller after every frame. A frame that would stall is skipped.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <list>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "ArgsParser.h"
#include "ScriptedClient.h"
#include "ToolStateMachine.h"

namespace {

// Sixteen runs: the first eight end after the initial list or their first job, the
// last eight are long-lived. Several carry IP or MAC filters, the only ones that read
// "interfaces".
const std::vector<std::vector<const char*>> kConfigs = {
    {"--list"},
    {"--list", "--reboot", "--device-mode=normal", "--device-mode=safe"},
    {"--file=fw.bin"},
    {"--file=/fw/a.bin", "--all", "--reboot", "--force"},
    {"--recover-safe", "--recover-failsafe", "--all"},
    {"--recover-safe=/img/safe.bin", "--file=fw.bin", "--reboot"},
    {"--file=fw.bin", "--all", "--device-ip=10.0.0.5", "--device-mac=AA:BB:CC:00:11:22"},
    {"--list", "--manufacturer=acme", "--model=m8", "--device-name=unit-1", "--device-ip=10.0.0.5"},
    {"--list", "--long-lived"},
    {"--list", "--long-lived", "--reboot", "--device-mac=aa:bb:cc:00:11:22", "--device-name=unit-2"},
    {"--file=fw.bin", "--long-lived"},
    {"--file=/fw/a.bin", "--long-lived", "--all", "--reboot"},
    {"--recover-safe", "--recover-failsafe", "--long-lived", "--all"},
    {"--file=fw.bin", "--recover-safe=/img/safe.bin", "--recover-failsafe", "--long-lived", "--all", "--force",
     "--device-ip=10.0.0.5", "--device-ip=10.0.0.6", "--device-name=unit-1"},
    {"--list", "--recover-failsafe", "--long-lived", "--device-mode=failsafe", "--reboot"},
    {"--file=fw.bin", "--long-lived", "--all", "--manufacturer=ACME", "--device-mac=AA:BB:CC:00:11:22"},
};

void expect(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "fuzz_controller: %s\n", what);
        std::abort();
    }
}

bool isType(const Json::Value& message, const char* type) {
    return message[protocol::kMsg] == Json::Value(type);
}

std::string stringMember(const Json::Value& value, const char* key) {
    if (!value.isObject()) {
        return std::string();
    }
    const Json::Value& member = value[key];
    return member.isString() ? member.asString() : std::string();
}

// The one shape that may raise the JSON library's logic error in the filter.
bool hasStrayInterface(const Json::Value& device) {
    if (!device.isObject() || !device[protocol::kInterfaces].isArray()) {
        return false;
    }
    for (const Json::Value& entry : device[protocol::kInterfaces]) {
        if (!entry.isObject() && !entry.isNull()) {
            return true;
        }
    }
    return false;
}

// The harness's copy of the controller's job bookkeeping.
class Shadow {
public:
    Shadow(const ToolConfig& config, const ToolStateMachine& machine) : config(config), machine(machine) {}

    // Applies what a frame does before any job starts; returns false when the frame
    // would make the controller spin in its removal scan.
    bool before(const Json::Value& message, ToolStateMachine::State state) {
        finishes = false;
        matchesJob = false;
        if (!message.isObject()) {
            return true;
        }
        if (isType(message, protocol::kDevicesMsg)) {
            if (state == ToolStateMachine::Connected) {
                for (const Json::Value& device : message[protocol::kDevices]) {
                    added(device);
                }
            }
        } else if (isType(message, protocol::kDeviceAddedMsg)) {
            if (config.longLived) {
                added(message[protocol::kDevice]);
            }
        } else if (isType(message, protocol::kDeviceRemovedMsg)) {
            if (config.longLived) {
                return removed(message[protocol::kDevice]);
            }
        } else if (isType(message, protocol::kDeviceChangedMsg)) {
            if (config.longLived) {
                const bool fromOut = filtered(message[protocol::kFrom]);
                const bool toOut = filtered(message[protocol::kTo]);
                if (fromOut && !toOut) {
                    added(message[protocol::kTo]);
                } else if (!fromOut && toOut) {
                    return removed(message[protocol::kFrom]);
                }
            }
        } else if (isType(message, protocol::kUpgradeProgressMsg)) {
            matchesJob = !current.empty() && stringMember(message, protocol::kDevice) == current;
            const std::string status = stringMember(message, protocol::kStatus);
            finishes = matchesJob && (status == "Done" || status == "Fail" || message.isMember(protocol::kError));
        } else if (isType(message, protocol::kUpgradeResultMsg)) {
            const Json::Value& code = message[protocol::kErrorCode];
            matchesJob = !current.empty() && stringMember(message, protocol::kDevice) == current && code.isInt() &&
                         code.asInt() != 0;
            finishes = matchesJob;
        }
        return true;
    }

    // Takes in what the controller did with the frame: whether it printed, and the
    // requests it sent. A progress or result frame prints exactly when it is about the
    // device under work (a result only with a non-zero code).
    void after(bool progressOrResult, bool printed, const std::vector<std::string>& sent, std::size_t firstNew) {
        expect(!progressOrResult || printed == matchesJob, "job output does not match the device under work");
        if (finishes) {
            current.clear();
        }
        for (std::size_t i = firstNew; i < sent.size(); ++i) {
            started(sent[i]);
        }
    }

    const std::string& deviceUnderWork() const { return current; }

private:
    bool filtered(const Json::Value& device) const {
        try {
            return machine.filterDevice(device);
        } catch (const Json::LogicError&) {
            expect(hasStrayInterface(device), "logic error from a device without a stray interface entry");
            throw;
        }
    }

    void added(const Json::Value& device) {
        if (filtered(device)) {
            return;
        }
        const std::string name = stringMember(device, protocol::kName);
        if (name.empty() || name == current) {
            return;
        }
        switch (evalDeviceMode(device)) {
        case DeviceMode::Normal:
            if (!config.firmwareFile.empty()) {
                upgrade.push_back(name);
            }
            break;
        case DeviceMode::Safe:
            if (config.recoverSafe) {
                safe.push_back(name);
            }
            break;
        case DeviceMode::Failsafe:
            if (config.recoverFailsafe) {
                failsafe.push_back(name);
            }
            break;
        default:
            break;
        }
    }

    bool removed(const Json::Value& device) {
        if (filtered(device)) {
            return true;
        }
        const std::string name = stringMember(device, protocol::kName);
        if (name == current) {
            return true;
        }
        std::list<std::string>* queue = nullptr;
        switch (evalDeviceMode(device)) {
        case DeviceMode::Normal:
            queue = &upgrade;
            break;
        case DeviceMode::Safe:
            queue = &safe;
            break;
        case DeviceMode::Failsafe:
            queue = &failsafe;
            break;
        default:
            return true;
        }
        // The scan ends only when every entry it meets carries this name.
        if (std::any_of(queue->begin(), queue->end(), [&](const std::string& entry) { return entry != name; })) {
            return false;
        }
        queue->clear();
        return true;
    }

    // A request other than a reboot means the next queued job started: it must be the
    // front of the first non-empty queue, in the shape that queue's job takes. The
    // comparison is on the sent text, since the writer does not give back every byte
    // of a name that is not valid UTF-8.
    void started(const std::string& text) {
        Json::Value request;
        expect(parseJsonText(text, request), "unparsable request");
        if (isType(request, protocol::kRebootMsg)) {
            expect(request.size() == 2 && request[protocol::kDevice].isString(), "malformed reboot");
            return;
        }
        std::list<std::string>* queue = !upgrade.empty() ? &upgrade : !safe.empty() ? &safe : &failsafe;
        expect(!queue->empty(), "a job started with every queue empty");
        const std::string name = queue->front();
        queue->pop_front();

        Json::Value expected(Json::objectValue);
        if (queue == &failsafe) {
            expected[protocol::kMsg] = protocol::kFailsafeRecoverMsg;
            expected[protocol::kMacaddr] = name;
        } else if (queue == &safe && config.recoverSafeFile.empty()) {
            expected[protocol::kMsg] = protocol::kFailsafeRecoverMsg;
            expected[protocol::kDevice] = name;
        } else {
            // The controller makes bare file names absolute; only the name part is known here.
            const std::string filePath = stringMember(request, protocol::kFilePath);
            const auto& file = queue == &upgrade ? config.firmwareFile : config.recoverSafeFile;
            expect(std::filesystem::path(filePath).filename() == file.filename(), "upgrade with another file");
            expected[protocol::kMsg] = protocol::kUpgradeMsg;
            expected[protocol::kDevice] = name;
            expected[protocol::kFilePath] = filePath;
            expected[protocol::kOverride] = config.force ? "true" : "false";
        }
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "";
        expect(Json::writeString(writer, expected) == text, "job request differs from the queued job");
        current = name;
    }

    const ToolConfig& config;
    const ToolStateMachine& machine;
    std::list<std::string> upgrade;
    std::list<std::string> safe;
    std::list<std::string> failsafe;
    std::string current;
    bool finishes = false;
    bool matchesJob = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::vector<const char*>& options = kConfigs[data[0] % kConfigs.size()];
    const bool closeAtEnd = (data[0] & 0x10) != 0;
    std::vector<const char*> argv{"devupdate"};
    argv.insert(argv.end(), options.begin(), options.end());
    const std::unique_ptr<ToolConfig> config =
        ArgumentParser::parseArguments(static_cast<int>(argv.size()), argv.data());
    expect(config != nullptr, "harness configuration rejected");

    auto client = std::make_shared<ScriptedClient>();
    std::ostringstream output;
    ToolStateMachine machine(*config, output, client);
    Shadow shadow(*config, machine);

    // The connection opens first; no Closed report comes before the last frame, so
    // the client never refuses a send.
    client->addState(IWebsocketClient::Open);
    machine.run();
    expect(machine.getState() == ToolStateMachine::Connected, "not connected after Open");

    const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::size_t start = 0;
    while (start <= input.size() && !client->disconnected) {
        std::size_t end = input.find('\n', start);
        if (end == std::string::npos) {
            end = input.size();
        }
        const std::string frame = input.substr(start, end - start);
        start = end + 1;
        if (!client->addText(frame)) {
            continue; // the client drops what does not parse
        }
        const Json::Value& message = client->script.back().message;
        const bool progressOrResult = message.isObject() && (isType(message, protocol::kUpgradeProgressMsg) ||
                                                             isType(message, protocol::kUpgradeResultMsg));

        bool raises = false;
        bool deliver = true;
        try {
            deliver = shadow.before(message, machine.getState());
        } catch (const Json::LogicError&) {
            raises = true;
        }
        if (!deliver) {
            // Steered: this removal would spin in the controller's queue scan forever.
            client->script.pop_back();
            continue;
        }

        const std::size_t sentBefore = client->sent.size();
        const auto printedBefore = output.tellp();
        try {
            client->run();
        } catch (const Json::LogicError&) {
            // A real run ends here: the error leaves the event loop and the process.
            expect(raises, "logic error the filter was not expected to raise");
            return 0;
        }
        expect(!raises, "the filter's logic error did not surface");
        shadow.after(progressOrResult, output.tellp() != printedBefore, client->sent, sentBefore);

        const ToolStateMachine::State state = machine.getState();
        const bool final = state == ToolStateMachine::Done || state == ToolStateMachine::Failed;
        expect(final == client->disconnected, "final state and disconnect out of step");
        expect(state != ToolStateMachine::Working || !shadow.deviceUnderWork().empty(), "Working without a job");
        expect(state >= ToolStateMachine::Connected && state <= ToolStateMachine::Failed, "state left the run");
    }

    if (closeAtEnd) {
        client->addState(IWebsocketClient::Closed);
        client->run();
        const ToolStateMachine::State state = machine.getState();
        expect(state == ToolStateMachine::Done || state == ToolStateMachine::Failed, "still running after Closed");
    }
    return 0;
}
