#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orvex {

/// What a counter counts, in words, as operators read it. Every counter that the daemon can count has its row here, and
/// a reason for dropping something is told nowhere else.
struct CounterMeaning {
    enum class Kind : std::uint8_t {
        event,  ///< something happened
        drop,   ///< something was dropped, refused or lost: the sentence says what, a colon, and why
        level,  ///< a number that goes up and down
    };

    /// Without the beginning `counterPrefix`, which all but the platform's own have. A `*` stands for a part that
    /// differs, as a client's name does.
    std::string_view pattern;
    Kind kind = Kind::event;
    std::string_view sentence;
    std::string_view firstPart = "client";  ///< what the first `*` stands for
    std::string_view secondPart{};          ///< and the second, where there is one
};

inline constexpr std::string_view counterPrefix = "com.kelvar.orvexd.";

[[nodiscard]] std::span<const CounterMeaning> counterMeanings();

/// A counter found in the table, with what stands in it for each `*`.
struct KnownCounter {
    const CounterMeaning* meaning;  ///< never null
    std::vector<std::string> parts;
};

/// None for a name that no release of this daemon counts under.
[[nodiscard]] std::optional<KnownCounter> knownCounter(std::string_view name);

}  // namespace orvex
