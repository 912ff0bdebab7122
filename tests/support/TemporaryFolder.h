#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>

inline std::string ReadFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

/// Polls until the condition holds; false when the time is up.
inline bool Eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds time = std::chrono::seconds(30)) {
  for (const auto end = std::chrono::steady_clock::now() + time; std::chrono::steady_clock::now() < end;) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return condition();
}

/// A folder for the files of one test; removed with all that is in it.
class CTemporaryFolder {
 public:
  CTemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "rvx-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::filesystem::filesystem_error("mkdtemp", {});
    m_Path = name;
  }
  ~CTemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
  }
  CTemporaryFolder(const CTemporaryFolder&) = delete;
  CTemporaryFolder& operator=(const CTemporaryFolder&) = delete;

  std::string Path(const std::string& name) const { return (m_Path / name).string(); }
  std::string Path() const { return m_Path.string(); }

  /// Writes a file, with the folders that it needs; returns its path.
  std::string Write(const std::string& name, const std::string& text) const {
    std::filesystem::create_directories((m_Path / name).parent_path());
    std::ofstream(m_Path / name, std::ios::binary) << text;
    return Path(name);
  }
  std::string Read(const std::string& name) const { return ReadFile(Path(name)); }
  std::size_t CountFiles() const {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(m_Path), {}));
  }

 private:
  std::filesystem::path m_Path;
};

/// Sets an environment variable for a scope.
class CEnvironmentVariable {
 public:
  CEnvironmentVariable(const char* name, const std::string& value) : m_Name(name) {
    if (const char* before = std::getenv(name)) m_Before = before;
    setenv(name, value.c_str(), 1);
  }
  ~CEnvironmentVariable() { m_Before.empty() ? unsetenv(m_Name) : setenv(m_Name, m_Before.c_str(), 1); }
  CEnvironmentVariable(const CEnvironmentVariable&) = delete;
  CEnvironmentVariable& operator=(const CEnvironmentVariable&) = delete;

 private:
  const char* m_Name;
  std::string m_Before;
};
