// Fuzzes the command line and what a service can send. Line 1: the arguments (only the
// parser's invalid_argument and out_of_range may leave it); every other line: a payload for
// WebsocketClient::receivePayload, whose callback drives a ToolStateMachine through the
// in-memory client. The harness' own model of the job queues checks that each job request
// names the next queued device and that job lines appear exactly for the device under work;
// only the deliberate logic error (an "interfaces" entry neither object nor null) escapes.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <list>

#include "ScriptedClient.h"
#include "ToolStateMachine.h"

namespace {

void expect(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "fuzz_receive: %s\n", what);
        std::abort();
    }
}

const Json::Value& member(const Json::Value& value, const char* key) {
    return value.isObject() ? value[key] : Json::Value::nullSingleton();
}

struct Model {
    const ToolConfig& config;
    const ToolStateMachine& machine;
    std::list<std::string> queues[3]; // upgrade, safe, failsafe: the order jobs are taken in
    std::string current;              // the device under work
    bool strayEntry = false;          // the filter met an entry that raises the logic error

    static std::string nameOf(const Json::Value& device) {
        return member(device, "name").isString() ? member(device, "name").asString() : "";
    }
    // The queue of a device's mode: Normal 1, Failsafe 2, Safe 3 (None never passes the filter).
    static int slot(const Json::Value& device) { return (4 - int(evalDeviceMode(device))) % 3; }

    bool filtered(const Json::Value& device) try {
        return machine.filterDevice(device);
    } catch (const Json::LogicError&) {
        const Json::Value& list = member(device, "interfaces");
        strayEntry =
            std::any_of(list.begin(), list.end(), [](const Json::Value& e) { return !e.isObject() && !e.isNull(); });
        throw;
    }
    void added(const Json::Value& device) {
        const bool wanted[] = {!config.firmwareFile.empty(), config.recoverSafe, config.recoverFailsafe};
        const std::string name = nameOf(device);
        if (!filtered(device) && !name.empty() && name != current && wanted[slot(device)]) {
            queues[slot(device)].push_back(name);
        }
    }
    // False when the controller's scan would spin: it never passes an entry of another name.
    bool removed(const Json::Value& device) {
        const std::string name = nameOf(device);
        if (filtered(device) || name == current) {
            return true;
        }
        std::list<std::string>& queue = queues[slot(device)];
        const bool ends = std::count(queue.begin(), queue.end(), name) == long(queue.size());
        if (ends) {
            queue.clear();
        }
        return ends;
    }
    bool before(const Json::Value& m, ToolStateMachine::State state) {
        const Json::Value& type = member(m, "msg");
        if (type == "devices" && state == ToolStateMachine::Connected) {
            std::for_each(m["devices"].begin(), m["devices"].end(), [this](const Json::Value& d) { added(d); });
        } else if (config.longLived && type == "device_added") {
            added(m["device"]);
        } else if (config.longLived && type == "device_removed") {
            return removed(m["device"]);
        } else if (config.longLived && type == "device_changed" && filtered(m["from"]) != filtered(m["to"])) {
            if (!filtered(m["from"])) {
                return removed(m["from"]);
            }
            added(m["to"]);
        }
        return true;
    }
    // A request other than a reboot names the front of the first non-empty queue, in the
    // written form the client sends (a name that is not UTF-8 is not sent byte for byte).
    void started(const std::string& sent) {
        const Json::Value msg = parseJson(sent)["msg"];
        const int q = !queues[0].empty() ? 0 : !queues[1].empty() ? 1 : 2;
        if (msg == "reboot") {
            return;
        }
        expect(!queues[q].empty(), "a job started with every queue empty");
        const bool image = q == 0 || (q == 1 && !config.recoverSafeFile.empty());
        const std::string name = (q == 2 ? "\"macaddr\":" : "\"device\":") + compactJson(queues[q].front());
        expect(msg == (image ? "upgrade" : "failsafe_recover") && sent.find(name) != std::string::npos,
               "job request is not the next queued job");
        current = queues[q].front();
        queues[q].pop_front();
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::cout.setstate(std::ios::badbit); // silences its parse-failure reports
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::size_t end = std::min(input.find('\n'), input.size());
    std::unique_ptr<ToolConfig> config;
    try {
        config = parseArgs(input.substr(0, end));
    } catch (const std::invalid_argument&) {
        return 0;
    } catch (const std::out_of_range&) {
        return 0;
    }
    if (!config) {
        return 0; // the usage text
    }
    auto client = std::make_shared<ScriptedClient>();
    std::ostringstream output;
    ToolStateMachine machine(*config, output, client);
    Model model{*config, machine, {}, {}};
    client->addState(IWebsocketClient::Open);
    machine.run();

    // Only its receive step runs: it never connects. It lives no longer than the locals
    // its callback refers to.
    WebsocketClient link;
    link.onMessage([&](Json::Value m) {
        const Json::Value& type = member(m, "msg");
        const bool result = type == "upgrade_result", jobFrame = result || type == "upgrade_progress";
        const bool aboutJob = jobFrame && !model.current.empty() && member(m, "device") == model.current &&
                              (!result || (member(m, "zor_error_t").isInt() && member(m, "zor_error_t").asInt() != 0));
        const Json::Value& status = member(m, "status");
        const bool ends = aboutJob && (result || status == "Done" || status == "Fail" || m.isMember("error"));
        const std::size_t sentBefore = client->sent.size();
        const auto printedBefore = output.tellp();
        if (!model.before(m, machine.getState())) {
            return; // steered around the known stall
        }
        client->addMessage(std::move(m));
        client->run(); // the controller's own logic error travels on, as in a real run
        expect(!jobFrame || (output.tellp() != printedBefore) == aboutJob, "job line not about the device under work");
        model.current = ends ? std::string() : model.current;
        std::for_each(client->sent.begin() + sentBefore, client->sent.end(), [&](auto& s) { model.started(s); });
    });

    for (std::size_t start = end + 1; start <= input.size() && !client->disconnected; start = end + 1) {
        end = std::min(input.find('\n', start), input.size());
        try {
            link.receivePayload(input.substr(start, end - start));
        } catch (const Json::LogicError&) {
            expect(model.strayEntry, "logic error without an interface entry that is neither an object nor null");
            return 0; // a real run ends here
        }
    }
    return 0;
}
