#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "platform/counters.h"
#include "platform/dispatch.h"
#include "platform/file_manager.h"

namespace orvex::platform {

/// Keeps the counters across restarts, in `counters` of the state directory.
///
///     saved ──a change──▶ unsaved (timer armed) ──timer, or close──▶ saved, or on failure unsaved until the next
///     change
///
/// Format: a line for each counter, sorted by name, "NAME VALUE\n" with VALUE in decimal; the name may have blanks.
/// A line that is not like that is skipped and counted as `brokenLinesCounter`; what cannot be read is set aside.
/// Durability: a change is on disk `saveDelay` to twice that after it was made, or when `close` returns. What was
/// counted since is lost with a crash.
///
/// Threading: callable from any thread; reads and writes on its own queue. Nothing wakes up while nothing changes.
class CounterFile : public std::enable_shared_from_this<CounterFile> {
public:
    static constexpr std::chrono::seconds saveDelay{10};
    static constexpr std::string_view brokenLinesCounter = "com.kelvar.orvexd.counters.broken_lines";

    /// Adds what the file holds to `counters`, and keeps them from then on.
    static std::shared_ptr<CounterFile> create(Dispatcher& dispatcher, FileManager& files, Counters& counters);

    /// Saves what is unsaved, and keeps nothing more.
    void close();

private:
    CounterFile(Dispatcher& dispatcher, FileManager& files, Counters& counters);

    void _start();
    void _load() ORX_REQUIRES(_queue);
    void _addLine(std::string_view line) ORX_REQUIRES(_queue);
    void _noteChange() ORX_REQUIRES(_queue);
    void _save() ORX_REQUIRES(_queue);

    // Constant after construction.
    FileManager& _files;
    Counters& _counters;

    // Synchronised by themselves.
    SerialQueue _queue;

    // On the queue.
    Timer _timer ORX_GUARDED_BY(_queue);  ///< armed while there is something to save
    bool _unsaved ORX_GUARDED_BY(_queue) = false;
    bool _closed ORX_GUARDED_BY(_queue) = false;
};

}  // namespace orvex::platform
