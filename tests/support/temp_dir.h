#pragma once

// A directory of the test's own, removed with its content at destruction.

#include <string>

namespace ipcd_test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    // Writes content to name and returns its path.
    std::string write(const std::string& name, const std::string& content) const;
    // Creates a FIFO and returns its path.
    std::string fifo(const std::string& name) const;

private:
    std::string m_path;
};

// A whole file; empty when missing.
std::string read_file(const std::string& path);

}  // namespace ipcd_test
