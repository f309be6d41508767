#include "Service.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace devsim {

namespace {

// "zor_error_t" values the simulator answers with.
enum ErrorCode {
    kJobFailed = 1,
    kFileUnreadable = 2,
    kImageMismatch = 3,
    kUnknownDevice = 4,
    kBusy = 5,
    kWrongMode = 6,
    kBadRequest = 7,
};

std::string toText(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

std::string oneLine(const std::string& text) {
    std::string line;
    for (char c : text) {
        bool blank = c == '\n' || c == ' ';
        if (!blank)
            line += c;
        else if (!line.empty() && line.back() != ' ')
            line += ' ';
    }
    while (!line.empty() && line.back() == ' ')
        line.pop_back();
    return line;
}

std::string orAny(const std::string& id) {
    return id.empty() ? "any" : id;
}

// What a frame handed to a client costs beyond its bytes: its message object, the hold on
// it and the connection's queue entry. Counted so that a flood of small frames is held to
// the cap as a few large ones are.
constexpr std::size_t kFrameCost = 256;

// The length of the UTF-8 sequence at `at` and its code point; 0 when it is not UTF-8.
std::size_t utf8At(const std::string& text, std::size_t at, char32_t& point) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    const std::size_t length = lead < 0x80   ? 1
                               : lead < 0xc2 ? 0
                               : lead < 0xe0 ? 2
                               : lead < 0xf0 ? 3
                               : lead < 0xf5 ? 4
                                             : 0;
    if (length == 0 || at + length > text.size())
        return 0;
    point = length == 1 ? lead : lead & (0x7f >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xc0) != 0x80)
            return 0;
        point = point << 6 | (byte(at + i) & 0x3f);
    }
    const char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    return point < least[length] || point > 0x10ffff || (point >= 0xd800 && point < 0xe000) ? 0 : length;
}

// Text for the log whatever a client put in it: control characters (C0, DEL, C1), line and
// paragraph separators, direction overrides and bytes that are not UTF-8 are written as
// \xHH or \uHHHH, and a backslash doubled, so that no name starts a line of its own, hides
// what follows it or reaches the terminal as an escape sequence.
std::string escaped(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    char hex[12];
    for (std::size_t at = 0; at < text.size();) {
        char32_t point = 0;
        const std::size_t length = utf8At(text, at, point);
        if (length == 0) {
            std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(text[at]));
            out += hex;
            ++at;
            continue;
        }
        if (point < 0x20 || (point >= 0x7f && point < 0xa0) || point == 0x2028 || point == 0x2029 ||
            (point >= 0x202a && point <= 0x202e) || (point >= 0x2066 && point <= 0x2069)) {
            std::snprintf(hex, sizeof hex, point < 0x80 ? "\\x%02x" : "\\u%04x", static_cast<unsigned>(point));
            out += hex;
        } else if (point == '\\') {
            out += "\\\\";
        } else {
            out.append(text, at, length);
        }
        at += length;
    }
    return out;
}

} // namespace

Service::Service(asio::io_context& context, const Options& settings, Fleet served)
    : io(context), options(settings), fleet(std::move(served)) {
    server.clear_access_channels(websocketpp::log::alevel::all);
    // Peers that vanish without a close handshake are routine here and the
    // library reports each as a write or read error; our own log already says
    // how every connection ended.
    server.clear_error_channels(websocketpp::log::elevel::all);
    server.init_asio(&io);
    server.set_reuse_addr(true);

    // Progress events are small and come in bursts; without this, Nagle's
    // algorithm holds each one back until the peer's delayed ACK.
    server.set_tcp_post_init_handler([this](Hdl hdl) {
        std::error_code ignored;
        server.get_con_from_hdl(hdl)->get_socket().set_option(asio::ip::tcp::no_delay(true), ignored);
    });
    server.set_max_message_size(options.maxMessage);
    server.set_validate_handler([this](Hdl hdl) { return onValidate(hdl); });
    server.set_open_handler([this](Hdl hdl) { onOpen(hdl); });
    server.set_close_handler([this](Hdl hdl) { onClose(hdl); });
    server.set_fail_handler([this](Hdl hdl) { onFail(hdl); });
    server.set_message_handler([this](Hdl hdl, Server::message_ptr message) { onMessage(hdl, message); });

    if (!options.recordFile.empty()) {
        record.open(options.recordFile, std::ios::binary | std::ios::app);
        if (!record)
            throw std::runtime_error("cannot open record file " + options.recordFile);
    }
}

