#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ArgsParser.h"
#include "ScriptedClient.h"
#include "ToolStateMachine.h"

namespace {

// Devices of each mode, all from the same maker and model.
std::string normal(const std::string& name) {
    return R"({"name":")" + name +
           R"(","manufacturer":{"id":"acme","name":"Acme"},"product":{"id":"m8","name":"Model 8","versionString":"1.0"}})";
}
std::string safe(const std::string& name) {
    return R"({"name":")" + name + R"(","isSafeModeDevice":true,"safeModeVersion":2,"product":{"version":"0.9"}})";
}
std::string failsafe(const std::string& name) {
    return R"({"name":")" + name + R"(","isSafeModeDevice":true,"safeModeVersion":1})";
}

std::string devices(const std::vector<std::string>& list) {
    std::string joined;
    for (const std::string& d : list) {
        joined += (joined.empty() ? "" : ",") + d;
    }
    return R"({"msg":"devices","devices":[)" + joined + "]}";
}
std::string added(const std::string& d) {
    return R"({"msg":"device_added","device":)" + d + "}";
}
std::string removed(const std::string& d) {
    return R"({"msg":"device_removed","device":)" + d + "}";
}
std::string changed(const std::string& from, const std::string& to) {
    return R"({"msg":"device_changed","from":)" + from + R"(,"to":)" + to + "}";
}
std::string progress(const std::string& name, const std::string& members) {
    return R"({"msg":"upgrade_progress","device":")" + name + "\"," + members + "}";
}
std::string done(const std::string& name) {
    return progress(name, R"("progress":100,"status":"Done")");
}
std::string result(const std::string& name, const std::string& members) {
    return R"({"msg":"upgrade_result","device":")" + name + "\"," + members + "}";
}

std::string upgrade(const std::string& name, const std::string& file = "/fw/a.bin", const char* force = "false") {
    return R"({"device":")" + name + R"(","filePath":")" + file + R"(","msg":"upgrade","override":")" + force + "\"}";
}
std::string reboot(const std::string& name) {
    return R"({"device":")" + name + R"(","msg":"reboot"})";
}
std::string recoverSafe(const std::string& name) {
    return R"({"device":")" + name + R"(","msg":"failsafe_recover"})";
}
std::string recoverFailsafe(const std::string& name) {
    return R"({"macaddr":")" + name + R"(","msg":"failsafe_recover"})";
}

std::string bar(const std::string& name, int percent, const std::string& status = "") {
    std::ostringstream out;
    printProgressBar(out, name, percent, status);
    return out.str();
}
// A redraw, and the last redraw of a job.
std::string redraw(const std::string& name, int percent) {
    return "\r" + bar(name, percent);
}
std::string last(const std::string& name, int percent, const std::string& status) {
    return "\r" + bar(name, percent, status) + "\n";
}

const char* const kOpen = "open";
const char* const kClose = "close";

struct Scenario {
    const char* name;
    std::vector<std::string> args;
    std::vector<std::string> events; // "open", "close" or a message's JSON text
    std::string output;
    std::vector<std::string> sent;
    ToolStateMachine::State finalState;
    bool disconnected;
};

void PrintTo(const Scenario& s, std::ostream* os) {
    *os << s.name;
}

std::unique_ptr<ToolConfig> parseArgs(const std::vector<std::string>& args) {
    std::vector<const char*> argv{"devupdate"};
    for (const std::string& a : args) {
        argv.push_back(a.c_str());
    }
    return ArgumentParser::parseArguments(static_cast<int>(argv.size()), argv.data());
}

struct Played {
    std::string output;
    std::shared_ptr<ScriptedClient> client;
    ToolStateMachine::State state;
};

Played play(const std::vector<std::string>& args, const std::vector<std::string>& events) {
    auto config = parseArgs(args);
    auto client = std::make_shared<ScriptedClient>();
    for (const std::string& e : events) {
        if (e == kOpen) {
            client->addState(IWebsocketClient::Open);
        } else if (e == kClose) {
            client->addState(IWebsocketClient::Closed);
        } else {
            EXPECT_TRUE(client->addText(e)) << e;
        }
    }
    std::ostringstream out;
    ToolStateMachine machine(*config, out, client);
    machine.run();
    return Played{out.str(), client, machine.getState()};
}

class Journeys : public ::testing::TestWithParam<Scenario> {};

TEST_P(Journeys, PrintSendAndEndAsExpected) {
    const Scenario& s = GetParam();
    const Played run = play(s.args, s.events);
    EXPECT_EQ(run.output, s.output);
    EXPECT_EQ(run.client->sent, s.sent);
    EXPECT_EQ(run.state, s.finalState);
    EXPECT_EQ(run.client->disconnected, s.disconnected);
    EXPECT_EQ(run.client->uri, "ws://127.0.0.1:" + std::to_string(parseArgs(s.args)->port));
}

