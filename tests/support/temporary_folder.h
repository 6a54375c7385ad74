#pragma once

#include <string>
#include <string_view>

namespace vnjs::testing {

/// An empty folder that is removed, with all that is in it, at the end of the scope. In memory where possible:
/// the library flushes files after each change.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  /// Ends in "/".
  const std::string& path() const { return m_path; }
  void Write(const std::string& name, std::string_view content) const;
  std::string Read(const std::string& name) const;

 private:
  std::string m_path;
};

}  // namespace vnjs::testing
