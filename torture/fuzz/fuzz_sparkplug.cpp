// Arbitrary bytes as a payload of Sparkplug from the broker. What is taken of them is within the limits, and the same
// once more when it is sent back.
#include <cstdlib>

#include "upstream/mqtt/payload.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace voq::mqtt::sparkplug;
    const auto payload = Decode({reinterpret_cast<const char*>(data), size});
    if (!payload) return 0;
    if (payload->metrics.size() > MaxMetrics) std::abort();
    for (const Metric& each : payload->metrics) {
        const auto* text = std::get_if<std::string>(&each.value);
        const auto* bytes = std::get_if<Bytes>(&each.value);
        const std::size_t length = text != nullptr ? text->size() : bytes != nullptr ? bytes->bytes.size() : 0;
        if (each.name.size() > MaxText || length > MaxText) std::abort();
    }
    const std::string sent = Encode(*payload);
    const auto again = Decode(sent);
    if (!again || Encode(*again) != sent) std::abort();
    return 0;
}
