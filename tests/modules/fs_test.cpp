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
  FsTest() {
    Run(R"(
      function fail(f) { try { f(); } catch (e) { return e.message; } return 'passes'; }
      var refused = f => fail(f) === 'Invalid arguments', loaders = ['load', 'loadText', 'loadJSON'];)");
  }
};

TEST_F(FsTest, IsAnObjectOfItsOwnClass) {
  RunTable(R"js(
    [String(fs), fs.constructor.name]              ==> ["[object VFileSystem]","VFileSystem"]
    var names = []; for (var n in fs) names.push(n); names ==> ["list","stat","loadJSON","load","loadText"]
    names.every(n => fs[n].name === n && !('prototype' in fs[n])) ==> true
    var list = fs.list; fs = null; list('/').length ==> 1
  )js");
}

TEST_F(FsTest, APathMustNotClimbOut) {
  // So that the kernel would follow the paths that backslashes make look harmless.
  files::create_directories(dir() + "aa\\bb\\cc");
  files::create_directories(dir() + "aa\\bb");
  folder.Write("file", "text");
  RunTable(R"js(
    ['a/b', 'ab/../c', '.', './x', '/x', 'ab/./c', '.a', 'x...', '....', 'a/b/..', 'ab/b/../..', 'ab/b/././',
     'a/.../x', 'a/..b/.', 'a/b.', '///', '//ab//..//', '/ab/..', '/a/..', '\\', 'ab\\c', 'ab\\.\\x', 'ab/cd\\..\\..',
     'aa\\bb/../x', 'aa\\bb/../\\..'].filter(path => refused(() => fs.list(path))) ==> []
    ['..', '../x', 'a/../b', 'a/./b', 'x/../../y', '/../x', 'x.', 'x..', '...', 'x./ab', 'a/b/../..', 'ab/b/../../..',
     'ab/././x', 'a//..', '/a/../..', '..\\x', 'a\\..', '\\..\\x', 'x/\\..', 'ab/cd\\..\\..\\..',
     // Inside where a backslash separates, outside where it does not.
     'aa\\bb/../../x', 'aa\\bb/../..', 'aa\\bb/../..\\', 'aa\\bb/../../', 'aa\\bb\\cc/../x/../..',
    ].filter(path => !refused(() => fs.list(path))) ==> []
    // `..\` is a name like any other where the backslash stays, and a step up where it is cut off: only load keeps it.
    fail(() => fs.load('aa\\bb/../..\\')).slice(0, 20) ==> "Failed to open file:"
    refused(() => fs.stat('aa\\bb/../..\\'))       ==> true
    [fs.stat('file/\\/').type, fs.list('file/')]   ==> ["file",[]]
    fail(() => fs.load('file/')).endsWith('/file/ Not a directory') ==> true
  )js");
}

TEST_F(FsTest, RefusesWrongArguments) {
  folder.Write("one", "1");
  RunTable(R"js(
    [[], [''], [undefined], [null], ['\0x'], ['../x'], ['a/./b'], [[]], [{toString() { throw 1; }}], [Symbol()]].filter(
      a => ['stat', 'list', ...loaders].some(method => !refused(() => fs[method](...a)))) ==> []
    loaders.filter(method => !refused(() => fs[method]('one', undefined))) ==> []
    [fs.stat('one', 2).type, fs.list('one', 2)]    ==> ["file",[]]
    [fs.loadJSON({toString() { return 'one'; }}), fs.loadJSON('one\0../x')] ==> [1,1]
  )js");
}

TEST_F(FsTest, StatDescribesFilesAndFolders) {
  folder.Write("file", "12345");
  folder.Write("large", "");
  files::resize_file(dir() + "large", (uint64_t{1} << 32) + 7);
  files::create_symlink("nowhere", dir() + "dangling");
  RunTable(R"js(
    fs.stat('file')                                ==> {"type":"file","size":5}
    fs.stat('/\\/file')                            ==> {"type":"file","size":5}
    fs.stat('large').size                          ==> 7
    ['storage', '/', '.'].map(fs.stat)             ==> [{"type":"dir"},{"type":"dir"},{"type":"dir"}]
    ['missing', 'dangling', '/etc/passwd'].filter(fs.stat) ==> []
    // Only list keeps a separator at the beginning, which then is the character that belongs to no segment.
    refused(() => fs.stat('/a/..'))                ==> true
    Object.defineProperty(Object.prototype, 'type', {set() { throw 1; }, configurable: true});
    fs.stat('file')                                ==> {"type":"file","size":5}
  )js");
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
  for (const char* name : {"b", "a", ".hidden", "c d", "\xC3\xA4", "\xFF"})
    folder.Write(std::string("sub/") + name, "");
  RunTable(R"js(
    fs.list('sub').sort()                          ==> [".hidden","a","b","c d","ä","�"]
    ['/', '.'].map(path => fs.list(path).sort())   ==> [["storage","sub"],["storage","sub"]]
    [fs.list('/sub/').length, fs.list('sub/a'), fs.list('storage'), fs.list('missing')] ==> [6,[],[],null]
    Object.defineProperty(Array.prototype, 0, {set() { throw 1; }, configurable: true});
    fs.list('sub').length                          ==> 6
  )js");
}

