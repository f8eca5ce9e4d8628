#include "platform/fakes/fake_file_manager.h"

#include <fmt/core.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/append_file.h"

namespace orvex::platform {

class FakeAppendFile final : public AppendFile {
public:
    using Tree = FakeFileManager::Tree;
    using Node = FakeFileManager::Node;

    FakeAppendFile(std::shared_ptr<Tree> tree, std::shared_ptr<Node> node)
        : _tree(std::move(tree)),
          _node(std::move(node)) {}

    Result<void> append(std::string_view bytes) override {
        const MutexLock lock(_tree->mutex);
        _node->bytes += bytes;
        _node->modified = _tree->time;
        return {};
    }
    Result<std::uint64_t> size() const override {
        const MutexLock lock(_tree->mutex);
        return _node->bytes.size();
    }
    Result<void> truncate(std::uint64_t size) override {
        const MutexLock lock(_tree->mutex);
        _node->bytes.resize(size);
        return {};
    }
    Result<void> sync() override { return {}; }

private:
    const std::shared_ptr<Tree> _tree;
    const std::shared_ptr<Node> _node;
};

class FakeDirectory final : public Directory {
public:
    using Tree = FakeFileManager::Tree;
    using Node = FakeFileManager::Node;

    FakeDirectory(std::shared_ptr<Tree> tree, std::string path) : _tree(std::move(tree)), _path(std::move(path)) {}

    std::string path() const override { return _path; }

    Result<std::string> read(std::string_view name, std::size_t maxBytes) const override {
        const MutexLock lock(_tree->mutex);
        const auto node = _file(name);
        if (!node) return std::unexpected(node.error());
        if ((*node)->bytes.size() > maxBytes) return _fail("read", name, EFBIG);
        return (*node)->bytes;
    }

    Result<OpenFile> openFile(std::string_view name) const override {
        const MutexLock lock(_tree->mutex);
        const auto node = _file(name);
        if (!node) return std::unexpected(node.error());
        FileDescriptor file(::memfd_create("fake", MFD_CLOEXEC));
        const auto& bytes = (*node)->bytes;
        if (!file.valid() || ::pwrite(file.get(), bytes.data(), bytes.size(), 0) != std::ssize(bytes))
            return _fail("open", name, errno);
        return OpenFile{.descriptor = std::move(file), .attributes = _attributes(**node)};
    }

    Result<void> replace(std::string_view name, std::string_view bytes) override {
        const MutexLock lock(_tree->mutex);
        if (const int code = _parentError(name)) return _fail("write", name, code);
        auto& node = _tree->nodes[_full(name)];
        if (node && node->directory) return _fail("write", name, EISDIR);
        node = _newNode(
            {.directory = false, .bytes = std::string(bytes)});  // a new file each time, as `replace` makes one
        return {};
    }

    Result<std::shared_ptr<AppendFile>> createFile(std::string_view name) override {
        const MutexLock lock(_tree->mutex);
        if (const int code = _parentError(name)) return _fail("make", name, code);
        auto& node = _tree->nodes[_full(name)];
        if (node) return _fail("make", name, EEXIST);
        node = _newNode({.directory = false});
        return std::make_shared<FakeAppendFile>(_tree, node);
    }

    Result<void> remove(std::string_view name) override {
        const MutexLock lock(_tree->mutex);
        const auto node = _find(name);
        if (!node) return std::unexpected(node.error());
        if ((*node)->directory && !_empty(_full(name))) return _fail("remove", name, ENOTEMPTY);
        _tree->nodes.erase(_full(name));
        return {};
    }

    Result<void> rename(std::string_view from, std::string_view to) override {
        const MutexLock lock(_tree->mutex);
        const auto node = _find(from);
        if (!node) return std::unexpected(node.error());
        if (const int code = _renameError(**node, from, to)) return _fail("rename", from, code);
        if (_full(from) != _full(to)) _move(_full(from), _full(to));
        return {};
    }

    Result<void> makeDirectory(std::string_view name) override {
        const MutexLock lock(_tree->mutex);
        if (const int code = _parentError(name)) return _fail("make the directory", name, code);
        const auto [node, made] = _tree->nodes.try_emplace(_full(name), _newNode({.directory = true}));
        if (!made && !node->second->directory) return _fail("make the directory", name, EEXIST);
        return {};
    }

    Result<FileAttributes> attributes(std::string_view name) const override {
        const MutexLock lock(_tree->mutex);
        const auto node = _file(name);
        if (!node) return std::unexpected(node.error());
        return _attributes(**node);
    }

    Result<std::vector<std::string>> list(std::string_view name) const override {
        const MutexLock lock(_tree->mutex);
        if (name != ".") {
            const auto node = _find(name);
            if (!node) return std::unexpected(node.error());
            if (!(*node)->directory) return _fail("list", name, ENOTDIR);
        }
        const std::string prefix = (name == "." ? _path : _full(name)) + "/";
        std::vector<std::string> names;
        for (auto child = _tree->nodes.lower_bound(prefix); _isBelow(child, prefix); ++child)
            if (!child->first.substr(prefix.size()).contains('/')) names.push_back(child->first.substr(prefix.size()));
        return names;
    }

