// What the client library throws: an Error, whose text is complete and meant for a person, or one of its kinds.
#pragma once

#include <stdexcept>
#include <string>
#include <system_error>

namespace voq
{

class Error : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// The system refused a call.
class SystemFailure : public Error
{
public:
    using Error::Error;
};

// Another process kept a file locked for longer than is waited.
class LockHeld : public Error
{
public:
    using Error::Error;
};

// A file of the service, or an answer, holds what cannot be.
class Damaged : public Error
{
public:
    using Error::Error;
};

// A failed system call: "<what>: <system's text>".
inline SystemFailure SystemError(const std::string& what, int number)
{
    return SystemFailure(what + ": " + std::system_category().message(number));
}

}  // namespace voq
