// Writes the seed corpus of the fuzz harnesses with the library's own encoders: packets made
// with net::Packet, cache files saved by a real window. The seeds are committed under
// tests/fuzz/corpus/<harness>/; run this again after a format changes:
//
//   build/fuzz/tests/fuzz/fuzz_seed_writer tests/fuzz/corpus
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "console/recording_shape_engine.h"
#include "dm/console.h"
#include "dm/monitor.h"
#include "net/packet.h"
#include "net_wire.h"
#include "zu/file.h"

namespace {

using Bytes = std::string;

Bytes frameOf(const net::Packet& packet) {
    uint8_t header[net::wire::kHeaderSize];
    net::wire::storeHeader(header, packet.getID(), packet.getSize());
    Bytes frame(reinterpret_cast<const char*>(header), sizeof(header));
    frame.append(reinterpret_cast<const char*>(packet.getData()), packet.getSize());
    return frame;
}

void writeSeed(const std::string& folder, const std::string& name, const Bytes& bytes) {
    mkdir(folder.c_str(), 0755);
    const std::string path = folder + "/" + name;
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size()) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(1);
    }
    std::fclose(file);
}

// Pipe messages as a client and a server exchange them (docs/pipe-protocol.md).
Bytes pipeConversation() {
    const int32_t kOpenPipe = 0, kRequest = 3, kNotify = 5;
    net::Packet open(205);
    open << kOpenPipe << "echo"
         << "tool";
    net::Packet request(205);
    const char data[] = "0123456789";
    request << kRequest << "echo" << 0u << 7u << "read" << 10u << 0u << 4u;
    request.write(data, 4);
    net::Packet rest(205);
    rest << kRequest << "echo" << 0u << 7u << "read" << 10u << 4u << 6u;
    rest.write(data + 4, 6);
    net::Packet notify(205);
    notify << kNotify << "echo" << 1u << 0u << 5u << 0u << 5u;
    notify.write("hello", 5);
    return frameOf(open) + frameOf(request) + frameOf(rest) + frameOf(notify);
}

void writeFrameSeeds(const std::string& folder) {
    net::Packet text(dm::monitor_packet::kText);
    text << int32_t{0} << "hello from the game";
    net::Packet request(dm::monitor_packet::kRequest);
    request << int32_t{1};
    writeSeed(folder, "pipe_messages", pipeConversation());
    writeSeed(folder, "monitor_packets", frameOf(text) + frameOf(request));
    const Bytes empty = frameOf(net::Packet(100));
    writeSeed(folder, "empty_and_cut", empty + frameOf(text).substr(0, 13));
    writeSeed(folder, "bad_length", empty + Bytes("\x03\x00\x00\x00\x01\x00\x00\x00", 8) + empty);
}

void writeMonitorSeeds(const std::string& folder) {
    using namespace dm::monitor_packet;
    net::Packet data(kData);
    data << "reload textures";
    net::Packet odd(kData);
    odd << "abc";
    Bytes requests;
    for (int32_t value : {0, 1, 2, 3, -1}) {
        net::Packet request(kRequest);
        request << value;
        requests += frameOf(request);
    }
    net::Packet cut(kData);
    cut << int32_t{40};
    cut.write("no terminator", 13);
    writeSeed(folder, "data", frameOf(data));
    writeSeed(folder, "requests", requests);
    writeSeed(folder, "keep_alive_and_echo", frameOf(net::Packet(kKeepAlive)) + frameOf(odd));
    writeSeed(folder, "malformed_data", frameOf(cut) + frameOf(net::Packet(999)));
}

std::string readWhole(const std::string& path) {
    std::string bytes;
    if (FILE* file = std::fopen(path.c_str(), "rb")) {
        char buffer[4096];
        for (size_t got; (got = std::fread(buffer, 1, sizeof(buffer), file)) > 0;) {
            bytes.append(buffer, got);
        }
        std::fclose(file);
    }
    return bytes;
}

// Saves a window with `lines` printed and `commands` typed; returns the cache file.
Bytes savedCache(const std::string& folder, int lines, int commands) {
    zu::File::setFileSysPathForWrite((folder + "/").c_str());
    const std::string path = folder + "/" + dm::ScrollingTextWindow::kCacheFileName;
    std::remove(path.c_str());
    dmtest::RecordingShapeEngine engine;
    dm::ScrollingTextWindow window(&engine, 0.05f);
    for (int line = 0; line < lines; ++line) {
        window.print("line %d: \"quoted\" 0x1f -2.5e3 word\n", line);
    }
    for (int command = 0; command < commands; ++command) {
        window.addToCommandStack(zu::str("set value%d %d", command, command).c_str());
    }
    window.printStringWithPrefix(
        true,
        "a line that is long enough to be wrapped into more than one row of the "
        "console window, so that wrapping is in the file too\n");
    window.save();
    return readWhole(path);
}

