#pragma once

#include <string>

namespace orvex::platform {

/// A directory of a test's own, removed with what is in it.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    [[nodiscard]] const std::string& path() const { return _path; }
    [[nodiscard]] std::string operator/(const std::string& name) const { return _path + "/" + name; }

private:
    std::string _path;
};

/// Plain files for tests, past every rule of ours. They throw when the system refuses.
void writeFile(const std::string& path, const std::string& bytes);
[[nodiscard]] std::string readFile(const std::string& path);

}  // namespace orvex::platform
