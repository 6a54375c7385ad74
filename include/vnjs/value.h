#pragma once

#include <v8.h>
#include <vnjs/export.h>

#include <string>

namespace vnjs {

/// A block of bytes on the heap. Copies are deep; the data pointer is null exactly when the size is 0.
class VNJS_API ByteArray {
 public:
  ByteArray() = default;

  /// A copy of the bytes.
  ByteArray(const ByteArray& other);

  /// `size` zero bytes.
  explicit ByteArray(unsigned int size);

  /// A copy of `length` bytes.
  ByteArray(const unsigned char* data, unsigned int length);

  /// The bytes of a script value: an Array of numbers from 0 to 255, a one-byte string, an ArrayBuffer or a
  /// view of one; empty for every other value. Throws VornException "Element is not a number", "Element value
  /// out of range" or "String encoding is not one-byte".
  ByteArray(v8::Local<v8::Value> value);  // NOLINT(google-explicit-constructor)
  virtual ~ByteArray();

  /// Takes a copy of the bytes in place of its own.
  ByteArray& operator=(const ByteArray& other);

  /// @{ The bytes, which stay this object's, and how many there are.
  const unsigned char* ptr() const { return m_data; }
  unsigned char* ptr() { return m_data; }
  unsigned int size() const { return m_size; }
  bool empty() const { return m_size == 0; }
  /// @}

  /// A new ArrayBuffer with a copy of the bytes; the script value null when `data` is null. The bytes count against the
  /// limit of Automation::SetLimits, but are never refused for it. Without memory: std::bad_alloc.
  static v8::Local<v8::Value> toJS(v8::Isolate* isolate, const unsigned char* data, unsigned int size);

  /// The same of these bytes.
  v8::Local<v8::Value> toJS(v8::Isolate* isolate) const;

  /// Whether a value is of a kind that the constructor reads. An empty handle and null are, undefined is not.
  static bool canBeArray(v8::Local<v8::Value> value);

 private:
  void Allocate(unsigned int size, const char* text);
  void Copy(const void* data, size_t size);

  unsigned int m_size = 0;
  unsigned char* m_data = nullptr;
};

/// A NUL-terminated copy of a script value's text, for C interfaces; null when the text is empty.
class VNJS_API NativeString {
 public:
  NativeString() = default;

  /// @{ The text as GetString gives it; a copy has its own.
  NativeString(v8::Local<v8::Value> value);  // NOLINT(google-explicit-constructor)
  NativeString(const NativeString& other);
  NativeString& operator=(const NativeString& other);
  /// @}
  virtual ~NativeString();

  /// The text, which stays this object's.
  const char* ptr() const { return m_str; }

  /// In bytes.
  size_t length() const;

 private:
  char* m_str = nullptr;
};

/// A value's text in UTF-8, up to its first NUL character. Empty for an empty handle, undefined, null, and a
/// value whose conversion throws.
VNJS_API std::string GetString(v8::Local<v8::Value> value);

/// A boolean's or number's truth; NaN and every Boolean object are true. `defaultValue` for all other values,
/// strings included.
VNJS_API bool GetBoolean(v8::Local<v8::Value> value, bool defaultValue);

/// Calls the script's own `JSON.stringify(value)`. Undefined for what JSON does not represent; an empty
/// handle, with a script exception pending, when it threw.
VNJS_API v8::Local<v8::Value> JSON_stringify(v8::Isolate* isolate, v8::Local<v8::Value> value);

/// An empty handle, with a SyntaxError pending, when the text is not JSON.
VNJS_API v8::Local<v8::Value> JSON_parse(v8::Isolate* isolate, v8::Local<v8::String> text);

/// A whole file, byte for byte. Empty for an empty path and for a directory. Throws VornException "Failed to
/// open file: " and the path.
VNJS_API std::string ReadFile(const char* path);

/// Reads a property past the object's own named-property interceptors: from its prototype chain first, then
/// its own. Empty when it is nowhere.
VNJS_API v8::Local<v8::Value> GetRealValue(v8::Isolate* isolate, v8::Local<v8::Object> object,
                                           v8::Local<v8::String> property);

/// @{ Leaves a script `Error` with that message pending. Returns the value for a native to return.
VNJS_API v8::Local<v8::Value> ThrowException(v8::Isolate* isolate, const char* message);
VNJS_API v8::Local<v8::Value> ThrowException(v8::Isolate* isolate, const std::string& message);
/// @}

}  // namespace vnjs
