#pragma once

#include <boost/json/fwd.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/result.h"
#include "platform/thread_annotations.h"
#include "tools/service/http_server.h"
#include "tools/service/misbehaviour.h"
#include "tools/service/request_check.h"
#include "tools/service/search_answers.h"
#include "tools/service/served_resources.h"
#include "tools/service/upload_store.h"

namespace orvex {

class WordNet;

/// The reference server behind its HTTP: checks each request, answers it, misbehaves where it was told to, and notes
/// what came. `/control` reads and steers it.
///
/// A request that breaks a rule is answered {"error": …} with 400, 404 or 405, logged on standard error and counted;
/// it uses up no misbehaviour. Of an upload nothing is kept when the client is told that it failed.
/// Threading: `answer` and `cut` are callable from any thread.
class ReferenceService {
public:
    struct Options {
        std::string bag;                ///< served instead of the server's own; empty: its own
        std::string feedbackDirectory;  ///< empty: uploads are checked and dropped
        bool logsRequests = false;      ///< each as a line of JSON on standard output
    };
    static constexpr std::size_t maxNotedRequests = 100;
    static constexpr std::size_t maxCountedPaths = 256;  ///< further ones count as "other"

    /// `words` outlives this.
    ReferenceService(const WordNet& words, Options options);
    ~ReferenceService();

    [[nodiscard]] ServerAnswer answer(const ServerRequest& request);
    /// After how many bytes of the body of a POST its connection is to be reset, if so. It is noted then, as status 0.
    [[nodiscard]] std::optional<std::size_t> cut(const ServerRequest& head);

    /// How many connections were accepted, for `/control`. Set before the first request.
    void setConnectionCount(std::function<std::uint64_t()> count) { _connectionCount = std::move(count); }

private:
    struct Note;  // what is kept of a request
    struct Checked {
        Endpoint endpoint;
        std::string base;  // of the URLs in the answer
        std::optional<UploadStore::Upload> upload;
    };

    /// Fails with the status to answer.
    [[nodiscard]] static platform::Result<Checked> _check(const ServerRequest& request);
    [[nodiscard]] ServerAnswer _answerOf(const Checked& checked, const ServerRequest& request);
    [[nodiscard]] std::string _search(const ServerRequest& request, const std::string& base) const;
    [[nodiscard]] static ServerAnswer _flight(const ServerRequest& request);
    [[nodiscard]] ServerAnswer _keep(const ServerRequest& request, const UploadStore::Upload& upload);
    [[nodiscard]] ServerAnswer _control(const ServerRequest& request);
    [[nodiscard]] ServerAnswer _addRules(std::string_view text);
    [[nodiscard]] std::string _state() const;
    void _reset();
    void _note(const ServerRequest& request, int status, bool isGood);

    const Options _options;
    const SearchAnswers _answers;
    const ServedResources _resources;
    std::function<std::uint64_t()> _connectionCount;

    UploadStore _uploads;
    Misbehaviour _misbehaviour;

    mutable platform::Mutex _mutex;
    std::map<std::string, std::uint64_t, std::less<>> _requestsByPath ORX_GUARDED_BY(_mutex);
    std::uint64_t _violations ORX_GUARDED_BY(_mutex) = 0;
    std::deque<Note> _last ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex
