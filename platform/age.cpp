#include "platform/age.h"

namespace orvex::platform {

std::chrono::duration<double> ageOf(WallTime date, WallTime now) {
    constexpr std::chrono::duration<double> longest = std::chrono::years(10);
    const std::chrono::duration<double> age(secondsSince1970(now) - secondsSince1970(date));
    return age < age.zero() || age > longest ? age.zero() : age;
}

}  // namespace orvex::platform
