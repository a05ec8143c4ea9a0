#pragma once

#include <boost/uuid/detail/sha1.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace QEL { namespace Tools {

// The 20-byte SHA-1 digest in its published byte order.
inline std::vector<std::uint8_t> Sha1Digest(const void* data, std::size_t size)
{
    boost::uuids::detail::sha1 hash;
    hash.process_bytes(data, size);
    boost::uuids::detail::sha1::digest_type words;
    hash.get_digest(words);
    std::vector<std::uint8_t> bytes;
    bytes.reserve(20);
    for (unsigned word : words)
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(static_cast<std::uint8_t>(word >> shift));
    return bytes;
}

// The digest as 40 upper-case hexadecimal digits.
inline std::string Sha1HexUpper(const std::string& text)
{
    std::string hex;
    for (std::uint8_t byte : Sha1Digest(text.data(), text.size())) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02X", byte);
        hex += digits;
    }
    return hex;
}

} }