unsigned Service::start() {
    std::error_code ec;
    asio::ip::tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(options.port));
    server.listen(endpoint, ec);
    if (!ec)
        server.start_accept(ec);
    if (ec)
        throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(options.port) + ": " + ec.message());
    asio::error_code local;
    unsigned port = server.get_local_endpoint(local).port();
    devicesFrame();
    log("serving " + std::to_string(fleet.visibleCount()) + " devices, tick " + std::to_string(options.tickMs) +
        " ms, " + std::to_string(options.progressSteps) + " progress steps");
    return port;
}

void Service::stop(std::function<void()> whenDrained) {
    if (stopped)
        return;
    stopped = true;
    drained = std::move(whenDrained);
    log("stopping");
    std::error_code ec;
    server.stop_listening(ec);
    for (auto& entry : jobs) {
        if (entry.second->timer)
            entry.second->timer->cancel();
    }
    jobs.clear();
    for (auto& timer : timeline)
        timer->cancel();
    for (auto& entry : clients) {
        entry.second.closedBy = "stopping, code 1001";
        server.close(entry.first, websocketpp::close::status::going_away, "service stopping", ec);
    }
    if (clients.empty() && drained)
        drained();
}

void Service::log(const std::string& line) const {
    std::cerr << "devsim: " << escaped(line) << std::endl;
}

Service::Client* Service::clientOf(Hdl hdl) {
    auto it = clients.find(hdl);
    return it == clients.end() ? nullptr : &it->second;
}

bool Service::onValidate(Hdl hdl) {
    if (clients.size() + opening.size() < options.maxClients) {
        opening.insert(hdl);
        return true;
    }
    Server::connection_ptr con = server.get_con_from_hdl(hdl);
    con->set_status(websocketpp::http::status_code::service_unavailable);
    log("refusing a connection from " + con->get_remote_endpoint() + ": " + std::to_string(options.maxClients) +
        " clients already (--max-clients)");
    return false;
}

Service::Server::connection_ptr Service::addUnconnectedClient() {
    Server::connection_ptr con = server.get_connection();
    onOpen(con);
    return con;
}

void Service::onOpen(Hdl hdl) {
    opening.erase(hdl);
    Client client;
    client.id = nextClientId++;
    client.peer = server.get_con_from_hdl(hdl)->get_remote_endpoint();
    Client& stored = clients[hdl] = client;
    log("client " + std::to_string(stored.id) + " connected from " + stored.peer);
    startTimeline();

    // A fault count of 0 takes effect before the device list.
    applyFaults(hdl, stored);
    sendFrame(hdl, devicesFrame());
    if (Client* opened = clientOf(hdl); opened && opened->pauseDue)
        pauseReading(hdl, *opened);
}

const Service::Server::message_ptr& Service::devicesFrame() {
    // Serialising a large fleet takes a while; do it once per change. The frame is shared by
    // every client it goes to, until each has written it. Written piece by piece rather
    // than through one big Json::Value, which would copy every device first; members in
    // the writer's sorted order.
    if (!devicesCache) {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        builder["emitUTF8"] = true;
        std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
        std::ostringstream out;
        out << "{\"devices\":[";
        bool first = true;
        for (const Device& device : fleet.devices()) {
            if (device.hidden)
                continue;
            if (!first)
                out << ',';
            first = false;
            writer->write(device.object, &out);
        }
        out << "],\"msg\":\"devices\"}";
        devicesCache = prepare(out.str());
    }
    return devicesCache;
}

