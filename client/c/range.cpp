// Ranges, their subscriptions and readings, for C. Used by the port's thread.
#include <unistd.h>

#include "client/c/handles.h"
#include "client/clock.h"
#include "client/value_text.h"
#include "voq/reg_range.h"

namespace
{

using voq::Require;

voq_range* Keep(voq_port& port, const voq::Register& reg, std::string name)
{
    const std::uint16_t number = port.core.Directory().number;
    if (reg.key.portno != number) {
        throw voq::Failure(VOQ_INVALID, name + ": the range is of port " + std::to_string(reg.key.portno) +
                                            ", not of port " + std::to_string(number));
    }
    auto range = std::make_unique<voq_range>();
    range->key = reg.key;
    range->port = &port;
    range->reg = reg;
    range->name = std::move(name);
    voq_range* const handle = range.get();
    port.ranges.emplace(handle, std::move(range));
    return handle;
}

const voq::DescribedRegister* Named(const voq_port& port, const char* text)
{
    const auto* const found = port.description ? port.description->Find(text) : nullptr;
    if (found != nullptr || voq::LooksLikeExpression(text)) return found;
    throw voq::Failure(VOQ_INVALID,
                       std::string("\"") + text + "\" is no expression and " +
                           (port.description ? "no register of the project" : "the port was opened without a project"));
}

voq::RegisterFields FieldsOf(const voq_fields& given)
{
    voq::RegisterFields fields;
    fields.type = voq::TypeFromName(given.type == nullptr ? "" : given.type);
    Require(fields.type.has_value(), "the type is none of bit, u16, s16, u32, s32, float, double, raw:1 to raw:15");
    fields.station = given.station;
    fields.area = given.area;
    fields.addr = given.addr;
    fields.count = given.count == 0 ? 1 : given.count;
    if (given.unit != 0) fields.unit = given.unit;
    fields.subaddr = given.subaddr;
    if (given.priority != 0) fields.priority = given.priority;
    fields.bigEndian = given.big_endian != 0;
    fields.bcd = given.bcd != 0;
    fields.flag = given.flag;
    fields.convpara = given.convpara;
    return fields;
}

}  // namespace

int voq_range_new(voq_port* port, const char* text, voq_range** range)
{
    *range = nullptr;
    return voq::OnPort(port, [&] {
        const voq::DescribedRegister* const named = Named(*port, text);
        *range = Keep(*port, named ? named->reg : voq::ParseExpression(text, port->core.Directory().number), text);
        if (named != nullptr) (*range)->meaning = named->meaning;
        return VOQ_OK;
    });
}

int voq_range_new_fields(voq_port* port, const voq_fields* fields, size_t size, voq_range** range)
{
    *range = nullptr;
    return voq::OnPort(port, [&] {
        voq_fields known = {};
        Require(size <= sizeof known, "fields of a later library");
        __builtin_memcpy(static_cast<void*>(&known), fields, size);
        const voq::Register reg = voq::MakeRegister(FieldsOf(known), port->core.Directory().number);
        *range = Keep(*port, reg, voq::Expression(reg));
        return VOQ_OK;
    });
}

void voq_range_free(voq_range* range)
{
    if (range == nullptr) return;
    voq_port* const port = range->port;
    // In a child process the parent's subscription is not this copy's to end.
    voq::OnPort(port, [&] {
        std::erase_if(port->requests, [&](const auto& each) {
            if (each.second->range == range) port->core.GiveUp(*each.second);
            return each.second->range == range;
        });
        port->core.Unsubscribe(*range);
        return VOQ_OK;
    });
    if (port->process == getpid()) port->ranges.erase(range);
}

voq_type voq_range_type(const voq_range* range)
{
    switch (range->reg.type.kind) {
        case voq::ValueKind::Bit:
            return VOQ_BIT;
        case voq::ValueKind::U16:
            return VOQ_U16;
        case voq::ValueKind::S16:
            return VOQ_S16;
        case voq::ValueKind::U32:
            return VOQ_U32;
        case voq::ValueKind::S32:
            return VOQ_S32;
        case voq::ValueKind::Float:
            return VOQ_FLOAT;
        case voq::ValueKind::Double:
            return VOQ_DOUBLE;
        case voq::ValueKind::Raw:
            break;
    }
    return VOQ_RAW;
}

size_t voq_range_count(const voq_range* range)
{
    return range->key.width;
}

size_t voq_range_bytes(const voq_range* range)
{
    return GetRegBuffLen(&range->key);
}

const char* voq_range_name(const voq_range* range)
{
    return range->name.c_str();
}

voq_port* voq_range_port(const voq_range* range)
{
    return range->port;
}

void voq_range_set_user(voq_range* range, void* user)
{
    range->user = user;
}

void* voq_range_user(const voq_range* range)
{
    return range->user;
}

int voq_subscribe(voq_range* range)
{
    return voq::OnPort(range->port, [&] {
        range->port->core.Subscribe(*range);
        return VOQ_OK;
    });
}

int voq_unsubscribe(voq_range* range)
{
    return voq::OnPort(range->port, [&] {
        range->port->core.Unsubscribe(*range);
        return VOQ_OK;
    });
}

int voq_range_reading(const voq_range* range, voq_reading* reading)
{
    return voq::OnPort(range->port, [&] {
        const voq::Followed* const followed = range->followed;
        if (followed == nullptr) throw voq::Failure(VOQ_NO_VALUE, range->name + ": not subscribed");
        const std::int64_t stamp = voq::StampMicroseconds(followed->stamp);
        *reading = {};
        reading->state = followed->state;
        reading->live = followed->live ? 1 : 0;
        reading->stamp_us = stamp;
        if (stamp != 0) reading->age_us = std::max<std::int64_t>(0, voq::NowMicroseconds() - stamp);
        if (!followed->value.empty()) reading->data = followed->value.data();
        reading->length = followed->value.size();
        reading->changes = range->changes;
        return VOQ_OK;
    });
}

int voq_range_values(const voq_range* range, double* values, size_t count)
{
    voq_reading reading;
    const int code = voq_range_reading(range, &reading);
    if (code != VOQ_OK) return code;
    return voq::OnPort(range->port, [&] {
        if (reading.data == nullptr) throw voq::Failure(VOQ_NO_VALUE, range->name + ": no value yet");
        return voq_decode_doubles(range, reading.data, reading.length, values, count);
    });
}

int voq_range_meaning(const voq_range* range, voq_meaning* meaning, size_t size)
{
    return voq::OnPort(range->port, [&] {
        const voq::Meaning& known = range->meaning;
        const double none = __builtin_nan("");
        const voq_meaning record = {known.unit.c_str(),
                                    known.comment.c_str(),
                                    known.scale,
                                    known.offset,
                                    known.minimum.value_or(none),
                                    known.maximum.value_or(none),
                                    known.decimals ? static_cast<std::int32_t>(*known.decimals) : -1,
                                    static_cast<std::int32_t>(known.text)};
        voq::StoreRecord(record, meaning, size);
        return VOQ_OK;
    });
}
