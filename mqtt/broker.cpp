#include "broker.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "logger.h"
#include "patience.h"

namespace {

constexpr int reliable = 1;  // the quality of service: at least once
constexpr int unsaved = 0;   // at most once, for which no broker writes to its disk
// MQTT's largest number of messages under way to a receiver, section 3.1.2.11.3 of the standard.
constexpr int receiveMaximum = 65535;
constexpr std::uint32_t largestPacket = 2 * 1024 * 1024;
constexpr int firstRefusedReason = 0x80;  // of the standard's reason codes, section 2.4
constexpr std::chrono::seconds retryInterval{3};
constexpr unsigned refusalsPerMinute = 10;
constexpr std::size_t loggedBytes = 100;
constexpr int leastKeepalive = 5;
constexpr char offline[] = "offline";

Broker& self(void* object) { return *static_cast<Broker*>(object); }

std::chrono::seconds echoInterval(const BridgeSettings& settings) {
    return std::chrono::seconds(std::max(settings.silenceSeconds / 4, 1));
}

}  // namespace

Broker::Broker(const BridgeSettings& bridgeSettings, RetainedAlarms& retainedAlarms)
    : settings(bridgeSettings), retained(retainedAlarms), heard(Clock::now()) {}

Broker::~Broker() {
    mosquitto_destroy(client);
    mosquitto_lib_cleanup();
}

bool Broker::open() {
    mosquitto_lib_init();
    client = mosquitto_new(("pinwatchd-mqtt-" + settings.name).c_str(), true, this);
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(client, MOSQ_OPT_RECEIVE_MAXIMUM, receiveMaximum);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    int result = mosquitto_will_set(client, statusTopic("bridge").c_str(), sizeof offline - 1,
                                    offline, reliable, true);
    if (result == MOSQ_ERR_SUCCESS && !settings.user.empty()) {
        result =
            mosquitto_username_pw_set(client, settings.user.c_str(), settings.password.c_str());
    }
    if (result == MOSQ_ERR_SUCCESS && !settings.caFile.empty()) {
        const char* cert = settings.certFile.empty() ? nullptr : settings.certFile.c_str();
        const char* key = settings.keyFile.empty() ? nullptr : settings.keyFile.c_str();
        result = mosquitto_tls_set(client, settings.caFile.c_str(), nullptr, cert, key, nullptr);
    }
    if (result != MOSQ_ERR_SUCCESS) {
        logError("the broker's settings cannot be used: %s", mosquitto_strerror(result));
        return false;
    }

    mosquitto_connect_callback_set(
        client, [](mosquitto*, void* object, int reason) { self(object).onConnect(reason); });
    mosquitto_disconnect_callback_set(
        client, [](mosquitto*, void* object, int reason) { self(object).onDisconnect(reason); });
    mosquitto_subscribe_callback_set(
        client, [](mosquitto*, void* object, int, int count, const int* granted) {
            self(object).onSubscribed(count, granted);
        });
    mosquitto_publish_v5_callback_set(
        client, [](mosquitto*, void* object, int, int reason, const mosquitto_property*) {
            self(object).onPublished(reason);
        });
    mosquitto_message_callback_set(client,
                                   [](mosquitto*, void* object, const mosquitto_message* message) {
                                       self(object).onMessage(*message);
                                   });
    mosquitto_log_callback_set(client, [](mosquitto*, void* object, int level, const char* text) {
        if (level == MOSQ_LOG_ERR) self(object).libraryError = text;
    });
    return true;
}

void Broker::run(std::chrono::milliseconds time) {
    const auto now = Clock::now();
    tellRefusals(now);
    if (mosquitto_socket(client) < 0) {
        if (now >= nextAttempt) {
            connect();
        } else {
            poll(nullptr, 0, static_cast<int>(time.count()));
        }
        return;
    }
    if (subscribed && now >= nextEcho) sendEcho(unsaved);
    // One lost echo is a replay that may not be complete.
    if (connected && retained.isReplaying() &&
        now - replayHeard > std::chrono::seconds(settings.silenceSeconds)) {
        subscribe();
    }
    const int result = mosquitto_loop(client, static_cast<int>(time.count()), 1);
    if (result == MOSQ_ERR_SUCCESS) return;
    tellProblem(reasonOf(result));
    nextAttempt = Clock::now() + retryInterval;
}

void Broker::connect() {
    told = false;
    nextAttempt = Clock::now() + retryInterval;
    int result = MOSQ_ERR_SUCCESS;
    if (triedFirst) {
        result = mosquitto_reconnect_async(client);
    } else {
        triedFirst = true;
        // Only this call takes properties, which the library keeps, and it waits.
        const Patience patience;
        mosquitto_property* properties = nullptr;
        mosquitto_property_add_int32(&properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, largestPacket);
        const int keepalive = static_cast<int>(echoInterval(settings).count());
        result =
            mosquitto_connect_bind_v5(client, settings.host.c_str(), settings.port,
                                      std::max(keepalive, leastKeepalive), nullptr, properties);
        mosquitto_property_free_all(&properties);
    }
    if (result != MOSQ_ERR_SUCCESS) tellProblem(reasonOf(result));
}

