#pragma once

#include <condition_variable>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/http_session.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

/// A request as it came over the wire.
struct ReceivedRequest {
    std::string method;
    std::string target;  ///< as written: path and query, or host and port of a CONNECT
    HTTPHeaders headers;
    std::string body;
};

/// What goes back, byte for byte, and what then becomes of the connection.
struct ScriptedAnswer {
    enum class End {
        keep,   ///< the next request is read; after an answer that is not whole, the client is left waiting
        close,  ///< an orderly end
        reset,  ///< a TCP reset
    };
    std::string bytes;
    End end = End::keep;
};

/// A whole answer with its right Content-Length.
ScriptedAnswer answerWith(int status, const HTTPHeaders& headers = {}, std::string_view body = {});

/// An HTTP/1.1 server on a loopback address that answers as a test's script says, right or wrong, and records what it
/// was asked. Plain sockets: it takes part in no negotiation and knows no limits.
///
/// Threading: callable from any thread; the script is called on the threads of connections, several at a time.
/// Destruction ends all connections, and waits for their threads.
class ScriptedServer {
public:
    using Script = std::function<ScriptedAnswer(const ReceivedRequest& request)>;

    explicit ScriptedServer(Script script, std::string address = "127.0.0.1");
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    void setScript(Script script);  ///< for requests from now on

    [[nodiscard]] std::string url(std::string_view path = "/") const;
    [[nodiscard]] std::vector<ReceivedRequest> requests() const;
    [[nodiscard]] std::size_t connections() const;

    /// False when they have not come within a minute.
    [[nodiscard]] bool waitForRequests(std::size_t count);

private:
    struct Connection {
        int socket = -1;
        std::thread thread;
    };

    void _accept();
    void _serve(int socket);
    [[nodiscard]] bool _answer(int socket, const ScriptedAnswer& answer);

    // Constant after construction.
    const std::string _address;
    int _listener = -1;
    int _stop = -1;  ///< readable once the server ends
    int _port = 0;
    std::thread _acceptor;

    // Guarded by the mutex.
    mutable Mutex _mutex;
    std::condition_variable_any _received;
    Script _script ORX_GUARDED_BY(_mutex);
    std::vector<ReceivedRequest> _requests ORX_GUARDED_BY(_mutex);
    std::list<Connection> _connections ORX_GUARDED_BY(_mutex);  ///< sockets stay open until the end
};

}  // namespace orvex::platform
