#pragma once

#include <v8-platform.h>

namespace vnjs {

/// Starts the engine unless the host has done so, on the first call of the process, whichever threads call;
/// also registers the extensions. It is never shut down: the engine can be started only once per process.
void StartEngine();

/// The platform, ours or the host's.
v8::Platform* EnginePlatform();

/// Whether StartEngine started the engine, so that its tasks are ours to run.
bool OwnsEnginePlatform();

}  // namespace vnjs
