// fs: paths that must not leave the storage directory, bytes that must come back as they are, and what
// scripts see of files that are missing, strange or large.
#include <unistd.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <utility>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

namespace files = std::filesystem;

class FsTest : public ScriptTest {
 protected:
  /// The result of an expression as JSON text, or the message of the script's exception.
  std::string Try(const std::string& expression) {
    return automation->Run(("try { " + expression + " } catch (e) { e.message }").c_str(), "fs.js").result();
  }
};

constexpr char kInvalid[] = "\"Invalid arguments\"";

/// A script string literal.
std::string Quote(const std::string& text) {
  std::string literal = "'";
  for (const char c : text) {
    if (c == '\\') literal += '\\';
    literal += c;
  }
  return literal + "'";
}

TEST_F(FsTest, IsAnObjectOfItsOwnClass) {
  RunAll({
      {"String(fs)", "\"[object VFileSystem]\""},
      {"fs.constructor.name", "\"VFileSystem\""},
      {"var names = []; for (var n in fs) names.push(n); names.join()",
       "\"list,stat,loadJSON,load,loadText\""},
      {"names.every(n => fs[n].name === n && !('prototype' in fs[n]))", "true"},
      {"try { new fs.list('.') } catch (e) { e.name }", "\"TypeError\""},
      {"var list = fs.list; fs = null; list('/').length", "1"},
  });
}

TEST_F(FsTest, APathMustNotClimbOut) {
  // So that the kernel would follow the paths that backslashes make look harmless.
  files::create_directories(dir() + "aa\\bb\\cc");
  files::create_directories(dir() + "aa\\bb");
  for (const char* path : {"a/b",         "ab/../c",       ".",        "./x",
                           "/x",          "ab/./c",        "a",        ".a",
                           "x...",        "....",          "a/b/..",   "ab/b/../..",
                           "ab/b/././",   "a/.../x",       "a/..b/.",  "a/b.",
                           "///",         "//ab//..//",    "/ab/..",   "/a/..",
                           "\\",          "ab\\c",         "ab\\.\\x", "ab/cd\\..\\..",
                           "aa\\bb/../x", "aa\\bb/../\\.."}) {
    EXPECT_EQ(Try("fs.list(" + Quote(path) + "); 'passes'"), "\"passes\"") << path;
  }
  for (const char* path :
       {"..", "../x", "a/../b", "a/./b", "x/../../y", "/../x", "x.", "x..", "...", "x./ab", "a/b/../..",
        "ab/b/../../..", "ab/././x", "a//..", "/a/../..", "..\\x", "a\\..", "\\..\\x", "x/\\..",
        "ab/cd\\..\\..\\..",
        // Inside where a backslash separates, outside where it does not.
        "aa\\bb/../../x", "aa\\bb/../..", "aa\\bb/../..\\", "aa\\bb/../../", "aa\\bb\\cc/../x/../.."}) {
    EXPECT_EQ(Try("fs.list(" + Quote(path) + ")"), kInvalid) << path;
  }
}

TEST_F(FsTest, OnlyLoadKeepsASeparatorAtTheEnd) {
  files::create_directories(dir() + "aa\\bb");
  folder.Write("file", "text");
  // `..\` is a name like any other where the backslash stays, and a step up where it is cut off.
  EXPECT_THAT(Try("fs.load('aa\\\\bb/../..\\\\')"), ::testing::StartsWith("\"Failed to open file: "));
  EXPECT_EQ(Try("fs.stat('aa\\\\bb/../..\\\\')"), kInvalid);
  EXPECT_EQ(Try("fs.stat('file/\\\\/').type"), "\"file\"");
  EXPECT_EQ(Try("fs.list('file/').length"), "0");
  EXPECT_THAT(Try("fs.load('file/')"), ::testing::HasSubstr("/file/ Not a directory"));
}

TEST_F(FsTest, RefusesWrongArguments) {
  for (const char* arguments : {"", "''", "undefined", "null", "'\\0x'", "'../x'", "'a/./b'", "[]",
                                "{toString() { throw 1; }}", "Symbol()"}) {
    for (const char* method : {"stat", "list", "load", "loadText", "loadJSON"}) {
      EXPECT_EQ(Try(std::string("fs.") + method + "(" + arguments + ")"), kInvalid) << method << arguments;
    }
  }
  folder.Write("one", "1");
  RunAll({
      {"fs.stat('one', 2).type", "\"file\""},
      {"fs.list('one', 2)", "[]"},
      {"try { fs.load('one', 2) } catch (e) { e.message }", kInvalid},
      {"try { fs.loadText('one', undefined) } catch (e) { e.message }", kInvalid},
      {"try { fs.loadJSON('one', 2) } catch (e) { e.message }", kInvalid},
      {"fs.loadJSON({toString() { return 'one'; }})", "1"},
      {"fs.loadJSON('one\\0../x')", "1"},
  });
}

