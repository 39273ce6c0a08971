// Through nanopb and the message definition in sparkplug.proto.
#include "upstream/mqtt/payload.h"

#include <pb_decode.h>
#include <pb_encode.h>

#include <sparkplug.pb.h>

namespace voq::mqtt::sparkplug
{

namespace
{

bool WriteText(pb_ostream_t* stream, const pb_field_t* field, void* const* text)
{
    const auto& bytes = *static_cast<const std::string*>(*text);
    return pb_encode_tag_for_field(stream, field) &&
           pb_encode_string(stream, reinterpret_cast<const pb_byte_t*>(bytes.data()), bytes.size());
}

// nanopb takes what it hands back as void*; nothing is written through it.
pb_callback_t Text(const std::string& text)
{
    pb_callback_t callback = {};
    callback.funcs.encode = WriteText;
    callback.arg = const_cast<std::string*>(&text);
    return callback;
}

template <typename List>
pb_callback_t Each(const List& list, bool (*write)(pb_ostream_t*, const pb_field_t*, void* const*))
{
    pb_callback_t callback = {};
    callback.funcs.encode = write;
    callback.arg = const_cast<List*>(&list);
    return callback;
}

bool WriteKeys(pb_ostream_t* stream, const pb_field_t* field, void* const* list)
{
    for (const Property& each : *static_cast<const std::vector<Property>*>(*list)) {
        const std::string key = each.key;
        void* const text = const_cast<std::string*>(&key);
        if (!WriteText(stream, field, &text)) return false;
    }
    return true;
}

bool WriteValues(pb_ostream_t* stream, const pb_field_t* field, void* const* list)
{
    for (const Property& each : *static_cast<const std::vector<Property>*>(*list)) {
        voq_sparkplug_Value value = voq_sparkplug_Value_init_zero;
        value.has_type = true;
        value.type = static_cast<std::uint32_t>(each.type);
        if (const auto* whole = std::get_if<std::uint32_t>(&each.value)) {
            value.has_int_value = true;
            value.int_value = *whole;
        } else if (const auto* real = std::get_if<double>(&each.value)) {
            value.has_double_value = true;
            value.double_value = *real;
        } else if (const auto* flag = std::get_if<bool>(&each.value)) {
            value.has_boolean_value = true;
            value.boolean_value = *flag;
        } else {
            value.string_value = Text(std::get<std::string>(each.value));
        }
        const bool written =
            pb_encode_tag_for_field(stream, field) && pb_encode_submessage(stream, voq_sparkplug_Value_fields, &value);
        if (!written) return false;
    }
    return true;
}

void SetValue(voq_sparkplug_Metric& to, const Carried& value)
{
    if (std::holds_alternative<std::monostate>(value)) {
        to.has_is_null = to.is_null = true;
    } else if (const auto* whole = std::get_if<std::uint32_t>(&value)) {
        to.has_int_value = true;
        to.int_value = *whole;
    } else if (const auto* wide = std::get_if<std::uint64_t>(&value)) {
        to.has_long_value = true;
        to.long_value = *wide;
    } else if (const auto* single = std::get_if<float>(&value)) {
        to.has_float_value = true;
        to.float_value = *single;
    } else if (const auto* real = std::get_if<double>(&value)) {
        to.has_double_value = true;
        to.double_value = *real;
    } else if (const auto* flag = std::get_if<bool>(&value)) {
        to.has_boolean_value = true;
        to.boolean_value = *flag;
    } else if (const auto* text = std::get_if<std::string>(&value)) {
        to.string_value = Text(*text);
    } else {
        to.bytes_value = Text(std::get<Bytes>(value).bytes);
    }
}

bool WriteMetrics(pb_ostream_t* stream, const pb_field_t* field, void* const* list)
{
    for (const Metric& each : *static_cast<const std::vector<Metric>*>(*list)) {
        voq_sparkplug_Metric metric = voq_sparkplug_Metric_init_zero;
        if (!each.name.empty()) metric.name = Text(each.name);
        metric.has_alias = each.alias.has_value();
        metric.alias = each.alias.value_or(0);
        metric.has_timestamp = each.timestamp.has_value();
        metric.timestamp = each.timestamp.value_or(0);
        metric.has_datatype = each.datatype.has_value();
        metric.datatype = static_cast<std::uint32_t>(each.datatype.value_or(DataType{}));
        metric.has_is_historical = metric.is_historical = each.historical;
        metric.has_properties = !each.properties.empty();
        metric.properties.keys = Each(each.properties, WriteKeys);
        metric.properties.values = Each(each.properties, WriteValues);
        SetValue(metric, each.value);
        const bool written = pb_encode_tag_for_field(stream, field) &&
                             pb_encode_submessage(stream, voq_sparkplug_Metric_fields, &metric);
        if (!written) return false;
    }
    return true;
}

bool Append(pb_ostream_t* stream, const pb_byte_t* bytes, std::size_t count)
{
    static_cast<std::string*>(stream->state)->append(reinterpret_cast<const char*>(bytes), count);
    return true;
}

bool ReadText(pb_istream_t* stream, const pb_field_t*, void** into)
{
    if (stream->bytes_left > MaxText) return false;
    auto& text = *static_cast<std::string*>(*into);
    text.resize(stream->bytes_left);
    return pb_read(stream, reinterpret_cast<pb_byte_t*>(text.data()), text.size());
}

pb_callback_t Into(std::string& text)
{
    pb_callback_t callback = {};
    callback.funcs.decode = ReadText;
    callback.arg = &text;
    return callback;
}

Carried CarriedBy(const voq_sparkplug_Metric& metric, std::optional<std::string> text, std::optional<std::string> bytes)
{
    if (metric.has_is_null && metric.is_null) return {};
    if (metric.has_int_value) return metric.int_value;
    if (metric.has_long_value) return metric.long_value;
    if (metric.has_float_value) return metric.float_value;
    if (metric.has_double_value) return metric.double_value;
    if (metric.has_boolean_value) return metric.boolean_value;
    if (text) return *text;
    if (bytes) return Bytes{*bytes};
    return {};
}

bool ReadMetric(pb_istream_t* stream, const pb_field_t*, void** into)
{
    auto& metrics = *static_cast<std::vector<Metric>*>(*into);
    if (metrics.size() == MaxMetrics) return false;
    constexpr const char* none = "\0none";  // no text holds it: what is not there is told from what is empty
    std::string name, text(none, 5), bytes(none, 5);
    voq_sparkplug_Metric metric = voq_sparkplug_Metric_init_zero;
    metric.name = Into(name);
    metric.string_value = Into(text);
    metric.bytes_value = Into(bytes);
    if (!pb_decode(stream, voq_sparkplug_Metric_fields, &metric)) return false;
    Metric read;
    read.name = std::move(name);
    if (metric.has_alias) read.alias = metric.alias;
    if (metric.has_timestamp) read.timestamp = metric.timestamp;
    if (metric.has_datatype) read.datatype = static_cast<DataType>(metric.datatype);
    read.historical = metric.has_is_historical && metric.is_historical;
    const auto there = [&](std::string& each) {
        return each == std::string_view(none, 5) ? std::nullopt : std::optional(std::move(each));
    };
    read.value = CarriedBy(metric, there(text), there(bytes));
    metrics.push_back(std::move(read));
    return true;
}

}  // namespace

std::string Encode(const Payload& payload)
{
    voq_sparkplug_Payload message = voq_sparkplug_Payload_init_zero;
    message.has_timestamp = payload.timestamp.has_value();
    message.timestamp = payload.timestamp.value_or(0);
    message.metrics = Each(payload.metrics, WriteMetrics);
    message.has_seq = payload.seq.has_value();
    message.seq = payload.seq.value_or(0);
    std::string bytes;
    pb_ostream_t stream = {};
    stream.callback = Append;
    stream.state = &bytes;
    stream.max_size = SIZE_MAX;
    pb_encode(&stream, voq_sparkplug_Payload_fields, &message);
    return bytes;
}

std::optional<Payload> Decode(std::string_view bytes)
{
    Payload payload;
    voq_sparkplug_Payload message = voq_sparkplug_Payload_init_zero;
    message.metrics.funcs.decode = ReadMetric;
    message.metrics.arg = &payload.metrics;
    pb_istream_t stream = pb_istream_from_buffer(reinterpret_cast<const pb_byte_t*>(bytes.data()), bytes.size());
    if (!pb_decode(&stream, voq_sparkplug_Payload_fields, &message)) return std::nullopt;
    if (message.has_timestamp) payload.timestamp = message.timestamp;
    if (message.has_seq) payload.seq = message.seq;
    return payload;
}

}  // namespace voq::mqtt::sparkplug
