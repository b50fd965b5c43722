#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "connection.h"
#include "lamps.h"
#include "vhci.h"

namespace {

// The kernel takes a unit off its port and forgets it on its own time, and slower while it
// enumerates others: about half a second each.
constexpr int portPollMs = 2;
constexpr int portWaitMs = 10000;

constexpr char help[] =
    "Usage: tq5sim\n"
    "\n"
    "Plays TQ-5 alarm units (FT232R) on the kernel's virtual USB controller. Needs root and the\n"
    "module vhci-hcd. Reads commands from standard input, one a line, until quit or the end of\n"
    "the input; then all units leave.\n"
    "\n"
    "  plug N          attach unit N to port N of the controller (from 0): the one that was there\n"
    "                  last, with what its EEPROM holds by now, or a new TQ-5\n"
    "                  (waits until the kernel has forgotten the last unit on this port)\n"
    "  plug N [blank] [product=TEXT] [bcd=HEX] [eeprom=HEX]\n"
    "                  attach a new unit. Without blank its EEPROM starts with\n"
    "                  product=\"TQ-5 alarm unit\" eeprom=10aa (word 10, the CBUS functions), with "
    "it\n"
    "                  as the factory leaves it: product=\"FT232R USB UART\" eeprom=1023. "
    "bcd=0600\n"
    "  unplug N        take the unit off\n"
    "  stall N REQUEST fail this vendor request (hex: 0b bit mode, 0c read pins, 90 and\n"
    "                  91 read and write EEPROM)\n"
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
    "           eeprom word N written HEX, eeprom not erased (an FT232R cannot do so),\n"
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
    Simulator() { clock_gettime(CLOCK_MONOTONIC, &start); }

    // Serves the units and standard input until told to quit; then all units are gone.
    void run();

private:
    bool serve(unsigned number, Connection& connection);
    void readInput();
    void execute(const std::string& line);
    void continuePlug();
    long long elapsedMs() const;
    void report(unsigned number, const Unit& unit, const std::string& event) const;
    void reportGone(unsigned number, const std::string& event) const;

    timespec start;
    bool running = true;
    std::string input;
    std::optional<Command> waitingPlug;  // holds back the commands after it
    long long plugDeadlineMs = 0;
    std::map<unsigned, Unit> units;  // also those that were unplugged
    std::map<unsigned, Connection> connections;
};

void Simulator::run() {
    while (running) {
        // One command a pass, so that many of them do not keep the units from answering.
        const bool idle = !waitingPlug && input.find('\n') == std::string::npos;
        std::vector<pollfd> waits = {{idle ? STDIN_FILENO : -1, POLLIN, 0}};
        for (const auto& [number, connection] : connections) {
            const int events = connection.hasToSend() ? POLLIN | POLLOUT : POLLIN;
            waits.push_back({connection.socket, static_cast<short>(events), 0});
        }
        const int timeoutMs = idle ? -1 : waitingPlug ? portPollMs : 0;
        if (poll(waits.data(), waits.size(), timeoutMs) < 0) {
            continue;  // a signal that stopped and continued the process
        }
        auto wait = waits.begin() + 1;
        for (auto it = connections.begin(); it != connections.end(); ++wait) {
            const bool alive = wait->revents == 0 || serve(it->first, it->second);
            it = alive ? std::next(it) : connections.erase(it);
        }
        if (waitingPlug) {
            continuePlug();
        } else if (!idle) {
            const std::size_t end = input.find('\n');
            const std::string line = input.substr(0, end);
            input.erase(0, end + 1);
            execute(line);
        } else if (waits[0].revents != 0) {
            readInput();
        }
    }
    for (const auto& entry : connections) {
        detachPort(entry.first);
        reportGone(entry.first, "unplugged");
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
        reportGone(number, "unplugged by the kernel");
    }
    return alive;
}

void Simulator::readInput() {
    char buffer[4096];
    const ssize_t got = read(STDIN_FILENO, buffer, sizeof buffer);
    if (got > 0) {
        input.append(buffer, static_cast<std::size_t>(got));
    } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
        input += "\nquit\n";
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
    const auto found = connections.find(command.unit);
    const bool plugged = found != connections.end();
    if (plugged == (command.kind == Command::Kind::plug)) {
        printError("unit " + std::to_string(command.unit) +
                   (plugged ? " is plugged already" : " is not plugged"));
        return;
    }
    if (!plugged) {
        waitingPlug = command;
        plugDeadlineMs = elapsedMs() + portWaitMs;
        continuePlug();
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
        reportGone(command.unit, "unplugged");
        connections.erase(found);
    }
}

// Plugs the waiting unit as soon as its port is free, or gives it up.
void Simulator::continuePlug() {
    const unsigned number = waitingPlug->unit;
    const PortState state = portState(number);
    std::string error;
    if (state == PortState::busy) {
        if (elapsedMs() < plugDeadlineMs) {
            return;
        }
        error = "port " + std::to_string(number) + " stays in use";
    } else if (state == PortState::missing) {
        error = "the controller has no port " + std::to_string(number);
    }
    const std::optional<UnitOptions> options = waitingPlug->options;
    waitingPlug.reset();
    const int socket = error.empty() ? attachPort(number, error) : -1;
    if (socket < 0) {
        printError(error);
        return;
    }
    if (options) {
        units.erase(number);
    }
    Unit& unit = units.try_emplace(number, options.value_or(UnitOptions()), number).first->second;
    unit.powerUp();
    connections.try_emplace(number, socket, unit);
    report(number, unit,
           "plugged bcd=" + hex(unit.bcdDevice(), 4) + " eeprom=" + hex(unit.cbusFunctions(), 4) +
               " product=\"" + unit.product() + "\"");
}

long long Simulator::elapsedMs() const {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (static_cast<long long>(now.tv_sec) - start.tv_sec) * 1000 +
           (now.tv_nsec - start.tv_nsec) / 1000000;
}

void Simulator::report(unsigned number, const Unit& unit, const std::string& event) const {
    const long long ms = elapsedMs();
    std::printf("%lld.%03lld unit %u: %s %s\n", ms / 1000, ms % 1000, number, lamps(unit).c_str(),
                event.c_str());
}

// Without power nothing is driven, whatever the unit was told before.
void Simulator::reportGone(unsigned number, const std::string& event) const {
    report(number, Unit(UnitOptions(), number), event);
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
