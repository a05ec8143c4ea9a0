#pragma once

#include <cstddef>
#include <string>

namespace QEL { namespace Tools {

// The XML parser recurses once per level of nesting, so a small file nested
// deeply enough overruns a thread's stack. Documents are measured first.
constexpr std::size_t MaxXmlDepth = 256;

// The deepest nesting of elements in `text`, comments, CDATA sections,
// processing instructions, declarations and quoted attribute values aside.
std::size_t XmlNestingDepth(const std::string& text);

// True when `text` nests no deeper than MaxXmlDepth.
inline bool IsXmlDepthSane(const std::string& text) { return XmlNestingDepth(text) <= MaxXmlDepth; }

} }
