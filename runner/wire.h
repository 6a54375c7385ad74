#pragma once

#include <vnjs/script_value.h>

#include <string>

namespace vnjs {

/// Writes a value in the engine's format for stored values, which the engine reads several times faster than it adds
/// members one by one. The format is kept readable by all later engines.
///
/// False, and what was written means nothing, for what the format does not have (functions), what is not worth it (large
/// texts would be copied once more) and what is to be refused.
bool WriteWire(const Value& value, std::string* wire);

}  // namespace vnjs