using S = ToolStateMachine;

const Scenario kScenarios[] = {
    {"List",
     {"--list", "--port=8081"},
     {kOpen, added(normal("early")),
      devices({normal("n1"), safe("s1"), failsafe("f1"), R"({"isSafeModeDevice":true})", R"({"product":{}})"})},
     "Found[Normal]:   n1,Acme,Model 8,1.0\nFound[Safe]:     s1,?,?,0.9\nFound[Failsafe]: f1,?,?,?\n",
     {},
     S::Done,
     true},
    {"ListWithReboot",
     {"--list", "--reboot", "--device-mode=normal", "--device-mode=safe"},
     {kOpen, devices({normal("n1"), failsafe("f1"), safe("s1")})},
     "Found[Normal]:   n1,Acme,Model 8,1.0\nFound[Safe]:     s1,?,?,0.9\n",
     {reboot("n1"), reboot("s1")},
     S::Done,
     true},
    {"EmptyListEndsAListRun", {"--list"}, {kOpen, devices({})}, "", {}, S::Done, true},
    {"ListLongLivedFollowsArrivalsAndDepartures",
     {"--list", "--long-lived"},
     {kOpen, devices({normal("n1")}), added(normal("n2")), removed(normal("n1")), added(R"({"product":{}})"),
      changed(normal("n2"), safe("n2")), removed(failsafe("f1")), removed(R"({"isSafeModeDevice":true})")},
     "Found[Normal]:   n1,Acme,Model 8,1.0\nFound[Normal]:   n2,Acme,Model 8,1.0\n"
     "Lost[Normal]:    n1,Acme,Model 8,1.0\nLost[Failsafe]:  f1,?,?,?\n",
     {},
     S::Waiting,
     false},
    {"OneUpdateRoundsProgressAndEndsAfterTheFirstJob",
     {"--file=/fw/a.bin"},
     {kOpen, devices({normal("n1"), normal("n2")}), progress("n2", R"("progress":50)"),
      progress("n1", R"("progress":49.5)"), progress("n1", R"("progress":49.4,"status":"done")"),
      progress("n1", R"("progress":"70","status":"Failed")"), progress("n1", R"("progress":-0.5)"),
      progress("n1", R"("progress":12,"status":"Done","error":"boom","ErrorReason":"x")")},
     bar("n1", 0) + redraw("n1", 50) + redraw("n1", 49) + redraw("n1", 0) + redraw("n1", -1) +
         last("n1", 100, "SUCCESS"),
     {upgrade("n1")},
     S::Done,
     true},
    {"AllWithRebootGoesOnAfterAFailure",
     {"--file=/fw/a.bin", "--all", "--reboot"},
     {kOpen, devices({normal("n1"), normal("n2"), normal("n3")}), done("n1"),
      progress("n2", R"("progress":42.5,"error":null,"ErrorReason":"Flash write error")"),
      result("n3", R"("zor_error_t":0,"desc":"ignored")"), result("n3", R"("zor_error_t":"5")"),
      result("n3", R"("zor_error_t":2.5)"), done("n3")},
     bar("n1", 0) + last("n1", 100, "SUCCESS") + bar("n2", 0) + last("n2", 43, "Flash write error") + bar("n3", 0) +
         last("n3", 100, "SUCCESS"),
     {upgrade("n1"), reboot("n1"), upgrade("n2"), reboot("n2"), upgrade("n3"), reboot("n3")},
     S::Failed,
     true},
    {"FailStatusWithoutReasonSaysFailed",
     {"--file=/fw/a.bin"},
     {kOpen, devices({normal("n1")}), progress("n1", R"("progress":30,"status":"Fail","ErrorReason":"")")},
     bar("n1", 0) + last("n1", 30, "FAILED"),
     {upgrade("n1")},
     S::Failed,
     true},
    {"ResultWithCodeFailsAtZeroPercent",
     {"--file=/fw/a.bin"},
     {kOpen, devices({normal("n1")}), progress("n1", R"("progress":60)"), result("n2", R"("zor_error_t":5)"),
      result("n1", R"("zor_error_t":5.0,"desc":"")")},
     bar("n1", 0) + redraw("n1", 60) + last("n1", 0, "FAILED"),
     {upgrade("n1")},
     S::Failed,
     true},
    {"RecoveriesRunInQueueOrder",
     {"--recover-safe", "--recover-failsafe", "--file=/fw/a.bin", "--all", "--force"},
     {kOpen, devices({failsafe("f1"), safe("s1"), normal("n1")}), done("n1"), done("s1"),
      result("f1", R"("zor_error_t":-3,"desc":"no image")")},
     bar("n1", 0) + last("n1", 100, "SUCCESS") + bar("s1", 0) + last("s1", 100, "SUCCESS") + bar("f1", 0) +
         last("f1", 0, "no image"),
     {upgrade("n1", "/fw/a.bin", "true"), recoverSafe("s1"), recoverFailsafe("f1")},
     S::Failed,
     true},
    {"SafeRecoveryWithAnImageIsAnUpgrade",
     {"--recover-safe=/img/safe.bin"},
     {kOpen, devices({safe("s1"), normal("n1")}), done("s1")},
     bar("s1", 0) + last("s1", 100, "SUCCESS"),
     {upgrade("s1", "/img/safe.bin")},
     S::Done,
     true},
    {"NothingMatched",
     {"--file=/fw/a.bin", "--device-name=zzz"},
     {kOpen, devices({normal("n1")})},
     "No matching devices found.\n",
     {},
     S::Failed,
     true},
    {"ConnectionLostMidJob",
     {"--file=/fw/a.bin"},
     {kOpen, devices({normal("n1")}), kClose},
     bar("n1", 0),
     {upgrade("n1")},
     S::Failed,
     false},
    {"ConnectionLostBeforeTheList", {"--list"}, {kOpen, kClose}, "", {}, S::Failed, false},
    {"RefusedConnection", {"--list"}, {kClose}, "", {}, S::Failed, false},
    {"LongLivedWaitsThenIgnoresTheDeviceUnderWork",
     {"--file=/fw/a.bin", "--long-lived"},
     {kOpen, "[1,2]", R"({"msg":"hello"})", R"({"nomsg":1})", devices({}), devices({normal("n1")}), added(normal("n1")),
      removed(normal("n1")), added(normal("n1")), done("n1"), added(normal("n2"))},
     bar("n1", 0) + last("n1", 100, "SUCCESS"),
     {upgrade("n1")},
     S::Done,
     true},
    {"RecoveryKeepsWaitingSoAnArrivalTakesOver",
     {"--recover-safe", "--long-lived", "--all"},
     {kOpen, devices({safe("s1")}), added(safe("s2")), done("s1"), done("s2")},
     bar("s1", 0) + bar("s2", 0) + last("s2", 100, "SUCCESS"),
     {recoverSafe("s1"), recoverSafe("s2")},
     S::Waiting,
     false},
    {"RemovalEmptiesItsOwnEntriesFromTheQueue",
     {"--file=/fw/a.bin", "--long-lived", "--all"},
     {kOpen, devices({normal("n1"), normal("n2"), normal("n2")}), removed(normal("n2")), done("n1")},
     bar("n1", 0) + last("n1", 100, "SUCCESS"),
     {upgrade("n1")},
     S::Waiting,
     false},
    {"ChangeIntoAMatchActsAsAnArrival",
     {"--file=/fw/a.bin", "--long-lived", "--device-mode=normal"},
     {kOpen, devices({}), changed(safe("n1"), normal("n1")), done("n1")},
     bar("n1", 0) + last("n1", 100, "SUCCESS"),
     {upgrade("n1")},
     S::Done,
     true},
    {"ChangeBetweenMatchesIsNotReevaluated",
     {"--file=/fw/a.bin", "--recover-failsafe", "--long-lived", "--all"},
     {kOpen, devices({normal("n1"), normal("n2")}), changed(normal("n2"), failsafe("n2")),
      changed(normal("n2"), normal("renamed")), done("n1"), done("n2")},
     bar("n1", 0) + last("n1", 100, "SUCCESS") + bar("n2", 0) + last("n2", 100, "SUCCESS"),
     {upgrade("n1"), upgrade("n2")},
     S::Waiting,
     false},
};

INSTANTIATE_TEST_SUITE_P(Controller, Journeys, ::testing::ValuesIn(kScenarios),
                         [](const ::testing::TestParamInfo<Scenario>& info) { return info.param.name; });

TEST(ToolStateMachine, MakesOnlyBareFileNamesAbsolute) {
    const std::string cwd = std::filesystem::current_path().string();
    const std::pair<std::string, std::string> cases[] = {
        {"fw.bin", cwd + "/fw.bin"}, {"./fw.bin", cwd + "/fw.bin"},  {"sub/fw.bin", "sub/fw.bin"},
        {"../fw.bin", "../fw.bin"},  {"/abs/fw.bin", "/abs/fw.bin"},
    };
    for (const auto& [typed, sent] : cases) {
        const Played run = play({"--file=" + typed, "--recover-safe=" + typed, "--all"},
                                {kOpen, devices({normal("n1"), safe("s1")}), done("n1")});
        ASSERT_EQ(run.client->sent.size(), 2u) << typed;
        EXPECT_EQ(run.client->sent[0], upgrade("n1", sent)) << typed;
        EXPECT_EQ(run.client->sent[1], upgrade("s1", sent)) << typed;
    }
}

} // namespace