void Service::onClose(Hdl hdl) {
    Client* client = clientOf(hdl);
    if (!client)
        return;
    auto con = server.get_con_from_hdl(hdl);
    const auto given = [](websocketpp::close::status::value code) {
        return code != websocketpp::close::status::no_status && code != websocketpp::close::status::abnormal_close;
    };
    // The library closes by itself on a protocol error (a message too big, text that is not
    // UTF-8) and drops the connection once its close frame is out, before any answer.
    std::string how;
    if (!client->closedBy.empty())
        how = "closed by devsim: " + client->closedBy;
    else if (given(con->get_remote_close_code()))
        how = "ended normally: close frame with code " + std::to_string(con->get_remote_close_code());
    else if (given(con->get_local_close_code()))
        how = "closed by devsim: code " + std::to_string(con->get_local_close_code()) + ", " +
              con->get_local_close_reason();
    else if (con->get_ec() == websocketpp::transport::error::make_error_code(websocketpp::transport::error::eof))
        how = "ended normally: end of stream";
    else
        how = "dropped without closing: " + con->get_transport_ec().message();
    log("client " + std::to_string(client->id) + " gone (" + how + ") after " + std::to_string(client->sent) +
        " messages");
    clients.erase(hdl);
    if (stopped && clients.empty() && drained)
        drained();
}

void Service::onFail(Hdl hdl) {
    opening.erase(hdl);
    auto con = server.get_con_from_hdl(hdl);
    if (stopped)
        return; // the pending accept, cancelled by stop()
    log("connection from " + con->get_remote_endpoint() + " failed: " + con->get_ec().message());
}

void Service::onMessage(Hdl hdl, Server::message_ptr message) {
    handleFrame(hdl, message->get_payload(), message->get_opcode() == websocketpp::frame::opcode::binary);
    if (Client* client = clientOf(hdl); client && client->pauseDue)
        pauseReading(hdl, *client);
    // A client whose answers pile up is read no further until it has taken most of them,
    // as TCP itself would hold back a sender: its own requests can never take it past the cap.
    Client* client = clientOf(hdl);
    if (!client || client->closing || client->backedUp || client->unwritten->bytes <= options.maxUnwritten / 4)
        return;
    client->backedUp = true;
    holdReading(hdl, *client);
    client->unwritten->below = options.maxUnwritten / 8;
    client->unwritten->whenBelow = [this, hdl] {
        if (Client* taken = clientOf(hdl)) {
            taken->backedUp = false;
            resumeReading(hdl, *taken);
        }
    };
}

void Service::holdReading(Hdl hdl, Client& client) {
    // Only ever called from inside the connection's read step (on open, or while the frames
    // of a read are handled), and set there and then rather than posted: the step then
    // ends without starting another read, so resuming never starts a second one beside it.
    std::error_code ec;
    if (Server::connection_ptr con = server.get_con_from_hdl(hdl, ec)) {
        con->handle_pause_reading();
        client.readingHeld = true;
    }
}

void Service::resumeReading(Hdl hdl, Client& client) {
    if (!client.readingHeld || client.backedUp || client.faultPaused || client.closing)
        return;
    std::error_code ec;
    if (Server::connection_ptr con = server.get_con_from_hdl(hdl, ec)) {
        client.readingHeld = false;
        con->resume_reading();
    }
}