TEST_F(FsTest, StatDescribesFilesAndFolders) {
  folder.Write("file", "12345");
  folder.Write("large", "");
  files::resize_file(dir() + "large", (uint64_t{1} << 32) + 7);
  files::create_symlink("nowhere", dir() + "dangling");
  RunAll({
      {"fs.stat('file')", R"({"type":"file","size":5})"},
      {"fs.stat('/\\\\/file')", R"({"type":"file","size":5})"},
      {"fs.stat('large').size", "7"},
      {"fs.stat('storage')", R"({"type":"dir"})"},
      {"fs.stat('/')", R"({"type":"dir"})"},
      {"fs.stat('.')", R"({"type":"dir"})"},
      {"fs.stat('missing')", "undefined"},
      {"fs.stat('dangling')", "undefined"},
      {"fs.stat('/etc/passwd')", "undefined"},
      // Only list keeps a separator at the beginning, which then is the character that belongs to no segment.
      {"try { fs.stat('/a/..') } catch (e) { e.message }", kInvalid},
      {"Object.defineProperty(Object.prototype, 'type', {set() { throw 1; }, configurable: true}); "
       "fs.stat('file')",
       R"({"type":"file","size":5})"},
  });
}

TEST_F(FsTest, StatIsBlindToWhatCannotBeRead) {
  folder.Write("open", "1");
  folder.Write("closed", "1");
  files::permissions(dir(), files::perms(0755));
  files::permissions(dir() + "closed", files::perms::none);
  // What may be read goes by the real user, who may be root here.
  const uid_t user = getuid();
  ASSERT_EQ(setreuid(user == 0 ? 65534 : user, static_cast<uid_t>(-1)), 0);
  const std::string result = Run("[fs.stat('open'), fs.stat('closed'), fs.list('closed')]");
  ASSERT_EQ(setreuid(user, static_cast<uid_t>(-1)), 0);
  EXPECT_EQ(result, R"([{"type":"file","size":1},null,[]])");
}

TEST_F(FsTest, ListNamesWhatIsInAFolder) {
  files::create_directory(dir() + "sub");
  std::string expected;
  for (const char* name : {"b", "a", ".hidden", "c d", "\xC3\xA4", "\xFF"})
    folder.Write(std::string("sub/") + name, "");
  for (const auto& entry : files::directory_iterator(dir() + "sub")) {
    const std::string name = entry.path().filename();
    expected += name == "\xFF" ? "\xEF\xBF\xBD|" : name + "|";
  }
  EXPECT_EQ(Run("fs.list('sub').join('|') + '|'"), "\"" + expected + "\"");
  RunAll({
      {"fs.list('/').sort()", R"(["storage","sub"])"},
      {"fs.list('.').sort()", R"(["storage","sub"])"},
      {"fs.list('/sub/').length", "6"},
      {"fs.list('sub/a')", "[]"},
      {"fs.list('storage')", "[]"},
      {"fs.list('missing')", "undefined"},
      {"Object.defineProperty(Array.prototype, 0, {set() { throw 1; }, configurable: true}); "
       "fs.list('sub').length",
       "6"},
  });
}

TEST_F(FsTest, LoadKeepsEveryByteAndLoadTextDecodesUpToTheFirstZero) {
  std::string bytes;
  for (int i = 255; i >= 0; --i) bytes += static_cast<char>(i);
  folder.Write("bytes", bytes);
  folder.Write("text", std::string("\xE2\x82\xAC\xF0\x9F\x92\xA1 \xFF\0rest", 14));
  folder.Write("bom", "\xEF\xBB\xBFx");
  folder.Write("empty", "");
  RunAll({
      {"var s = fs.load('bytes'); s.length", "256"},
      {"Array.from(s, c => c.charCodeAt(0)).every((c, i) => c === 255 - i)", "true"},
      {"fs.load('text').length", "14"},
      {"fs.loadText('text')", "\"\xE2\x82\xAC\xF0\x9F\x92\xA1 \xEF\xBF\xBD\""},
      {"fs.loadText('bom').length", "2"},
      {"fs.load('empty') + fs.loadText('empty')", "\"\""},
      {"fs.load('storage') + fs.load('/') + fs.loadText('/')", "\"\""},
  });
}

