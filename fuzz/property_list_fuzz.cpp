#include <cstdint>
#include <cstdlib>

#include "platform/property_list.h"

/// What parses must be whole and must not be lost: whatever the list can hold comes back the same.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orvex::platform;
    const auto value = parsePropertyList({reinterpret_cast<const char*>(data), size});
    if (!value) return 0;
    const auto bytes = writeXMLPropertyList(*value);
    if (!bytes) return 0;  // not finite, or larger in this form
    const auto first = parsePropertyList(*bytes);
    if (!first) return 0;  // a text that XML has no way to write
    const auto again = writeXMLPropertyList(*first);
    if (!again || *again != *bytes) std::abort();
    return 0;
}
