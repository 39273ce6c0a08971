// The border between C and C++. Any thread.
#include "client/c/handles.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "client/value_image.h"

voq_port::voq_port(const voq::PortDir& place) : process(getpid()), directory(place.Dir()), core(place) {}

namespace voq
{

namespace
{

int Caught(std::span<char> text, int code, const char* what) noexcept
{
    std::snprintf(text.data(), text.size(), "%s", what);
    return code;
}

}  // namespace

int CodeOfCaught(std::span<char> text) noexcept
{
    try {
        throw;
    } catch (const Failure& failure) {
        return Caught(text, failure.code, failure.what());
    } catch (const ServiceNotRunning& error) {
        return Caught(text, VOQ_NO_SERVICE, error.what());
    } catch (const FifoFull& error) {
        return Caught(text, VOQ_FULL, error.what());
    } catch (const LockHeld& error) {
        return Caught(text, VOQ_LOCKED, error.what());
    } catch (const NoNumber& error) {
        return Caught(text, VOQ_NO_NUMBER, error.what());
    } catch (const SystemFailure& error) {
        return Caught(text, VOQ_SYSTEM, error.what());
    } catch (const Damaged& error) {
        return Caught(text, VOQ_DAMAGED, error.what());
    } catch (const Error& error) {
        return Caught(text, VOQ_INVALID, error.what());
    } catch (const std::bad_alloc&) {
        return Caught(text, VOQ_NO_MEMORY, "no memory");
    } catch (const std::exception& error) {
        return Caught(text, VOQ_SYSTEM, error.what());
    } catch (...) {
        return Caught(text, VOQ_SYSTEM, "unknown failure");
    }
}

std::uint16_t ByteOrderOf(const voq_range& range)
{
    if (range.port->byteOrder || !NeedsByteOrder(range.reg)) return range.port->byteOrder.value_or(0);
    throw Failure(VOQ_INVALID, range.name + ": nothing says how the PLC lays out the bytes of a " +
                                   TypeName(range.reg.type) + " (VOQ_BYTE_ORDER, or a port opened by a project)");
}

ValueCoding CodingOf(const voq_range& range)
{
    return CodingOf(range.reg, ByteOrderOf(range));
}

int StoreImage(std::span<const std::uint8_t> image, void* room, std::size_t size)
{
    Require(size >= image.size(), "the room is smaller than the value");
    std::copy(image.begin(), image.end(), static_cast<std::uint8_t*>(room));
    return static_cast<int>(image.size());
}

}  // namespace voq

const char* voq_version(void)
{
    return VOQ_VERSION;
}

const char* voq_strerror(int code)
{
    switch (code) {
        case VOQ_OK:
            return "done";
        case VOQ_PENDING:
            return "no answer yet";
        case VOQ_INVALID:
            return "argument that makes no sense";
        case VOQ_NO_MEMORY:
            return "no memory";
        case VOQ_SYSTEM:
            return "the system refused a call";
        case VOQ_NO_PORT:
            return "no such port";
        case VOQ_NO_SERVICE:
            return "service not running";
        case VOQ_LOCKED:
            return "a file stays locked";
        case VOQ_FULL:
            return "the service does not take requests";
        case VOQ_NO_NUMBER:
            return "no request number is free";
        case VOQ_NO_ANSWER:
            return "no answer in time";
        case VOQ_PLC_TIMEOUT:
            return "the PLC does not answer";
        case VOQ_PLC_ERROR:
            return "communication error";
        case VOQ_REFUSED:
            return "refused by the service";
        case VOQ_DAMAGED:
            return "a file of the port is damaged";
        case VOQ_NO_VALUE:
            return "there is no value";
        case VOQ_INTERRUPTED:
            return "interrupted by a signal";
        case VOQ_FORKED:
            return "the handle belongs to the parent process";
        default:
            return "unknown code";
    }
}