void Service::handleFrame(Hdl hdl, const std::string& payload, bool binary) {
    Client* client = clientOf(hdl);
    if (!client)
        return;
    if (record.is_open()) {
        record.write(payload.data(), static_cast<std::streamsize>(payload.size()));
        record.flush();
    }
    std::string who = "client " + std::to_string(client->id) + ": ";
    if (client->muted) {
        log(who + "muted, ignoring a frame of " + std::to_string(payload.size()) + " bytes");
        return;
    }
    if (binary) {
        log(who + "ignoring a binary frame of " + std::to_string(payload.size()) + " bytes");
        return;
    }

    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value request;
    std::string errors;
    bool parsed = false;
    try {
        parsed = reader->parse(payload.data(), payload.data() + payload.size(), &request, &errors);
    } catch (const Json::Exception& error) { // nested past the reader's depth limit
        errors = error.what();
    }
    if (!parsed) {
        log(who + "ignoring a frame that is not JSON (" + oneLine(errors) + ")");
        return;
    }
    std::string type = stringMember(request, "msg");
    if (type == "upgrade")
        handleUpgrade(hdl, *client, request);
    else if (type == "failsafe_recover")
        handleRecover(hdl, *client, request);
    else if (type == "reboot")
        handleReboot(*client, request);
    else if (!request.isObject())
        log(who + "ignoring a JSON value that is not an object");
    else if (type.empty())
        log(who + "ignoring a message without a \"msg\" string");
    else
        log(who + "ignoring unknown request \"" + type + "\"");
}

void Service::refuse(Hdl hdl, Client& client, const std::string& device, int code, const std::string& desc) {
    log("client " + std::to_string(client.id) + ": refused (" + std::to_string(code) + "): " + desc);
    Json::Value result(Json::objectValue);
    result["msg"] = "upgrade_result";
    result["device"] = device;
    result["zor_error_t"] = code;
    result["desc"] = desc;
    send(hdl, result);
}

void Service::handleUpgrade(Hdl hdl, Client& client, const Json::Value& request) {
    std::string name = stringMember(request, "device");
    std::string path = stringMember(request, "filePath");
    const Json::Value& overrideValue = request["override"];
    bool force = overrideValue.isString() && overrideValue.asString() == "true";
    log("client " + std::to_string(client.id) + ": upgrade " + name + " with " + path + (force ? " (override)" : ""));
    if (!overrideValue.isNull() && !overrideValue.isString())
        log("client " + std::to_string(client.id) + ": \"override\" is not a string, taken as \"false\"");

    if (name.empty())
        return refuse(hdl, client, name, kBadRequest, "Request names no device");
    Device* device = fleet.find(name);
    if (!device)
        return refuse(hdl, client, name, kUnknownDevice, "Unknown device " + name);
    if (jobs.count(name))
        return refuse(hdl, client, name, kBusy, "Device " + name + " is busy with another job");
    Mode mode = modeOf(device->object);
    if (mode == Mode::Failsafe || mode == Mode::None)
        return refuse(hdl, client, name, kWrongMode,
                      "Device " + name + " is in " + modeWord(mode) + " mode and cannot take an image");
    if (path.empty())
        return refuse(hdl, client, name, kBadRequest, "Request names no firmware file");

    ImageInfo image;
    std::string error;
    if (!readImage(path, image, error))
        return refuse(hdl, client, name, kFileUnreadable, error);
    std::string maker = nestedId(device->object, "manufacturer");
    std::string model = nestedId(device->object, "product");
    if ((!image.manufacturer.empty() && !equalsIgnoreCase(image.manufacturer, maker)) ||
        (!image.model.empty() && !equalsIgnoreCase(image.model, model))) {
        std::string what = "Image is for " + orAny(image.manufacturer) + "/" + orAny(image.model) + " but " + name +
                           " is " + maker + "/" + model;
        if (!force)
            return refuse(hdl, client, name, kImageMismatch, what);
        log("client " + std::to_string(client.id) + ": " + what + "; flashing it anyway");
    }
    if (device->script.refuse)
        return refuse(hdl, client, name, device->script.resultCode, device->script.desc);

    std::string version = image.version;
    if (version.empty())
        version = mode == Mode::Safe ? device->recoverVersion : bumpVersion(deviceVersion(device->object));
    Json::Value after = device->object;
    after.removeMember("isSafeModeDevice");
    after.removeMember("safeModeVersion");
    setDeviceVersion(after, version);
    startJob(hdl, client, *device, std::move(after), false);
}

