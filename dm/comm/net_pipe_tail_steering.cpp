// Large answers straight into their callers' buffers. A response chunk's bytes would otherwise
// cross memory twice on their way in: from the system into the connection's receive buffer,
// then into the buffer the caller of sendRequest gave. The connections are read with steering
// on (see net::Socket::setTailSteering): before each poll the reader looks at the beginning of
// a large frame not yet whole, and when it is a Response chunk that its request would take, the
// rest of the chunk is read from the system straight to where it belongs.
//
// A chunk is steered only after the same checks that storing it makes, all under the pipe's
// outgoing lock, which is also held for every read into the caller's buffer: the caller, who
// removes its request under that lock, never sees its buffer written after it has gone.
// Anything else is declined and goes the usual way, with the usual checks and counts.
#include "comm/net_communication_pipe.h"
#include "comm/net_communication_pipe_manager.h"
#include "comm/pipe_protocol.h"

namespace dm {

SteeredTail NetCommunicationPipeManager::steerResponseTail(net::Socket& socket) {
    if (!socket.isReadingTail() && !socket.awaitsTailDecision()) {
        return SteeredTail::kPollAsUsual;
    }
    net::Socket::PartialFrame frame;
    pipe_protocol::Message message;
    socket.peekPartialFrame(frame);
    switch (pipe_protocol::decodeResponseHead(m_frameHead, frame, message)) {
        case pipe_protocol::HeadDecode::kNeedMore:
            return SteeredTail::kPollAsUsual;  // reads go on up to the lookahead
        case pipe_protocol::HeadDecode::kOther:
            socket.declineFrameTail();
            return SteeredTail::kPollAsUsual;
        case pipe_protocol::HeadDecode::kResponseChunk:
            break;
    }
    bool attachedHere = false;
    NetCommunicationPipe* pipe = findPipe(socket, message.pipeName, &attachedHere);
    if (!pipe || !attachedHere) {
        if (socket.isReadingTail()) {
            // Taken over by another connection while its bytes were arriving: the rest of the
            // frame has nowhere to go, and the stream cannot be read past it.
            if (pipe) {
                pipe->countMessageFromOtherConnection();
            }
            socket.close();
            return SteeredTail::kUnderway;
        }
        socket.declineFrameTail();  // the usual path drops and counts it
        return SteeredTail::kPollAsUsual;
    }
    return pipe->receiveResponseTail(socket, message);
}

// A poll that found no whole packet may have read the beginning of a large frame: steering
// decides on it now, not after a wait that would find the rest ready at once. True when the
// chunk was taken whole.
bool NetCommunicationPipeManager::steerJustRead(net::Socket& socket) {
    return socket.awaitsTailDecision() && steerResponseTail(socket) == SteeredTail::kTaken;
}

SteeredTail NetCommunicationPipe::receiveResponseTail(net::Socket& socket,
                                                      const pipe_protocol::Message& message) {
    zu::Signal* waiter = nullptr;
    {
        zu::ScopedLock lock(m_outgoingLock);
        RequestRecord* request = findOutgoingRequest(message.id);
        uint8_t* target = request ? responseTarget(*request, message.chunk) : nullptr;
        if (!target && socket.isReadingTail()) {
            // The request went while its bytes were arriving (the pipe closed): the rest of
            // the frame has nowhere to go, and the stream cannot be read past it.
            count(Drop::kStale);
            socket.close();
            return SteeredTail::kUnderway;
        }
        if (!target) {
            socket.declineFrameTail();
            return SteeredTail::kPollAsUsual;
        }
        switch (socket.readFrameTail(target, message.chunk.size)) {
            case net::Socket::TailRead::kPending:
                return SteeredTail::kUnderway;
            case net::Socket::TailRead::kFailed:
                socket.close();  // broken, or not the frame it was: nothing after it is whole
                return SteeredTail::kUnderway;
            case net::Socket::TailRead::kComplete:
                break;
        }
        Chunk chunk = message.chunk;
        chunk.bytes = target;
        const bool whole = storeResponseChunk(*request, message.text, chunk);
        socket.dropFrameWithTail();
        if (!whole) {
            return SteeredTail::kTaken;
        }
        request->responseReceived = true;
        waiter = request->event;
    }
    wakeAfterPass(waiter);
    return SteeredTail::kTaken;
}

// Where the chunk's bytes belong in the caller's buffer, when storeResponseChunk would take
// them all: the request still waits, the chunk fits the buffer, agrees with the chunks before
// it and repeats none of their bytes. Null otherwise.
uint8_t* NetCommunicationPipe::responseTarget(const RequestRecord& request, const Chunk& chunk) {
    const bool fits = request.responseBuffer && chunk.size > 0 && chunk.liesInside() &&
                      chunk.offset <= request.responseCapacity &&
                      chunk.size <= request.responseCapacity - chunk.offset;
    const bool begun = request.received.bytes() > 0;
    ReceivedRanges afterwards = request.received;
    if (request.responseReceived || !fits || (begun && chunk.totalSize != request.responseSize) ||
        !afterwards.add(chunk.offset, chunk.size)) {
        return nullptr;
    }
    return static_cast<uint8_t*>(request.responseBuffer) + chunk.offset;
}

}  // namespace dm
