#pragma once

#include <v8.h>

#include <string>

namespace vnjs {

/// A value as people who debug a script want to read it, on one line: `{name: 'hall', on: true, log: [Function: log]}`.
/// Texts inside are quoted; what is nested deeper than three levels, more than a hundred entries of one object, and all
/// after 10,000 bytes are left out, and said to be. No getter and no proxy is asked, but in the stack of an error
/// and for an accessor in a NameValueDictionary. Leaves no script exception.
std::string Describe(v8::Isolate* isolate, v8::Local<v8::Value> value);

}  // namespace vnjs
