// fs: paths that must not leave the storage directory, bytes that must come back as they are, and what
// scripts see of files that are missing, strange or large.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
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

TEST_F(FsTest, RefusesPathsThatClimbOutAndOtherArguments) {
  // So that the kernel would follow the paths that backslashes make look harmless.
  files::create_directories(dir() + "aa\\bb\\cc");
  files::create_directories(dir() + "aa\\bb");
  folder.Write("file", "text");
  RunTable(R"js(
    ['a/b', 'ab/../c', '.', './x', '/x', 'ab/./c', 'x...', '....', 'a/b/..', 'ab/b/../..', 'a/.../x', 'a/..b/.', 'a/b.',
     '///', '//ab//..//', '/a/..', '\\', 'ab\\.\\x', 'ab/cd\\..\\..', 'aa\\bb/../\\..'].filter(
      path => refused(() => fs.list(path)))        ==> []
    ['..', '../x', 'a/../b', 'a/./b', 'x/../../y', '/../x', 'x.', 'x..', '...', 'x./ab', 'ab/b/../../..', 'ab/././x',
     'a//..', '..\\x', 'a\\..', '\\..\\x', 'x/\\..', 'ab/cd\\..\\..\\..',
     // Inside where a backslash separates, outside where it does not.
     'aa\\bb/../../x', 'aa\\bb/../..\\', 'aa\\bb\\cc/../x/../..'].filter(path => !refused(() => fs.list(path))) ==> []
    fail(() => fs.stat('x'.repeat(1e6)))           ==> "File name too long"
    // `..\` is a name like any other where the backslash stays, and a step up where it is cut off: only load keeps it.
    fail(() => fs.load('aa\\bb/../..\\')).slice(0, 20) ==> "Failed to open file:"
    refused(() => fs.stat('aa\\bb/../..\\'))       ==> true
    // Only list keeps a separator at the beginning, which then is the character that belongs to no segment.
    refused(() => fs.stat('/a/..'))                ==> true
    [fs.stat('/\\/file/\\/').type, fs.list('file/')] ==> ["file",[]]
    fail(() => fs.load('file/')).endsWith('/file/ Not a directory') ==> true
    [[], [''], [null], ['\0x'], ['../x'], [{toString() { throw 1; }}]].filter(
      a => ['stat', 'list', ...loaders].some(method => !refused(() => fs[method](...a)))) ==> []
    loaders.filter(method => !refused(() => fs[method]('file', undefined))) ==> []
    [fs.stat('file', 2).type, fs.list('file', 2), fs.loadText('file\0../x')] ==> ["file",[],"text"]
    [String(fs), fs.constructor.name]              ==> ["[object VFileSystem]","VFileSystem"]
    var names = []; for (var n in fs) names.push(n); names ==> ["list","stat","loadJSON","load","loadText"]
    names.every(n => fs[n].name === n && !('prototype' in fs[n])) ==> true
  )js");
}

TEST_F(FsTest, DescribesFilesAndFolders) {
  files::create_directory(dir() + "sub");
  for (const char* name : {"a", ".hidden", "c d", "\xC3\xA4", "\xFF"})
    folder.Write(std::string("sub/") + name, "12345");
  folder.Write("large", "");
  files::resize_file(dir() + "large", (uint64_t{1} << 32) + 7);
  files::create_symlink("nowhere", dir() + "dangling");
  // Later than 32 bits of seconds go.
  folder.Write("late", "late");
  ASSERT_EQ(system(("touch -d @9000000000 " + dir() + "late").c_str()), 0);
  RunTable(R"js(
    for (const place of [Object, Array]) for (const name of ['type', 0])
      Object.defineProperty(place.prototype, name, {set() { throw 1; }, configurable: true}); 0 ==> 0
    fs.stat('sub/a')                               ==> {"type":"file","size":5}
    fs.stat('large').size                          ==> 7
    [fs.stat('late'), fs.loadText('late')]         ==> [{"type":"file","size":4},"late"]
    ['storage', '/'].map(fs.stat)                  ==> [{"type":"dir"},{"type":"dir"}]
    ['missing', 'dangling', '/etc/passwd'].filter(fs.stat).length ==> 0
    Array.from(fs.list('sub')).sort()              ==> [".hidden","a","c d","ä","�"]
    [fs.list('/sub/').length, fs.list('.').length, fs.list('sub/a'), fs.list('missing')] ==> [5,5,[],null]
  )js");
}

