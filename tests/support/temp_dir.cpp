#include "temp_dir.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace ipcd_test {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ipcd-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
    std::ofstream(file(name), std::ios::binary) << content;
    return file(name);
}

std::string TempDir::fifo(const std::string& name) const {
    if (mkfifo(file(name).c_str(), 0600) != 0) {
        throw std::runtime_error("mkfifo failed: " + file(name));
    }
    return file(name);
}

std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

}  // namespace ipcd_test