    Result<std::shared_ptr<Directory>> directory(std::string_view name) override {
        if (const auto made = makeDirectory(name); !made) return std::unexpected(made.error());
        return std::make_shared<FakeDirectory>(_tree, _full(name));
    }

private:
    using Nodes = std::map<std::string, std::shared_ptr<Node>>;

    std::string _full(std::string_view name) const { return fmt::format("{}/{}", _path, name); }

    std::shared_ptr<Node> _newNode(Node node) const ORX_REQUIRES(_tree->mutex) {
        node.created = node.modified = _tree->time;
        return std::make_shared<Node>(std::move(node));
    }

    std::unexpected<Failure> _fail(std::string_view what, std::string_view name, int code) const {
        return failure(code, fmt::format("cannot {} {}: {}", what, _full(name), std::generic_category().message(code)));
    }

    static FileAttributes _attributes(const Node& node) {
        return {.size = node.bytes.size(), .created = node.created, .modified = node.modified, .permissions = 0600};
    }

    /// Why nothing can stand under `name`, or 0.
    int _parentError(std::string_view name) const ORX_REQUIRES(_tree->mutex) {
        if (!isAcceptablePath(name)) return EINVAL;
        const auto full = _full(name);
        const auto parent = _tree->nodes.find(full.substr(0, full.rfind('/')));
        if (parent == _tree->nodes.end()) return ENOENT;
        return parent->second->directory ? 0 : ENOTDIR;
    }

    Result<const Node*> _find(std::string_view name) const ORX_REQUIRES(_tree->mutex) {
        if (const int code = _parentError(name)) return _fail("find", name, code);
        const auto node = _tree->nodes.find(_full(name));
        if (node == _tree->nodes.end()) return _fail("find", name, ENOENT);
        return node->second.get();
    }

    Result<const Node*> _file(std::string_view name) const ORX_REQUIRES(_tree->mutex) {
        const auto node = _find(name);
        if (node && (*node)->directory) return _fail("open", name, EISDIR);
        return node;
    }

    bool _isBelow(Nodes::const_iterator node, std::string_view prefix) const ORX_REQUIRES(_tree->mutex) {
        return node != _tree->nodes.end() && node->first.starts_with(prefix);
    }

    bool _empty(const std::string& full) const ORX_REQUIRES(_tree->mutex) {
        return !_isBelow(_tree->nodes.lower_bound(full + "/"), full + "/");
    }

    int _renameError(const Node& node, std::string_view from, std::string_view to) const ORX_REQUIRES(_tree->mutex) {
        if (const int code = _parentError(to)) return code;
        if (_full(to).starts_with(_full(from) + "/")) return EINVAL;
        const auto target = _tree->nodes.find(_full(to));
        if (target == _tree->nodes.end() || _full(from) == _full(to)) return 0;
        if (node.directory && !target->second->directory) return ENOTDIR;
        if (!node.directory && target->second->directory) return EISDIR;
        return target->second->directory && !_empty(_full(to)) ? ENOTEMPTY : 0;
    }

    void _move(const std::string& from, const std::string& to) ORX_REQUIRES(_tree->mutex) {
        _tree->nodes.insert_or_assign(to, _tree->nodes.at(from));
        _tree->nodes.erase(from);
        Nodes below;
        for (auto child = _tree->nodes.lower_bound(from + "/"); _isBelow(child, from + "/");) {
            below.emplace(to + child->first.substr(from.size()), child->second);
            child = _tree->nodes.erase(child);
        }
        _tree->nodes.merge(below);
    }

    const std::shared_ptr<Tree> _tree;
    const std::string _path;
};

FakeFileManager::FakeFileManager() : _tree(std::make_shared<Tree>()) {}

Result<std::shared_ptr<Directory>> FakeFileManager::cachesDirectory() {
    FileManager* other = _caches;
    return other != nullptr ? other->cachesDirectory() : _top("/caches/com.kelvar.orvexd");
}
Result<std::shared_ptr<Directory>> FakeFileManager::stateDirectory() { return _top("/state/com.kelvar.orvexd"); }
Result<std::shared_ptr<Directory>> FakeFileManager::configurationDirectory() {
    return _top("/configuration/com.kelvar.orvexd");
}

void FakeFileManager::serveCachesFrom(FileManager& fileManager) { _caches = &fileManager; }

void FakeFileManager::setAvailable(bool available) {
    const MutexLock lock(_tree->mutex);
    _tree->available = available;
}

void FakeFileManager::setTime(WallTime time) {
    const MutexLock lock(_tree->mutex);
    _tree->time = time;
}

Result<std::shared_ptr<Directory>> FakeFileManager::_top(std::string path) {
    const MutexLock lock(_tree->mutex);
    if (!_tree->available) return failure(EACCES, "the directory is not there, as the test wants");
    _tree->nodes.try_emplace(
        path,
        std::make_shared<Node>(Node{.directory = true, .bytes = {}, .created = _tree->time, .modified = _tree->time}));
    return std::make_shared<FakeDirectory>(_tree, std::move(path));
}

}  // namespace orvex::platform
