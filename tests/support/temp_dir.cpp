#include "temp_dir.h"

#include <sys/stat.h>

#include <cstdlib>
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
    const std::string p = file(name);
    std::ofstream(p, std::ios::binary) << content;
    return p;
}

std::string TempDir::fifo(const std::string& name) const {
    const std::string p = file(name);
    if (mkfifo(p.c_str(), 0600) != 0) {
        throw std::runtime_error("mkfifo failed: " + p);
    }
    return p;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace ipcd_test
