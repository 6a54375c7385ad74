#pragma once

#include <v8.h>
#include <vnjs/promise.h>

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "runner/conversion.h"
#include "runner/promise_state.h"

namespace vnjs {

/// The promises of one script that its natives have promised.
///
/// Threads:  under the isolate's lock, inside the context.
class HostPromises {
 public:
  HostPromises(std::weak_ptr<detail::RunnerCore> core, const Conversion& conversion)
      : m_core(std::move(core)), m_conversion(conversion) {}

  /// The script's promise. Throws PendingException.
  v8::Local<v8::Value> Add(v8::Local<v8::Context> context, const Promise& promise);

  /// It is settled, which may run script code. Throws PendingException.
  void Settle(v8::Local<v8::Context> context, uint64_t number, const detail::PromiseState::Outcome& outcome);
  void Clear() { m_waiting.clear(); }

 private:
  void Settle(v8::Local<v8::Context> context, v8::Local<v8::Promise::Resolver> resolver,
              const detail::PromiseState::Outcome& outcome) const;

  const std::weak_ptr<detail::RunnerCore> m_core;
  const Conversion& m_conversion;
  uint64_t m_lastNumber = 0;
  std::unordered_map<uint64_t, v8::Global<v8::Promise::Resolver>> m_waiting;
};

}  // namespace vnjs
