// XML of the kind that users meet: a script that reads, writes or finds something else in it than an independent
// reader of the same file, xmllint.
#include <sys/wait.h>
#include <vnjs/process.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "tests/modules/xml_documents.h"
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using ::testing::EndsWith;
using ::testing::StartsWith;

/// What a script sees: elements by name and content, everything else by content.
const char kReader[] = R"(
  function read(file) { return new VXmlDocument(fs.loadText(file)); }
  function show(n) { return typeof n === 'string' ? ':' + n : n.name + ':' + n.findOne('string()'); }
  function list(nodes, show) { return [nodes.length].concat(nodes.map(show)).join('|'); }
  function below(node) { return [node].concat(...(node.children || []).map(below)); }
  function attributes(node) { return Object.keys(node.attributes || {}).map(name => node.attributes[name]); }
)";

/// A text of these files as JSON.stringify writes it.
std::string Json(std::string text) {
  for (const auto& [character, escape] :
       {std::pair("\\\\", R"(\\)"), {"\"", R"(\")"}, {"\n", "\\n"}, {"\t", "\\t"}, {"\r", "\\r"}})
    text = std::regex_replace(text, std::regex(character), escape);
  return '"' + text + '"';
}

class XmlRealInputTest : public ScriptTest {
 protected:
  void SetUp() override {
    for (const auto& file : std::filesystem::directory_iterator(VNJS_TEST_DATA)) {
      std::filesystem::copy(file.path(), dir());
    }
    Run(kReader);
  }
};

class XmlAgainstXmllintTest : public XmlRealInputTest {
 protected:
  void SetUp() override {
    XmlRealInputTest::SetUp();
    if (Xmllint({"--version"}) == 127) GTEST_SKIP() << "xmllint is not installed: ./dev setup";
  }

  /// Its exit status. What it writes is in `.out` and `.err`.
  int Xmllint(const std::vector<std::string>& arguments) {
    std::string command = "cd " + dir() + "; exec >.out 2>.err; XMLLINT_INDENT='  ' exec xmllint --nonet";
    for (const std::string& argument : arguments)
      command += " '" + std::regex_replace(argument, std::regex("'"), "'\\''") + "'";
    return WEXITSTATUS(pclose2(popen2(command.c_str(), nullptr, nullptr), 0, 0));
  }

  /// What it writes about a file that it reads as scripts do.
  std::string Ask(const std::string& file, std::vector<std::string> question) {
    question.insert(question.end(), {"--noent", "--noblanks", "--nocdata", file});
    EXPECT_EQ(Xmllint(question), 0) << question[1] << "\n" << folder.Read(".err");
    return folder.Read(".out");
  }

  /// An expression's value as XPath makes a string of it.
  std::string Value(const std::string& file, const std::string& expression) {
    std::string line = Ask(file, {"--xpath", "string(" + expression + ")"});
    if (!line.empty()) line.pop_back();
    return line;
  }

  /// What `list` shows of a node-set, made by XPath alone.
  std::string List(const std::string& file, const std::string& nodes) {
    const std::string count = Value(file, "count(" + nodes + ")");
    std::string list = "concat('" + count + "', ''";
    for (int i = 1; i <= std::atoi(count.c_str()); ++i) {
      const std::string node = "(" + nodes + ")[" + std::to_string(i) + "]";
      list.append(", '|', local-name(").append(node).append("[self::*]), ':', ").append(node);
    }
    return Value(file, list + ")");
  }
};

std::string Read(const Document& document) { return "read('" + std::string(document.file) + "')"; }

/// The same question without prefixes, for a reader that knows none.
std::string WithoutPrefixes(std::string expression, const Document& document) {
  for (const auto& [prefix, uri] : document.namespaces) {
    const std::string inside = std::string("namespace-uri()='") + uri + "'";
    const std::string name = "\\b" + std::string(prefix) + ":";
    expression = std::regex_replace(expression, std::regex(name + "\\*"), "*[" + inside + "]");
    expression = std::regex_replace(expression, std::regex(name + "([a-zA-Z][\\w-]*)"),
                                    "*[local-name()='$1' and " + inside + "]");
  }
  return expression;
}

TEST_F(XmlAgainstXmllintTest, WritesWhatItFormats) {
  for (const Document& document : kDocuments) {
    EXPECT_EQ(Run(Read(document) + ".toString()"), Json(Ask(document.file, {"--format"}))) << document.file;
  }
}

TEST_F(XmlAgainstXmllintTest, MeetsTheSameElementsOnAWalk) {
  for (const Document& document : kDocuments) {
    const std::string file = document.file;
    Run("var all = below(" + Read(document) + ".root)");
    EXPECT_EQ(Run("list(all, show)"), Json(List(file, "//*"))) << file;
    EXPECT_EQ(Run("list([].concat(...all.map(attributes)), show)"), Json(List(file, "//@*"))) << file;
    EXPECT_EQ(Run("list(all.filter(n => n.text !== undefined), n => n.name + ':' + n.text)"),
              Json(List(file, "//*[not(*)]")))
        << file;
  }
}

TEST_F(XmlAgainstXmllintTest, FindsTheSame) {
  for (const Document& document : kDocuments) {
    std::string map;
    for (const auto& [prefix, uri] : document.namespaces) map += prefix + (": '" + std::string(uri)) + "', ";
    Run("var doc = " + Read(document) + ", map = {" + map + "};");
    for (const std::string question : document.nodes) {
      const std::string asked = Json(question) + ", map)";
      const std::string nodes = WithoutPrefixes(question, document);
      EXPECT_EQ(Run("list(doc.findAll(" + asked + ", show)"), Json(List(document.file, nodes))) << question;
      EXPECT_EQ(Run("list([doc.findOne(" + asked + "].filter(n => n !== null), show)"),
                Json(List(document.file, "(" + nodes + ")[1]")))
          << question;
    }
    for (const std::string question : document.values) {
      const std::string asked = Json(question) + ", map)";
      const std::string value = Json(Value(document.file, WithoutPrefixes(question, document)));
      EXPECT_EQ(Run("doc.findOne(" + asked), value) << question;
      EXPECT_EQ(Run("doc.findAll(" + asked), "[" + value + "]") << question;
    }
  }
}

TEST_F(XmlAgainstXmllintTest, StopsAtTheSameFault) {
  ASSERT_NE(Xmllint({"broken_page.html"}), 0);
  const std::string faults = folder.Read(".err");
  std::smatch last;
  ASSERT_TRUE(std::regex_search(faults, last,
                                std::regex(R"([^]*\nbroken_page\.html:(\d+): parser error : ([^\n]+\n))")));
  const std::string message = Run("try { read('broken_page.html') } catch (e) { e.message }");
  EXPECT_THAT(message, StartsWith("\"XML error at line " + last.str(1) + ", col "));
  const std::string end = Json(": " + last.str(2)).substr(1);
  EXPECT_THAT(message, EndsWith(end));
}

TEST_F(XmlRealInputTest, ASecondParseChangesNothing) {
  for (const Document& document : kDocuments) {
    Run("var first = " + Read(document) + ", text = first.toString(), second = new VXmlDocument(text);");
    EXPECT_EQ(Run("second.toString() === text || second.toString()"), "true") << document.file;
    EXPECT_EQ(Run("JSON.stringify(second.root) === JSON.stringify(first.root)"), "true") << document.file;
  }
}

}  // namespace
}  // namespace vnjs::testing