std::string Broker::reasonOf(int result) {
    if (result >= firstRefusedReason) return mosquitto_reason_string(result);
    if (result == MOSQ_ERR_TLS && !libraryError.empty()) return libraryError;
    if (result == MOSQ_ERR_KEEPALIVE) return "no answer";
    // So the library tells of an end within a message.
    if (result == MOSQ_ERR_ERRNO && errno == 0) result = MOSQ_ERR_CONN_LOST;
    return mosquitto_strerror(result);
}

void Broker::tellProblem(const std::string& problem) {
    if (std::exchange(told, true) || problem == lastProblem) return;
    lastProblem = problem;
    logWarning("no connection to the broker %s:%d: %s", settings.host.c_str(), settings.port,
               problem.c_str());
}

void Broker::onConnect(int reason) {
    if (reason != 0) {
        tellProblem(mosquitto_reason_string(reason));
        return;
    }
    connected = true;
    told = false;
    subscribe();
}

void Broker::onDisconnect(int reason) {
    if (reason != MOSQ_ERR_SUCCESS) tellProblem(reasonOf(reason));
    connected = subscribed = false;
}

void Broker::subscribe() {
    if (!connected) return;
    std::string alarms = settings.topic + "/#";
    std::string echo = statusTopic("echo");
    char* const topics[] = {alarms.data(), echo.data()};
    retained.beginReplay();
    replayHeard = Clock::now();
    replayEcho.clear();  // one under way ends no other replay than its own
    mosquitto_subscribe_multiple(client, nullptr, 2, topics, reliable,
                                 MQTT_SUB_OPT_RETAIN_AS_PUBLISHED, nullptr);
}

void Broker::onSubscribed(int count, const int* granted) {
    for (int index = 0; index < count; ++index) {
        if (granted[index] < firstRefusedReason) continue;
        tellProblem(std::string("subscription refused: ") +
                    mosquitto_reason_string(granted[index]));
        return;
    }
    subscribed = true;
    sendEcho(reliable);  // in one queue with the alarms
    replayEcho = std::to_string(echoes);
}

void Broker::sendEcho(int echoQos) {
    nextEcho = Clock::now() + echoInterval(settings);
    send(statusTopic("echo"), std::to_string(++echoes), echoQos, false);
}

void Broker::send(const std::string& topic, const std::string& payload, int qos, bool retain) {
    mosquitto_publish_v5(client, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                         payload.data(), qos, retain, nullptr);
}

void Broker::publish(const std::string& topic, const std::string& payload) {
    if (connected) send(topic, payload, reliable, true);
}

void Broker::onPublished(int reason) {
    if (reason < firstRefusedReason || publishRefused) return;
    publishRefused = true;
    logWarning("the broker refuses what is published below '%s': %s", statusTopic("").c_str(),
               mosquitto_reason_string(reason));
}

void Broker::onMessage(const mosquitto_message& message) {
    const auto length = static_cast<std::size_t>(message.payloadlen);
    const std::string payload(length > 0 ? static_cast<const char*>(message.payload) : "", length);
    if (message.topic == statusTopic("echo")) {
        onEcho(payload);
        return;
    }
    replayHeard = Clock::now();
    AlarmMessage alarm = readAlarmMessage(settings.topic, message.topic, payload);
    if (!message.retain) {
        alarm.name.clear();
        alarm.refusal = "is not retained";
    }
    if (alarm.refusal && ++refusals <= refusalsPerMinute) {
        logWarning("refused '%s', '%s': %s", oneLine(message.topic, loggedBytes).c_str(),
                   oneLine(payload, loggedBytes).c_str(), alarm.refusal);
    }
    if (!alarm.name.empty()) retained.apply(alarm);
}

void Broker::tellRefusals(Clock::time_point now) {
    if (now < refusalMinute) return;
    if (refusals > refusalsPerMinute) {
        logWarning("refused %u more messages", refusals - refusalsPerMinute);
    }
    refusals = 0;
    refusalMinute = now + std::chrono::minutes(1);
}

void Broker::onEcho(const std::string& payload) {
    if (retained.isReplaying()) {
        if (replayEcho.empty() || payload != replayEcho) return;
        retained.endReplay();
        ++completeReplays;
        if (!lastProblem.empty() || completeReplays == 1) {
            logInfo("connected to the broker %s:%d, which holds %zu alarms", settings.host.c_str(),
                    settings.port, retained.alarms().size());
        }
        lastProblem.clear();
    }
    heard = Clock::now();
}

void Broker::close() {
    mosquitto_disconnect_v5(client, MQTT_RC_DISCONNECT_WITH_WILL_MSG, nullptr);
    mosquitto_loop(client, 100, 1);
}

std::string Broker::statusTopic(const std::string& what) const {
    return settings.statusTopic + "/" + settings.name + "/" + what;
}
