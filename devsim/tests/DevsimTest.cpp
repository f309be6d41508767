#include <unistd.h>

#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "Fleet.h"
#include "Service.h"
#include "WebsocketClient.h"

namespace {

using devsim::Fleet;
using devsim::Script;

// A file of the test's own; the process id keeps parallel test processes apart.
std::string writeFile(const std::string& name, const std::string& text) {
    const std::string path = testing::TempDir() + "devsim" + std::to_string(getpid()) + "_" + name;
    std::ofstream(path) << text;
    return path;
}

// The first device's script in brief, or the error that loading the file gives.
std::string load(const std::string& path) try {
    const Script s = Fleet::fromFile(path).devices().at(0).script;
    const char* ends[] = {"done", "fail", "result", "stall"};
    return ends[static_cast<int>(s.end)] + (" at " + std::to_string(s.at)) + " code " + std::to_string(s.resultCode) +
           (s.refuse ? " refused" : "");
} catch (const std::runtime_error& error) {
    return error.what();
}

// A fleet file and either the first device's script or the error, where % stands for the path.
TEST(Fleet, FilesAreCheckedWithReadableErrors) {
    const auto sim = [](std::string members) { return R"([{"name":"a","sim":{)" + members + "}}]"; };
    const std::string a = "%: device 0 (a)",
                      only = a + ": give only one of failAt, resultCode/resultAt, stallAt, refuse";
    const std::vector<std::pair<std::string, std::string>> table = {
        {R"({"devices":[{"name":"a"},{"name":"b"}]})", "done at 0 code 0"},
        {sim(R"("failAt":40,"errorReason":"x","errorCode":3)"), "fail at 40 code 1"},
        {sim(R"("resultCode":9,"desc":"d")"), "result at 0 code 9"},
        {sim(R"("resultAt":30,"recoverVersion":"1","appearAfterMs":0,"leaveAfterMs":5)"), "result at 30 code 1"},
        {sim(R"("stallAt":100,"changeAfterMs":5,"changeTo":{"isSafeModeDevice":null})"), "stall at 100 code 1"},
        {sim(R"("refuse":true,"resultCode":9)"), "done at 0 code 9 refused"},
        {"", "%: not valid JSON: * Line 1, Column 1\n  Syntax error: value, object or array expected.\n"},
        {R"({"devices":{}})", R"(%: expected an array of devices or {"devices": [...]})"},
        {R"([{"name":"a"},7])", "%: device 1: a device must be a JSON object"},
        {R"([{"name":""}])", R"(%: device 0: a device needs a non-empty string "name")"},
        {R"([{"name":"a"},{"name":"a"}])", R"(%: device 1: duplicate device name "a")"},
        {R"([{"name":"a","sim":[]}])", a + R"(: "sim" must be an object)"},
        {sim(R"("failat":1)"), a + R"(: unknown sim member "failat")"},
        {sim(R"("appearAfterMs":1.5)"), a + ": sim.appearAfterMs must be an integer"},
        {sim(R"("desc":5)"), a + ": sim.desc must be a string"},
        {sim(R"("refuse":1)"), a + ": sim.refuse must be true or false"},
        {sim(R"("resultAt":5,"failAt":9)"), only},
        {sim(R"("refuse":true,"stallAt":9)"), only},
        {sim(R"("stallAt":101)"), a + ": the percent of a scripted end must be 0..100"},
        {sim(R"("failAt":-1)"), a + ": the percent of a scripted end must be 0..100"},
        {sim(R"("resultCode":0)"), a + ": sim.resultCode must not be 0"},
        {sim(R"("refuse":true,"resultCode":0)"), a + ": sim.resultCode must not be 0"},
        {sim(R"("changeAfterMs":5)"), a + ": changeAfterMs and changeTo go together"},
        {sim(R"("changeTo":{})"), a + ": changeAfterMs and changeTo go together"},
        {sim(R"("changeAfterMs":5,"changeTo":{"name":"b"})"), a + R"(: sim.changeTo must be an object without "name")"},
    };
    for (const auto& [text, expected] : table) {
        const std::string path = writeFile("fleet.json", text);
        const auto at = expected.find('%');
        EXPECT_EQ(load(path),
                  at == std::string::npos ? expected : expected.substr(0, at) + path + expected.substr(at + 1))
            << text;
    }
    EXPECT_EQ(load("/nonexistent/fleet.json"), "cannot open fleet file /nonexistent/fleet.json");
}

// devsim on a thread of its own, serving a small fleet without pauses.
class Service : public testing::Test {
protected:
    void SetUp() override {
        const std::string normal = R"("manufacturer":{"id":"acme"},"product":{"id":"x100","version":"2.0.3"})";
        const std::string fleet =
            R"([{"name":"n1",)" + normal + R"(},{"name":"n2",)" + normal + "}," + R"({"name":"stuck",)" + normal +
            R"(,"sim":{"stallAt":0}},)" + R"({"name":"shy",)" + normal +
            R"(,"sim":{"refuse":true,"resultCode":9,"desc":"No space left"}},)" +
            R"({"name":"fs","isSafeModeDevice":true,"safeModeVersion":1,)" +
            R"("interfaces":[{"macAddr":"AA:BB:CC:00:00:02"}],"sim":{"recoverVersion":"4.0.0"}},)" +
            R"({"name":"odd","isSafeModeDevice":true}])";
        devsim::Options options;
        options.port = 0;
        options.tickMs = 0;
        options.progressSteps = 2;
        service = std::make_unique<devsim::Service>(io, options, Fleet::fromFile(writeFile("service.json", fleet)));
        port = service->start();
        thread = std::thread([this] { io.run(); });
    }
    void TearDown() override {
        io.stop();
        thread.join();
    }

