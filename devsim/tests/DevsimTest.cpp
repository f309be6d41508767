#include <unistd.h>

#include <cstdio>
#include <fstream>

#include <gtest/gtest.h>

#include "Fleet.h"

namespace {

using devsim::Fleet;

// A fleet file of the test's own, gone with it; the process id keeps parallel test processes apart.
struct FleetFile {
    const std::string path = testing::TempDir() + "devsim" + std::to_string(getpid()) + "_fleet.json";
    explicit FleetFile(const std::string& text) { std::ofstream(path) << text; }
    ~FleetFile() { std::remove(path.c_str()); }
};

// The first device's script in brief, or the error that loading the file gives.
std::string load(const std::string& path) try {
    const devsim::Script s = Fleet::fromFile(path).devices().at(0).script;
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
        {R"([{"name":5}])", R"(%: device 0: a device needs a non-empty string "name")"},
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
        {sim(R"("changeAfterMs":5,"changeTo":1)"), a + R"(: sim.changeTo must be an object without "name")"},
    };
    for (const auto& [text, expected] : table) {
        const FleetFile file(text);
        const auto at = expected.find('%');
        EXPECT_EQ(load(file.path),
                  at == std::string::npos ? expected : expected.substr(0, at) + file.path + expected.substr(at + 1))
            << text;
    }
}

// A device without a declared version after an upgrade: its last number goes up by one.
TEST(Fleet, VersionsBumpTheirLastNumber) {
    const std::vector<std::pair<std::string, std::string>> table = {
        {"2.0.3", "2.0.4"},
        {"1.9-rc2", "1.9-rc3"},
        {"4.0.9 (build 99)", "4.0.9 (build 100)"},
        {"1.2345678901", "1.2345678901.1"},
        {"beta", "beta.1"},
        {"", "1.0.1"},
    };
    for (const auto& [version, bumped] : table)
        EXPECT_EQ(devsim::bumpVersion(version), bumped) << version;
}

} // namespace
