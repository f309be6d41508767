// floor: the least work a client on devupdate's own stack can do for the throughput
// cases, and so the reference the tool is measured against. Same transport as the tool
// (websocketpp's asio_client, access log off, default message size limit), one jsoncpp
// reader built once, and the same bytes on stdout with one write and one flush per
// device line and per progress bar, as the tool must make. No filters, no queues, no
// state machine: it is called like the tool,
//
//   floor --port=P --list [--long-lived]     device lines ("Found[Normal]: ...")
//   floor --port=P --list --reboot [--batch] the same lines, and after each a "reboot"
//                                            request for that device; --batch hands all
//                                            the requests' frames to websocketpp as one
//                                            message instead of one message each
//   floor --port=P --file=FW                 upgrade the first normal-mode device
//
// and ends with the tool's exit status: 0 after the list or a "Done", 1 after a failed
// job or when the service goes first (which is how a long-lived run ends). Reboots are
// delivered as the tool must: once the last one is written the loop stops, the sending
// side of the TCP connection is shut down, and whatever arrives is read and dropped until
// the service closes its side (status 0; 1 if the connection fails instead).
#include <json/json.h>
#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_no_tls_client.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

namespace {

using Client = websocketpp::client<websocketpp::config::asio_client>;

const Json::Value& member(const Json::Value& v, const char* key) {
    return v.isObject() ? v[key] : Json::Value::nullSingleton();
}

const char* text(const Json::Value& v, const char* key, const char* fallback = "") {
    const Json::Value& m = member(v, key);
    return m.isString() ? m.asCString() : fallback;
}

// The mode word of a device's label; empty for a device the tool never shows.
const char* modeWord(const Json::Value& device) {
    const Json::Value& safe = member(device, "isSafeModeDevice");
    if (!safe.isBool() || !safe.asBool())
        return "Normal";
    const Json::Value& version = member(device, "safeModeVersion");
    if (!version.isInt() || version.asInt() == 0)
        return "";
    return version.asInt() == 1 ? "Failsafe" : "Safe";
}

void emit(const std::string& s) {
    std::fwrite(s.data(), 1, s.size(), stdout);
    std::fflush(stdout);
}

class Floor {
public:
    Floor(int servicePort, bool listRun, bool longLivedRun, bool rebootRun, bool batchRun, std::string firmware)
        : port(servicePort), list(listRun), longLived(longLivedRun), reboot(rebootRun), batch(batchRun),
          file(std::move(firmware)), reader(Json::CharReaderBuilder().newCharReader()) {
        client.clear_access_channels(websocketpp::log::alevel::all);
        client.init_asio();
        client.set_open_handler([this](websocketpp::connection_hdl h) { hdl = h; });
        client.set_message_handler([this](websocketpp::connection_hdl, Client::message_ptr m) {
            const std::string& p = m->get_payload();
            Json::Value v;
            if (reader->parse(p.data(), p.data() + p.size(), &v, nullptr) && v.isObject())
                onMessage(v);
        });
    }

    // A request still queued when the client goes (a failed connection) stops nothing.
    ~Floor() { live = nullptr; }

    int run() {
        websocketpp::lib::error_code ec;
        Client::connection_ptr con = client.get_connection("ws://127.0.0.1:" + std::to_string(port), ec);
        if (ec)
            return 1;
        client.connect(con);
        client.run();
        return delivering ? deliver(con->get_raw_socket()) : status;
    }

private:
    void finish(int code) {
        status = code;
        client.stop();
    }

    // Prints the device's line; returns its name, or null for a device the tool does not show.
    const char* deviceLine(const char* event, const Json::Value& d) {
        const char* mode = modeWord(d);
        const char* name = text(d, "name");
        if (!*mode || !*name)
            return nullptr;
        line.assign(event);
        line += '[';
        line += mode;
        line += "]: ";
        if (line.size() < 17)
            line.append(17 - line.size(), ' ');
        const Json::Value& product = member(d, "product");
        const char* version = text(product, "versionString");
        line += name;
        line += ',';
        line += text(member(d, "manufacturer"), "name", "?");
        line += ',';
        line += text(product, "name", "?");
        line += ',';
        line += *version ? version : text(product, "version", "?");
        line += '\n';
        emit(line);
        return name;
    }

    // "\rUpdating NAME : [===>    ] P%[ - STATUS]", assembled in one reused buffer.
    const std::string& bar(const char* start, int percent, const char* word, const char* end = "") {
        const int head = static_cast<int>(percent * 50 / 100.0);
        line.assign(start);
        line += "Updating ";
        line += job;
        line += " : [";
        const int filled = std::clamp(head, 0, 50);
        line.append(static_cast<size_t>(filled), '=');
        if (head == filled && head < 50)
            line += '>';
        line.append(static_cast<size_t>(head == filled && head < 50 ? 49 - head : 50 - filled), ' ');
        line += "] ";
        line += std::to_string(percent);
        line += '%';
        if (*word) {
            line += " - ";
            line += word;
        }
        line += end;
        return line;
    }

