#include "support/XmlDepth.h"

#include <algorithm>

namespace QEL { namespace Tools {

namespace {

// Where `end` is found from `from` on, just behind it; the end of text when it is missing.
std::size_t Behind(const std::string& text, std::size_t from, const char* end)
{
    const std::size_t at = text.find(end, from);
    return at == std::string::npos ? text.size() : at + std::char_traits<char>::length(end);
}

}

std::size_t XmlNestingDepth(const std::string& text)
{
    std::size_t depth = 0, deepest = 0;
    std::size_t i = 0;
    while ((i = text.find('<', i)) != std::string::npos) {
        if (text.compare(i, 4, "<!--") == 0) {
            i = Behind(text, i + 4, "-->");
        } else if (text.compare(i, 9, "<![CDATA[") == 0) {
            i = Behind(text, i + 9, "]]>");
        } else if (text.compare(i, 2, "<?") == 0) {
            i = Behind(text, i + 2, "?>");
        } else if (text.compare(i, 2, "<!") == 0) {
            i = Behind(text, i + 2, ">");
        } else if (text.compare(i, 2, "</") == 0) {
            depth = depth ? depth - 1 : 0;
            i = Behind(text, i + 2, ">");
        } else {
            // A start tag: find its end outside quoted attribute values.
            char quote = 0;
            std::size_t j = i + 1;
            for (; j < text.size(); ++j) {
                const char c = text[j];
                if (quote) {
                    if (c == quote)
                        quote = 0;
                } else if (c == '"' || c == '\'') {
                    quote = c;
                } else if (c == '>') {
                    break;
                }
            }
            if (j >= text.size())
                break;
            if (text[j - 1] != '/')
                deepest = std::max(deepest, ++depth);
            i = j + 1;
        }
    }
    return deepest;
}

} }
