// Ports and their events, for C. A port is used by one thread at a time.
#include <unistd.h>

#include <filesystem>

#include "client/c/handles.h"

namespace
{

using voq::Require;

voq_port* Open(voq::PortDir place)
{
    std::error_code none;
    place.user = std::filesystem::absolute(place.user, none).string();
    if (!std::filesystem::is_directory(place.Dir(), none)) {
        throw voq::Failure(VOQ_NO_PORT, place.Dir() + ": no such directory");
    }
    return new voq_port(place);
}

long Within(long value, long low, long high)
{
    Require(value >= low && value <= high, "the value is out of the option's range");
    return value;
}

void Set(voq_port& port, int option, long value)
{
    voq::PortSettings settings = port.core.Settings();
    const auto number = [&] { return static_cast<std::uint16_t>(Within(value, 1, 0xFFFF)); };
    const auto time = [&] { return std::chrono::milliseconds(Within(value, 0, 60000)); };
    switch (option) {
        case VOQ_BYTE_ORDER:
            port.byteOrder.reset();
            if (Within(value, -1, 0xFFFF) >= 0) port.byteOrder = static_cast<std::uint16_t>(value);
            return;
        case VOQ_LOCK_MS:
            settings.lockPatience = time();
            break;
        case VOQ_INTERVAL_MS:
            settings.interval = time();
            break;
        case VOQ_FIRST_NUMBER:
            settings.numbers.first = number();
            break;
        case VOQ_LAST_NUMBER:
            settings.numbers.last = number();
            break;
        case VOQ_GUI_FIFO:
            settings.throughGui = Within(value, 0, 1) == 1;
            break;
        case VOQ_ONLY_WRITER:
            settings.writers = Within(value, 0, 1) == 1 ? voq::Writers::OnlyThis : voq::Writers::Several;
            break;
        default:
            throw voq::Failure(VOQ_INVALID, "no such option");
    }
    Require(port.core.Set(settings), "the option is to be set before the first subscription or request");
}

int TypeOf(voq::EventType type)
{
    switch (type) {
        case voq::EventType::Changed:
            return VOQ_CHANGED;
        case voq::EventType::Answered:
            return VOQ_ANSWERED;
        case voq::EventType::ServiceLost:
            return VOQ_SERVICE_LOST;
        case voq::EventType::ServiceBack:
            return VOQ_SERVICE_BACK;
        case voq::EventType::LinkChanged:
            break;
    }
    return VOQ_LINK_CHANGED;
}

}  // namespace

int voq_port_open(const char* directory, voq_port** port, voq_error* error)
{
    *port = nullptr;
    return voq::WithoutPort(error, [&] {
        const auto place = voq::PortOfDirectory(directory);
        if (!place) throw voq::Failure(VOQ_NO_PORT, std::string(directory) + ": no name of a port's directory");
        *port = Open(*place);
    });
}

int voq_port_open_project(const char* user_directory, const voq_project* project, size_t index, voq_port** port,
                          voq_error* error)
{
    *port = nullptr;
    return voq::WithoutPort(error, [&] {
        if (index >= project->ports.size()) {
            throw voq::Failure(VOQ_NO_PORT,
                               "the project has " + std::to_string(project->ports.size()) + " port(s), the first is 0");
        }
        voq::PortDir place = project->ports[index];
        place.user = user_directory;
        voq_port* const opened = Open(place);
        opened->description = project->description;
        opened->byteOrder = project->description->ports[index].record.byteOrder;
        *port = opened;
    });
}

void voq_port_close(voq_port* port)
{
    if (port != nullptr && port->process != getpid()) port->core.Abandon();
    delete port;
}

int voq_port_set(voq_port* port, voq_option option, long value)
{
    return voq::OnPort(port, [&] {
        Set(*port, option, value);
        return VOQ_OK;
    });
}

const char* voq_port_error(const voq_port* port)
{
    return port->error;
}

const char* voq_port_directory(const voq_port* port)
{
    return port->directory.c_str();
}

int voq_port_fd(const voq_port* port)
{
    return voq::OnPort(port, [&] { return port->core.Descriptor(); });
}

int voq_port_dispatch(voq_port* port)
{
    return voq::OnPort(port, [&] {
        port->core.Dispatch();
        return static_cast<int>(port->core.Events());
    });
}

int voq_port_next_event(voq_port* port, voq_event* event)
{
    return voq::OnPort(port, [&] {
        const auto next = port->core.NextEvent();
        if (!next) return 0;
        *event = {TypeOf(next->type), 0, static_cast<voq_range*>(next->range),
                  static_cast<voq_request*>(next->request)};
        if (event->range != nullptr) ++event->range->changes;
        return 1;
    });
}

int voq_port_wait(voq_port* port, int timeout_ms)
{
    return voq::OnPort(port, [&] {
        std::optional<voq::Port::Clock::time_point> until;
        if (timeout_ms >= 0) until = voq::Port::Clock::now() + std::chrono::milliseconds(timeout_ms);
        if (!port->core.Wait(until)) throw voq::Failure(VOQ_INTERRUPTED, "interrupted by a signal");
        return static_cast<int>(port->core.Events());
    });
}

int voq_port_running(const voq_port* port)
{
    return port->core.Running() ? 1 : 0;
}

voq_link voq_port_link(const voq_port* port)
{
    switch (port->core.Link()) {
        case voq::LinkState::Good:
            return VOQ_LINK_GOOD;
        case voq::LinkState::Timeout:
            return VOQ_LINK_TIMEOUT;
        case voq::LinkState::Error:
            break;
    }
    return VOQ_LINK_ERROR;
}
