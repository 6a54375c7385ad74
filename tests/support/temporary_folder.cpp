#include "tests/support/temporary_folder.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vnjs::testing {

TemporaryFolder::TemporaryFolder() {
  for (const std::filesystem::path& place :
       {std::filesystem::path("/dev/shm"), std::filesystem::temp_directory_path()}) {
    m_path = place / "vnjs-XXXXXX";
    if (mkdtemp(m_path.data()) == nullptr) continue;
    m_path += '/';
    return;
  }
  throw std::runtime_error("no temporary folder");
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

void TemporaryFolder::Write(const std::string& name, std::string_view content) const {
  std::ofstream(m_path + name, std::ios::binary) << content;
}

std::string TemporaryFolder::Read(const std::string& name) const {
  std::ostringstream text;
  text << std::ifstream(m_path + name, std::ios::binary).rdbuf();
  return text.str();
}

}  // namespace vnjs::testing