TEST_F(FsTest, LoadersGiveBytesTextAndJson) {
  std::string bytes;
  for (int i = 255; i >= 0; --i) bytes += static_cast<char>(i);
  folder.Write("bytes", bytes);
  folder.Write("text", std::string("\xE2\x82\xAC\xF0\x9F\x92\xA1 \xFF\0rest", 14));
  folder.Write("bom", "\xEF\xBB\xBFx");
  folder.Write("empty", "");
  folder.Write("json", std::string("[1, null]\0]", 11));
  folder.Write("bad", "{a: 1}");
  files::create_symlink("loop", dir() + "loop");
  RunTable(R"js(
    var s = fs.load('bytes'); [s.length, Array.from(s).every((c, i) => c.charCodeAt(0) === 255 - i)] ==> [256,true]
    fs.load('text').length                         ==> 14
    fs.loadText('text')                            ==> "€💡 �"
    fs.loadText('bom').length                      ==> 2
    ['empty', 'storage', '/'].map(path => fs.load(path) + fs.loadText(path)).join('') ==> ""
    fs.loadJSON('json')                            ==> [1,null]
    fs.loadJSON('bad')                             ==> Uncaught SyntaxError: Unexpected token a in JSON at position 1
    ['empty', 'storage'].map(path => fail(() => fs.loadJSON(path))).filter(m => m !== 'Unexpected end of JSON input')
        ==> []
    var reason = (load, path) => fail(() => fs[load](path)).replace(/\/.*vnjs-\w+/, '');
    var reasons = path => new Set(loaders.map(load => reason(load, path))); ==> undefined
    [...reasons('/missing')]                       ==> ["Failed to open file: /missing No such file or directory"]
    [...reasons('ab/../missing')]                  ==> ["Failed to open file: /ab/../missing No such file or directory"]
    [...reasons('loop')]                           ==> ["Failed to open file: /loop Too many levels of symbolic links"]
  )js");
}

TEST_F(FsTest, LargeFilesAreStringsLikeAllOthers) {
  MakeAgain(512 << 20, 256 << 20);
  // At the size from which on the content stays outside of the heap, and on both sides of it.
  for (const int size : {(16 << 20) - 1, 16 << 20}) {
    std::string text = "\"" + std::string(static_cast<size_t>(size - 4), 'x') + "y\"\n";
    folder.Write("json", text);
    text[0] = '\xE4';
    folder.Write("latin", text);
    RunTable(R"js(
      var j = fs.loadText('json'), l = fs.load('latin'), u = fs.loadText('latin'), end = j.length - 3;
      [j === fs.load('json'), fs.loadJSON('json') === j.slice(1, -2), [l, u].every(s => s.slice(1) === j.slice(1))]
          ==> [true,true,true]
      [l.charCodeAt(0), u.charCodeAt(0), ({[j]: 1})[j], (j + l).indexOf('y"') - end, /y/.exec(l).index - end]
        ==> [228,65533,1,0,0]
    )js");
    EXPECT_EQ(Run("[j.length, l.length, u.length].every(length => length === " + std::to_string(size) + ")"),
              "true");
  }
}

TEST_F(FsTest, LargeFilesAreHeldOnceAndNotForLong) {
  // In megabytes, inside of the engine's heap and outside.
  const auto memory = [&] {
    const Inside inside(environment());
    v8::HeapStatistics statistics;
    inside.isolate->GetHeapStatistics(&statistics);
    return std::pair(statistics.used_heap_size() >> 20,
                     inside.isolate->AdjustAmountOfExternalAllocatedMemory(0) >> 20);
  };
  MakeAgain(64 << 20, 256 << 20);
  folder.Write("large", std::string(32 << 20, 'x'));
  Run("var bytes = fs.load('large'); var text = fs.loadText('large'); 0");
  auto [inside, outside] = memory();
  EXPECT_LT(inside, 16u);
  EXPECT_EQ(outside, 64);

  Run("for (var i = 0; i < 20; i++) { fs.load('large'); fs.loadText('large'); } 0");
  std::tie(inside, outside) = memory();
  EXPECT_LT(inside, 16u);
  EXPECT_LE(outside, 256 + 32);
  Run("bytes = text = null");
  CollectGarbage(environment());
  EXPECT_EQ(memory().second, 0);
}

TEST_F(FsTest, AFileThatNoStringCanHoldIsRefused) {
  MakeAgain(64 << 20, SIZE_MAX);
  folder.Write("huge", "");
  files::resize_file(dir() + "huge", v8::String::kMaxLength + uint64_t{1});
  EXPECT_EQ(Fail("fs.load('huge')"), "Uncaught Error: File is too large: " + dir() + "huge");
}

}  // namespace
}  // namespace vnjs::testing
