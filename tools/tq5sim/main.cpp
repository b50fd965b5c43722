#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "commands.h"
#include "connection.h"
#include "lamps.h"
#include "vhci.h"

namespace {

constexpr char help[] =
    "Usage: tq5sim\n"
    "\n"
    "Plays TQ-5 alarm units (FT232R) on the kernel's virtual USB controller. Needs root and the\n"
    "module vhci-hcd. Reads commands from standard input, one a line, until quit or the end of\n"
    "the input; then all units leave.\n"
    "\n"
    "  plug N [product=TEXT] [bcd=HEX] [eeprom=HEX]\n"
    "                  attach unit N to port N of the controller (from 0). Defaults:\n"
    "                  product=\"TQ-5 alarm unit\" bcd=0600 eeprom=00aa (EEPROM word 10)\n"
    "  unplug N        take the unit off\n"
    "  stall N REQUEST fail this vendor request (hex: 0b bit mode, 0c read pins, 90 read EEPROM)\n"
    "  stall N none    answer all requests again\n"
    "  pins N HEX      let a read of the pins return this byte\n"
    "  pins N auto     let it return the levels again\n"
    "  quit\n"
    "\n"
    "Words are separated by blanks; blanks between double quotes belong to the word:\n"
    "  plug 0 product=\"my TQ-5\" bcd=0400\n"
    "A line that is not a command changes nothing and gives one line \"error: ...\" on standard\n"
    "error.\n"
    "\n"
    "Prints one line for each thing that happens to a unit, at once:\n"
    "  SECONDS unit N: CBUS0 LAMP CBUS1 LAMP pins=VV EVENT\n"
    "  SECONDS  since the start of tq5sim, with milliseconds\n"
    "  LAMP     ● the output is high, ○ it is low (an alarm takes one output low),\n"
    "           - it floats: bit-bang is off, or EEPROM or mask do not make it an output\n"
    "  VV       00 to 03, the level of CBUS0 plus twice that of CBUS1; or the word floating\n"
    "  EVENT    plugged bcd=HEX eeprom=HEX product=\"TEXT\", unplugged, unplugged by the kernel,\n"
    "           configuration N, bit mode HEX mask HEX, eeprom word N reads HEX,\n"
    "           read pins forced to HEX, stalled request HEX, and for commands\n"
    "           stall REQUEST, pins HEX\n";

std::string hex(unsigned value, int digits) {
    char text[9];
    std::snprintf(text, sizeof text, "%0*x", digits, value);
    return text;
}

void printError(const std::string& message) {
    std::fprintf(stderr, "error: %s\n", message.c_str());
}

class Simulator {
public:
    Simulator() : colour(isatty(STDOUT_FILENO) == 1) { clock_gettime(CLOCK_MONOTONIC, &start); }

    // Serves the units and standard input until told to quit; then all units are gone.
    void run();

private:
    bool serve(unsigned number, Connection& connection);
    void readCommands();
    void execute(const std::string& line);
    void plug(const Command& command);
    void report(unsigned number, const Unit& unit, const std::string& event) const;

