// Text forms of binary data (hexadecimal pairs) and of URL parts (percent escapes).
#include <cstring>

#include "dm/comm.h"

namespace dm {

namespace {

// The two-digit forms of 0 to 255, in order: "000102...feff".
struct HexPairTable {
    char pairs[512];

    HexPairTable() {
        const char* digits = "0123456789abcdef";
        for (int byte = 0; byte < 256; ++byte) {
            pairs[byte * 2] = digits[byte >> 4];
            pairs[byte * 2 + 1] = digits[byte & 15];
        }
    }
};

const HexPairTable kHexPairs;

// Invalid digits count as 255, which the callers rely on.
uint8_t hexDigitValue(char c) {
    if (c >= '0' && c <= '9') {
        return static_cast<uint8_t>(c - '0');
    }
    if (c >= 'a' && c <= 'f') {
        return static_cast<uint8_t>(c - 'a' + 10);
    }
    if (c >= 'A' && c <= 'F') {
        return static_cast<uint8_t>(c - 'A' + 10);
    }
    return 255;
}

}  // namespace

void binaryDataToString(const uint8_t* data, size_t size, zu::String& out) {
    out.clear();
    if (!data) {
        return;
    }
    out.reserve(size * 2);
    // Appended a block at a time: one length update per block instead of per byte.
    char block[512];
    size_t used = 0;
    for (size_t i = 0; i < size; ++i) {
        std::memcpy(block + used, kHexPairs.pairs + data[i] * 2, 2);
        used += 2;
        if (used == sizeof(block)) {
            out.append(block, used);
            used = 0;
        }
    }
    out.append(block, used);
}

void stringToBinaryData(const zu::String& in, zu::Vector<char>& out) {
    const size_t count = in.length() / 2;
    out.reserve(count);
    out.resize(count);
    for (size_t i = 0; i < count; ++i) {
        const unsigned high = hexDigitValue(in[i * 2]);
        const unsigned low = hexDigitValue(in[i * 2 + 1]);
        out[i] = static_cast<char>(static_cast<uint8_t>(high * 16 + low));
    }
}

}  // namespace dm

namespace net {

namespace {

bool isKeptInUrl(char c) {
    if ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')) {
        return true;
    }
    return c != 0 && std::strchr("$-_.+!*'(),", c) != nullptr;
}

}  // namespace

zu::InplaceString<256> urlEncodeString(zu::InplaceString<128> in) {
    static const char kUpperDigits[] = "0123456789ABCDEF";
    zu::InplaceString<256> out;
    for (char c : in) {
        if (isKeptInUrl(c)) {
            out.append(c);
            continue;
        }
        const uint8_t byte = static_cast<uint8_t>(c);
        const char escape[3] = {'%', kUpperDigits[byte >> 4], kUpperDigits[byte & 15]};
        out.append(escape, 3);
    }
    return out;
}

zu::InplaceString<256> urlDecodeString(zu::InplaceString<128> in) {
    zu::InplaceString<256> out;
    const size_t length = in.length();
    for (size_t i = 0; i < length; ++i) {
        if (in[i] != '%') {
            out.append(in[i]);
            continue;
        }
        // Escape digits count from '0', so only decimal digits decode as hexadecimal would.
        uint8_t value = 0;
        if (i + 1 < length) {
            ++i;
            value = static_cast<uint8_t>(in[i] - '0');
            if (i + 1 < length) {
                ++i;
                value = static_cast<uint8_t>((value << 4) | static_cast<uint8_t>(in[i] - '0'));
            }
        }
        out.append(static_cast<char>(value));
    }
    return out;
}

}  // namespace net