void Service::handleRecover(Hdl hdl, Client& client, const Json::Value& request) {
    // Safe-mode devices are named under "device", failsafe ones under
    // "macaddr"; either may hold the name or an interface's MAC address.
    std::string key = stringMember(request, "device");
    if (key.empty())
        key = stringMember(request, "macaddr");
    log("client " + std::to_string(client.id) + ": failsafe_recover " + key);
    if (key.empty())
        return refuse(hdl, client, key, kBadRequest, "Request names no device");
    Device* device = fleet.findByNameOrMac(key);
    if (!device)
        return refuse(hdl, client, key, kUnknownDevice, "Unknown device " + key);
    std::string name = device->object["name"].asString();
    if (jobs.count(name))
        return refuse(hdl, client, key, kBusy, "Device " + name + " is busy with another job");
    const Json::Value& safe = device->object["isSafeModeDevice"];
    if (!safe.isBool() || !safe.asBool())
        return refuse(hdl, client, key, kWrongMode, "Device " + name + " is not in safe or failsafe mode");
    if (device->script.refuse)
        return refuse(hdl, client, key, device->script.resultCode, device->script.desc);

    Json::Value after = device->object;
    after.removeMember("isSafeModeDevice");
    after.removeMember("safeModeVersion");
    setDeviceVersion(after, device->recoverVersion);
    startJob(hdl, client, *device, std::move(after), true);
}

void Service::handleReboot(Client& client, const Json::Value& request) {
    std::string name = stringMember(request, "device");
    std::string who = "client " + std::to_string(client.id) + ": ";
    Device* device = name.empty() ? nullptr : fleet.find(name);
    if (!device)
        return log(who + "reboot of unknown device \"" + name + "\" ignored");
    if (jobs.count(name))
        return log(who + "reboot of " + name + " ignored, a job is running on it");
    log(who + "reboot " + name);
    Json::Value message(Json::objectValue);
    message["msg"] = "device_removed";
    message["device"] = device->object;
    broadcast(message);
    message["msg"] = "device_added";
    broadcast(message);
}

void Service::startJob(Hdl hdl, Client& client, Device& device, Json::Value after, bool recovery) {
    auto job = std::make_shared<Job>();
    job->device = device.object["name"].asString();
    job->client = hdl;
    job->clientId = client.id;
    job->recovery = recovery;
    job->after = std::move(after);
    job->script = device.script;
    jobs[job->device] = job;
    log("client " + std::to_string(client.id) + ": " + (recovery ? "recovery" : "upgrade") + " of " + job->device +
        " started");
    schedule(job);
}

void Service::schedule(const std::shared_ptr<Job>& job) {
    if (options.tickMs == 0) {
        asio::post(io, [this, job] { advance(job); });
        return;
    }
    if (!job->timer)
        job->timer = std::make_unique<asio::steady_timer>(io);
    job->timer->expires_after(std::chrono::milliseconds(options.tickMs));
    job->timer->async_wait([this, job](const asio::error_code& ec) {
        if (!ec)
            advance(job);
    });
}

void Service::sendProgress(const Job& job, int percent, const std::string& status) {
    Json::Value message(Json::objectValue);
    message["msg"] = "upgrade_progress";
    message["device"] = job.device;
    message["progress"] = percent;
    message["status"] = status;
    send(job.client, message);
}

