#pragma once

#include <cstdint>
#include <string>

#include "world.h"

struct Hub;

// What can be plugged in: a TQ-5, which is an FT232R, another device, or a hub.
struct Unit {
    const char* name = "TQ-5";
    int vendor = 0x0403;
    int product = 0x6001;
    int release = 0x0600;
    std::string text = "TQ-5 alarm unit";
    unsigned short eepromWord = 0x00aa;  // word 10: functions of CBUS0 and CBUS1
    bool answersStrings = true;
    bool canBeOpened = true;
    Hub* hub = nullptr;

    // The pins (FTDI AN_232R-01): without CBUS bit-bang mode, after power on and after a reset of
    // the bus they are no outputs.
    bool driven = false;
    std::uint8_t levels = 0;
    Time refusesUntil = 0;  // vendor requests stall
    Time stuckUntil = 0;    // the pins read otherwise than written

    bool isFt232() const { return vendor == 0x0403 && product == 0x6001; }
    bool isGood() const {
        return isFt232() && release == 0x0600 && text.find("TQ-5") != std::string::npos &&
               (eepromWord & 0xff) == 0xaa && answersStrings && canBeOpened;
    }
};
