#pragma once

#include "bench/support/raw_environment.h"

namespace vnjs::bench {

/// A thin binding of libxml2 to the engine, as a plain program would write it that trusts its scripts:
///
///     const doc = new VXmlDocument(text);
///     doc.toString();
///     for (const node of doc.findAll('//item')) [node.name, node.text, node.attributes.id];
///
/// A document frees its tree when it is collected, and the engine knows the size of the tree. Nobody edits
/// one. What is left when the isolate ends stays until the process does.
class RawXml {
 public:
  /// Adds VXmlDocument to the global object. The environment must live longer.
  explicit RawXml(const RawEnvironment& environment);
  ~RawXml();
  RawXml(const RawXml&) = delete;
  RawXml& operator=(const RawXml&) = delete;

 private:
  const RawEnvironment& m_environment;
};

}  // namespace vnjs::bench
