// Runs a fuzz target once with each file of a folder: what it has found stays fixed, with any compiler.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int, char** argv) {
  // Always in the same order.
  const std::set<std::filesystem::path> paths{std::filesystem::directory_iterator(argv[1]), {}};
  for (const auto& path : paths) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    // The name of an input that ends the process stands last.
    fprintf(stderr, "%s, %zu bytes\n", path.filename().c_str(), bytes.size());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  return paths.empty() ? 1 : 0;
}
