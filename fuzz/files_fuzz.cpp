// A storage directory, and around it what nobody may look at.
#include <filesystem>

#include "fuzz/support.h"
#include "tests/support/temporary_folder.h"

vnjs::fuzz::Target vnjs::fuzz::MakeTarget() {
  static const testing::TemporaryFolder folder;
  for (const char* const name : {"storage", "ab", "aa\\bb", "..."})
    std::filesystem::create_directories(folder.path() + "outer/base/" + name);
  folder.Write("outer/base/ab/c.json", "{\"c\":1}");
  const std::string secret = "\"secret" + std::string(7911, '?') + '"';
  folder.Write("secret.json", secret);
  folder.Write("outer/secret.json", secret);
  const auto write = [](const Info& info) {
    folder.Write("outer/base/storage/" + GetBytes(info[0]), GetBytes(info[1]));
  };
  return {folder.path() + "outer/base/",
          {{"writeObject", write}},
          {folder.path(), folder.path() + "outer/secret.json"}};
}
