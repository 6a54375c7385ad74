// The one-shot MD5 is deprecated, but it names the files of objects that are already stored; nothing secret
// hangs on it.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <fcntl.h>
#include <openssl/md5.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>

#include "bridge/c_resource.h"
#include "bridge/descriptor.h"
#include "bridge/memory_budget.h"
#include "bridge/native.h"
#include "modules/core/core.h"

namespace vnjs {

namespace {

[[noreturn]] void ThrowSystemError(int error) { throw VornException(strerror(error)); }

/// Makes a call until it succeeds or fails for another reason than a signal; `errno` is that reason then.
template <typename Call>
bool Succeeds(Call call) {
  do {
    errno = 0;
    if (call()) return true;
  } while (errno == EINTR);
  return false;
}

/// A stream that closes itself and has no buffer: one would cost time when the whole file is read at once,
/// and would hold back what is written until the stream is closed, after the flush and the last check.
class Stream {
 public:
  enum Mode { kRead, kReplace };

  Stream(const std::string& path, Mode mode) {
    Succeeds([&] {
      m_file = mode == kRead ? OpenForReading(path.c_str()) : FilePointer(fopen(path.c_str(), "wbe"));
      return m_file != nullptr;
    });
    if (m_file) setvbuf(m_file.get(), nullptr, _IONBF, 0);
  }

  FILE* get() const { return m_file.get(); }
  void Close() { m_file.reset(); }
  void Abandon() { static_cast<void>(m_file.release()); }

 private:
  FilePointer m_file;
};

/// The text of a stored object, up to its first zero byte; nothing when there is no file or an empty one.
std::optional<std::string> ReadObject(Environment* environment, const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return {};
    ThrowSystemError(errno);
  }
  if (status.st_size == 0) return {};

  std::string text;
  // There will be its bytes and its text for the engine.
  const auto size = static_cast<uint64_t>(status.st_size);
  RequireMemoryBriefly(environment, 2 * size);
  if (size > text.max_size()) throw std::bad_alloc();
  const Stream stream(path, Stream::kRead);
  if (stream.get() == nullptr) ThrowSystemError(errno);
  text.resize(static_cast<size_t>(size));
  size_t done = 0;
  const bool whole = Succeeds([&] {
    done += fread(&text[done], 1, text.size() - done, stream.get());
    return done == text.size();
  });
  if (!whole) ThrowSystemError(errno);
  text.resize(strlen(text.c_str()));
  return text;
}

/// The folder of an object, for as long as one is changed in it.
///
/// Locked against everybody else who changes one there, in this process or another: an object's temporary file has one
/// name. Who holds the lock for a whole minute does something else, and the change fails. A folder that cannot be opened
/// is not locked, nor flushed.
class Folder {
 public:
  Folder(Environment* environment, const std::string& path)
      : m_descriptor(open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    constexpr int kLongestMs = 60000;
    for (int waited = 0; m_descriptor.get() >= 0 && flock(m_descriptor.get(), LOCK_EX | LOCK_NB) != 0;
         ++waited) {
      if (errno != EWOULDBLOCK && errno != EINTR) break;
      if (waited == kLongestMs || IsInterrupted(environment))
        throw VornException("Objects are locked by another process");
      usleep(1000);
    }
  }

  /// Makes names outlive a power failure. What was done is done whether this works or not.
  void Flush() const {
    if (m_descriptor.get() >= 0) Succeeds([&] { return fsync(m_descriptor.get()) == 0; });
  }

 private:
  const Descriptor m_descriptor;
};

void RemoveObject(Environment* environment, const std::string& path) {
  const Folder folder(environment, path);
  if (remove(path.c_str()) == 0) {
    folder.Flush();
  } else if (errno != ENOENT) {
    ThrowSystemError(errno);
  }
}

/// Replaces the stored object as a whole: whenever this stops, the old text or the new one is what a reader
/// finds.
void WriteObject(Environment* environment, const std::string& path, const std::string& text) {
  const Folder folder(environment, path);
  const std::string temporary = path + ".tmp";
  Stream stream(temporary, Stream::kReplace);
  if (stream.get() == nullptr) {
    if (errno != ENOENT) ThrowSystemError(errno);
    // A host without the folder keeps no objects. Its scripts run all the same.
    printf("failed to open %s for writing\n", temporary.c_str());
    return;
  }

  size_t done = 0;
  const bool written = Succeeds([&] {
    done += fwrite(&text[done], 1, text.size() - done, stream.get());
    return done == text.size();
  });
  const int writeError = errno;
  if (!Succeeds([&] { return fsync(fileno(stream.get())) == 0; })) {
    const int error = errno;
    remove(temporary.c_str());
    // Deliberately kept: after a failed flush the stream stays open.
    stream.Abandon();
    ThrowSystemError(error);
  }
  stream.Close();
  if (!written) {
    remove(temporary.c_str());
    ThrowSystemError(writeError);
  }

  if (rename(temporary.c_str(), path.c_str()) != 0) {
    const TextPointer reason(sys_last_err_string());
    remove(temporary.c_str());
    throw VornException(reason ? reason.get() : "Error renaming file");
  }
  folder.Flush();
}

/// The file that a native's first argument names.
std::string ObjectPath(const v8::FunctionCallbackInfo<v8::Value>& info, int arguments) {
  std::string name;
  if (info.Length() == arguments && info[0]->IsString()) name = GetText(info[0]);
  if (name.empty()) throw VornException("Invalid arguments");
  return Core::GetObjectLocation(GetEnvironment(info.GetIsolate()), name);
}

}  // namespace

std::string Core::GetObjectLocation(Environment* env, std::string name) {
  std::string location = env->StorageDir() + "storage/";
  // This part is for people who look into the folder; the digest alone tells names apart.
  for (const char c : name) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) location += c;
  }
  location += '-';
  unsigned char digest[MD5_DIGEST_LENGTH] = {};
  MD5(reinterpret_cast<const unsigned char*>(name.data()), name.size(), digest);
  for (const unsigned char byte : digest) {
    constexpr char kDigits[] = "0123456789abcdef";
    location += kDigits[byte >> 4];
    location += kDigits[byte & 15];
  }
  return location + ".json";
}

void Core::LoadObject(const Info& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  const std::optional<std::string> text = ReadObject(GetEnvironment(isolate), ObjectPath(info, 1));
  if (!text) {
    info.GetReturnValue().SetNull();
    return;
  }
  v8::Local<v8::String> json;
  if (!NewString(isolate, *text).ToLocal(&json)) return;
  const v8::Local<v8::Value> value = JSON_parse(isolate, json);
  if (!value.IsEmpty()) info.GetReturnValue().Set(value);
}

void Core::SaveObject(const Info& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  const std::string path = ObjectPath(info, 2);
  std::string text;
  if (!info[1]->IsNullOrUndefined()) text = GetText(JSON_stringify(isolate, info[1]));
  // A script that is being ended from outside gave no value; it did not ask to forget the old one either.
  if (isolate->IsExecutionTerminating()) return;
  // A value that JSON does not represent is removed like null, also when its stringification threw: the
  // exception is pending and reaches the script.
  if (text.empty()) {
    RemoveObject(GetEnvironment(isolate), path);
  } else {
    WriteObject(GetEnvironment(isolate), path, text);
  }
}

}  // namespace vnjs
