#include "unit.h"

#include <cstdio>

namespace {

// bmRequestType, bRequest and descriptor types: USB 2.0, 9.3 and 9.4.
constexpr std::uint8_t typeMask = 0x60;
constexpr std::uint8_t typeStandard = 0x00;
constexpr std::uint8_t typeVendor = 0x40;

constexpr std::uint8_t deviceDescriptor = 1;
constexpr std::uint8_t configurationDescriptor = 2;
constexpr std::uint8_t stringDescriptor = 3;

enum StringIndex : std::uint8_t { languages, manufacturerString, productString, serialString };

// Vendor requests, as libftdi and the kernel's ftdi_sio.h number them; those that are not here
// have nothing to show and are answered with an empty success.
enum VendorRequest : std::uint8_t {
    getModemStatus = 0x05,
    setLatencyTimer = 0x09,
    getLatencyTimer = 0x0a,
    setBitMode = 0x0b,
    readPins = 0x0c,
    readEeprom = 0x90,
    writeEeprom = 0x91,
    eraseEeprom = 0x92,
};

constexpr std::uint8_t bitModeCbus = 0x20;
constexpr unsigned cbusFunctionIo = 0x0a;

std::uint8_t low(std::uint16_t value) { return static_cast<std::uint8_t>(value & 0xff); }

std::uint8_t high(std::uint16_t value) { return static_cast<std::uint8_t>(value >> 8); }

// The descriptors are those of a real FT232R.
// clang-format off
Bytes configurationBytes(const Eeprom& eeprom) {
    return {
        // Configuration 1: 32 bytes in all.
        9, configurationDescriptor, 32, 0, 1, 1, 0,
        eeprom.byte(Eeprom::attributesByte), eeprom.byte(Eeprom::maxPowerByte),
        // Interface 0, vendor-specific, two endpoints.
        9, 4, 0, 0, 2, 0xff, 0xff, 0xff, productString,
        // Bulk IN 1 and bulk OUT 2, 64 bytes a packet.
        7, 5, 0x81, 2, 64, 0, 0,
        7, 5, 0x02, 2, 64, 0, 0};
}

Bytes deviceBytes(const Eeprom& eeprom, std::uint16_t bcdDevice) {
    const std::uint16_t vendorId = eeprom.word(Eeprom::vendorIdWord);
    const std::uint16_t productId = eeprom.word(Eeprom::productIdWord);
    const std::uint8_t serial = (eeprom.byte(Eeprom::optionsByte) & Eeprom::hasSerial) != 0 ? serialString : 0;
    return {18, deviceDescriptor,
            0x00, 0x02,  // USB 2.00
            0, 0, 0,     // class, subclass, protocol: the interface gives them
            8,           // packet size of endpoint 0
            low(vendorId), high(vendorId), low(productId), high(productId),
            low(bcdDevice), high(bcdDevice),
            manufacturerString, productString, serial,
            1};          // configurations
}
// clang-format on

ControlReply stalled() {
    ControlReply reply;
    reply.stalled = true;
    return reply;
}

template <typename... Values>
std::string text(const char* format, Values... values) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, format, values...);
    return buffer;
}

std::string serialOf(unsigned number) { return text("TQ5SIM%02u", number); }

}  // namespace

Unit::Unit(const UnitOptions& options, unsigned number)
    : release(options.bcdDevice),
      eeprom(options.product, serialOf(number), options.cbusFunctions),
      factory(factoryProduct, serialOf(number), factoryCbusFunctions),
      loaded(eeprom) {}

void Unit::powerUp() {
    state = State();
    loaded = eeprom.isSound() ? eeprom : factory;
}

std::string Unit::product() const {
    std::string name;
    const Bytes descriptor = loaded.product();
    for (std::size_t i = 2; i < descriptor.size(); i += 2) {
        name += static_cast<char>(descriptor[i]);
    }
    return name;
}

ControlReply Unit::control(const SetupPacket& setup) {
    ControlReply reply = stalled();
    if ((setup.requestType & typeMask) == typeStandard) {
        reply = standardRequest(setup);
    } else if ((setup.requestType & typeMask) == typeVendor) {
        reply = vendorRequest(setup);
    }
    if (reply.data.size() > setup.length) {
        reply.data.resize(setup.length);
    }
    return reply;
}

