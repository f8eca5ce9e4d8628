#include "platform/linux/counter_file.h"

#include <fmt/core.h>

#include <cerrno>
#include <charconv>

#include "platform/log.h"
#include "platform/log_events.h"

namespace orvex::platform {
namespace {

constexpr std::string_view fileName = "counters";
// Every name at its longest and every value at its longest.
constexpr std::size_t maxFileBytes = Counters::maxNames * (Counters::maxNameBytes + 22);

std::string textOf(const Counters& counters) {
    std::string text;
    for (const auto& [name, value] : counters.snapshot()) text += fmt::format("{} {}\n", name, value);
    return text;
}

}  // namespace

std::shared_ptr<CounterFile> CounterFile::create(Dispatcher& dispatcher, FileManager& files, Counters& counters) {
    std::shared_ptr<CounterFile> file(new CounterFile(dispatcher, files, counters));
    file->_start();
    return file;
}

CounterFile::CounterFile(Dispatcher& dispatcher, FileManager& files, Counters& counters)
    : _files(files),
      _counters(counters),
      _queue(dispatcher, "com.kelvar.orvexd.counters", Priority::background),
      _timer(_queue) {}

void CounterFile::_start() {
    _queue.sync([this] {
        _queue.assertCurrent();
        const bool countedBefore = !_counters.snapshot().empty();
        _load();
        if (countedBefore) _noteChange();
    });
    _counters.setChangeHandler([weak = weak_from_this()] {
        const auto file = weak.lock();
        if (!file) return;
        file->_queue.async([weak] {
            const auto held = weak.lock();
            if (!held) return;
            held->_queue.assertCurrent();
            held->_noteChange();
        });
    });
}

void CounterFile::close() {
    _counters.setChangeHandler({});
    _queue.sync([this] {
        _queue.assertCurrent();
        if (_closed) return;
        _closed = true;
        _timer.cancel();
        // A change may have been reported whose block is still queued.
        _save();
    });
}

void CounterFile::_load() {
    const auto directory = _files.stateDirectory();
    if (!directory) return defaultLogger().error("counters start at zero: {}", directory.error().text);
    const auto text = (*directory)->read(fileName, maxFileBytes);
    if (!text) {
        if (text.error().code == ENOENT) return;
        defaultLogger()
            .as(LogEvent::fileSetAside, {{"ORVEX_FILE", fileName}, {"ORVEX_REASON", text.error().text}})
            .error("counters start at zero: {}", text.error().text);
        (void)setAside(**directory, fileName);  // also what the system fails to read: it is about to be replaced
        return;
    }
    for (std::string_view rest = *text; !rest.empty();) {
        const auto end = rest.find('\n');
        _addLine(rest.substr(0, end));
        rest.remove_prefix(end == rest.npos ? rest.size() : end + 1);
    }
}

void CounterFile::_addLine(std::string_view line) {
    const auto blank = line.rfind(' ');
    const auto name = line.substr(0, blank);
    const auto digits = blank == line.npos ? std::string_view() : line.substr(blank + 1);
    std::int64_t value = 0;
    const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    const bool whole = read.ec == std::errc() && read.ptr == digits.data() + digits.size();
    if (whole && Counters::isAcceptableName(name)) return _counters.add(name, value);
    _counters.add(brokenLinesCounter);
}

void CounterFile::_noteChange() {
    _unsaved = true;
    if (_closed || _timer.armed()) return;
    _timer.armAfter(
        saveDelay,
        [weak = weak_from_this()] {
            const auto file = weak.lock();
            if (!file) return;
            file->_queue.assertCurrent();
            if (file->_unsaved) file->_save();
        },
        saveDelay);
}

void CounterFile::_save() {
    const std::string text = textOf(_counters);  // from here on a change is reported anew
    const auto directory = _files.stateDirectory();
    const auto saved = directory ? (*directory)->replace(fileName, text) : std::unexpected(directory.error());
    _unsaved = !saved;
    if (saved) return;
    defaultLogger()
        .as(LogEvent::writeFailed, {{"ORVEX_FILE", fileName}, {"ORVEX_REASON", saved.error().text}})
        .error("counters are not saved: {}", saved.error().text);
}

}  // namespace orvex::platform
