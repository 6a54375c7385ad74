#include "modules/xml/writer.h"

#include <libxml/encoding.h>
#include <libxml/xmlIO.h>
#include <libxml/xmlsave.h>

#include <exception>
#include <utility>

#include "bridge/memory_budget.h"
#include "bridge/native.h"

namespace vnjs {

namespace {

/// How much is written between two looks at the memory that is left.
constexpr size_t kBytesBetweenLooks = 1024 * 1024;

/// Where libxml2 writes to, some kilobytes at a time.
class Output {
 public:
  explicit Output(Environment* environment) : m_environment(environment) {}

  /// None when libxml2 cannot write in that encoding, or was stopped by an interrupt.
  std::optional<std::string> Write(xmlDoc* doc, const char* encoding) {
    xmlCharEncodingHandler* const encoder =
        encoding == nullptr ? nullptr : xmlFindCharEncodingHandler(encoding);
    if (encoding != nullptr && encoder == nullptr) return std::nullopt;
    xmlOutputBuffer* const buffer = xmlOutputBufferCreateIO(Take, nullptr, this, encoder);
    if (buffer == nullptr) throw std::bad_alloc();
    // Which frees the buffer.
    xmlSaveFormatFileTo(buffer, doc, encoding, 1);
    if (m_failure != nullptr) std::rethrow_exception(m_failure);
    if (!m_isInterrupted) return std::move(m_text);
    EndIfInterrupted(m_environment->GetIsolate());
    return std::nullopt;
  }

 private:
  static int Take(void* self, const char* bytes, int length) {
    return static_cast<Output*>(self)->Take(bytes, static_cast<size_t>(length)) ? length : -1;
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
  std::string m_text;
  size_t m_fits = kBytesBetweenLooks;
  std::exception_ptr m_failure;
  bool m_isInterrupted = false;
};

}  // namespace

std::optional<std::string> WriteXml(Environment* environment, const Tree& tree) {
  xmlDoc* const doc = tree.doc();
  const char* const encoding = FromXml(doc->encoding);
  std::optional<std::string> text = Output(environment).Write(doc, encoding);
  const bool isForeign = encoding != nullptr && xmlParseCharEncoding(encoding) != XML_CHAR_ENCODING_UTF8;
  // Its declared encoding may have no form for a name.
  if (isForeign && text.has_value() && (tree.HasForeignNames() || xmlCheckUTF8(ToXml(text->c_str())) == 0)) {
    text = Output(environment).Write(doc, "UTF-8");
  }
  return text;
}

}  // namespace vnjs
