#pragma once

#include <string>

namespace ipcd_test {

// A directory of the test's own, removed with its content at destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    std::string write(const std::string& name, const std::string& content) const;  // its path
    std::string fifo(const std::string& name) const;                               // its path

private:
    std::string m_path;
};

std::string read_file(const std::string& path);  // empty when missing

}  // namespace ipcd_test