    const bool colour;
    timespec start;
    bool running = true;
    std::string input;
    std::map<unsigned, Connection> connections;
};

void Simulator::run() {
    while (running) {
        std::vector<pollfd> waits = {{STDIN_FILENO, POLLIN, 0}};
        for (const auto& [number, connection] : connections) {
            const int events = connection.hasToSend() ? POLLIN | POLLOUT : POLLIN;
            waits.push_back({connection.socket, static_cast<short>(events), 0});
        }
        if (poll(waits.data(), waits.size(), -1) < 0) {
            continue;  // a signal that stopped and continued the process
        }
        auto wait = waits.begin() + 1;
        for (auto it = connections.begin(); it != connections.end(); ++wait) {
            const bool alive = wait->revents == 0 || serve(it->first, it->second);
            it = alive ? std::next(it) : connections.erase(it);
        }
        if (waits[0].revents != 0) {
            readCommands();
        }
    }
    for (const auto& [number, connection] : connections) {
        detachPort(number);
        report(number, connection.unit, "unplugged");
    }
    connections.clear();
}

// False when the kernel has let go of the unit.
bool Simulator::serve(unsigned number, Connection& connection) {
    bool alive = connection.receive();
    std::string event;
    // Reported before it is answered: what the host knows has been printed.
    while (connection.answerNext(event)) {
        if (!event.empty()) {
            report(number, connection.unit, event);
        }
    }
    alive = connection.send() && alive;
    if (!alive) {
        report(number, connection.unit, "unplugged by the kernel");
    }
    return alive;
}

void Simulator::readCommands() {
    char buffer[4096];
    const ssize_t got = read(STDIN_FILENO, buffer, sizeof buffer);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
        return;
    }
    if (got > 0) {
        input.append(buffer, static_cast<std::size_t>(got));
    } else if (!input.empty()) {
        input += '\n';  // a last line without its end counts too
    }
    std::size_t end;
    while (running && (end = input.find('\n')) != std::string::npos) {
        const std::string line = input.substr(0, end);
        input.erase(0, end + 1);
        execute(line);
    }
    if (got <= 0) {
        running = false;
    }
}

void Simulator::execute(const std::string& line) {
    Command command;
    std::string error;
    if (!parseCommand(line, command, error)) {
        printError(error);
        return;
    }
    if (command.kind == Command::Kind::none) {
        return;
    }
    if (command.kind == Command::Kind::quit) {
        running = false;
        return;
    }
    if (command.kind == Command::Kind::plug) {
        plug(command);
        return;
    }
    const auto found = connections.find(command.unit);
    if (found == connections.end()) {
        printError("unit " + std::to_string(command.unit) + " is not plugged");
        return;
    }
    Unit& unit = found->second.unit;
    const std::string byte = command.byte ? hex(*command.byte, 2) : "";
    if (command.kind == Command::Kind::stall) {
        unit.stall(command.byte);
        report(command.unit, unit, "stall " + (command.byte ? byte : "none"));
    } else if (command.kind == Command::Kind::pins) {
        unit.forcePins(command.byte);
        report(command.unit, unit, "pins " + (command.byte ? byte : "auto"));
    } else {
        detachPort(command.unit);
        report(command.unit, unit, "unplugged");
        connections.erase(found);
    }
}

void Simulator::plug(const Command& command) {
    if (connections.count(command.unit) != 0) {
        printError("unit " + std::to_string(command.unit) + " is plugged already");
        return;
    }
    std::string error;
    const int socket = attachPort(command.unit, error);
    if (socket < 0) {
        printError(error);
        return;
    }
    const Unit unit(command.options, command.unit);
    connections.try_emplace(command.unit, socket, unit);
    report(command.unit, unit,
           "plugged bcd=" + hex(command.options.bcdDevice, 4) +
               " eeprom=" + hex(command.options.eepromWord10, 4) + " product=\"" +
               command.options.product + "\"");
}

void Simulator::report(unsigned number, const Unit& unit, const std::string& event) const {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long long ms = (static_cast<long long>(now.tv_sec) - start.tv_sec) * 1000 +
                         (now.tv_nsec - start.tv_nsec) / 1000000;
    std::printf("%lld.%03lld unit %u: %s %s\n", ms / 1000, ms % 1000, number,
                lamps(unit, colour).c_str(), event.c_str());
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::fputs(help, stdout);
        return 0;
    }
    if (argc > 1) {
        printError("tq5sim takes no arguments but --help");
        return 1;
    }
    const std::string obstacle = vhciObstacle();
    if (!obstacle.empty()) {
        printError(obstacle);
        return 1;
    }
    // A reader of the output that goes away must not unplug the units.
    std::signal(SIGPIPE, SIG_IGN);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    Simulator().run();
    return 0;
}
