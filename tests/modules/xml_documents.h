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
     {"//item/title", "//w:forecast/@high", "//item[category]/w:wind/@*", "//item/description/text()",
      "/processing-instruction()", "rss/channel/place:*", "//item[5]"},
     {"count(//item)", "sum(//w:wind/@mean) div count(//w:wind)", "boolean(//w:wind[@gusts > 20])",
      "string(//item[w:rain/@probability > 50][last()]/title)", "string-length(//item[2]/description)",
      "number(//item[1]/title)", "translate(//link[1], ':/?', '---')"}},
    {"soap_answer.xml",
     {{"e", "http://schemas.xmlsoap.org/soap/envelope/"},
      {"m", "urn:example:metering:2"},
      {"f", "urn:example:fault:1"},
      {"i", "http://www.w3.org/2001/XMLSchema-instance"}},
     {"/e:Envelope/e:Body/m:GetReadingsResponse/m:Meter", "//m:Meter/@serial", "//m:Reading[@i:nil]/@at",
      "//f:Fault/f:Text[lang('de')]", "//f:Fault/Details/*", "//Meter", "//@e:mustUnderstand",
      "/*/namespace::xsd", "//m:Signature/namespace::ds"},
     {"number(//m:Meter[1]/m:Reading[last()]) - number(//m:Meter[1]/m:Reading[1])",
      "normalize-space(//m:Signature)", "name(//m:Meter[2])", "namespace-uri(//f:Text)",
      "count(//m:Reading[not(@i:type)])", "string(//m:Meter[@medium='water']/m:Location)"}},
    {"calendar.xml",
     {{"c", "urn:ietf:params:xml:ns:icalendar-2.0"}},
     {"//c:vevent/c:properties/c:summary/c:text", "//c:vevent[.//c:categories[c:text='lights']]//c:date-time",
      "//c:vevent[.//c:freq]//c:uid/c:text/text()", "//c:exdate/c:date", "//c:vtodo/c:properties/*"},
     {"string(//c:description[contains(., 'Edda')])", "count(//c:vevent[not(.//c:valarm)])",
      "substring-before(//c:vtodo//c:uid, '@')", "//c:percent-complete > 20", "string(//c:x-wr-calname)",
      "contains(., '\r')"}},
    {"floor_plan.svg",
     {{"s", "http://www.w3.org/2000/svg"}, {"x", "http://www.w3.org/1999/xlink"}, {"p", "urn:example:plan"}},
     {"//s:g[@class='room']/@id", "//s:use[contains(@class, ' on')]/@p:device", "//s:a/@x:*",
      "//s:text//text()", "//s:g[s:text='Living room']/s:use", "//comment()", "//s:style", "id('hall')"},
     {"string((//s:path)[3]/@d)", "count(//s:use[@x:href='#lamp'])", "sum(//s:use/@x)", "round(-2.5)",
      "string(//s:g[@id='living']/@p:sensor)", "//s:stop/@stop-opacity * 2"}},
    {"device.xml",
     {{"d", "urn:example:device:1-0"}, {"v", "urn:example:vendor-extension"}},
     {"//d:device/d:friendlyName", "//d:service[d:eventSubURL != '']/d:serviceId", "//v:firmware/@*",
      "//d:icon[d:width > 100]/*", "//v:point[@raw >= 20]", "//d:eventSubURL[not(node())]", "//point"},
     {"count(//d:service)", "number(//d:formatVersion/d:major)", "string(//d:serialNumber)",
      "//v:calibration/@offset + 0", "sum(//v:point/@raw) - sum(//v:point)", "string(//v:firmware/@quoted)"}},
    {"news.atom",
     {{"a", "http://www.w3.org/2005/Atom"}, {"h", "http://www.w3.org/1999/xhtml"}},
     {"//a:entry/a:title", "//a:entry[lang('ja')]/a:summary/text()", "//h:td", "//h:p/node()",
      "//a:entry[a:category/@term='warning']/a:link/@href", "//@type", "//h:img/@alt", "/a:feed/@xml:base"},
     {"string-length(//a:entry[3]/a:title)", "substring(//a:entry[2]/a:title, 1, 5)", "count(//a:*)",
      "string(//a:entry[4]/a:summary)", "string(//a:subtitle)", "count(//*[not(self::a:*)])"}},
    {"house_rules.xml",
     {},
     {"//rule/@id", "id('frost quotes')/then", "id(//rule/@after)", "//comment()", "//device/@name",
      "//by | //at", "//processing-instruction('editor')", "//rule[@enabled='no']/then/node()", "//when",
      "//then/text()", "/rules/@units", "/rules/note/node()"},
     {"string(//rule[@id='storm']/then)", "sum(//rule/@priority)", "count(//rule[not(@enabled)])",
      "string(/rules/note)", "string(//rule[@id='quotes'])", "count(//text())", "string(/rules/@house)"}},
    {"stromtarife.xml",
     {},
     {"//tarif/@kürzel", "//versorger[.//arbeitspreis]/name", "//tarif[@laufzeit <= 1]/bezeichnung",
      "//hinweis/text()", "//stunde[starts-with(., '−')]/@h", "//*[contains(., 'ß')]",
      "/tarifliste/@gültigFür"},
     {"string-length(//zeichen)", "string(//zeichen)", "translate(//versorger[2]/name, 'Üüß', 'UuS')",
      "count(//versorger[not(tarif)])", "number(translate(//grundpreis[1], ',', '.')) * 2",
      "substring-after((//tarif)[4]/bezeichnung, '⚡')", "//@währung = 'EUR'"}},
    {"manual.xml",
     {},
     {"//p[lang('de')]", "//*[lang('en')]/@*", "//p/node()", "//screen/node()", "//item", "//item/node()",
      "//inner/*", "//index/text()", "//q"},
     {"string(/manual/chapter[2]/screen)", "normalize-space(//chapter[1])", "count(//text())",
      "string(//p[2])", "string-length(//index)", "//part/@no = 4"}},
    {"gateway_config.xml",
     {},
     {"//d[@s != 'ok']/@n", "//d[@t='shutter']/@*", "//d[number(@v) > 20]", "//scene[@visible=1]/@name",
      "/gateway/*/@*[. = '']", "//links/l/@e", "//spaces/@*", "//names/@*"},
     {"count(//@*)", "count(//d) = //devices/@count", "sum(//d[@t='probe']/@v)", "string(//logging/@format)",
      "name(//d[9]/@*[6])", "string(//scene[4]/@name)", "number(//radio/@power) mod 2"}},
};

}  // namespace vnjs::testing
