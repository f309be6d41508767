#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

#include "ScriptedClient.h"
#include "ToolStateMachine.h"

namespace {

using Text = std::string;

// Devices: normal with maker and model, safe mode, failsafe mode, and mode None (always filtered out).
const auto dev = [](Text n, Text more) { return R"({"name":")" + n + "\"" + more + "}"; };
const auto N = [](Text n) { return dev(n, R"(,"manufacturer":{"name":"A"},"product":{"name":"M","version":"1"})"); };
const auto Sf = [](Text n) { return dev(n, R"(,"isSafeModeDevice":true,"safeModeVersion":2)"); };
const auto F = [](Text n) { return dev(n, R"(,"isSafeModeDevice":true,"safeModeVersion":1)"); };
const auto None = [](Text n) { return dev(n, R"(,"isSafeModeDevice":true)"); };
const Text kNameless = R"({"product":{}})";

// Frames in, one a line; the lines "open" and "close" are connection states.
const auto msg = [](Text type, Text body) { return R"({"msg":")" + type + "\"," + body + "}\n"; };
const auto list = [](Text devices) { return msg("devices", R"("devices":[)" + devices + "]"); };
const auto add = [](Text d) { return msg("device_added", R"("device":)" + d); };
const auto rem = [](Text d) { return msg("device_removed", R"("device":)" + d); };
const auto chg = [](Text from, Text to) { return msg("device_changed", R"("from":)" + from + R"(,"to":)" + to); };
const auto prog = [](Text n, Text more = R"("status":"Done")") {
    return msg("upgrade_progress", R"("device":")" + n + "\"," + more);
};
const auto res = [](Text n, Text more) { return msg("upgrade_result", R"("device":")" + n + "\"," + more); };

// Frames out, and the console's bars.
const auto upg = [](Text n, Text file = "/fw/a.bin", Text force = "false") {
    return R"({"device":")" + n + R"(","filePath":")" + file + R"(","msg":"upgrade","override":")" + force + "\"}\n";
};
const auto boot = [](Text n) { return R"({"device":")" + n + "\",\"msg\":\"reboot\"}\n"; };
const auto recover = [](Text key, Text n) { return "{\"" + key + "\":\"" + n + "\",\"msg\":\"failsafe_recover\"}\n"; };
const auto bar0 = [](Text n) { return "Updating " + n + " : [>                                                 ] 0%"; };
const auto redraw = [](Text n, Text bar) { return "\rUpdating " + n + " : " + bar; };
const auto ok = [](Text n) { return redraw(n, "[" + Text(50, '=') + "] 100% - SUCCESS\n"); };
const auto job = [](Text n) { return bar0(n) + ok(n); };

struct Scenario {
    const char* name;
    const char* args;
    Text events;
    Text output;
    Text frames;               // "{cwd}" stands for the directory the tests run in
    const char* end;           // final state, and whether the controller disconnected
    const char* port = "7070"; // the port connected to
};

