// Why there is no connection, in words that say what to do. Pure but for errno's texts; any thread.
#pragma once

#include <string>

#include "upstream/mqtt/settings.h"

namespace voq::mqtt
{

enum class Stage { Connecting, Answer, Connected };  // what was waited for

struct Failure {
    Stage stage = Stage::Connecting;
    bool late = false;     // given up for waiting too long
    bool brief = false;    // it was connected, but not for long
    int result = 0;        // the library's
    int number = 0;        // errno, or getaddrinfo's with the result for it
    int answer = -1;       // the broker's code, of its CONNACK or DISCONNECT; -1: none
    long certificate = 0;  // the verification's result; 0: none, or fine
    std::string told;      // the first error that the library logged
};

std::string ReasonText(const BrokerSettings& broker, const Failure& failure);

}  // namespace voq::mqtt