TEST_F(FsTest, LoadJSONParses) {
  folder.Write("good", R"({"a": [1, null, "x"]})");
  folder.Write("zero", std::string("[1]\0]", 5));
  folder.Write("bad", "{a: 1}");
  folder.Write("empty", "");
  RunAll({
      {"fs.loadJSON('good')", R"({"a":[1,null,"x"]})"},
      {"fs.loadJSON('zero')", "[1]"},
      {"try { fs.loadJSON('bad') } catch (e) { e.name }", "\"SyntaxError\""},
      {"try { fs.loadJSON('empty') } catch (e) { e.name }", "\"SyntaxError\""},
      {"try { fs.loadJSON('storage') } catch (e) { e.name }", "\"SyntaxError\""},
  });
}

TEST_F(FsTest, LoadersSayWhyAFileCannotBeRead) {
  files::create_symlink("loop", dir() + "loop");
  for (const char* method : {"load", "loadText", "loadJSON"}) {
    const std::string call = std::string("fs.") + method;
    const std::string failure = "\"Failed to open file: " + dir();
    EXPECT_EQ(Try(call + "('/missing')"), failure + "missing No such file or directory\"");
    EXPECT_EQ(Try(call + "('loop')"), failure + "loop Too many levels of symbolic links\"");
    EXPECT_EQ(Try(call + "('ab/../missing')"), failure + "ab/../missing No such file or directory\"");
  }
  RunAll({{"try { fs.load('missing') } catch (e) { e instanceof Error }", "true"}});
}

TEST_F(FsTest, LargeFilesAreStringsLikeAllOthers) {
  // At the size from which on the content stays outside of the heap, and on both sides of it.
  for (const int size : {(16 << 20) - 1, 16 << 20}) {
    std::string text = "\"" + std::string(static_cast<size_t>(size - 4), 'x') + "y\"\n";
    folder.Write("json", text);
    text[0] = '\xE4';
    folder.Write("latin", text);
    EXPECT_EQ(
        Run("var j = fs.loadText('json'), l = fs.load('latin'), u = fs.loadText('latin');"
            "[j.length, l.length, u.length, j === fs.load('json'), fs.loadJSON('json') === j.slice(1, -2),"
            " l.charCodeAt(0), u.charCodeAt(0), l.slice(1) === u.slice(1), l.slice(1) === j.slice(1),"
            " ({[j]: 1})[j], (j + l).indexOf('y\"'), /y/.exec(l).index]"),
        "[" + std::to_string(size) + "," + std::to_string(size) + "," + std::to_string(size) +
            ",true,true,228,65533,true,true,1," + std::to_string(size - 3) + "," + std::to_string(size - 3) +
            "]");
  }
}

TEST_F(FsTest, LargeFilesAreHeldOnceAndNotForLong) {
  const auto memory = [&] {
    v8::Isolate* const isolate = environment()->GetIsolate();
    const v8::Locker locker(isolate);
    v8::HeapStatistics statistics;
    isolate->GetHeapStatistics(&statistics);
    return std::pair(statistics.used_heap_size() >> 20, statistics.external_memory() >> 20);
  };
  folder.Write("large", std::string(32 << 20, 'x'));
  Run("var bytes = fs.load('large'); var text = fs.loadText('large'); 0");
  auto [inside, outside] = memory();
  EXPECT_LT(inside, 16u);
  EXPECT_EQ(outside, 64u);

  Run("for (var i = 0; i < 20; i++) { fs.load('large'); fs.loadText('large'); } 0");
  std::tie(inside, outside) = memory();
  EXPECT_LT(inside, 16u);
  EXPECT_LE(outside, 256u);
  Run("bytes = text = null");
  CollectGarbage(environment());
  EXPECT_EQ(memory().second, 0u);
}

TEST_F(FsTest, AFileThatNoStringCanHoldIsRefused) {
  folder.Write("huge", "");
  files::resize_file(dir() + "huge", v8::String::kMaxLength + uint64_t{1});
  EXPECT_EQ(Try("fs.load('huge')"), "\"File is too large: " + dir() + "huge\"");
}

}  // namespace
}  // namespace vnjs::testing
