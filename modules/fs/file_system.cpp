#include "modules/fs/file_system.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "bridge/memory_budget.h"
#include "bridge/native.h"
#include "engine/registration.h"

namespace vnjs {

bool FileSystem::m_registered = false;

const char FileSystem::kSource[] = R"(native function $fs$list();
Object.defineProperty($fs$list, 'name', {value: 'list'});

native function $fs$stat();
Object.defineProperty($fs$stat, 'name', {value: 'stat'});

native function $fs$loadJSON();
Object.defineProperty($fs$loadJSON, 'name', {value: 'loadJSON'});

native function $fs$load();
Object.defineProperty($fs$load, 'name', {value: 'load'});

native function $fs$loadText();
Object.defineProperty($fs$loadText, 'name', {value: 'loadText'});

function VFileSystem() {};
Object.defineProperty(VFileSystem.prototype, Symbol.toStringTag, {value: 'VFileSystem', configurable: true});
VFileSystem.prototype.list = $fs$list;
VFileSystem.prototype.stat = $fs$stat;
VFileSystem.prototype.loadJSON = $fs$loadJSON;
VFileSystem.prototype.load = $fs$load;
VFileSystem.prototype.loadText = $fs$loadText;
%ToFastProperties(VFileSystem.prototype);
fs = new VFileSystem();
)";

namespace {

constexpr char kSeparators[] = "/\\";
constexpr char kInvalidArguments[] = "Invalid arguments";

/// Far more than what the system takes, which then says so itself.
constexpr int kLongestPath = 1 << 16;

/// The content of files from this size on stays outside of the engine's heap, where it would be a copy and
/// count against the heap's limit.
constexpr size_t kLargeFile = 16 << 20;

/// How much memory outside of its heap an isolate may hold before a large file makes it collect.
constexpr int64_t kMuchOutside = 256 << 20;

/// Which separators around a path do not count.
enum Trim { kLeading = 1, kTrailing = 2 };

/// Whether a path stays inside its base as the kernel reads it, for which a backslash is a letter like any
/// other: where a folder `aa\bb` exists, `aa\bb/../../x` is outside.
bool StaysInside(std::string_view path) {
  int depth = 0;
  while (!path.empty()) {
    const size_t end = std::min(path.find('/'), path.size());
    const std::string_view name = path.substr(0, end);
    if (name == "..") {
      if (--depth < 0) return false;
    } else if (!name.empty() && name != ".") {
      ++depth;
    }
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return true;
}

/// The name of the file that a script's path leads to. Throws when the path is empty or leaves the storage
/// directory.
std::string FileName(v8::Isolate* isolate, v8::Local<v8::Value> argument, int trim) {
  if (argument->IsString() && argument.As<v8::String>()->Length() > kLongestPath)
    throw VornException(strerror(ENAMETOOLONG));
  std::string path = GetText(argument);
  if (path.empty()) throw VornException(kInvalidArguments);
  if (trim & kLeading) path.erase(0, path.find_first_not_of(kSeparators));
  if (!FileSystem::ValidateRelativePath(path.c_str())) throw VornException(kInvalidArguments);

  const std::string base = GetEnvironment(isolate)->StorageDir();
  std::string file = base + path;
  if (trim & kTrailing) {
    const size_t last = file.find_last_not_of(kSeparators);
    if (last != std::string::npos) file.erase(last + 1);
  }
  // Only now, because a last name `..\` has just become a step up.
  const std::string_view inside = std::string_view(file).substr(std::min(base.size(), file.size()));
  if (!StaysInside(inside)) throw VornException(kInvalidArguments);
  return file;
}

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};

/// A file's bytes, which a string of the engine uses where they are.
class FileContent : public v8::String::ExternalOneByteStringResource {
 public:
  FileContent(v8::Isolate* isolate, std::string bytes)
      : m_isolate(isolate),
        m_bytes(std::move(bytes)),
        m_charge(GetMemoryBudget(GetEnvironment(isolate)), m_bytes.size()) {
    const int64_t outside =
        m_isolate->AdjustAmountOfExternalAllocatedMemory(static_cast<int64_t>(m_bytes.size()));
    // Left to itself, the engine lets half of its heap's limit pile up in strings that nobody needs any more.
    if (outside > kMuchOutside) m_isolate->MemoryPressureNotification(v8::MemoryPressureLevel::kCritical);
  }
  ~FileContent() override {
    m_isolate->AdjustAmountOfExternalAllocatedMemory(-static_cast<int64_t>(m_bytes.size()));
  }
  const char* data() const override { return m_bytes.data(); }
  size_t length() const override { return m_bytes.size(); }

