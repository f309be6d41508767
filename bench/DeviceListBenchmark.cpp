// Feeds one "devices" message of many devices through the controller, the way a
// large fleet arrives in a single frame, and reports the time per device for the
// parse and for the controller's handling, per kind of run.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include "ArgsParser.h"
#include "ScriptedClient.h"
#include "ToolStateMachine.h"

namespace {

// Counts what the controller prints without keeping it.
class CountingBuffer : public std::streambuf {
public:
    std::size_t bytes = 0;

protected:
    int_type overflow(int_type c) override {
        ++bytes;
        return c;
    }
    std::streamsize xsputn(const char*, std::streamsize n) override {
        bytes += static_cast<std::size_t>(n);
        return n;
    }
};

std::string deviceList(int count) {
    std::string text = R"({"msg":"devices","devices":[)";
    char device[640];
    for (int i = 0; i < count; ++i) {
        const int maker = i % 2;
        std::snprintf(device, sizeof device,
                      R"(%s{"id":"dev-%06d","name":"unit-%06d","manufacturer":{"id":"%s","name":"%s"},)"
                      R"("product":{"id":"%s","name":"%s","version":"2.4.%d","versionString":"2.4.%d build %d"},)"
                      R"("interfaces":[{"ipAddress":"10.%d.%d.%d","macAddr":"02:00:00:%02x:%02x:%02x","name":"eth0"},)"
                      R"({"ipAddress":"192.168.%d.%d","macAddr":"02:00:01:%02x:%02x:%02x","name":"wlan0"}],)"
                      R"("isSafeModeDevice":false,"serial":"SN-%08d-%s","location":"rack %d, shelf %d"})",
                      i == 0 ? "" : ",", i, i, maker ? "northwind" : "acme", maker ? "Northwind" : "Acme",
                      maker ? "nw-200" : "ac-100", maker ? "NW 200 Gateway" : "AC 100 Controller", i % 10, i % 10, i,
                      (i >> 16) & 255, (i >> 8) & 255, i & 255, (i >> 16) & 255, (i >> 8) & 255, i & 255,
                      (i >> 8) & 255, i & 255, (i >> 16) & 255, (i >> 8) & 255, i & 255, i * 7919 % 100000000,
                      maker ? "B" : "A", i % 40, i % 8);
        text += device;
    }
    return text + "]}";
}

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

int main(int argc, char* argv[]) {
    const int count = argc > 1 ? std::atoi(argv[1]) : 50000;
    const std::string frame = deviceList(count);
    std::printf("%d devices in one frame of %.1f MB\n", count, static_cast<double>(frame.size()) / 1e6);

    const std::vector<std::vector<const char*>> runs = {
        {"devupdate", "--list"},
        {"devupdate", "--list", "--device-mac=02:00:01:00:00:07", "--device-name=unit-000042"},
        {"devupdate", "--file=/fw/image.bin", "--all"},
    };
    for (const auto& args : runs) {
        auto config = ArgumentParser::parseArguments(static_cast<int>(args.size()), args.data());
        auto client = std::make_shared<ScriptedClient>();
        client->addState(IWebsocketClient::Open);

        const auto parseStart = std::chrono::steady_clock::now();
        client->addText(frame);
        const double parseSeconds = secondsSince(parseStart);

        CountingBuffer sink;
        std::ostream out(&sink);
        ToolStateMachine machine(*config, out, client);
        const auto runStart = std::chrono::steady_clock::now();
        machine.run();
        const double runSeconds = secondsSince(runStart);

        std::string label;
        for (std::size_t i = 1; i < args.size(); ++i) {
            label += std::string(i > 1 ? " " : "") + args[i];
        }
        std::printf("%-70s parse %6.2f us/device, controller %6.2f us/device (%zu bytes printed, %zu sent)\n",
                    label.c_str(), parseSeconds * 1e6 / count, runSeconds * 1e6 / count, sink.bytes,
                    client->sent.size());
    }
    return 0;
}
