#pragma once

#include <v8.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "runner/conversion.h"

namespace vnjs {

/// `on`, `off`, `once` and `onStop` of one script.
///
/// Threads:  under the isolate's lock, inside the context.
class EventHandlers {
 public:
  struct Handler {
    /// One of the two.
    v8::Global<v8::Function> function;
    v8::Global<v8::Promise::Resolver> once;

    /// Taken away while the event that it is for goes round.
    bool removed = false;
  };
  /// Never changed: who goes round keeps the list of its beginning.
  struct List {
    std::vector<std::shared_ptr<Handler>> handlers;
    bool hasOnce = false;
  };

  explicit EventHandlers(const Conversion& conversion) : m_conversion(conversion) {}

  /// Gives the four functions to scripts. False when the engine has no memory for them.
  bool Install(v8::Local<v8::Context> context);

  /// The handlers of an event, in their order; null when there are none. Those of `once` are given out once.
  std::shared_ptr<const List> Find(const std::string& event);

  /// The functions that were given to `onStop`; it has none afterwards.
  std::vector<v8::Global<v8::Function>> TakeStopHandlers() { return std::exchange(m_stopHandlers, {}); }
  void Clear();

 private:
  using Info = v8::FunctionCallbackInfo<v8::Value>;

  static void On(const Info& info);
  static void Off(const Info& info);
  static void Once(const Info& info);
  static void OnStop(const Info& info);

  std::string ReadEvent(const Info& info, const char* function) const;
  void Add(const std::string& event, std::shared_ptr<Handler> handler);
  void Remove(const std::string& event, v8::Local<v8::Value> function);

  const Conversion& m_conversion;
  std::unordered_map<std::string, std::shared_ptr<const List>> m_handlers;
  std::vector<v8::Global<v8::Function>> m_stopHandlers;
};

}  // namespace vnjs
