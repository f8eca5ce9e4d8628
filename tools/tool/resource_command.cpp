#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <cerrno>
#include <cstring>

#include "platform/file_manager.h"
#include "tools/tool/commands.h"
#include "tools/tool/daemon_client.h"
#include "tools/tool/pages.h"

// A resource comes as an open file: the daemon may replace its own at any time, this one stays what it was.

namespace orvex::tool {
namespace {

/// 0, or the errno.
int copy(int from, int to) {
    char piece[64 * 1024];
    while (true) {
        const ssize_t got = ::read(from, piece, sizeof piece);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return got < 0 ? errno : 0;
        for (ssize_t done = 0; done < got;) {
            const ssize_t written = ::write(to, piece + done, static_cast<std::size_t>(got - done));
            if (written < 0 && errno != EINTR) return errno;
            done += written < 0 ? 0 : written;
        }
    }
}

/// 0, or the errno.
int copyToFile(int from, const std::string& path) {
    platform::FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!file.valid()) return errno;
    if (const int code = copy(from, file.get())) return code;
    return ::close(file.release()) == 0 ? 0 : errno;
}

}  // namespace

ExitStatus showResource(const Options& options, const std::string& identifier, const std::string& output) {
    auto client = connectAsClient(options);
    if (!client) return client.error();
    const auto resource =
        resultOf<client::Resource>(*client, [&](auto callback) { client->resource(identifier, std::move(callback)); });
    if (!resource) return tell(options, resource.error());
    const int file = resource->file.descriptor();
    int code = 0;
    if (!output.empty()) {
        code = copyToFile(file, output);
    } else if (!options.json) {
        code = copy(file, STDOUT_FILENO);
    }
    if (code != 0) {
        fmt::print(stderr, "orvex_tool: cannot write {}: {}\n", output.empty() ? "the resource" : output,
                   strerrordesc_np(code));
        return ExitStatus::refused;
    }
    const boost::json::object attributes{{"size", resource->size},
                                         {"creation_date", resource->creationDate.count()},
                                         {"modification_date", resource->modificationDate.count()},
                                         {"permissions", resource->permissions}};
    if (options.json) {
        fmt::print("{}\n", boost::json::serialize(attributes));
    } else if (!output.empty()) {
        fmt::print("{}", mapPage(attributes));
    }
    return ExitStatus::done;
}

}  // namespace orvex::tool
