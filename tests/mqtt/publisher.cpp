// publisher HOST USER PASSWORD: publishes each line "TOPIC PAYLOAD" of standard input as a retained
// message with QoS 1, and ends when the broker has confirmed all.

#include <mosquitto.h>

#include <cstdio>
#include <cstring>

int main(int argc, char* argv[]) {
    if (argc != 4) return 2;
    static int open = 0;
    static bool connected = false;
    mosquitto_lib_init();
    mosquitto* client = mosquitto_new(nullptr, true, nullptr);
    mosquitto_username_pw_set(client, argv[2], argv[3]);
    mosquitto_connect_callback_set(client, [](mosquitto*, void*, int) { connected = true; });
    mosquitto_publish_callback_set(client, [](mosquitto*, void*, int) { --open; });
    if (mosquitto_connect(client, argv[1], 1883, 60) != MOSQ_ERR_SUCCESS) return 1;
    char line[4096];
    while (std::fgets(line, sizeof line, stdin)) {
        line[std::strcspn(line, "\n")] = '\0';
        char* payload = std::strchr(line, ' ');
        if (!payload) return 2;
        *payload++ = '\0';
        ++open;
        mosquitto_publish(client, nullptr, line, static_cast<int>(std::strlen(payload)), payload, 1,
                          true);
        while (open >= 20 || !connected) {
            if (mosquitto_loop(client, 1000, 1) != MOSQ_ERR_SUCCESS) return 1;
        }
    }
    while (open > 0) {
        if (mosquitto_loop(client, 1000, 1) != MOSQ_ERR_SUCCESS) return 1;
    }
    mosquitto_destroy(client);
}
