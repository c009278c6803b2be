#ifndef FLEET_WIRE_H
#define FLEET_WIRE_H

#include "SqlEnvelope.h"

#include <string>
#include <string_view>

// Topics and payloads of the fleet. A device has those of its own name only:
//   fleet/DEVICE/set       up: a change set
//   fleet/DEVICE/ack       down: what became of it
//   fleet/DEVICE/settings  down: a change set of settings
//   fleet/DEVICE/applied   up: what became of it
//   fleet/DEVICE/state     up, retained: "online" or "offline"

// The device of a topic such as "fleet/device-17/set", and its last word; false if it is none.
bool readTopic(std::string_view topic, std::string& device, std::string& what);

std::string topicOf(const std::string& device, const std::string& what);

// A change set in one message: the header's length in four bytes, little-endian, the header, the
// changes.
std::string packSet(std::string_view header, std::string_view bytes);

// Its two parts, which live in the payload; false if it is none.
bool unpackSet(std::string_view payload, std::string_view& header, std::string_view& bytes);

// An answer: "stored INCARNATION NUMBER", or "refused INCARNATION NUMBER REASON".
struct Answer {
    bool isStored = false; // the sender may forget the set
    sql::SyncPosition last;
    std::string reason; // why it is refused
};

std::string packAnswer(const Answer& answer);
bool unpackAnswer(std::string_view payload, Answer& answer);

#endif
