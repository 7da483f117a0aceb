#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "zu/exception.h"
#include "zu/file_stream.h"

namespace {

using dmtest::readFile;
using dmtest::writeFile;

std::string littleEndian(uint32_t value) {
    const char bytes[4] = {char(value), char(value >> 8), char(value >> 16), char(value >> 24)};
    return std::string(bytes, 4);
}

class FileStreamTest : public ::testing::Test {
protected:
    std::string path() const { return m_dir.file("stream.bin"); }

    // Reads a text from a file holding exactly `bytes` and returns the error text.
    std::string readTextError(const std::string& bytes) {
        writeFile(path(), bytes);
        zu::File file(path().c_str(), zu::File::ModeRead);
        zu::FileStream stream(file);
        zu::InplaceString<64> text("untouched");
        try {
            stream >> text;
        } catch (const zu::FileException_ReadFailed& error) {
            EXPECT_EQ(text, "untouched");  // a failed read leaves the target alone
            return error.getError();
        }
        ADD_FAILURE() << "no exception for " << bytes.size() << " bytes";
        return "";
    }

    dmtest::TempDir m_dir;
};

TEST_F(FileStreamTest, RoundTripsEveryType) {
    std::string longText(zu::FileStream::kMaxTextLength, 'x');
    {
        zu::File file(path().c_str(), zu::File::ModeWrite);
        zu::FileStream stream(file);
        stream << 0 << -1 << INT_MIN << INT_MAX << 0u << UINT_MAX;
        stream << zu::String("") << zu::InplaceString<8>("grows beyond its inline buffer")
               << "\x01\x7f\x80\xff high bytes" << static_cast<const char*>(nullptr)
               << zu::String(longText.c_str()) << 7;
    }
    zu::File file(path().c_str(), zu::File::ModeRead);
    zu::FileStream stream(file);
    int i0, iMinus1, iMin, iMax, last;
    unsigned int u0, uMax;
    zu::String empty("not empty"), grown, high, fromNull("not empty"), longRead;
    stream >> i0 >> iMinus1 >> iMin >> iMax >> u0 >> uMax;
    stream >> empty >> grown >> high >> fromNull >> longRead >> last;

    EXPECT_EQ((std::vector<int>{i0, iMinus1, iMin, iMax, last}),
              (std::vector<int>{0, -1, INT_MIN, INT_MAX, 7}));
    EXPECT_EQ((std::vector<unsigned>{u0, uMax}), (std::vector<unsigned>{0u, UINT_MAX}));
    EXPECT_EQ(empty, "");
    EXPECT_EQ(grown, "grows beyond its inline buffer");
    EXPECT_EQ(high, "\x01\x7f\x80\xff high bytes");
    EXPECT_EQ(fromNull, "");
    EXPECT_EQ(longRead.length(), longText.size());
    EXPECT_EQ(longRead, longText.c_str());
    EXPECT_EQ(stream.getRemaining(), 0u);
}

TEST_F(FileStreamTest, ReadingPastTheEndOrTextsOverTheLimitOrHoldingAZeroByteThrow) {
    // Ten bytes announced, three present.
    std::string error = readTextError(littleEndian(10) + "abc");
    EXPECT_NE(error.find("10"), std::string::npos) << error;
    EXPECT_NE(error.find("3 bytes left"), std::string::npos) << error;

    // A corrupt length near 4 GB is refused before anything is allocated for it.
    error = readTextError(littleEndian(0xFFFFFFF0u) + "abc");
    EXPECT_NE(error.find("limit"), std::string::npos) << error;

    // Just over the limit, even with that much data present.
    uint32_t overLimit = zu::FileStream::kMaxTextLength + 1;
    error = readTextError(littleEndian(overLimit) + std::string(overLimit, 'y'));
    EXPECT_NE(error.find("limit"), std::string::npos) << error;

    // The length itself cut short.
    error = readTextError(std::string("\x05\x00", 2));
    EXPECT_NE(error.find("past the end"), std::string::npos) << error;

    error = readTextError(littleEndian(3) + std::string("a\0b", 3));
    EXPECT_NE(error.find("0 byte"), std::string::npos) << error;

    // A number cut short, or nothing to read at all.
    writeFile(path(), std::string("\x01\x02", 2));
    zu::File file(path().c_str(), zu::File::ModeRead);
    zu::FileStream stream(file);
    int value = 5;
    EXPECT_THROW(stream >> value, zu::FileException_ReadFailed);
    EXPECT_EQ(value, 5);

    zu::File empty;  // never opened: nothing to read
    zu::FileStream closedStream(empty);
    EXPECT_THROW(closedStream >> value, zu::FileException_ReadFailed);
}

// Other tools read these files: the byte layout is fixed.
TEST_F(FileStreamTest, WritesALittleEndianLayoutAndShortWritesThrow) {
    {
        zu::File file(path().c_str(), zu::File::ModeWrite);
        zu::FileStream stream(file);
        stream << 0x01020304 << 0xFFFFFFFEu << "ab";
    }
    EXPECT_EQ(readFile(path()), std::string("\x04\x03\x02\x01\xFE\xFF\xFF\xFF\x02\0\0\0ab", 14));
    writeFile(path(), "existing");
    zu::File readOnly(path().c_str(), zu::File::ModeRead);
    zu::FileStream stream(readOnly);
    EXPECT_THROW(stream << 1, zu::FileException_WriteFailed);
    EXPECT_THROW(stream << "text", zu::FileException_WriteFailed);

    zu::File writable(path().c_str(), zu::File::ModeWrite);
    zu::FileStream writer(writable);
    std::string tooLong(zu::FileStream::kMaxTextLength + 1, 'z');
    EXPECT_THROW(writer << tooLong.c_str(), zu::FileException_WriteFailed);
    EXPECT_EQ(writable.getSize(), 0u);  // nothing half-written
}

}  // namespace
