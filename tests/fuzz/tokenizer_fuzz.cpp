// The console tokenizer: any text (a C string, so it ends at the first 0 byte) is cut into
// non-empty words that give the text back when joined, and every scanner's match stays inside
// the text.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "dm/console.h"
#include "fuzz/check.h"

namespace {

void checkScanners(const zu::String& text, int position) {
    using Scanner = int (*)(const zu::String&, int);
    for (Scanner scan : {dm::scanWhitespace, dm::scanIdentifier, dm::scanInteger, dm::scanFloat,
                         dm::scanHex, dm::scanQuoted}) {
        const int length = scan(text, position);
        check(length == -1 || (length > 0 && position + length <= static_cast<int>(text.length())));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const zu::String text(bytes.c_str());  // up to the first 0 byte, as a console text ends
    dm::ConsoleWordList words;
    words.emplace_back("kept");  // tokenizeLine appends: what was there stays
    dm::tokenizeLine(words, text);
    check(words.size() >= 1 && words[0] == "kept");
    std::string joined;
    for (size_t index = 1; index < words.size(); ++index) {
        check(!words[index].empty());
        joined.append(words[index].c_str(), words[index].length());
    }
    check(joined == text.c_str());
    if (!text.empty()) {
        checkScanners(text, static_cast<int>(size % text.length()));
    }
    checkScanners(text, -1);
    checkScanners(text, static_cast<int>(text.length()));
    return 0;
}