    // Sends `requests` once the device list is in and gives what devsim sent, the list first,
    // up to and with the first message that `last` accepts.
    std::vector<Json::Value> exchange(const std::vector<std::string>& requests,
                                      const std::function<bool(const Json::Value&)>& last) {
        WebsocketClient client;
        std::vector<Json::Value> got;
        bool done = false;
        client.onMessage([&](Json::Value message) {
            // Messages that arrive while the client flushes its last frames are not ours.
            if (done) {
                return;
            }
            got.push_back(message);
            if (got.size() == 1) {
                for (const std::string& request : requests) {
                    Json::Value value;
                    std::istringstream(request) >> value;
                    client.sendMessage(value);
                }
            }
            done = got.size() == 1 ? requests.empty() : last(message);
            if (done) {
                client.disconnect();
            }
        });
        client.connect("ws://127.0.0.1:" + std::to_string(port));
        client.run();
        return got;
    }

    asio::io_context io;
    std::unique_ptr<devsim::Service> service;
    unsigned port = 0;
    std::thread thread;
};

TEST_F(Service, BadRequestsAreRefusedWithACodeAndAReason) {
    const std::string image = writeFile("fw.bin", "plain image\n");
    const std::string other = writeFile("other.bin", "DEVFW1 manufacturer=northwind\n");
    const auto upgrade = [&](std::string device, std::string file) {
        return R"({"msg":"upgrade","device":")" + device + R"(","filePath":")" + file + "\"}";
    };
    const auto recover = [](std::string key, std::string value) {
        return R"({"msg":"failsafe_recover",")" + key + R"(":")" + value + "\"}";
    };
    // Requests, and the code, device and reason of the result that answers the last one.
    const std::vector<std::pair<std::vector<std::string>, std::string>> table = {
        {{upgrade("", image)}, "7 : Request names no device"},
        {{upgrade("ghost", image)}, "4 ghost: Unknown device ghost"},
        {{upgrade("fs", image)}, "6 fs: Device fs is in failsafe mode and cannot take an image"},
        {{upgrade("odd", image)}, "6 odd: Device odd is in unknown mode and cannot take an image"},
        {{upgrade("n1", "")}, "7 n1: Request names no firmware file"},
        {{upgrade("n1", "/nonexistent/fw.bin")}, "2 n1: Cannot read firmware file /nonexistent/fw.bin"},
        {{upgrade("n1", other)}, "3 n1: Image is for northwind/any but n1 is acme/x100"},
        {{upgrade("shy", image)}, "9 shy: No space left"},
        {{upgrade("stuck", image), upgrade("stuck", image)}, "5 stuck: Device stuck is busy with another job"},
        {{recover("device", "")}, "7 : Request names no device"},
        {{recover("macaddr", "aa:bb:cc:00:00:99")}, "4 aa:bb:cc:00:00:99: Unknown device aa:bb:cc:00:00:99"},
        {{recover("device", "n1")}, "6 n1: Device n1 is not in safe or failsafe mode"},
    };
    for (const auto& [requests, expected] : table) {
        const Json::Value reply =
            exchange(requests, [](const Json::Value& m) { return m["msg"] == "upgrade_result"; }).back();
        EXPECT_EQ(std::to_string(reply["zor_error_t"].asInt()) + " " + reply["device"].asString() + ": " +
                      reply["desc"].asString(),
                  expected)
            << requests.back();
    }
}

TEST_F(Service, AFinishedJobLeavesTheDeviceAtItsNewVersion) {
    const std::string image = writeFile("fw.bin", "plain image\n");
    const std::string versioned = writeFile("v7.bin", "DEVFW1 manufacturer=ACME version=7.1\n");
    int done = 0;
    exchange({R"({"msg":"upgrade","device":"n1","filePath":")" + image + "\"}",
              R"({"msg":"upgrade","device":"n2","filePath":")" + versioned + "\"}",
              R"({"msg":"failsafe_recover","macaddr":"aa:bb:cc:00:00:02"})"},
             [&](const Json::Value& m) { return m["status"] == "Done" && ++done == 3; });
    // A plain image bumps the version, a versioned one sets it, and a recovery leaves the
    // device in normal mode at its recovery version; a client that connects later lists them so.
    std::string listed;
    const Json::Value list = exchange({}, nullptr).at(0);
    for (const Json::Value& device : list["devices"]) {
        listed += device["name"].asString() + " " + device["product"]["version"].asString() +
                  (device.isMember("isSafeModeDevice") ? " safe," : ",");
    }
    EXPECT_EQ(listed, "n1 2.0.4,n2 7.1,stuck 2.0.3,shy 2.0.3,fs 4.0.0,odd  safe,");
}

} // namespace
