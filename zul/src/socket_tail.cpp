// net::Socket: bulk tails received straight into the owner's memory (see setTailSteering).
//
// While a tail is underway the receive buffer holds the frame's header and the payload's
// beginning, and nothing after them: the tail's bytes go to the owner's memory, and only the
// read that completes the tail may carry bytes beyond it, which land in the buffer behind the
// beginning. Dropping the frame's beginning then leaves the next frame first in line.
#include <algorithm>
#include <cstring>

#include "net/socket.h"
#include "net_wire.h"
#include "socket_platform.h"

namespace net {

namespace {

// The payload size a frame's header announces; 0 when its length is out of bounds (extracting
// such a frame closes the connection).
uint32_t announcedPayloadSize(const uint8_t* frame) {
    const uint32_t length = wire::loadLE32(frame);
    const uint32_t idSize = wire::kHeaderSize - wire::kLengthSize;
    const bool valid = length >= idSize && length <= wire::kMaxFrameSize - wire::kLengthSize;
    return valid ? length - idSize : 0;
}

}  // namespace

bool Socket::peekPartialFrame(PartialFrame& out) const {
    const uint32_t pending = m_receiveEnd - m_receiveBegin;
    if (m_handle == zu::kInvalidHandle || pending < wire::kHeaderSize) {
        return false;
    }
    const uint8_t* frame = m_receiveBuffer.data() + m_receiveBegin;
    uint32_t frameSize = 0;
    if (wire::checkFrame(frame, pending, &frameSize) != wire::FrameCheck::Incomplete) {
        return false;
    }
    out.id = wire::frameId(frame);
    out.payload = frame + wire::kHeaderSize;
    out.buffered = pending - wire::kHeaderSize;
    out.payloadSize = announcedPayloadSize(frame);
    return true;
}

bool Socket::frontIsSteerable() const {
    PartialFrame frame;
    return peekPartialFrame(frame) && frame.payloadSize >= kMinSteeredPayload;
}

bool Socket::awaitsTailDecision() const {
    return m_tailSteering && m_tailSize == 0 && !m_tailDeclined && frontIsSteerable();
}

// How much one read may take with steering on: no more than kSteeringLookahead bytes into a
// frame that awaits its owner's decision. Less than a frame header might begin such a frame,
// so it is read only that far too.
uint32_t Socket::steeringReadLimit() const {
    const uint32_t pending = m_receiveEnd - m_receiveBegin;
    if (pending >= wire::kHeaderSize && !awaitsTailDecision()) {
        return ~0u;
    }
    return pending < kSteeringLookahead ? kSteeringLookahead - pending : 0;
}

Socket::TailRead Socket::readFrameTail(uint8_t* tail, uint32_t tailSize) {
    PartialFrame frame;
    // A tail goes on after a failed send: what the peer sent before it went is still readable.
    const bool open = m_state == State::Connected || m_state == State::PeerClosed;
    if (!open || !peekPartialFrame(frame) || tailSize <= kSteeringLookahead ||
        tailSize > frame.payloadSize || (m_tailSize > 0 && tailSize != m_tailSize) ||
        (m_tailSize == 0 && frame.buffered < frame.payloadSize - tailSize)) {
        return TailRead::kFailed;
    }
    if (m_tailSize == 0) {
        startTail(tail, tailSize);
    }
    while (m_tailDone < m_tailSize) {
        if (m_drained && m_readsOnlyWhenReady) {
            return TailRead::kPending;
        }
        const uint32_t left = m_tailSize - m_tailDone;
        const uint32_t room = std::min(receiveCapacity() - m_receiveEnd, kSteeringLookahead);
        const platform::MutableBytes into[2] = {{tail + m_tailDone, left},
                                                {m_receiveBuffer.data() + m_receiveEnd, room}};
        const platform::IoResult got = platform::receive(m_handle, into, room > 0 ? 2 : 1);
        if (got.status == platform::IoStatus::WouldBlock) {
            m_drained = true;
            return TailRead::kPending;
        }
        if (got.status != platform::IoStatus::Done) {
            peerClosed();
            endTail();  // nothing more comes: the frame's beginning is a truncated frame
            return TailRead::kFailed;
        }
        const uint32_t intoTail = std::min(got.bytes, left);
        m_tailDone += intoTail;
        m_receiveEnd += got.bytes - intoTail;
        m_drained = got.bytes < left + room;  // the OS had less than asked for
    }
    return TailRead::kComplete;
}

// Moves the tail's bytes that are buffered already to the owner's memory, and the frame's
// beginning to the front of the buffer, so that the read completing the tail has room behind
// it for what follows.
void Socket::startTail(uint8_t* tail, uint32_t tailSize) {
    uint8_t* buffer = m_receiveBuffer.data();
    const uint32_t pending = m_receiveEnd - m_receiveBegin;
    const uint32_t frameBeginning =
        wire::kHeaderSize + announcedPayloadSize(buffer + m_receiveBegin) - tailSize;
    const uint32_t bufferedTail = pending - frameBeginning;
    std::memcpy(tail, buffer + m_receiveBegin + frameBeginning, bufferedTail);
    std::memmove(buffer, buffer + m_receiveBegin, frameBeginning);
    m_receiveBegin = 0;
    m_receiveEnd = frameBeginning;
    m_tailSize = tailSize;
    m_tailDone = bufferedTail;
}

void Socket::dropFrameWithTail() {
    if (m_tailSize == 0 || m_tailDone < m_tailSize) {
        return;
    }
    const uint8_t* frame = m_receiveBuffer.data() + m_receiveBegin;
    m_receiveBegin += wire::kHeaderSize + announcedPayloadSize(frame) - m_tailSize;
    endTail();
}

// An unfinished tail ends only when no more of it can come (a close, or the system reporting the
// connection's end): until then nothing else is read, as the next bytes would be the tail's.
void Socket::endTail() {
    m_tailSize = 0;
    m_tailDone = 0;
    m_tailDeclined = false;
}

}  // namespace net
