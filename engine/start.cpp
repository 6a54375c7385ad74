#include "engine/start.h"

#include <libplatform/libplatform.h>
#include <v8.h>

#include "engine/extensions.h"

// The engine exports this but has no header for it. Null until somebody has called InitializePlatform.
namespace v8::internal {
class V8 {
 public:
  static v8::Platform* GetCurrentPlatform();
};
}  // namespace v8::internal

namespace vnjs {

namespace {

/// Where code is not optimised yet, the engine looks for an interrupt once per so many bytes of it, and there also
/// decides what to optimise. By default it is 135,168 bytes, a few thousand rounds of a short loop: minutes when each
/// round calls a slow builtin. The other figures are those decisions' own, so that code is optimised no later than
/// before. `bench/kernels_bench` measures both sides.
constexpr char kLookOften[] =
    "--interrupt-budget=100 --ticks-before-optimization=400 --bytecode-size-allowance-per-tick=12 "
    "--max-bytecode-size-for-early-opt=0 --baseline-batch-compilation-threshold=100000";

struct Engine {
  v8::Platform* platform;
  bool owned;
};

Engine Start() {
  Engine engine{v8::internal::V8::GetCurrentPlatform(), false};
  if (engine.platform == nullptr) {
    // One thread besides the callers' collects garbage and compiles; environments are small and CPUs few.
    engine.platform = v8::platform::NewDefaultPlatform(1).release();
    engine.owned = true;
    // Its memories count against no limit.
    v8::V8::SetFlagsFromString("--no-expose-wasm");
    v8::V8::SetFlagsFromString(kLookOften);
    v8::V8::InitializePlatform(engine.platform);
    v8::V8::Initialize();
  }
  return engine;
}

const Engine& TheEngine() {
  static const Engine engine = Start();
  return engine;
}

}  // namespace

void StartEngine() {
  TheEngine();
  // Again for each environment, because it may have failed for want of memory.
  RegisterExtensions();
}

v8::Platform* EnginePlatform() { return TheEngine().platform; }

bool OwnsEnginePlatform() { return TheEngine().owned; }

}  // namespace vnjs