    void onDevices(const Json::Value& devices) {
        if (list && reboot) {
            return rebootAll(devices);
        }
        if (list) {
            for (const Json::Value& d : devices)
                deviceLine("Found", d);
            if (!longLived)
                finish(0);
            return;
        }
        for (const Json::Value& d : devices) {
            if (*text(d, "name") && !std::strcmp(modeWord(d), "Normal")) {
                job = text(d, "name");
                break;
            }
        }
        if (job.empty()) {
            emit("No matching devices found.\n");
            return finish(1);
        }
        // A bare file name goes out absolute, as the tool sends it.
        std::filesystem::path path(file);
        if (path.parent_path().empty() || path.parent_path() == ".")
            path = std::filesystem::current_path() / path.filename();
        Json::Value request;
        request["msg"] = "upgrade";
        request["device"] = job;
        request["filePath"] = path.string();
        request["override"] = "false";
        client.send(hdl, Json::FastWriter().write(request), websocketpp::frame::opcode::text);
        emit(bar("", 0, ""));
    }

    // Each shown device is sent its reboot right after its line, as the tool does. The last
    // request is framed here so that its release, once the connection has written it (and
    // so every request before it), can stop the loop; websocketpp frames the others. With
    // --batch every frame is built here and all of them go to websocketpp as one message.
    void rebootAll(const Json::Value& devices) {
        Json::Value request;
        request["msg"] = "reboot";
        std::string text, wire;
        for (const Json::Value& d : devices) {
            const char* name = deviceLine("Found", d);
            if (!name)
                continue;
            if (!text.empty() && batch)
                wire += framed(text);
            else if (!text.empty())
                client.send(hdl, text, websocketpp::frame::opcode::text);
            request["device"] = name;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
            text = Json::FastWriter().write(request);
#pragma GCC diagnostic pop
        }
        if (text.empty())
            return finish(0);
        delivering = true;
        Client::message_ptr last(new Config::message_type(messages), [this](Config::message_type* m) {
            delete m;
            if (live)
                live->stop();
        });
        last->set_opcode(websocketpp::frame::opcode::text);
        last->set_header(wire + framed(text)); // written as it is: header, then an empty payload
        last->set_prepared(true);
        client.send(hdl, last);
    }

    // The bytes of one masked text frame.
    std::string framed(const std::string& text) {
        Client::message_ptr payload = messages->get_message(websocketpp::frame::opcode::text, text.size());
        payload->append_payload(text);
        Client::message_ptr frame = messages->get_message();
        framer.prepare_data_frame(payload, frame);
        return frame->get_header() + frame->get_payload();
    }

    int deliver(asio::ip::tcp::socket& socket) {
        asio::error_code ec;
        socket.shutdown(asio::ip::tcp::socket::shutdown_send, ec);
        char unread[65536];
        while (!ec)
            socket.read_some(asio::buffer(unread), ec);
        return ec == asio::error::eof ? 0 : 1;
    }

    void onProgress(const Json::Value& m) {
        if (job.empty() || job != text(m, "device"))
            return;
        const Json::Value& progress = member(m, "progress");
        const int percent = static_cast<int>(std::lround(progress.isNumeric() ? progress.asDouble() : 0.0));
        const char* reported = text(m, "status");
        if (!std::strcmp(reported, "Done")) {
            emit(bar("\r", 100, "SUCCESS", "\n"));
            finish(0);
        } else if (m.isMember("error") || !std::strcmp(reported, "Fail")) {
            const char* reason = text(m, "ErrorReason");
            emit(bar("\r", percent, *reason ? reason : "FAILED", "\n"));
            finish(1);
        } else {
            emit(bar("\r", percent, ""));
        }
    }

    void onMessage(const Json::Value& m) {
        const char* kind = text(m, "msg");
        if (!std::strcmp(kind, "devices")) {
            onDevices(m["devices"]);
        } else if (!std::strcmp(kind, "upgrade_progress")) {
            onProgress(m);
        } else if (list && longLived && !std::strcmp(kind, "device_added")) {
            deviceLine("Found", m["device"]);
        } else if (list && longLived && !std::strcmp(kind, "device_removed")) {
            deviceLine("Lost", m["device"]);
        }
    }

    using Config = websocketpp::config::asio_client;

    int port;
    bool list, longLived, reboot, batch;
    bool delivering = false;
    std::string file;
    std::unique_ptr<Json::CharReader> reader;
    Config::rng_type rng;
    Config::con_msg_manager_type::ptr messages = std::make_shared<Config::con_msg_manager_type>();
    websocketpp::processor::hybi13<Config> framer{false, false, messages, rng};
    Client client;
    Client* live = &client;
    websocketpp::connection_hdl hdl;
    std::string job;
    std::string line; // the line or bar being printed
    int status = 1;   // stays 1 when the service goes first
};

} // namespace

int main(int argc, char** argv) {
    int port = 7070;
    bool list = false, longLived = false, reboot = false, batch = false;
    std::string file;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--list")
            list = true;
        else if (a == "--long-lived")
            longLived = true;
        else if (a == "--reboot")
            reboot = true;
        else if (a == "--batch")
            batch = true;
        else if (a.rfind("--file=", 0) == 0)
            file = a.substr(7);
        else if (a.rfind("--port=", 0) == 0)
            port = std::atoi(a.c_str() + 7);
        else {
            std::fprintf(stderr, "usage: floor --port=P (--list [--long-lived | --reboot [--batch]] | --file=FW)\n");
            return 2;
        }
    }
    return Floor(port, list, longLived, reboot, batch, file).run();
}
