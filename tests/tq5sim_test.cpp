#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <sstream>
#include <vector>

#include "commands.h"
#include "connection.h"
#include "lamps.h"
#include "vhci.h"

namespace {

constexpr SetupPacket readPins = {0xc0, 0x0c, 0, 1, 1};
constexpr SetupPacket readEeprom10 = {0xc0, 0x90, 0, 10, 2};

SetupPacket setBitMode(unsigned mode, unsigned mask) {
    return {0x40, 0x0b, static_cast<std::uint16_t>(mode << 8 | mask), 1, 0};
}

SetupPacket getDescriptor(std::uint16_t typeAndIndex, std::uint16_t length) {
    return {0x80, 0x06, typeAndIndex, 0, length};
}

// A command as the kernel sends it; `last` are the eight bytes of the setup packet.
Bytes message(std::uint8_t command, std::uint8_t seqnum, bool in, std::uint8_t endpoint,
              std::uint8_t lengthOrZero, const Bytes& last = Bytes(8), std::uint8_t unlinked = 0) {
    Bytes bytes = {0, 0,  0, command, 0, 0,        0, seqnum, 0, 1,        0, 1, 0, 0,
                   0, in, 0, 0,       0, endpoint, 0, 0,      0, unlinked, 0, 0, 0, lengthOrZero};
    bytes.resize(40);
    bytes.insert(bytes.end(), last.begin(), last.end());
    return bytes;
}

TEST(UsbipReader, cutsCommandsOutOfAnyPieces) {
    Bytes stream = message(1, 7, false, 2, 3);
    stream.insert(stream.end(), {1, 1, 1});  // the data of the first one
    const Bytes second = message(1, 8, true, 0, 18, {0x80, 6, 0x34, 0x12, 0x78, 0x56, 18, 1});
    const Bytes third = message(2, 9, false, 0, 0, Bytes(8), 7);
    stream.insert(stream.end(), second.begin(), second.end());
    stream.insert(stream.end(), third.begin(), third.end());

    for (std::size_t piece : {stream.size(), std::size_t{1}, std::size_t{49}}) {
        UsbipReader reader;
        std::vector<UsbipCommand> commands;
        std::vector<std::size_t> completeAt;
        for (std::size_t at = 0; at < stream.size(); at += piece) {
            const std::size_t length = std::min(piece, stream.size() - at);
            reader.append(&stream[at], length);
            for (UsbipCommand command; reader.next(command);) {
                commands.push_back(command);
                completeAt.push_back(at + length);
            }
        }
        ASSERT_EQ(3u, commands.size());
        EXPECT_GE(completeAt[0], 51u) << "before its data had arrived";
        EXPECT_EQ(3u, commands[0].length);
        EXPECT_EQ(8u, commands[1].seqnum);
        EXPECT_TRUE(commands[1].in);
        EXPECT_EQ(0x1234, commands[1].setup.value);
        EXPECT_EQ(0x5678, commands[1].setup.index);
        EXPECT_EQ(0x0112, commands[1].setup.length);
        EXPECT_TRUE(commands[2].unlink);
        EXPECT_EQ(7u, commands[2].unlinkedSeqnum);
    }
}

TEST(Usbip, packsReplies) {
    Bytes expected = {0, 0, 0, 3, 0x01, 0x02, 0x03, 0x04, 0,    0,    0, 0, 0, 0,
                      0, 0, 0, 0, 0,    0,    0xff, 0xff, 0xff, 0xe0, 0, 0, 0, 2};
    expected.resize(48);
    expected.insert(expected.end(), {0xaa, 0xbb});
    EXPECT_EQ(expected, packSubmitReply(0x01020304, -EPIPE, 2, {0xaa, 0xbb}));

    const Bytes unlink = packUnlinkReply(5, -ECONNRESET);
    EXPECT_EQ(48u, unlink.size());
    EXPECT_EQ(4, unlink[3]);
    EXPECT_EQ(0x98, unlink[23]);
}

TEST(Unit, describesItselfAsAnFt232r) {
    UnitOptions options;
    options.product = "my TQ-5";
    options.bcdDevice = 0x0400;
    Unit unit(options, 3);
    EXPECT_EQ((Bytes{18, 1, 0, 2, 0, 0, 0, 8, 0x03, 0x04, 0x01, 0x60, 0x00, 0x04, 1, 2, 3, 1}),
              unit.control(getDescriptor(0x0100, 64)).data);
    EXPECT_EQ((Bytes{16, 3, 'm', 0, 'y', 0, ' ', 0, 'T', 0, 'Q', 0, '-', 0, '5', 0}),
              unit.control(getDescriptor(0x0302, 255)).data);
    EXPECT_EQ((Bytes{4, 3, 9, 4}), unit.control(getDescriptor(0x0300, 255)).data);
    EXPECT_EQ((Bytes{9, 2, 32, 0, 1, 1, 0, 0xa0, 45}), unit.control(getDescriptor(0x0200, 9)).data);
    EXPECT_EQ(32u, unit.control(getDescriptor(0x0200, 255)).data.size());
    EXPECT_TRUE(unit.control(getDescriptor(0x0304, 64)).stalled);
    EXPECT_TRUE(unit.control(getDescriptor(0x0600, 64)).stalled);
}

TEST(Unit, answersStandardRequests) {
    Unit unit(UnitOptions(), 0);
    EXPECT_EQ(Bytes{0}, unit.control({0x80, 8, 0, 0, 1}).data);
    EXPECT_EQ("configuration 1", unit.control({0x00, 9, 1, 0, 0}).event);
    EXPECT_TRUE(unit.control({0x00, 9, 2, 0, 0}).stalled) << "there is no configuration 2";
    EXPECT_EQ(Bytes{1}, unit.control({0x80, 8, 0, 0, 1}).data);
    EXPECT_FALSE(unit.control({0x01, 11, 0, 0, 0}).stalled);
    EXPECT_TRUE(unit.control({0x01, 11, 1, 0, 0}).stalled) << "there is no alternate setting";
    EXPECT_EQ((Bytes{0, 0}), unit.control({0x82, 0, 0, 0x81, 2}).data);
    EXPECT_TRUE(unit.control({0x80, 12, 0, 0, 2}).stalled);
    EXPECT_TRUE(unit.control({0xa1, 1, 0, 0, 2}).stalled) << "there is no class";
}

TEST(Unit, drivesPinsAsModeMaskAndEepromSay) {
    struct {
        std::uint16_t eeprom;
        unsigned mode;
        unsigned mask;
        std::uint8_t read;
        const char* lamps;
    } const cases[] = {
        {0x00aa, 0x20, 0x30, 0x0c, "CBUS0 ○ CBUS1 ○ pins=00"},
        {0x00aa, 0x20, 0x31, 0x0d, "CBUS0 ● CBUS1 ○ pins=01"},
        {0x00aa, 0x20, 0x32, 0x0e, "CBUS0 ○ CBUS1 ● pins=02"},
        {0x00aa, 0x20, 0x33, 0x0f, "CBUS0 ● CBUS1 ● pins=03"},
        {0x00aa, 0x20, 0x10, 0x0e, "CBUS0 ○ CBUS1 - pins=floating"},
        {0x003a, 0x20, 0x30, 0x0e, "CBUS0 ○ CBUS1 - pins=floating"},
        {0xaaaa, 0x20, 0xf0, 0x00, "CBUS0 ○ CBUS1 ○ pins=00"},
        {0x00aa, 0x01, 0x30, 0x0f, "CBUS0 - CBUS1 - pins=floating"},
        {0x00aa, 0x00, 0x00, 0x0f, "CBUS0 - CBUS1 - pins=floating"},
    };
    for (const auto& c : cases) {
        UnitOptions options;
        options.eepromWord10 = c.eeprom;
        Unit unit(options, 0);
        unit.control(setBitMode(0x20, 0x33));
        unit.control(setBitMode(c.mode, c.mask));
        EXPECT_EQ(Bytes{c.read}, unit.control(readPins).data) << c.mask;
        EXPECT_EQ(c.lamps, lamps(unit, false));
    }
    EXPECT_EQ("CBUS0 \033[2m-\033[0m CBUS1 \033[2m-\033[0m pins=floating",
              lamps(Unit(UnitOptions(), 0), true));
}

TEST(Unit, answersVendorRequests) {
    UnitOptions options;
    options.eepromWord10 = 0x123a;
    Unit unit(options, 0);
    EXPECT_EQ((Bytes{0x3a, 0x12}), unit.control(readEeprom10).data);
    EXPECT_EQ((Bytes{0x03, 0x04}), unit.control({0xc0, 0x90, 0, 1, 2}).data);
    unit.control({0x40, 0x09, 77, 1, 0});
    EXPECT_EQ(Bytes{77}, unit.control({0xc0, 0x0a, 0, 1, 1}).data);
    EXPECT_FALSE(unit.control({0x40, 0x03, 0x4138, 0, 0}).stalled);
}

TEST(Unit, stallsAndForcesOnlyWhatItIsTold) {
    Unit unit(UnitOptions(), 0);
    unit.stall(0x0b);
    const ControlReply reply = unit.control(setBitMode(0x20, 0x30));
    EXPECT_TRUE(reply.stalled);
    EXPECT_EQ("stalled request 0b", reply.event);
    EXPECT_EQ(Level::floating, unit.cbus(0)) << "a stalled request has no effect";
    EXPECT_FALSE(unit.control(readEeprom10).stalled);
    unit.stall(std::nullopt);
    unit.forcePins(0x02);
    EXPECT_FALSE(unit.control(setBitMode(0x20, 0x31)).stalled);
    EXPECT_EQ(Bytes{0x02}, unit.control(readPins).data);
    EXPECT_EQ(Level::high, unit.cbus(0)) << "only the reading is forced";
    unit.forcePins(std::nullopt);
    EXPECT_EQ(Bytes{0x0d}, unit.control(readPins).data);
}

TEST(Commands, areParsed) {
    Command command;
    std::string error;
    ASSERT_TRUE(
        parseCommand("plug 12\tproduct=\"my  TQ-5\" eeprom=3A \"bcd=400\"\r", command, error));
    EXPECT_EQ(Command::Kind::plug, command.kind);
    EXPECT_EQ(12u, command.unit);
    EXPECT_EQ("my  TQ-5", command.options.product);
    EXPECT_EQ(0x0400, command.options.bcdDevice);
    EXPECT_EQ(0x003a, command.options.eepromWord10);
    ASSERT_TRUE(parseCommand("plug 0 product=\"\"", command, error));
    EXPECT_EQ("", command.options.product);
    EXPECT_EQ(0x0600, command.options.bcdDevice);
    ASSERT_TRUE(parseCommand("stall 1 0c", command, error));
    EXPECT_EQ(0x0c, command.byte);
    ASSERT_TRUE(parseCommand("pins 1 auto", command, error));
    EXPECT_EQ(Command::Kind::pins, command.kind);
    EXPECT_FALSE(command.byte);
    ASSERT_TRUE(parseCommand("  ", command, error));
    EXPECT_EQ(Command::Kind::none, command.kind);
}

TEST(Commands, areRefusedWhole) {
    std::istringstream lines(
        "frob;plug;plug x;plug -1;plug 100;plug 0x1;plug 0 bcd=;plug 0 bcd=g;plug 0 bcd=12345;"
        "plug 0 colour=red;plug 0 product;plug 0 product=\"a;plug 0 product=\x01;"
        "plug 0 product=\xc3\xa4;plug 0 a=1 b=2 c=3 d=4;unplug;unplug 0 0;stall 0;stall 0 auto;"
        "stall 0 100;pins 0 none;pins 0 ;quit now;Quit;plug 0 product=" +
        std::string(maxProductLength + 1, 'x') + ";unplug 1" + '\0');
    for (std::string line; std::getline(lines, line, ';');) {
        Command command;
        command.unit = 77;
        std::string error;
        EXPECT_FALSE(parseCommand(line, command, error)) << line;
        EXPECT_FALSE(error.empty()) << line;
        EXPECT_EQ(77u, command.unit) << line;
    }
}

class ConnectionTest : public testing::Test {
protected:
    ConnectionTest() {
        int ends[2];
        socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        kernel = ends[1];
        connection.emplace(ends[0], Unit(UnitOptions(), 0));
    }
    ~ConnectionTest() override { close(kernel); }