void Service::advance(const std::shared_ptr<Job>& job) {
    auto it = jobs.find(job->device);
    if (stopped || it == jobs.end() || it->second != job)
        return;
    unsigned steps = std::max(1u, options.progressSteps);
    ++job->step;
    int percent = job->step >= steps ? 100 : static_cast<int>(static_cast<unsigned long long>(job->step) * 100 / steps);
    const Script& script = job->script;

    if (script.end != Script::End::Done && percent >= script.at) {
        std::string prefix = "client " + std::to_string(job->clientId) + ": ";
        if (script.end == Script::End::Stall) {
            // The job never ends; the device stays busy.
            sendProgress(*job, script.at, job->recovery ? "Recovering" : "Transferring");
            log(prefix + "job on " + job->device + " stalls at " + std::to_string(script.at) + "%");
            return;
        }
        jobs.erase(it);
        Json::Value message(Json::objectValue);
        message["device"] = job->device;
        if (script.end == Script::End::Fail) {
            message["msg"] = "upgrade_progress";
            message["progress"] = script.at;
            message["status"] = "Fail";
            message["error"] = script.errorCode;
            message["ErrorReason"] = script.errorReason;
            log(prefix + "job on " + job->device + " fails at " + std::to_string(script.at) +
                "%: " + script.errorReason);
        } else {
            message["msg"] = "upgrade_result";
            message["zor_error_t"] = script.resultCode;
            message["desc"] = script.desc;
            log(prefix + "job on " + job->device + " ends with result " + std::to_string(script.resultCode) + ": " +
                script.desc);
        }
        send(job->client, message);
        return;
    }
    if (job->step >= steps)
        return finishJob(job);
    sendProgress(*job, percent, job->recovery ? "Recovering" : (percent < 50 ? "Transferring" : "Flashing"));
    schedule(job);
}

void Service::finishJob(const std::shared_ptr<Job>& job) {
    jobs.erase(job->device);
    // The device restarts into its new firmware before the job is reported
    // done, so clients see it leave and come back while the job is still
    // theirs and can tell that restart from an unrelated one.
    if (Device* device = fleet.find(job->device)) {
        Json::Value message(Json::objectValue);
        message["msg"] = "device_removed";
        message["device"] = device->object;
        broadcast(message);
        device->object = job->after;
        devicesCache.reset();
        message["msg"] = "device_added";
        message["device"] = device->object;
        broadcast(message);
    }
    sendProgress(*job, 100, "Done");
    log("client " + std::to_string(job->clientId) + ": job on " + job->device + " done, now at version " +
        deviceVersion(job->after));
}

void Service::send(Hdl hdl, const Json::Value& message) {
    sendFrame(hdl, prepare(toText(message)));
}

void Service::broadcast(const Json::Value& message) {
    Server::message_ptr frame = prepare(toText(message));
    std::vector<Hdl> targets;
    for (auto& entry : clients)
        targets.push_back(entry.first);
    for (Hdl& hdl : targets)
        sendFrame(hdl, frame);
}

void Service::sendFrame(Hdl hdl, const Server::message_ptr& frame) {
    Client* client = clientOf(hdl);
    if (!client || client->muted || client->closing)
        return;
    std::error_code ec;
    if (!write(hdl, *client, frame, ec))
        return;
    if (ec) {
        log("client " + std::to_string(client->id) + ": send failed: " + ec.message());
        return;
    }
    ++client->sent;
    client->pauseDue = options.pauseReadingMs >= 0;
    applyFaults(hdl, *client);
}

Service::Server::message_ptr Service::prepare(const std::string& text) {
    auto opcode = options.binary ? websocketpp::frame::opcode::binary : websocketpp::frame::opcode::text;
    Server::message_ptr payload = messages->get_message(opcode, text.size());
    payload->append_payload(text);
    Server::message_ptr frame = messages->get_message();
    // A text frame that is not UTF-8 (a name read from an escape that is half a pair) is
    // left unprepared, and sending it fails.
    framer.prepare_data_frame(payload, frame);
    return frame;
}

