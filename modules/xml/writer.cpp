#include "modules/xml/writer.h"

#include <libxml/encoding.h>
#include <libxml/xmlIO.h>
#include <libxml/xmlsave.h>

#include <algorithm>
#include <exception>
#include <map>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "bridge/memory_budget.h"
#include "bridge/native.h"

namespace vnjs {

namespace {

/// How much is written between two looks at the memory that is left.
constexpr size_t kBytesBetweenLooks = 1024 * 1024;

struct FreeEncoder {
  void operator()(xmlCharEncodingHandler* encoder) const { xmlCharEncCloseFunc(encoder); }
};
using EncoderPointer = std::unique_ptr<xmlCharEncodingHandler, FreeEncoder>;

struct FreeBuffer {
  void operator()(xmlBuffer* buffer) const { xmlBufferFree(buffer); }
};

bool IsAscii(char c) { return (c & 0x80) == 0; }

/// A letter in an encoding; a reference where that does not have it.
std::string Encode(xmlCharEncodingHandler* encoder, const std::string& letter) {
  const std::unique_ptr<xmlBuffer, FreeBuffer> in(xmlBufferCreate());
  const std::unique_ptr<xmlBuffer, FreeBuffer> out(xmlBufferCreate());
  if (in == nullptr || out == nullptr) throw std::bad_alloc();
  xmlBufferAdd(in.get(), ToXml(letter.data()), static_cast<int>(letter.size()));
  xmlCharEncOutFunc(encoder, out.get(), in.get());
  const int size = xmlBufferLength(out.get());
  return size > 0 ? std::string(FromXml(xmlBufferContent(out.get())), static_cast<size_t>(size)) : " ";
}

/// Where libxml2 writes to, some kilobytes at a time.
class Output {
 public:
  explicit Output(Environment* environment) : m_environment(environment) {}

  /// None when libxml2 cannot write in that encoding, or was stopped by an interrupt.
  std::optional<std::string> Write(xmlDoc* doc, const char* encoding) {
    xmlCharEncodingHandler* const encoder =
        encoding == nullptr ? nullptr : xmlFindCharEncodingHandler(encoding);
    if (encoding != nullptr && encoder == nullptr) return std::nullopt;
    m_buffer = xmlOutputBufferCreateIO(Take, nullptr, this, encoder);
    if (m_buffer == nullptr) throw std::bad_alloc();
    // Which frees the buffer.
    xmlSaveFormatFileTo(m_buffer, doc, encoding, 1);
    return Finish();
  }

  /// Puts a reference in the place of each letter beyond ASCII, as libxml2 does for letters that an encoding does not
  /// have, but that takes it the square of their number. The text as it was when the encoding has one of them.
  std::optional<std::string> WriteReferences(const std::string& text, xmlCharEncodingHandler* encoder,
                                             const std::string& encoding) {
    constexpr std::string_view kDeclared = "encoding=\"UTF-8\"";
    const size_t declared = text.find(kDeclared);
    std::map<std::string, std::string> references;
    bool goesOn = Take(text.data(), declared) && Take("encoding=\"", 10) &&
                  Take(encoding.data(), encoding.size()) && Take("\"", 1);
    for (size_t i = declared + kDeclared.size(); goesOn && i < text.size();) {
      size_t end = i;
      while (end < text.size() && IsAscii(text[end])) ++end;
      if (end > i) {
        goesOn = Take(text.data() + i, end - i);
      } else {
        while (++end < text.size() && (text[end] & 0xC0) == 0x80) continue;
        std::string& reference = references[text.substr(i, end - i)];
        if (reference.empty()) reference = Encode(encoder, text.substr(i, end - i));
        if (reference.compare(0, 2, "&#") != 0) return text;
        goesOn = Take(reference.data(), reference.size());
      }
      i = end;
    }
    return Finish();
  }

 private:
  std::optional<std::string> Finish() {
    if (m_failure != nullptr) std::rethrow_exception(m_failure);
    if (m_isInterrupted) return std::nullopt;
    return std::move(m_text);
  }

  static int Take(void* self, const char* bytes, int length) {
    auto* const output = static_cast<Output*>(self);
    // libxml2 stops then. Were it to find an error itself, it would report one.
    if (!output->Take(bytes, static_cast<size_t>(length))) output->m_buffer->error = 1;
    return length;
  }

  /// No exception may pass libxml2.
  bool Take(const char* bytes, size_t length) noexcept {
    try {
      m_isInterrupted = m_isInterrupted || IsInterrupted(m_environment);
      if (m_isInterrupted || m_failure != nullptr) return false;
      if (m_text.size() + length > m_fits) {
        m_fits = m_text.size() + length + kBytesBetweenLooks;
        // Once more for the script.
        RequireMemoryBriefly(m_environment, 2 * m_fits);
      }
      m_text.append(bytes, length);
    } catch (...) {
      m_failure = std::current_exception();
    }
    return m_failure == nullptr;
  }

  Environment* const m_environment;
  xmlOutputBuffer* m_buffer = nullptr;
  std::string m_text;
  size_t m_fits = kBytesBetweenLooks;
  std::exception_ptr m_failure;
  bool m_isInterrupted = false;
};

}  // namespace

std::optional<std::string> WriteXml(Environment* environment, const Tree& tree) {
  xmlDoc* const doc = tree.doc();
  const char* const encoding = FromXml(doc->encoding);
  if (encoding == nullptr || xmlParseCharEncoding(encoding) == XML_CHAR_ENCODING_UTF8) {
    return Output(environment).Write(doc, encoding);
  }
  const EncoderPointer encoder(xmlFindCharEncodingHandler(encoding));
  if (encoder == nullptr) return std::nullopt;
  std::optional<std::string> text = Output(environment).Write(doc, "UTF-8");
  // Its declared encoding may have no form for a name.
  if (!text.has_value() || tree.HasForeignNames()) return text;
  if (std::all_of(text->begin(), text->end(), IsAscii)) {
    std::optional<std::string> declared = Output(environment).Write(doc, encoding);
    return declared.has_value() && xmlCheckUTF8(ToXml(declared->c_str())) == 0 ? text : declared;
  }
  return Output(environment).WriteReferences(*text, encoder.get(), encoding);
}

}  // namespace vnjs
