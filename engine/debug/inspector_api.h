#pragma once

#include <v8-inspector.h>
#include <v8-version.h>

#include <memory>

namespace vnjs {

/// Later engines want to be told how far they may trust a client.
inline std::unique_ptr<v8_inspector::V8InspectorSession> ConnectToInspector(
    v8_inspector::V8Inspector* inspector, int group, v8_inspector::V8Inspector::Channel* channel) {
#if V8_MAJOR_VERSION > 10
  return inspector->connect(group, channel, {}, v8_inspector::V8Inspector::kFullyTrusted);
#else
  return inspector->connect(group, channel, {});
#endif
}

}  // namespace vnjs
