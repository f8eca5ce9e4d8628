#pragma once

#include <boost/json/fwd.hpp>
#include <cstddef>
#include <functional>
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

    /// Uses up the first rule for `path`, if there is one. `rightAnswer` is called once; `isReplaced` is true when the
    /// client will be told something else, so that nothing of its request may be kept.
    [[nodiscard]] ServerAnswer answer(std::string_view path,
                                      const std::function<ServerAnswer(bool isReplaced)>& rightAnswer);

    /// Uses up the first rule for `path` if it is to cut the body of a request short: after so many bytes.
    [[nodiscard]] std::optional<std::size_t> cut(std::string_view path, std::size_t bodyBytes);

    [[nodiscard]] std::size_t pendingRules() const;

private:
    struct Rule;
    [[nodiscard]] std::optional<Rule> _take(std::string_view path, bool onlyCut);

    mutable platform::Mutex _mutex;
    std::vector<Rule> _rules ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex
