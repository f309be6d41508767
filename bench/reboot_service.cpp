// reboot_service: the fixed, quick service that bench/throughput.py runs the reboot cases
// against, so that the clients and not the service decide the time. A websocketpp server
// on 127.0.0.1, single-threaded, whose frames are all built before it listens:
//
//   reboot_service --port=P [--port-file=FILE] --devices=N|max [--quiet]
//
// On open it sends one "devices" list of N devices ("max": as many as fit in the
// transport's 32,000,000-byte message limit, which is 84,879). It reads every frame; each
// must be the reboot request of the next listed device, byte for byte as the tool writes
// it ({"device":"node-00001","msg":"reboot"} and a line feed). Without --quiet it answers
// each reboot at once as devsim does: "device_removed" and then "device_added", each
// carrying the whole device. It closes a connection once it has read the client's end of
// stream. When a connection ends it writes one line to standard error:
//
//   reboot_service: connection C read R of N reboots in order, X other frames
//
// SIGTERM or SIGINT stops it with status 0.
#include <json/json.h>
#include <websocketpp/config/asio_no_tls.hpp>
#include <websocketpp/server.hpp>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using Config = websocketpp::config::asio;
using Server = websocketpp::server<Config>;
using Message = Config::message_type::ptr;
using websocketpp::connection_hdl;

constexpr size_t kLimit = 32000000; // websocketpp's default max_message_size

const char* const kMakers[][2] = {{"acme", "Acme"}, {"northwind", "Northwind"}, {"contoso", "Contoso Acoustics"}};
const char* const kModels[][2] = {{"x100", "X100 Controller"}, {"nw200", "NW-200 Gateway"}, {"sb32", "StageBox 32"}};

// Device i (from 1) is the same object at every size: the 10,000 list is a prefix of the
// largest. One in ten is in a recovery mode, as in a real fleet after a failed rollout.
// About 377 bytes each, so that the largest list the transport carries holds 84,879.
std::string device(long i) {
    const unsigned k = static_cast<unsigned>(i) * 2654435761u; // a fixed scramble
    const auto& maker = kMakers[k % 3];
    const auto& model = kModels[(k >> 8) % 3];
    const unsigned major = 2 + (k >> 12) % 3, minor = (k >> 14) % 14, build = 1000 + (k >> 16) % 9250;
    const bool safe = i % 20 == 7 || i % 20 == 13;
    const unsigned a = static_cast<unsigned>(i) * 2, b = a + 1;
    char text[768];
    const int n = std::snprintf(
        text, sizeof text,
        "{\"id\":\"GN%07ld\",\"name\":\"node-%05ld\",\"manufacturer\":{\"id\":\"%s\",\"name\":\"%s\"},"
        "\"product\":{\"id\":\"%s\",\"name\":\"%s\",\"version\":\"%u.%u.0.%u\",\"versionString\":\"%u.%u.0 "
        "(build %u)\"},\"interfaces\":[{\"ipAddress\":\"10.%u.%u.%u\",\"macAddr\":\"02:00:00:%02x:"
        "%02x:%02x\"},{\"ipAddress\":\"10.%u.%u.%u\",\"macAddr\":\"02:00:00:%02x:%02x:%02x\"}],"
        "\"isSafeModeDevice\":%s,\"safeModeVersion\":%d}",
        i, i, maker[0], maker[1], model[0], model[1], major, minor, build, major, minor, build, (a >> 16) & 255,
        (a >> 8) & 255, a & 255, (a >> 16) & 255, (a >> 8) & 255, a & 255, 128 + ((b >> 16) & 127), (b >> 8) & 255,
        b & 255, (b >> 16) & 255, (b >> 8) & 255, b & 255, safe ? "true" : "false",
        !safe         ? 0
        : i % 20 == 7 ? 2
                      : 1);
    return std::string(text, static_cast<size_t>(n));
}

// What a client on the tool's stack sends for device i: the compact writer's text.
std::string request(long i) {
    char text[64];
    const int n = std::snprintf(text, sizeof text, "{\"device\":\"node-%05ld\",\"msg\":\"reboot\"}\n", i);
    return std::string(text, static_cast<size_t>(n));
}

struct Framer {
    Config::con_msg_manager_type::ptr messages = std::make_shared<Config::con_msg_manager_type>();
    Config::rng_type rng;
    websocketpp::processor::hybi13<Config> processor{false, true, messages, rng};

    // The wire bytes of one server text frame.
    std::string bytes(const std::string& text) {
        Message in = messages->get_message(websocketpp::frame::opcode::text, text.size());
        in->set_payload(text);
        Message out = messages->get_message();
        if (processor.prepare_data_frame(in, out)) {
            std::fprintf(stderr, "reboot_service: cannot frame a message\n");
            std::exit(2);
        }
        return out->get_header() + out->get_payload();
    }

    // A message that websocketpp writes verbatim: frames built once, sent to any connection.
    Message prepared(std::string wire) {
        Message m = messages->get_message();
        m->set_opcode(websocketpp::frame::opcode::text);
        m->set_header(wire);
        m->set_prepared(true);
        return m;
    }
};

