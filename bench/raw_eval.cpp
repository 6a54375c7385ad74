#include <cstdio>

#include "bench/support/raw_environment.h"

/// Evaluates one text with the engine alone: what `vnjs eval` is measured against.
int main(int argc, char** argv) {
  if (argc != 2) return 2;
  vnjs::bench::StartEngine();
  vnjs::bench::RawEnvironment environment;
  return puts(environment.Run(argv[1], "eval").c_str()) < 0 ? 1 : 0;
}