const Scenario kScenarios[] = {
    // Two ports: the last wins, and its trailing letter ends the number.
    {"ListRun", "--list --reboot --device-mode=normal --device-mode=SAFE --port=1 --port=8081x",
     "open\n" + add(N("early")) + list(N("n1") + "," + Sf("s1") + "," + F("f1") + "," + None("x") + "," + kNameless),
     "Found[Normal]:   n1,A,M,1\nFound[Safe]:     s1,?,?,?\n", boot("n1") + boot("s1"), "Done disconnected", "8081"},
    {"EmptyListRun", "--list", "open\n{\"msg\":\"devices\"}\n", "", "", "Done disconnected"},
    {"LongLivedList", "--list --long-lived",
     "open\n" + list(N("n1")) + list(N("n2")) + add(N("n2")) + add(F("f2")) + rem(N("n1")) + add(kNameless) +
         rem(kNameless) + chg(N("n2"), Sf("n2")) + rem(F("f1")) + rem(None("n1")) + chg(N("n3"), None("n3")) +
         chg(None("n4"), N("n4")),
     "Found[Normal]:   n1,A,M,1\nFound[Normal]:   n2,A,M,1\nFound[Failsafe]: f2,?,?,?\nLost[Normal]:    n1,A,M,1\n"
     "Lost[Failsafe]:  f1,?,?,?\nLost[Normal]:    n3,A,M,1\nFound[Normal]:   n4,A,M,1\n",
     "", "Waiting"},
    {"OneUpgrade", "--file=/fw/a.bin",
     "open\n" + prog("", R"("progress":10)") + res("", R"("zor_error_t":5)") + list(N("n1") + "," + N("n2")) +
         prog("n2", R"("progress":50)") + prog("n1", R"("progress":49.5)") +
         prog("n1", R"("progress":49.4,"status":"done")") + prog("n1", R"("progress":"70","status":"Failed")") +
         prog("n1", R"("progress":-0.5)") + prog("n1", R"("progress":12,"status":"Done","error":1,"ErrorReason":"x")"),
     bar0("n1") + redraw("n1", "[=========================>                        ] 50%") +
         redraw("n1", "[========================>                         ] 49%") + "\r" + bar0("n1") +
         redraw("n1", "[>                                                 ] -1%") + ok("n1"),
     upg("n1"), "Done disconnected"},
    {"AllWithRebootAfterFailures", "--file=/fw/a.bin -a --reboot",
     "open\n" + list(N("n1") + "," + N("n2") + "," + N("n3")) + prog("n1") + rem(N("n3")) + add(N("n4")) +
         chg(Sf("n5"), N("n5")) + prog("n2", R"("progress":42.5,"error":null,"ErrorReason":"Flash write error")") +
         res("n3", R"("zor_error_t":0,"desc":"no")") + res("n3", R"("zor_error_t":"5")") +
         res("n3", R"("zor_error_t":2.5)") + prog("n3", R"("progress":60)") + res("n2", R"("zor_error_t":5)") +
         res("n3", R"("zor_error_t":5.0,"desc":"")"),
     job("n1") + bar0("n2") +
         redraw("n2", "[=====================>                            ] 43% - Flash write error\n") + bar0("n3") +
         redraw("n3", "[==============================>                   ] 60%") +
         redraw("n3", "[>                                                 ] 0% - FAILED\n"),
     upg("n1") + boot("n1") + upg("n2") + boot("n2") + upg("n3") + boot("n3"), "Failed disconnected"},
    {"QueueOrderNormalSafeFailsafe", "--recover-safe --recover-failsafe --file=sub/a.bin --all -f",
     "open\n" + list(F("f1") + "," + Sf("s1") + "," + N("n1")) + prog("n1") +
         prog("s1", R"("progress":30,"status":"Fail","ErrorReason":"")") + prog("f1"),
     job("n1") + bar0("s1") + redraw("s1", "[===============>                                  ] 30% - FAILED\n") +
         job("f1"),
     upg("n1", "sub/a.bin", "true") + recover("device", "s1") + recover("macaddr", "f1"), "Failed disconnected"},
    {"RecoveryStaysWaiting", "--recover-failsafe --reboot", "open\n" + list(F("f1") + "," + F("f2")), bar0("f1"),
     recover("macaddr", "f1"), "Waiting"},
    {"ImagePathsAndAFailingResult", "--recover-safe=./img.bin --file=fw.bin --all",
     "open\n" + list(Sf("s1") + "," + N("n1")) + prog("n1") + res("s1", R"("zor_error_t":-3,"desc":"no image")"),
     job("n1") + bar0("s1") + redraw("s1", "[>                                                 ] 0% - no image\n"),
     upg("n1", "{cwd}/fw.bin") + upg("s1", "{cwd}/img.bin"), "Failed disconnected"},
    // A connection lost after the end fails a run whose last requests may not have been read; a failed run stays so.
    {"LostAfterTheEnd", "--list --reboot", "open\n" + list(N("n1")) + "close\n", "Found[Normal]:   n1,A,M,1\n",
     boot("n1"), "Failed disconnected"},
    {"NothingMatched", "--file=/fw/a.bin --device-name=zzz", "open\n" + list(N("n1")) + "close\n",
     "No matching devices found.\n", "", "Failed disconnected"},
    {"ClosedMidJob", "--file=/fw/a.bin", "open\n" + list(N("n1")) + "close\n" + prog("n1"), bar0("n1"), upg("n1"),
     "Failed"},
    {"LongLivedUpdate", "--file=/fw/a.bin --long-lived --all --device-mode=normal",
     "open\n[1,2]\n{\"msg\":\"hello\"}\n{\"nomsg\":1}\n" + list(N("n1") + "," + N("n1")) + add(N("n1")) + rem(N("n1")) +
         prog("n1") + prog("n1") + chg(Sf("n2"), N("n2")),
     job("n1") + job("n1") + bar0("n2"), upg("n1") + upg("n1") + upg("n2"), "Working"},
    {"LongLivedListDuringAnUpgrade", "--list --file=/fw/a.bin --long-lived --all",
     "open\n" + list(N("n1") + "," + N("n2") + "," + N("n2")) + chg(N("n2"), None("n2")) + rem(N("n2")) + add(N("n3")) +
         chg(N("n3"), F("n3")) + chg(N("n3"), N("renamed")) + add(kNameless) + prog("n1") + prog("n3"),
     "Found[Normal]:   n1,A,M,1\nFound[Normal]:   n2,A,M,1\nFound[Normal]:   n2,A,M,1\n" + job("n1") + job("n3"),
     upg("n1") + upg("n3"), "Waiting"},
    {"RecoveryArrivalTakesOver", "--recover-safe --long-lived --all --list",
     "open\n" + list(Sf("s1")) + add(Sf("s2")) + rem(Sf("s2")) +
         rem(R"({"isSafeModeDevice":true,"safeModeVersion":2})") + prog("s1") + prog("s2"),
     "Found[Safe]:     s1,?,?,?\n" + bar0("s1") + "Found[Safe]:     s2,?,?,?\n" + bar0("s2") +
         "Lost[Safe]:      ?,?,?,?\n" + ok("s2"),
     recover("device", "s1") + recover("device", "s2"), "Waiting"},
};