 private:
  v8::Isolate* const m_isolate;
  const std::string m_bytes;
  const MemoryCharge m_charge;
};

/// What the three load functions read.
struct LoadedFile {
  std::string name;
  std::string bytes;
};

LoadedFile ReadArgument(const v8::FunctionCallbackInfo<v8::Value>& info) {
  if (info.Length() != 1) throw VornException(kInvalidArguments);
  LoadedFile file;
  file.name = FileName(info.GetIsolate(), info[0], kLeading);
  struct stat status {};
  if (stat(file.name.c_str(), &status) == 0 && status.st_size >= static_cast<off_t>(kLargeFile)) {
    RequireMemory(GetEnvironment(info.GetIsolate()), static_cast<uint64_t>(status.st_size));
  }
  file.bytes = ReadFile(file.name.c_str());
  return file;
}

/// One character for each byte.
v8::MaybeLocal<v8::String> BytesToString(v8::Isolate* isolate, LoadedFile file) {
  if (file.bytes.size() > static_cast<size_t>(v8::String::kMaxLength)) {
    throw VornException("File is too large: " + file.name);
  }
  if (file.bytes.size() < kLargeFile) {
    return v8::String::NewFromOneByte(isolate, reinterpret_cast<const uint8_t*>(file.bytes.data()),
                                      v8::NewStringType::kNormal, static_cast<int>(file.bytes.size()));
  }
  // A text may have ended early in its file.
  file.bytes.shrink_to_fit();
  auto content = std::make_unique<FileContent>(isolate, std::move(file.bytes));
  const v8::MaybeLocal<v8::String> result = v8::String::NewExternalOneByte(isolate, content.get());
  // The string owns it from here on.
  if (!result.IsEmpty()) static_cast<void>(content.release());
  return result;
}

/// The file as UTF-8, up to the first zero byte.
v8::MaybeLocal<v8::String> TextToString(v8::Isolate* isolate, LoadedFile file) {
  file.bytes.resize(strlen(file.bytes.c_str()));
  const bool ascii =
      std::all_of(file.bytes.begin(), file.bytes.end(), [](char c) { return (c & 0x80) == 0; });
  return ascii ? BytesToString(isolate, std::move(file)) : NewString(isolate, file.bytes);
}

}  // namespace

FileSystem::FileSystem() : Module("vorn/fs", kSource, 0, nullptr, -1) {}

void FileSystem::Register() { RegisterOnce<FileSystem>(m_registered); }

bool FileSystem::ValidateRelativePath(const char* path) {
  int depth = 0;
  while (*path != '\0') {
    const char* const segment = path + 1;
    const size_t length = strcspn(segment, kSeparators);
    if (length > 0) depth += strncmp(segment, "..", length) == 0 ? -1 : 1;
    if (depth < 0) return false;
    path = segment + length;
  }
  return true;
}

void FileSystem::Stat(const Info& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  const std::string file = FileName(isolate, info[0], kLeading | kTrailing);
  struct stat status {};
  if (access(file.c_str(), R_OK) != 0 || stat(file.c_str(), &status) != 0) return;

  const v8::Local<v8::Context> context = isolate->GetCurrentContext();
  const v8::Local<v8::Object> result = v8::Object::New(isolate);
  const bool isFolder = S_ISDIR(status.st_mode);
  if (!SetProperty(context, result, "type", NewName(isolate, isFolder ? "dir" : "file"))) return;
  // The low 32 bits of the size are all that scripts see.
  const auto size = v8::Integer::NewFromUnsigned(isolate, static_cast<uint32_t>(status.st_size));
  if (!isFolder && !SetProperty(context, result, "size", size)) return;
  info.GetReturnValue().Set(result);
}

void FileSystem::List(const Info& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  const std::string file = FileName(isolate, info[0], kTrailing);
  struct stat status {};
  if (stat(file.c_str(), &status) != 0) return;

  std::vector<v8::Local<v8::Value>> names;
  const std::unique_ptr<DIR, CloseFolder> folder(opendir(file.c_str()));
  Environment* const environment = GetEnvironment(isolate);
  while (const dirent* const entry = folder ? readdir(folder.get()) : nullptr) {
    if (IsInterrupted(environment)) return;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.push_back(NewName(isolate, entry->d_name));
  }
  info.GetReturnValue().Set(v8::Array::New(isolate, names.data(), names.size()));
}

void FileSystem::LoadJSON(const Info& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  v8::Local<v8::String> text;
  if (!TextToString(isolate, ReadArgument(info)).ToLocal(&text)) return;
  const v8::Local<v8::Value> value = JSON_parse(isolate, text);
  if (!value.IsEmpty()) info.GetReturnValue().Set(value);
}

void FileSystem::Load(const Info& info) {
  v8::Local<v8::String> bytes;
  if (BytesToString(info.GetIsolate(), ReadArgument(info)).ToLocal(&bytes)) info.GetReturnValue().Set(bytes);
}

void FileSystem::LoadText(const Info& info) {
  v8::Local<v8::String> text;
  if (TextToString(info.GetIsolate(), ReadArgument(info)).ToLocal(&text)) info.GetReturnValue().Set(text);
}

const NativeEntry FileSystem::kNatives[] = {
    {"$fs$stat", Native<&FileSystem::Stat>},         {"$fs$list", Native<&FileSystem::List>},
    {"$fs$loadJSON", Native<&FileSystem::LoadJSON>}, {"$fs$load", Native<&FileSystem::Load>},
    {"$fs$loadText", Native<&FileSystem::LoadText>},
};

v8::Local<v8::FunctionTemplate> FileSystem::GetFunction(Environment* env, v8::Isolate* isolate,
                                                        std::string name) {
  return FindNative(isolate, kNatives, name);
}

}  // namespace vnjs
