// Runs a fuzz target once with each file of the folders that are named: what it has found stays fixed, with any
// compiler.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  // Always in the same order.
  std::set<fs::path> paths;
  for (int i = 1; i < argc; ++i) paths.insert(fs::directory_iterator(argv[i]), fs::directory_iterator());
  for (const fs::path& path : paths) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    // The name of an input that ends the process stands last.
    printf("%s, %zu bytes\n", path.filename().c_str(), bytes.size());
    fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  printf("%zu inputs\n", paths.size());
  return paths.empty() ? 1 : 0;
}