// The configuration of a row's command line. One the parser refuses fails its row, which then
// runs with the defaults, instead of ending the whole table.
ToolConfig configOf(const Text& args) {
    const auto parsed = parseArgs(args);
    EXPECT_TRUE(parsed) << "the parser refused: " << args;
    return parsed ? *parsed : ToolConfig{};
}

// Plays the events through the scripted client. Gives the output and how the run ended; `wire`
// gets the address connected to and every frame sent.
Text play(const char* args, const Text& events, Text& wire) {
    auto client = std::make_shared<ScriptedClient>();
    std::istringstream lines(events);
    for (Text line; std::getline(lines, line);) {
        if (line == "open" || line == "close") {
            client->addState(line == "open" ? IWebsocketClient::Open : IWebsocketClient::Closed);
        } else {
            client->addText(line);
        }
    }
    std::ostringstream out;
    ToolStateMachine machine(configOf(args), out, client);
    machine.run();
    wire = client->uri + "\n";
    for (const Text& frame : client->sent) {
        wire += frame + "\n";
    }
    const char* const states[] = {"Idle", "Connecting", "Connected", "Waiting", "Working", "Done", "Failed"};
    return out.str() + "|" + states[machine.getState()] + (client->disconnected ? " disconnected" : "");
}

// A row in a failure report: its name, not its bytes.
void PrintTo(const Scenario& s, std::ostream* out) {
    *out << s.name;
}

class Controller : public ::testing::TestWithParam<Scenario> {};

TEST_P(Controller, PrintsSendsAndEnds) {
    const Scenario& s = GetParam();
    Text frames = "ws://127.0.0.1:" + Text(s.port) + "\n" + s.frames, wire;
    for (std::size_t at; (at = frames.find("{cwd}")) != Text::npos;) {
        frames.replace(at, 5, std::filesystem::current_path().string());
    }
    EXPECT_EQ(play(s.args, s.events, wire), s.output + "|" + s.end);
    EXPECT_EQ(wire, frames);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, Controller, ::testing::ValuesIn(kScenarios),
                         [](const ::testing::TestParamInfo<Scenario>& row) { return row.param.name; });

// A removal whose queue holds another name first never returns; the child ends by its alarm.
TEST(ControllerDeathTest, RemovalBehindAnotherQueuedNameStalls) {
    Text wire, events = "open\n" + list(N("n1") + "," + N("n2") + "," + N("n3")) + rem(N("n3"));
    EXPECT_EXIT((alarm(1), play("--file=/fw/a.bin --long-lived", events, wire), exit(0)),
                ::testing::KilledBySignal(SIGALRM), "");
}