void writeConsoleCacheSeeds(const std::string& folder) {
    char pattern[] = "/tmp/dm_seed_writer_XXXXXX";
    if (!mkdtemp(pattern)) {
        std::exit(1);
    }
    writeSeed(folder, "few_lines", savedCache(pattern, 3, 2));
    writeSeed(folder, "full_history", savedCache(pattern, 40, 35));
    writeSeed(folder, "one_wrapped_line", savedCache(pattern, 0, 0));
    std::remove((std::string(pattern) + "/" + dm::ScrollingTextWindow::kCacheFileName).c_str());
    rmdir(pattern);
}

void writeTokenizerSeeds(const std::string& folder) {
    writeSeed(folder, "assignment", "set x=0.5;");
    writeSeed(folder, "numbers", "print \"hello world\" 0xff 0xFF -12 +3 1e5f .5 12ab 5;");
    writeSeed(folder, "floats", "1.1.1.1.1.1.1x 2.5e-3 \"unclosed");
    writeSeed(folder, "latin1", "\xc4\xc5\xd6 \xe4\xe5\xf6\tname_1\x0c\x0b\r\nend");
}

// Scripts for the pipe_receive harness: a byte of connection bounds, then 8 bytes per chunk
// (kind and take flags, id, size selector, offset low and high, offset mode, chunk size low and
// high); see pipe_receive_fuzz.cpp.
Bytes chunkOp(uint8_t flags, uint8_t id, uint8_t sizeSelector, uint16_t offset, uint8_t mode,
              uint16_t chunkSize) {
    const char op[8] = {static_cast<char>(flags),
                        static_cast<char>(id),
                        static_cast<char>(sizeSelector),
                        static_cast<char>(offset & 0xFF),
                        static_cast<char>(offset >> 8),
                        static_cast<char>(mode),
                        static_cast<char>(chunkSize & 0xFF),
                        static_cast<char>(chunkSize >> 8)};
    return Bytes(op, sizeof(op));
}

void writePipeReceiveSeeds(const std::string& folder) {
    const uint8_t kRequest = 0, kNotify = 1, kTake = 2;
    // 40 * 97 = 3880 bytes in chunks of 1000, in order.
    const uint8_t size3880 = 40 << 2 | 1;
    Bytes inOrder(1, '\x88');
    for (uint16_t offset = 0; offset < 3880; offset += 1000) {
        inOrder += chunkOp(kRequest, 0, size3880, offset, 0, offset + 1000 > 3880 ? 880 : 1000);
    }
    inOrder += chunkOp(kNotify | kTake, 1, 10 << 2, 0, 0, 10);
    writeSeed(folder, "in_order", inOrder);
    writeSeed(folder, "overlap_and_gap",
              Bytes(1, '\x88') + chunkOp(kRequest, 2, size3880, 0, 0, 1000) +
                  chunkOp(kRequest, 2, size3880, 500, 0, 1000) +
                  chunkOp(kRequest | kTake, 2, size3880, 0, 1, 880));
    writeSeed(folder, "huge_announcements",
              Bytes(1, '\x00') + chunkOp(kRequest, 3, 3, 0, 0, 1) +
                  chunkOp(kRequest, 3, 3, 0, 1, 1) + chunkOp(kNotify, 4, 2, 0, 0, 4096) +
                  chunkOp(kNotify | kTake, 4, 2, 4096, 0, 4096));
    Bytes interleaved(1, '\x11');
    for (uint8_t id = 0; id < 6; ++id) {
        interleaved += chunkOp(id % 2 ? kNotify : kRequest, id, 20 << 2 | 1, 0, 0, 970);
    }
    for (uint8_t id = 6; id-- > 0;) {
        interleaved += chunkOp((id % 2 ? kNotify : kRequest) | kTake, id, 20 << 2 | 1, 970, 0, 970);
    }
    writeSeed(folder, "interleaved", interleaved);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_seed_writer CORPUS_FOLDER\n");
        return 2;
    }
    const std::string corpus = argv[1];
    mkdir(corpus.c_str(), 0755);
    writeFrameSeeds(corpus + "/frame");
    writeMonitorSeeds(corpus + "/monitor");
    writeConsoleCacheSeeds(corpus + "/console_cache");
    writeTokenizerSeeds(corpus + "/tokenizer");
    writePipeReceiveSeeds(corpus + "/pipe_receive");
    return 0;
}
