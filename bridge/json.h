#pragma once

#include <v8.h>

namespace vnjs {

/// JSON_stringify for one environment, with everything made ready that can be: hosts ask for the JSON of
/// every result.
///
/// Threads:  under the isolate's lock.
class JsonStringifier {
 public:
  /// Remembers the engine's own `JSON.stringify`. Inside the context, before any script runs in it.
  void Prepare(v8::Local<v8::Context> context);

  /// A value with the text of JSON_stringify's result. As long as the script has left `JSON.stringify` alone, without
  /// calling it. Sets `terminated` when the script was ended from outside while it was asked for that function.
  v8::Local<v8::Value> Stringify(v8::Local<v8::Context> context, v8::Local<v8::Value> value,
                                 bool* terminated) const;
  void Clear();

 private:
  v8::Global<v8::String> m_json;
  v8::Global<v8::String> m_stringify;
  v8::Global<v8::Value> m_original;
};

}  // namespace vnjs