struct Reading {
    long id = 0;
    long next = 1; // the device whose reboot comes next
    long other = 0;
};

} // namespace

int main(int argc, char** argv) {
    long port = -1;
    long devices = -1; // -1: as many as fit
    bool quiet = false, given = false;
    std::string portFile;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a.rfind("--port=", 0) == 0)
            port = std::atol(a.c_str() + 7);
        else if (a.rfind("--port-file=", 0) == 0)
            portFile = a.substr(12);
        else if (a == "--devices=max")
            given = true;
        else if (a.rfind("--devices=", 0) == 0)
            devices = std::atol(a.c_str() + 10), given = devices > 0;
        else if (a == "--quiet")
            quiet = true;
        else
            given = false, i = argc;
    }
    if (!given || port < 0 || port > 65535) {
        std::fprintf(stderr, "usage: reboot_service --port=P [--port-file=FILE] --devices=N|max [--quiet]\n");
        return 2;
    }

    std::string list = "{\"msg\":\"devices\",\"devices\":[";
    long n = 0;
    for (std::string one; devices < 0 || n < devices; list += one) {
        one = (n ? "," : "") + device(n + 1);
        if (devices < 0 && list.size() + one.size() + 2 > kLimit)
            break;
        ++n;
    }
    list += "]}";
    Framer framer;
    const Message listFrame = framer.prepared(framer.bytes(list));
    std::vector<std::string> expected;
    std::vector<Message> answers;
    expected.reserve(static_cast<size_t>(n));
    for (long i = 1; i <= n; ++i) {
        expected.push_back(request(i));
        if (!quiet) {
            const std::string d = device(i);
            answers.push_back(framer.prepared(framer.bytes("{\"msg\":\"device_removed\",\"device\":" + d + "}") +
                                              framer.bytes("{\"msg\":\"device_added\",\"device\":" + d + "}")));
        }
    }
    std::fprintf(stderr, "reboot_service: %ld devices in a list message of %zu bytes (limit %zu)%s\n", n, list.size(),
                 kLimit, quiet ? ", reboots not answered" : "");
    list = std::string();

    Server server;
    server.clear_access_channels(websocketpp::log::alevel::all);
    server.clear_error_channels(websocketpp::log::elevel::all); // an end of stream is how clients leave
    server.init_asio();
    server.set_reuse_addr(true);
    // Without Nagle: the last piece of a message does not wait for an acknowledgement.
    server.set_tcp_pre_init_handler([&server](connection_hdl h) {
        asio::error_code ignored;
        server.get_con_from_hdl(h)->get_socket().set_option(asio::ip::tcp::no_delay(true), ignored);
    });
    long connections = 0;
    std::map<connection_hdl, Reading, std::owner_less<connection_hdl>> reading;
    auto ended = [&](connection_hdl h) {
        auto it = reading.find(h);
        if (it == reading.end())
            return;
        std::fprintf(stderr, "reboot_service: connection %ld read %ld of %ld reboots in order, %ld other frames\n",
                     it->second.id, it->second.next - 1, n, it->second.other);
        reading.erase(it);
    };
    server.set_close_handler(ended);
    server.set_fail_handler(ended);
    server.set_open_handler([&](connection_hdl h) {
        reading[h].id = ++connections;
        websocketpp::lib::error_code ec;
        server.send(h, listFrame, ec);
    });
    server.set_message_handler([&](connection_hdl h, Server::message_ptr m) {
        Reading& r = reading[h];
        if (r.next > n || m->get_payload() != expected[static_cast<size_t>(r.next - 1)]) {
            ++r.other;
            return;
        }
        if (!quiet) {
            websocketpp::lib::error_code ec;
            server.send(h, answers[static_cast<size_t>(r.next - 1)], ec);
        }
        ++r.next;
    });

    asio::signal_set signals(server.get_io_service(), SIGTERM, SIGINT);
    signals.async_wait([&server](const asio::error_code&, int) { server.stop(); });
    websocketpp::lib::error_code ec;
    server.listen(asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), static_cast<unsigned short>(port)), ec);
    asio::ip::tcp::endpoint local;
    if (!ec)
        local = server.get_local_endpoint(ec);
    if (ec) {
        std::fprintf(stderr, "reboot_service: cannot listen: %s\n", ec.message().c_str());
        return 1;
    }
    server.start_accept();
    if (!portFile.empty()) {
        // Written whole and then renamed: a script that sees the file can read the port.
        const std::string part = portFile + ".part";
        FILE* f = std::fopen(part.c_str(), "w");
        if (!f || std::fprintf(f, "%u\n", local.port()) < 0 || std::fclose(f) != 0 ||
            std::rename(part.c_str(), portFile.c_str()) != 0) {
            std::fprintf(stderr, "reboot_service: cannot write %s\n", portFile.c_str());
            return 1;
        }
    }
    server.run();
    return 0;
}