TEST(DeviceFilter, AdmitsOrIgnores) {
    // Two interfaces, with an address each side of the letter-case question.
    const Text unit = R"({"name":"Zed-8","manufacturer":{"id":"acme"},"product":{"id":"m8","name":"Model-8"},)"
                      R"("interfaces":[{"ipAddress":"10.0.0.5","macAddr":"aa:bb:cc:00:11:22"},)"
                      R"({"ipAddress":"fe80::a","macAddr":"00:00:00:00:00:00"}]})";
    const struct {
        const char* args;
        Text device;
        bool ignored;
    } rows[] = {
        {"", R"({"isSafeModeDevice":true,"safeModeVersion":0})", true},
        {"--device-mode=NORMAL", "{}", false},
        {"--manufacturer=ACME --model=M8", unit, false},
        {"--manufacturer=acme --model=m9 --model=Model-8", unit, true},
        {"--manufacturer=4660", R"({"manufacturer":{"id":4660}})", true},
        {"--manufacturer=", "{}", false},
        {"--device-name=zED-8", unit, false},
        {"--device-name=xed-8 --device-name=Zed-80", unit, true},
        {"--device-ip=fe80::a", unit, false},
        {"--device-ip=FE80::A --device-ip=010.0.0.5", unit, true},
        {"--device-ip=1.1.1.1 --device-mac=AA:BB:CC:00:11:22", unit, false},
        {"--device-mac=aabbcc001122 --device-mac=aa-bb-cc-00-11-22", unit, true},
        {"--device-name=other --device-ip=10.0.0.5", unit, false},
        {"--device-ip=10.0.0.5", R"({"interfaces":{"ipAddress":"10.0.0.5"}})", true},
        {"--device-ip=10.0.0.5 --device-mode=failsafe", unit, true},
    };
    std::ostringstream out;
    for (const auto& row : rows) {
        ToolStateMachine machine(configOf(Text("--list ") + row.args), out, nullptr);
        EXPECT_EQ(machine.filterDevice(parseJson(row.device)), row.ignored) << row.args << " " << row.device;
    }
    ToolStateMachine machine(configOf("--list --device-ip=x"), out, nullptr);
    EXPECT_THROW(machine.filterDevice(parseJson(R"({"interfaces":["x"]})")), Json::LogicError);
}

// Marks every flush with "|": a line or bar must reach the terminal as soon as it is drawn.
struct FlushMarks : std::stringbuf {
    int sync() override { return sputc('|'), 0; }
};

TEST(ConsoleOutput, ModesDeviceLinesAndBars) {
    FlushMarks marks;
    std::ostream out(&marks);
    for (const char* device :
         {R"("x")", R"({"isSafeModeDevice":"true","safeModeVersion":1})",
          R"({"isSafeModeDevice":true,"safeModeVersion":0})", R"({"isSafeModeDevice":true,"safeModeVersion":"1"})",
          R"({"isSafeModeDevice":true,"safeModeVersion":1.5})", R"({"isSafeModeDevice":true,"safeModeVersion":-1})"}) {
        out << deviceModeWord(evalDeviceMode(parseJson(device))) << ' ';
    }
    out << deviceModeWord(static_cast<DeviceMode>(9)) << '\n';
    for (const char* device :
         {"{}", R"({"name":5,"manufacturer":"A","product":["x"]})",
          R"({"name":"a,b","manufacturer":{"name":"M"},"product":{"name":"P","version":"1"}})",
          R"({"name":"a","product":{"versionString":"2","version":"1"}})",
          R"({"name":"a","product":{"versionString":"","version":"1"}})",
          R"({"name":"a","product":{"versionString":""}})", R"({"name":"a","product":{"version":""}})"}) {
        printDevice(out, parseJson(device));
    }
    for (int percent : {99, 101, -2, 2147483647}) {
        printProgressBar(out, "U", percent, percent == 101 ? "x" : "");
        out << '\n';
    }
    EXPECT_EQ(marks.str(), R"(Normal Normal None None None Safe None
?,?,?,?
|?,?,?,?
|a,b,M,P,1
|a,?,?,2
|a,?,?,1
|a,?,?,?
|a,?,?,
|Updating U : [=================================================>] 99%|
Updating U : [==================================================] 101% - x|
Updating U : [                                                  ] -2%|
Updating U : [>                                                 ] 2147483647%|
)");
}

} // namespace
