#pragma once

#include <cerrno>
#include <optional>
#include <utility>

#include "platform/installed_applications.h"
#include "platform/installed_dictionaries.h"
#include "platform/settings_file.h"

namespace orvex::platform {

/// A file that the test writes. One thread at a time.
class FakeSettingsFile final : public SettingsFile {
public:
    [[nodiscard]] Result<std::string> read() const override { return _content; }
    void setChangeHandler(std::function<void()> handler) override { _handler = std::move(handler); }

    void write(Result<std::string> content) {
        _content = std::move(content);
        if (_handler) _handler();
    }

private:
    Result<std::string> _content = failure(ENOENT, "no such file");
    std::function<void()> _handler;
};

/// Dictionaries that the test installs.
class FakeInstalledDictionaries final : public InstalledDictionaries {
public:
    [[nodiscard]] std::vector<std::string> languages() const override { return _languages; }
    void setChangeHandler(std::function<void()> handler) override { _handler = std::move(handler); }

    void install(std::vector<std::string> languages) {
        _languages = std::move(languages);
        if (_handler) _handler();
    }

private:
    std::vector<std::string> _languages;
    std::function<void()> _handler;
};

/// Applications that the test installs.
class FakeInstalledApplications final : public InstalledApplications {
public:
    [[nodiscard]] std::vector<InstalledApplication> applications() const override { return _applications; }
    void setChangeHandler(std::function<void()> handler) override { _handler = std::move(handler); }

    void install(std::vector<InstalledApplication> applications) {
        _applications = std::move(applications);
        if (_handler) _handler();
    }

private:
    std::vector<InstalledApplication> _applications;
    std::function<void()> _handler;
};

}  // namespace orvex::platform
