#include "platform/fakes/temporary_directory.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace orvex::platform {

TemporaryDirectory::TemporaryDirectory() : _path((std::filesystem::temp_directory_path() / "orvexd-XXXXXX").string()) {
    if (!::mkdtemp(_path.data())) throw std::system_error(errno, std::generic_category(), _path);
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << bytes << std::flush;
    if (!file) throw std::system_error(errno, std::generic_category(), path);
}

std::string readFile(const std::string& path) {
    const std::ifstream file(path, std::ios::binary);
    if (!file) throw std::system_error(errno, std::generic_category(), path);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

}  // namespace orvex::platform
