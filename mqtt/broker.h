#pragma once

#include <chrono>
#include <string>

#include "bridgesettings.h"
#include "retainedalarms.h"

struct mosquitto;
struct mosquitto_message;

// The connection to the broker, which is made again whenever it is lost. What the broker holds
// is noted in the RetainedAlarms.
//
// It is MQTT 5, for three things that earlier versions lack: the retain flag of a message as it was
// published, an agreement on the largest packet, which bounds memory, and one on how many messages
// may be under way, beyond which a broker drops them.
//
// The end of a replay is known by an echo: sent when the subscription is confirmed, it comes back
// behind all that the broker had to send before. docs/fleet.md has the reasons.
class Broker {
public:
    using Clock = std::chrono::steady_clock;

    // Both must outlive the object.
    Broker(const BridgeSettings& bridgeSettings, RetainedAlarms& retainedAlarms);
    ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    // Prepares the first connection. False, with the reason in the log, if that is impossible.
    bool open();

    // Works for so long at most, or until there is something new.
    void run(std::chrono::milliseconds time);

    // Asks for all that the broker holds, once more.
    void subscribe();

    // Publishes a retained message, on a connection.
    void publish(const std::string& topic, const std::string& payload);

    // Says goodbye; the broker publishes the last will all the same.
    void close();

    // Until when the alarms are known to be the broker's: the time at which an echo came back last,
    // a message of one's own that takes the way of all others. At first the object's beginning.
    Clock::time_point lastHeard() const { return heard; }
    // How many replays were complete.
    unsigned replays() const { return completeReplays; }

    // The topic of something about this machine.
    std::string statusTopic(const std::string& what) const;

private:
    void connect();
    std::string reasonOf(int result);
    void tellProblem(const std::string& problem);
    void tellRefusals(Clock::time_point now);
    void sendEcho(int echoQos);
    void send(const std::string& topic, const std::string& payload, int qos, bool retain);
    void onConnect(int reason);
    void onDisconnect(int reason);
    void onSubscribed(int count, const int* granted);
    void onPublished(int reason);
    void onMessage(const mosquitto_message& message);
    void onEcho(const std::string& payload);

    const BridgeSettings& settings;
    RetainedAlarms& retained;
    mosquitto* client = nullptr;
    bool triedFirst = false;
    bool connected = false;
    bool told = false;  // why this attempt failed
    bool subscribed = false;
    bool publishRefused = false;
    Clock::time_point heard;
    Clock::time_point replayHeard;  // when it went on
    Clock::time_point nextAttempt;
    Clock::time_point nextEcho;
    std::string lastProblem;  // that was told, until it is over
    std::string libraryError;
    unsigned echoes = 0;
    std::string replayEcho;  // the one that ends the replay, once it is sent
    unsigned completeReplays = 0;
    Clock::time_point refusalMinute;
    unsigned refusals = 0;  // in that minute
};
