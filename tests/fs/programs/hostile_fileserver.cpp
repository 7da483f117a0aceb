// A file server that answers the list commands with broken lists, to show that the game walks
// them safely. It maps "data/" unless started with "no-folders"; every "findFiles" and
// "findFilesRecursive" pattern names the kind of broken answer to send:
//   truncated   an entry cut off in the middle, without its closing quote and zero byte
//   unterminated  entries whose last one has no zero byte
//   bogus-count a count of four billion in front of one entry
//   full        the whole list buffer and more filled with one entry without a zero byte
//   zeros       the whole list buffer of zero bytes
//   oversized-read  (a "read") more bytes than were asked for
// Anything else gets a valid list of one entry "ok".
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

#include "dm/comm.h"
#include "zu/event.h"

namespace {

std::atomic<bool> g_interrupted{false};

void onInterrupt(int) {
    g_interrupted = true;
}

std::string withZeros(std::initializer_list<const char*> parts, bool lastTerminated = true) {
    std::string list;
    for (const char* part : parts) {
        list += part;
        list.push_back('\0');
    }
    if (!lastTerminated) {
        list.pop_back();
    }
    return list;
}

std::string brokenList(const std::string& text, bool pathEntries) {
    const char* entry = pathEntries ? "0 \"data/ok\"" : "0 5 6 \"ok\"";
    if (text.find("truncated") != std::string::npos) {
        return withZeros({"3", entry, pathEntries ? "0 \"data/cut" : "1 7 8 \"cut"}, false);
    }
    if (text.find("unterminated") != std::string::npos) {
        return withZeros({"2", entry, pathEntries ? "0 \"data/last\"" : "0 1 2 \"last\""}, false);
    }
    if (text.find("bogus-count") != std::string::npos) {
        return withZeros({"4000000000", entry});
    }
    if (text.find("full") != std::string::npos) {
        std::string list = withZeros({"1"});
        list += pathEntries ? "0 \"data/" : "0 1 2 \"";
        list.append(700000, 'x');
        return list;
    }
    if (text.find("zeros") != std::string::npos) {
        return std::string(655360, '\0');
    }
    return withZeros({"1", entry});
}

}  // namespace

int main(int argc, char** argv) {
    const bool noFolders = argc > 1 && std::strcmp(argv[1], "no-folders") == 0;
    signal(SIGINT, onInterrupt);
    signal(SIGTERM, onInterrupt);
    dm::CommunicationPipeManager* manager =
        dm::initCommunicationManagerAsServer("hostile", 0, 1, true);
    uint32_t port = 0;
    manager->getHost(&port);
    dm::CommunicationPipe* pipe = manager->getPipe("fileserver");
    zu::Event work;
    pipe->setRequestCallback({&work, [](void* event, dm::CommunicationPipe*) {
                                  static_cast<zu::Event*>(event)->signal();
                              }});
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each line reaches the test at once
    std::printf("hostile file server on port %u\n", port);
    std::string answer;
    while (!g_interrupted) {
        work.wait(100);
        for (zu::InplaceString<128> text; !(text = pipe->receiveRequest(nullptr)).empty();) {
            const std::string command = text.c_str();
            if (command == "getMappedFolders") {
                answer = noFolders ? withZeros({"0"}) : withZeros({"1,junk", "data/,/nowhere"});
            } else if (command.rfind("findFiles ", 0) == 0) {
                answer = brokenList(command, false);
            } else if (command.rfind("findFilesRecursive ", 0) == 0) {
                answer = brokenList(command, true);
            } else if (command.rfind("read ", 0) == 0) {
                answer.assign(1 << 20, 'r');
            } else {
                pipe->respond(command.rfind("fileExists", 0) == 0 ? "TRUE" : "12", nullptr, 0);
                continue;
            }
            pipe->respond("true", answer.data(), static_cast<uint32_t>(answer.size()));
            std::printf("answered %s\n", command.c_str());
        }
    }
    dm::deinitCommunicationManagers();
    return 0;
}