TEST_F(FsTest, StatIsBlindToWhatCannotBeRead) {
  folder.Write("closed", "1");
  files::permissions(dir(), files::perms(0755));
  files::permissions(dir() + "closed", files::perms::none);
  // What may be read goes by the real user, who may be root here.
  const uid_t user = getuid();
  ASSERT_EQ(setreuid(user == 0 ? 65534 : user, static_cast<uid_t>(-1)), 0);
  const std::string result = Run("[fs.stat('storage'), fs.stat('closed'), fs.list('closed')]");
  ASSERT_EQ(setreuid(user, static_cast<uid_t>(-1)), 0);
  EXPECT_EQ(result, R"([{"type":"dir"},null,[]])");
}

TEST_F(FsTest, LoadersGiveBytesTextAndJson) {
  std::string bytes;
  for (int i = 255; i >= 0; --i) bytes += static_cast<char>(i);
  folder.Write("bytes", bytes);
  folder.Write("text", std::string("\xE2\x82\xAC\xF0\x9F\x92\xA1 \xFF\0rest", 14));
  folder.Write("bom", "\xEF\xBB\xBFx");
  ASSERT_EQ(mkfifo((dir() + "pipe").c_str(), 0600), 0);
  RunTable(R"js(
    var s = fs.load('bytes'); [s.length, Array.from(s).every((c, i) => c.charCodeAt(0) === 255 - i)] ==> [256,true]
    [fs.loadText('text'), fs.load('text').length, fs.loadText('bom').length] ==> ["€💡 �",14,2]
    fs.load('storage') + fs.loadText('storage')    ==> ""
    fs.loadJSON('storage')                         ==> Uncaught SyntaxError: Unexpected end of JSON input
    fs.load('pipe') + fs.loadText('pipe') + executeFile('pipe') ==> "undefined"
    loaders.map(load => fail(() => fs[load]('ab/../no')).replace(/\/.*vnjs-\w+/, '')).filter(
      message => message !== 'Failed to open file: /ab/../no No such file or directory') ==> []
  )js");
}

TEST_F(FsTest, LargeFilesAreStringsLikeAllOthersOutsideOfTheHeap) {
  MakeAgain(64 << 20, SIZE_MAX);
  std::string text = "\"" + std::string((16 << 20) - 4, 'x') + "y\"\n";
  folder.Write("json", text);
  text[0] = '\xE4';
  folder.Write("latin", text);
  RunTable(R"js(
    var j = fs.loadText('json'), l = fs.load('latin'), end = j.length - 3; ==> undefined
    [j === fs.load('json'), fs.loadJSON('json') === j.slice(1, -2), l.slice(1) === j.slice(1)] ==> [true,true,true]
    [l.charCodeAt(0), ({[j]: 1})[j], l.lastIndexOf('y') - end] ==> [228,1,0]
  )js");
  EXPECT_LT(UsedHeap(), 16u << 20);
  EXPECT_EQ(UsedOutside(), 32 << 20);
  Run("j = l = null");
  EXPECT_EQ(UsedOutside(), 0);
  files::resize_file(dir() + "json", v8::String::kMaxLength + uint64_t{1});
  EXPECT_EQ(Fail("fs.load('json')"), "Uncaught Error: File is too large: " + dir() + "json");
}

}  // namespace
}  // namespace vnjs::testing
