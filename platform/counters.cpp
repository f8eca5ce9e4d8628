#include "platform/counters.h"

#include <limits>

#include "platform/text.h"

namespace orvex::platform {
namespace {

std::int64_t saturatingSum(std::int64_t a, std::int64_t b) {
    std::int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum)) return sum;
    return b > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
}

}  // namespace

bool Counters::isAcceptableName(std::string_view name) {
    return !name.empty() && name.size() <= maxNameBytes && !hasControlCharacter(name) && isValidUTF8(name);
}

void Counters::add(std::string_view name, std::int64_t value) {
    _change([&]() ORX_REQUIRES(_mutex) {
        std::int64_t& slot = _slot(name);
        slot = saturatingSum(slot, value);
    });
}

void Counters::set(std::string_view name, std::int64_t value) {
    _change([&]() ORX_REQUIRES(_mutex) { _slot(name) = value; });
}

void Counters::clear(std::string_view name) {
    _change([&]() ORX_REQUIRES(_mutex) {
        if (const auto found = _values.find(name); found != _values.end()) _values.erase(found);
    });
}

std::int64_t Counters::value(std::string_view name) const {
    const MutexLock lock(_mutex);
    const auto found = _values.find(name);
    return found == _values.end() ? 0 : found->second;
}

std::map<std::string, std::int64_t> Counters::snapshot() const {
    const MutexLock lock(_mutex);
    _reported = false;
    return {_values.begin(), _values.end()};
}

void Counters::setChangeHandler(std::function<void()> handler) {
    const MutexLock lock(_mutex);
    _onChange = std::move(handler);
    _reported = false;
}

std::int64_t& Counters::_slot(std::string_view name) {
    if (const auto found = _values.find(name); found != _values.end()) return found->second;
    // One place is kept for "other", so that there are never more than `maxNames`.
    const bool room = _values.size() + (_values.contains(otherName) ? 0 : 1) < maxNames;
    return _values[room && isAcceptableName(name) ? std::string(name) : std::string(otherName)];
}

}  // namespace orvex::platform