    // Plays the kernel: hands a command over and returns what the unit sends back.
    Bytes exchange(const Bytes& command) {
        send(kernel, command.data(), command.size(), 0);
        EXPECT_TRUE(connection->receive());
        while (connection->answerNext(event)) {
        }
        EXPECT_TRUE(connection->send());
        Bytes reply(256);
        const ssize_t got = recv(kernel, reply.data(), reply.size(), MSG_DONTWAIT);
        reply.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return reply;
    }

    int kernel;
    std::optional<Connection> connection;
    std::string event;
};

TEST_F(ConnectionTest, answersEachKindOfTransfer) {
    EXPECT_EQ(packSubmitReply(1, 0, 2, {0xaa, 0x00}),
              exchange(message(1, 1, true, 0, 2, {0xc0, 0x90, 0, 0, 10, 0, 2, 0})));
    EXPECT_EQ("eeprom word 10 reads 00aa", event);
    EXPECT_EQ(packSubmitReply(2, -EPIPE, 0, {}),
              exchange(message(1, 2, true, 0, 2, {0x80, 0x55, 0, 0, 0, 0, 2, 0})));
    EXPECT_EQ(packSubmitReply(3, -EPIPE, 0, {}), exchange(message(1, 3, true, 3, 2)));
    for (std::uint8_t endpoint : {std::uint8_t{0}, std::uint8_t{2}}) {
        Bytes write = message(1, 4, false, endpoint, 5, {0x40, 4, 0, 0, 0, 0, 5, 0});
        write.resize(write.size() + 5);
        EXPECT_EQ(packSubmitReply(4, 0, 5, {}), exchange(write));
    }
    // A read waits until the kernel gives it up, once.
    EXPECT_EQ(Bytes(), exchange(message(1, 5, true, 1, 64)));
    EXPECT_EQ(packUnlinkReply(6, -ECONNRESET), exchange(message(2, 6, false, 0, 0, Bytes(8), 5)));
    EXPECT_EQ(packUnlinkReply(7, 0), exchange(message(2, 7, false, 0, 0, Bytes(8), 5)));
}

TEST_F(ConnectionTest, keepsWhatTheSocketDoesNotTake) {
    const Bytes command = message(1, 1, true, 0, 18, {0x80, 6, 0, 1, 0, 0, 18, 0});
    const int smallBuffer = 4096;
    setsockopt(connection->socket, SOL_SOCKET, SO_SNDBUF, &smallBuffer, sizeof smallBuffer);
    constexpr std::size_t expected = 1000 * (48 + 18);
    for (int i = 0; i < 1000; ++i) {
        send(kernel, command.data(), command.size(), 0);
        ASSERT_TRUE(connection->receive());
        ASSERT_TRUE(connection->answerNext(event));
    }
    ASSERT_TRUE(connection->send());
    ASSERT_TRUE(connection->hasToSend());
    Bytes taken(expected + 1);
    std::size_t length = 0;
    for (ssize_t got;
         (got = recv(kernel, &taken[length], taken.size() - length, MSG_DONTWAIT)) > 0;) {
        length += static_cast<std::size_t>(got);
        ASSERT_TRUE(connection->send());
    }
    ASSERT_EQ(expected, length);
    EXPECT_EQ(0x12, taken[expected - 18]);
}

TEST_F(ConnectionTest, noticesThatTheKernelHasGone) {
    EXPECT_TRUE(connection->receive()) << "nothing there is no end";
    shutdown(kernel, SHUT_RDWR);
    EXPECT_FALSE(connection->receive());
}

TEST(Vhci, findsThePortInTheStatusFile) {
    const std::string status =
        "hub port sta spd dev      sockfd local_busid\n"
        "hs  0000 006 002 00010001 000004 1-1\n"
        "hs  0001 004 000 00000000 000000 0-0\n"
        "ss  0002 004 000 00000000 000000 0-0\n";
    EXPECT_EQ(PortState::busy, parsePortState(status, 0));
    EXPECT_EQ(PortState::free, parsePortState(status, 1));
    EXPECT_EQ(PortState::missing, parsePortState(status, 2));
    EXPECT_EQ(PortState::missing, parsePortState("", 0));
}

}  // namespace