bool Service::write(Hdl hdl, Client& client, const Server::message_ptr& frame, std::error_code& ec) {
    if (!frame->get_prepared()) {
        ec = websocketpp::processor::error::make_error_code(websocketpp::processor::error::invalid_payload);
        return true;
    }
    const std::size_t cost = frame->get_header().size() + frame->get_payload().size() + kFrameCost;
    if (client.unwritten->bytes + cost > options.maxUnwritten) {
        client.closing = true;
        client.closedBy = "more than " + std::to_string(options.maxUnwritten) + " bytes unwritten";
        log("client " + std::to_string(client.id) + ": cut off, it reads too slowly: " +
            std::to_string(client.unwritten->bytes + cost) + " bytes would be unwritten, over the cap of " +
            std::to_string(options.maxUnwritten) + " (--max-unwritten)");
        cutConnection(hdl, client, true);
        return false;
    }
    // The connection holds the frame through a hold of this client's, so that each client
    // counts its own write of a frame others share.
    struct Hold {
        Server::message_ptr frame;
        std::weak_ptr<Unwritten> pending; // a frame released after its client has gone finds nothing to count
        std::size_t cost;
        Hold(Server::message_ptr held, const std::shared_ptr<Unwritten>& counted, std::size_t bytes)
            : frame(std::move(held)), pending(counted), cost(bytes) {
            ++counted->count;
            counted->bytes += cost;
        }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;
        ~Hold() {
            std::shared_ptr<Unwritten> left = pending.lock();
            if (!left)
                return;
            left->bytes -= cost;
            if (left->whenBelow && left->bytes <= left->below) {
                std::function<void()> then;
                then.swap(left->whenBelow);
                then();
            }
            if (--left->count == 0 && left->whenWritten) {
                std::function<void()> then;
                then.swap(left->whenWritten);
                then();
            }
        }
    };
    auto hold = std::make_shared<Hold>(frame, client.unwritten, cost);
    Server::connection_ptr con = server.get_con_from_hdl(hdl, ec);
    if (!ec)
        ec = con->send(Server::message_ptr(hold, hold->frame.get()));
    return true;
}

void Service::pauseReading(Hdl hdl, Client& client) {
    websocketpp::lib::error_code ec;
    Server::connection_ptr con = server.get_con_from_hdl(hdl, ec);
    if (!con)
        return;
    client.pauseDue = false;
    if (!client.readPause) {
        log("client " + std::to_string(client.id) + ": reading nothing for " + std::to_string(options.pauseReadingMs) +
            " ms after each message");
        client.readPause = std::make_shared<asio::steady_timer>(io);
    }
    // Requests pile up in the socket meanwhile, and the client's writes back up behind them.
    holdReading(hdl, client);
    client.faultPaused = true;
    client.readPause->expires_after(std::chrono::milliseconds(options.pauseReadingMs));
    // The wait holds the connection: with no read pending nothing else keeps it alive.
    client.readPause->async_wait([this, con, hdl](const asio::error_code& waited) {
        Client* paused = clientOf(hdl);
        if (waited || !paused)
            return;
        paused->faultPaused = false;
        resumeReading(hdl, *paused);
    });
}

void Service::applyFaults(Hdl hdl, Client& client) {
    std::string who = "client " + std::to_string(client.id) + ": ";
    auto reached = [&](long limit) { return limit >= 0 && client.sent >= limit; };
    std::error_code ec;
    if (reached(options.garbageAfter) && !client.garbageDone) {
        client.garbageDone = true;
        log(who + "sending a frame that is not JSON");
        write(hdl, client, prepare("this is not json"), ec);
    }
    if (reached(options.notObjectAfter) && !client.notObjectDone) {
        client.notObjectDone = true;
        // Valid JSON holding what would be a message, so a client that looks inside
        // anything but an object shows it.
        log(who + "sending a JSON frame that is not an object");
        write(hdl, client, prepare("[{\"devices\":[],\"msg\":\"devices\"}]"), ec);
    }
    if (reached(options.deepAfter) && !client.deepDone) {
        client.deepDone = true;
        // One level past the 1,000 that JSON readers commonly allow.
        log(who + "sending a frame nested 1001 deep");
        write(hdl, client, prepare(std::string(1001, '[') + std::string(1001, ']')), ec);
    }
    if (reached(options.oversizeAfter) && !client.oversizeDone) {
        client.oversizeDone = true;
        // Just over the 32,000,000-byte message limit WebSocket peers commonly use.
        std::string big = "{\"msg\":\"padding\",\"data\":\"";
        big.append(33000000, 'x');
        big += "\"}";
        log(who + "sending an oversized frame of " + std::to_string(big.size()) + " bytes");
        write(hdl, client, prepare(big), ec);
    }
    if (reached(options.muteAfter) && !client.muted) {
        client.muted = true;
        log(who + "muted after " + std::to_string(client.sent) + " messages");
    }
    if (reached(options.dropAfter) && !client.closing) {
        client.closing = true;
        client.closedBy = "dropped as asked";
        log(who + "dropping the connection after " + std::to_string(client.sent) + " messages");
        cutConnection(hdl, client, false);
    }
    if (reached(options.resetAfter) && !client.closing) {
        client.closing = true;
        client.closedBy = "reset as asked";
        log(who + "resetting the connection after " + std::to_string(client.sent) + " messages");
        cutConnection(hdl, client, true);
    }
    if (reached(options.closeAfter) && !client.closing) {
        client.closing = true;
        client.closedBy = "closing as asked, code 1001";
        log(who + "closing after " + std::to_string(client.sent) + " messages");
        server.close(hdl, websocketpp::close::status::going_away, "closing as asked", ec);
    }
}

