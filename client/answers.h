#pragma once

#include <expected>
#include <map>
#include <string>
#include <vector>

#include "client/orvex/types.h"

/// Answers of the daemon, checked. Each takes an answer's arguments; what has not the form that it must have is an
/// error, entries that nobody knows are ignored.
namespace orvex::client {

[[nodiscard]] Error malformed(std::string what);

[[nodiscard]] std::expected<void, Error> nothingIn(List& arguments);
[[nodiscard]] std::expected<Reply, Error> replyIn(List& arguments);
/// Text, then an error: what `Bag` answers, and what the signal `BagDidLoad` brings.
[[nodiscard]] std::expected<std::string, Error> bagIn(List& arguments);
[[nodiscard]] std::expected<std::vector<std::string>, Error> recordsIn(List& arguments);
[[nodiscard]] std::expected<std::vector<Session>, Error> sessionsIn(List& arguments);
[[nodiscard]] std::expected<std::map<std::string, std::string>, Error> imageMapIn(List& arguments);
[[nodiscard]] std::expected<std::string, Error> textIn(List& arguments);
[[nodiscard]] std::expected<List, Error> listIn(List& arguments);  ///< of dictionaries
[[nodiscard]] std::expected<List, Error> anythingIn(List& arguments);
[[nodiscard]] std::expected<Resource, Error> resourceIn(File file, const List& attributes);

}  // namespace orvex::client
