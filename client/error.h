// The one exception of the client library: its text is complete and meant for a person.
#pragma once

#include <cstring>
#include <stdexcept>
#include <string>

namespace voq
{

class Error : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A failed system call: "<what>: <system's text>".
inline Error SystemError(const std::string& what, int number)
{
    return Error(what + ": " + std::strerror(number));
}

}  // namespace voq
