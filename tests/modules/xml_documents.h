#pragma once

#include <utility>
#include <vector>

namespace vnjs::testing {

/// What to ask of a file in tests/data. The prefixes are the questions' own: only the namespaces' names are the file's.
struct Document {
  const char* file;
  std::vector<std::pair<const char*, const char*>> namespaces;
  std::vector<const char*> nodes;   ///< expressions whose result is a node-set, in document order
  std::vector<const char*> values;  ///< expressions whose result is a boolean, a number or a string
};

inline const std::vector<Document> kDocuments = {
    {"weather.rss",
     {{"w", "http://weather.example.org/ns/2"}, {"place", "http://weather.example.org/ns/place"}},
     {"//item[category]/w:wind/@*", "//item/description/text()", "/processing-instruction()",
      "rss/channel/place:*", "//item[5]"},
     {"sum(//w:wind/@mean) div count(//w:wind)", "boolean(//w:wind[@gusts > 20])",
      "number(//item[1]/title)"}},
    {"soap_answer.xml",
     {{"e", "http://schemas.xmlsoap.org/soap/envelope/"},
      {"m", "urn:example:metering:2"},
      {"f", "urn:example:fault:1"},
      {"i", "http://www.w3.org/2001/XMLSchema-instance"}},
     {"/e:Envelope/e:Body/m:GetReadingsResponse/m:Meter", "//m:Reading[@i:nil]/@at", "//f:Fault/Details/*",
      "//Meter", "//@e:mustUnderstand", "/*/namespace::xsd"},
     {"normalize-space(//m:Signature)", "name(//m:Meter[2])", "namespace-uri(//f:Text)"}},
    {"calendar.xml",
     {{"c", "urn:ietf:params:xml:ns:icalendar-2.0"}},
     {"//c:vevent[.//c:categories[c:text='lights']]//c:date-time",
      "//c:vevent[.//c:freq]//c:uid/c:text/text()"},
     {"string(//c:description[contains(., 'Edda')])", "//c:percent-complete > 20", "contains(., '\r')"}},
    {"floor_plan.svg",
     {{"s", "http://www.w3.org/2000/svg"}, {"x", "http://www.w3.org/1999/xlink"}, {"p", "urn:example:plan"}},
     {"//s:use[contains(@class, ' on')]/@p:device", "//s:text//text()", "//comment()", "//s:style",
      "id('hall')"},
     {"string((//s:path)[3]/@d)", "sum(//s:use/@x)", "round(-2.5)", "//s:stop/@stop-opacity * 2"}},
    {"device.xml",
     {{"d", "urn:example:device:1-0"}, {"v", "urn:example:vendor-extension"}},
     {"//d:service[d:eventSubURL != '']/d:serviceId", "//v:firmware/@*", "//d:eventSubURL[not(node())]"},
     {"number(//d:formatVersion/d:major)", "//v:calibration/@offset + 0", "string(//v:firmware/@quoted)"}},
    {"news.atom",
     {{"a", "http://www.w3.org/2005/Atom"}, {"h", "http://www.w3.org/1999/xhtml"}},
     {"//a:entry[lang('ja')]/a:summary/text()", "//h:p/node()", "//@type", "/a:feed/@xml:base"},
     {"substring(//a:entry[2]/a:title, 1, 5)", "string(//a:subtitle)", "count(//*[not(self::a:*)])"}},
    {"house_rules.xml",
     {},
     {"id('frost quotes')/then", "id(//rule/@after)", "//comment()", "//by | //at",
      "//processing-instruction('editor')", "//rule[@enabled='no']/then/node()", "/rules/@units"},
     {"string(/rules/note)", "string(//rule[@id='quotes'])", "count(//text())", "string(/rules/@house)"}},
    {"stromtarife.xml",
     {},
     {"//tarif/@kürzel", "//hinweis/text()", "//*[contains(., 'ß')]", "/tarifliste/@gültigFür"},
     {"string-length(//zeichen)", "string(//zeichen)", "//@währung = 'EUR'"}},
    {"manual.xml",
     {},
     {"//*[lang('en')]/@*", "//p/node()", "//screen/node()"},
     {"count(//text())", "string(//p[2])"}},
    {"gateway_config.xml",
     {},
     {"//d[@s != 'ok']/@n", "/gateway/*/@*[. = '']", "//spaces/@*", "//names/@*"},
     {"count(//@*)", "string(//logging/@format)", "name(//d[9]/@*[6])", "number(//radio/@power) mod 2"}},
};

}  // namespace vnjs::testing
