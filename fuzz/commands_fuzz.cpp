// system(): which commands a policy allows, what is made of the arguments, and what comes back of the output. No shell
// is ever started: this program has functions of its own in place of those that start commands.
#include <fcntl.h>
#include <unistd.h>
#include <wordexp.h>

#include <climits>
#include <vector>

#include "fuzz/support.h"

namespace {

/// What the shell would have been given, and what it answers.
std::vector<std::string> started;
std::string answer;

}  // namespace

extern "C" {

int popen2(const char* command, int*, int* out) {
  started.emplace_back(command);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0 || write(ends[1], answer.data(), answer.size()) < 0)
    vnjs::fuzz::Break("no pipe");
  close(ends[1]);
  *out = ends[0];
  // No process: whoever waits for it learns that it has ended.
  return INT_MAX;
}

int pclose2(int, int, int) { vnjs::fuzz::Break("pclose2"); }
int pkill2(int) { vnjs::fuzz::Break("pkill2"); }

}  // extern "C"

namespace vnjs::fuzz {
namespace {

constexpr char kPrelude[] = R"js(
  var r;
  function attempt(...a) {
    try {
      r = system(...a);
      return 'ran';
    } catch (e) {
      return e.message;
    }
  }
)js";

/// Whether a line of the policy is what the command begins with. Texts end at their first zero.
bool Allows(std::string policy, const std::string& command) {
  while (!policy.empty()) {
    std::string line = policy.substr(0, policy.find('\n'));
    policy.erase(0, line.size() + 1);
    if (!line.empty() && line[0] == '#') continue;
    while (!line.empty() && std::string("\r\n \t").find(line.back()) != std::string::npos) line.pop_back();
    const size_t zero = line.find('\0');
    if (zero == std::string::npos ? command.compare(0, line.size(), line) == 0
                                  : command == line.substr(0, zero))
      return true;
  }
  return false;
}

/// An argument with a blank is quoted; a quote in it takes the place of as many characters as are before it, and one.
std::string Quoted(const std::string& text) {
  if (text.find(' ') == std::string::npos) return text;
  std::string result;
  for (size_t i = 0; i < text.size();) {
    if (text[i] == '"') {
      i += result.size() + 1;
      result += "\\\"";
    } else {
      result += text[i++];
    }
  }
  return '"' + result + '"';
}

/// Whether a command gets this argument as it is.
bool IsPromised(const std::string& text) {
  const bool quoted = text.find(' ') != std::string::npos;
  return !text.empty() &&
         text.find_first_of(quoted ? "\"$`\\" : "\"$`\\'|&;<>(){}[]*?!~#=\t\r\n\v\f") == std::string::npos;
}

/// Takes the line of a command apart as a shell does.
std::vector<std::string> Words(const std::string& line) {
  wordexp_t found;
  if (wordexp(line.c_str(), &found, WRDE_NOCMD | WRDE_UNDEF) != 0) Break("no words: " + line);
  std::vector<std::string> words(found.we_wordv, found.we_wordv + found.we_wordc);
  wordfree(&found);
  return words;
}

struct Argument {
  std::string script;
  std::string text;
};

Argument ReadArgument(Reader& reader) {
  const std::u16string text = reader.Text();
  switch (reader.Byte()) {
    case 255:
      return {"{toString() { throw 1; }}", ""};
    case 254:
      return {"undefined", ""};
    case 253:
      return {"[1.5, 'x y']", "1.5,x y"};
    case 252:
      return {"{toString() { return " + Literal(text) + "; }}", AsRead(text)};
    default:
      return {Literal(text), AsRead(text)};
  }
}

/// The command of the input, or a line of the policy with the input behind it.
std::u16string Command(Reader& reader, const std::string& policy) {
  const unsigned begin = reader.Byte();
  if (begin >= policy.size()) return reader.Text();
  return FromBytes(policy.substr(begin, reader.Byte())) + reader.Text();
}

/// One call of system().
void Call(Scripts& scripts, const std::string& policy, Reader& reader) {
  const std::u16string given = Command(reader, policy);
  const std::string command = AsRead(given);
  std::string code = "attempt(" + Literal(given);
  std::string line = command;
  std::vector<std::string> words = {"command"};
  bool promised = true;
  for (unsigned count = reader.Below(5); count > 0; --count) {
    const Argument argument = ReadArgument(reader);
    code += ", " + argument.script;
    line += ' ' + Quoted(argument.text);
    promised = promised && IsPromised(argument.text);
    words.push_back(argument.text);
  }
  code += ")";
  const std::string_view part = reader.Bytes();
  answer.clear();
  // More than is read at once, and less than the pipe holds.
  for (unsigned parts = reader.Below(200) + 1; parts > 0; --parts) answer += part;

  const bool allowed = !command.empty() && Allows(policy, command);
  const char* const refusal =
      command.empty() ? "\"Invalid arguments\"" : "\"This command is denied by policy\"";
  started.clear();
  scripts.Expect(code, allowed ? "\"ran\"" : refusal);
  if (started != std::vector<std::string>(allowed ? 1 : 0, line))
    Break(code + "\nstarts:   " + (started.empty() ? "" : started[0]) + "\nexpected: " + line);
  if (!allowed) return;
  if (promised && Words("command" + line.substr(command.size())) != words) Break("other arguments: " + line);
  const std::u16string output = FromBytes(answer.substr(0, answer.find('\0')));
  if (AsRead(output).size() == output.size())
    scripts.Expect("r[0] === 0 && r[1] === " + Literal(output), "true");
}

void RunInput(Scripts& scripts, const std::string& folder, Reader reader) {
  const std::string policy(reader.Bytes());
  WriteFile(folder + "/.syscommands", policy);
  for (int calls = 0; !reader.AtEnd() && calls < 20; ++calls) Call(scripts, policy, reader);
}

}  // namespace
}  // namespace vnjs::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vnjs::fuzz;
  static const Folder folder;
  static Scripts scripts(folder.path(), kPrelude);
  scripts.NextInput();
  const int descriptor = LowestFreeDescriptor();
  RunInput(scripts, folder.path(), Reader({reinterpret_cast<const char*>(data), size}));
  if (LowestFreeDescriptor() != descriptor) Break("a descriptor is left open");
  return 0;
}