void Service::cutConnection(Hdl hdl, Client& client, bool reset) {
    // A drop lets the peer read the end of the stream with no close frame before it, as
    // when a service crashes; it waits for the frames sent so far, the last of which may
    // be large and still going out. A reset aborts the connection at once, as when a
    // service dies with requests unread: both systems throw away what they hold.
    auto cut = [this, hdl, reset] {
        std::error_code ec;
        Server::connection_ptr con = server.get_con_from_hdl(hdl, ec);
        if (!con)
            return;
        if (!reset) {
            con->get_socket().shutdown(asio::ip::tcp::socket::shutdown_both, ec);
        } else {
            con->get_socket().set_option(asio::socket_base::linger(true, 0), ec);
            con->get_socket().close(ec);
        }
    };
    if (reset || client.unwritten->count == 0)
        cut();
    else
        client.unwritten->whenWritten = cut;
}

void Service::after(long ms, std::function<void()> action) {
    auto timer = std::make_unique<asio::steady_timer>(io);
    timer->expires_after(std::chrono::milliseconds(ms));
    timer->async_wait([this, action](const asio::error_code& ec) {
        if (!ec && !stopped)
            action();
    });
    timeline.push_back(std::move(timer));
}

void Service::startTimeline() {
    // Scripted arrivals, departures and changes count from the first client,
    // so a test that connects late still sees all of them.
    if (timelineStarted)
        return;
    timelineStarted = true;
    std::vector<Device>& devices = fleet.devices();
    for (size_t i = 0; i < devices.size(); ++i) {
        Device& device = devices[i];
        if (device.appearAfterMs >= 0) {
            after(device.appearAfterMs, [this, i] {
                Device& d = fleet.devices()[i];
                d.hidden = false;
                devicesCache.reset();
                log("device " + d.object["name"].asString() + " appears");
                Json::Value message(Json::objectValue);
                message["msg"] = "device_added";
                message["device"] = d.object;
                broadcast(message);
            });
        }
        if (device.changeAfterMs >= 0) {
            after(device.changeAfterMs, [this, i] {
                Device& d = fleet.devices()[i];
                if (d.hidden)
                    return;
                Json::Value message(Json::objectValue);
                message["msg"] = "device_changed";
                message["from"] = d.object;
                for (const std::string& key : d.changeTo.getMemberNames()) {
                    if (d.changeTo[key].isNull())
                        d.object.removeMember(key);
                    else
                        d.object[key] = d.changeTo[key];
                }
                devicesCache.reset();
                message["to"] = d.object;
                log("device " + d.object["name"].asString() + " changes");
                broadcast(message);
            });
        }
        if (device.leaveAfterMs >= 0) {
            after(device.leaveAfterMs, [this, i] {
                Device& d = fleet.devices()[i];
                if (d.hidden)
                    return;
                log("device " + d.object["name"].asString() + " leaves");
                Json::Value message(Json::objectValue);
                message["msg"] = "device_removed";
                message["device"] = d.object;
                broadcast(message);
                d.hidden = true;
                devicesCache.reset();
            });
        }
    }
}

} // namespace devsim