ControlReply Unit::standardRequest(const SetupPacket& setup) {
    ControlReply reply;
    switch (setup.requestType << 8 | setup.request) {
        case 0x8000:  // GET_STATUS of the device, the interface, an endpoint
        case 0x8100:
        case 0x8200:
            reply.data = {0, 0};
            return reply;
        case 0x0001:  // CLEAR_FEATURE of the same, SET_FEATURE of the device
        case 0x0101:
        case 0x0201:
        case 0x0003:
            return reply;
        case 0x8006:
            return descriptor(setup.value);
        case 0x8008:  // GET_CONFIGURATION
            reply.data = {state.configuration};
            return reply;
        case 0x0009:  // SET_CONFIGURATION
            if (setup.value > 1) {
                return stalled();
            }
            state.configuration = low(setup.value);
            reply.event = text("configuration %u", static_cast<unsigned>(state.configuration));
            return reply;
        case 0x810a:  // GET_INTERFACE
            reply.data = {0};
            return reply;
        case 0x010b:  // SET_INTERFACE: there is no alternate setting
            return setup.value == 0 ? reply : stalled();
        default:
            return stalled();
    }
}

ControlReply Unit::descriptor(std::uint16_t typeAndIndex) const {
    ControlReply reply;
    switch (typeAndIndex) {
        case deviceDescriptor << 8:
            reply.data = deviceBytes(loaded, release);
            return reply;
        case configurationDescriptor << 8:
            reply.data = configurationBytes(loaded);
            return reply;
        case stringDescriptor << 8 | languages:
            reply.data = {4, stringDescriptor, 0x09, 0x04};  // English (United States)
            return reply;
        case stringDescriptor << 8 | manufacturerString:
            reply.data = loaded.manufacturer();
            return reply;
        case stringDescriptor << 8 | productString:
            reply.data = loaded.product();
            return reply;
        case stringDescriptor << 8 | serialString:
            reply.data = loaded.serial();
            return reply;
        default:
            return stalled();
    }
}

ControlReply Unit::vendorRequest(const SetupPacket& setup) {
    ControlReply reply;
    if (state.stalledRequest == setup.request) {
        reply.stalled = true;
        reply.event = text("stalled request %02x", static_cast<unsigned>(setup.request));
        return reply;
    }
    switch (setup.request) {
        case getModemStatus:
            reply.data = {0x01, 0x60};  // no line active, transmitter empty
            break;
        case setLatencyTimer:
            state.latencyTimerMs = low(setup.value);
            break;
        case getLatencyTimer:
            reply.data = {state.latencyTimerMs};
            break;
        case setBitMode:
            state.bitMask = low(setup.value);
            state.bitMode = high(setup.value);
            reply.event = text("bit mode %02x mask %02x", static_cast<unsigned>(state.bitMode),
                               static_cast<unsigned>(state.bitMask));
            break;
        case readPins:
            reply.data = {state.forcedPins.value_or(levels())};
            if (state.forcedPins) {
                reply.event =
                    text("read pins forced to %02x", static_cast<unsigned>(*state.forcedPins));
            }
            break;
        case readEeprom: {
            const std::uint16_t word = eeprom.word(setup.index);
            reply.data = {low(word), high(word)};
            reply.event = text("eeprom word %u reads %04x", unsigned{setup.index}, unsigned{word});
            break;
        }
        case writeEeprom:
            eeprom.setWord(setup.index, setup.value);
            reply.event =
                text("eeprom word %u written %04x", unsigned{setup.index}, unsigned{setup.value});
            break;
        case eraseEeprom:
            // This chip's EEPROM cannot be erased (FTDI, D2XX Programmer's Guide, FT_EraseEE).
            reply.event = "eeprom not erased";
            break;
        default:
            break;
    }
    return reply;
}

Level Unit::cbus(unsigned pin) const {
    const bool isIo = (cbusFunctions() >> (4 * pin) & 0x0f) == cbusFunctionIo;
    const bool isOutput = (state.bitMask >> (4 + pin) & 1) != 0;
    if (state.bitMode != bitModeCbus || !isIo || !isOutput) {
        return Level::floating;
    }
    return (state.bitMask >> pin & 1) != 0 ? Level::high : Level::low;
}

// Pins that are not driven read as high: the chip has pull-up resistors.
std::uint8_t Unit::levels() const {
    unsigned bits = 0;
    for (unsigned pin = 0; pin < 4; ++pin) {
        bits |= (cbus(pin) == Level::low ? 0u : 1u) << pin;
    }
    return static_cast<std::uint8_t>(bits);
}
