#pragma once

#include <boost/json/fwd.hpp>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/result.h"
#include "platform/thread_annotations.h"
#include "tools/service/http_server.h"

namespace orvex {

/// What the server was told to do wrong, for tests of its clients: rules, each for the next so many requests of a path.
/// docs/reference-server.md has their form.
/// Threading: callable from any thread.
class Misbehaviour {
public:
    static constexpr std::size_t maxRules = 1000;
    static constexpr std::size_t maxBombBytes = std::size_t{1} << 30;

    Misbehaviour();
    ~Misbehaviour();

    /// Adds the rule after those that there are. Fails, with the reason for the sender, when it is none.
    platform::Result<void> add(const boost::json::value& rule);
    void clear();

    /// Uses up the first rule for `path`, if there is one, on `answer`, which is the right one.
    void apply(std::string_view path, ServerAnswer& answer);

    [[nodiscard]] std::size_t pendingRules() const;

private:
    struct Rule;
    [[nodiscard]] std::optional<Rule> _take(std::string_view path);

    mutable platform::Mutex _mutex;
    std::vector<Rule> _rules ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex
