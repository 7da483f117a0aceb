// NetCommunicationPipeManager: the pipe manager over TCP. A server listens and serves any number
// of client connections; a client keeps one connection to its server alive. One thread does all
// socket work: it accepts or connects, runs the handshake that attaches pipes to connections,
// hands received messages to the pipes and sends what the pipes have queued.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>

#include "comm/connection_budget.h"
#include "comm/net_communication_pipe.h"
#include "comm/pipe_clock.h"
#include "comm/pipe_protocol.h"
#include "dm/comm.h"
#include "net/listener.h"
#include "net/socket.h"
#include "zu/event.h"
#include "zu/memory.h"
#include "zu/mutex.h"
#include "zu/poller.h"
#include "zu/string.h"
#include "zu/vector.h"

namespace dm {

class NetCommunicationPipeManager final : public CommunicationPipeManager, public PipeOwner {
public:
    // Connections a client tries again after this long (seconds).
    static constexpr double kReconnectInterval = 0.5;
    // A client asks again for a pipe the server has not attached after this long (seconds).
    static constexpr double kOpenPipeInterval = 0.2;
    // Pipes pumped per pass; with more, each pass goes on where the last one stopped.
    static constexpr size_t kMaxPipesPerPass = 256;
    // Longest sleep of a pass (milliseconds) while everything it serves can wake it: a client
    // is woken by its pipes and socket, a server by its pipes, sockets and listener. The bound
    // is only a safety net, and kept long: a short timer costs each wait more than the wake-up.
    static constexpr uint32_t kPassMs = 100;
    // Longest sleep while something served cannot wake the pass (more pipes or connections
    // than its wait holds), and the pause after a pass that failed.
    static constexpr uint32_t kPolledPassMs = 1;

    // Listens on `port` (server) or starts connecting to host:port (client), and starts the
    // thread, with the callbacks given already in place. The intervals are measured on `clock`,
    // which must outlive the manager.
    NetCommunicationPipeManager(const char* name, bool isServer, uint32_t port, const char* host,
                                uint32_t id, bool createPipesOnRequest,
                                ClientConnectionCallback clientConnectionCallback = {},
                                PipeCreateCallback pipeCreateCallback = {},
                                const PipeClock& clock = appAgeClock());
    // Stops and joins the thread, wakes every thread still blocked on one of the pipes (see
    // NetCommunicationPipe::close), then destroys the pipes and sockets.
    ~NetCommunicationPipeManager() override;

    // Made with zu::makeUnique (on the runtime's heap). Holders the registry let go of may
    // `delete` a manager through a CommunicationPipeManager*, which gives the memory back there.
    static void operator delete(void* memory);

    // True on a manager's thread whose manager is being destroyed: the registry uses it so that
    // a callback waiting for the registry lock gives up instead of blocking the destruction.
    static bool isStoppingManagerThread();
    // True on any manager's thread.
    static bool isManagerThread();

    int run() override;
    bool isClient() const override { return !m_isServer; }
    bool isServer() const override { return m_isServer; }
    const char* getName() const override;
    zu::InplaceString<128> copyName() const override;
    void setName(const char* name) override;
    const char* getRemoteName() const override;
    uint32_t getID() const override { return m_id.load(); }
    CommunicationPipe* getPipe(const char* pipeName) override;
    const char* getHost(uint32_t* outPort) override;
    zu::InplaceString<128> copyHost(uint32_t* outPort) override;
    void setHost(const char* host, uint32_t port) override;
    void setRedirect(const char* host, uint32_t port) override;
    void setClientConnectionCallback(ClientConnectionCallback callback) override;
    void setPipeCreateCallback(PipeCreateCallback callback) override;
    bool pipeExists(const char* pipeName) override;

    // Pipes that peers may have this manager create with OpenPipe (when it creates pipes on
    // request); OpenPipe for a new name beyond it is answered with PipeRefused. Pipes made with
    // getPipe do not count.
    static constexpr size_t kDefaultMaxPipesCreatedOnRequest = 1024;
    void setMaxPipesCreatedOnRequest(size_t count) { m_maxPipesCreatedOnRequest.store(count); }
    // Per connection, all its pipes together: unfinished incoming data beyond the first bound
    // is dropped; from the second bound of whole messages not yet taken on, the connection is
    // not read until the application takes some (see dm::setConnectionIncomingLimits).
    void setConnectionIncomingLimits(uint64_t maxUnfinishedBytes, uint64_t maxQueuedBytes) {
        m_maxUnfinishedPerConnection.store(maxUnfinishedBytes);
        m_maxQueuedPerConnection.store(maxQueuedBytes);
        m_wakeEvent.signal();  // a connection no longer read may be read again
    }

    // PipeOwner
    CommunicationPipeManager* getOwningManager() override { return this; }
    uint32_t getOwnerId() const override { return m_id.load(); }
    void onOutgoingQueued() override { m_outgoingQueued.store(true); }
    void wakeAfterPass(zu::Signal* event) override;
    void callAfterPass(const PipeCallback& callback, CommunicationPipe* pipe) override;
    // False on this manager's own thread while it holds the lock (a callback of its pass).
    bool borrowSockets() override ZU_TRY_ACQUIRE(true, m_ioLock);
    void returnSockets() override ZU_RELEASE(m_ioLock) { m_ioLock.unlock(); }
    // A client lends its connection to the caller while its thread sleeps (see
    // net_pipe_direct_read.cpp).
    bool lendForAnswer(NetCommunicationPipe& pipe) override ZU_REQUIRES(m_ioLock);
    void readForAnswer(NetCommunicationPipe& pipe, uint32_t requestId, bool written) override
        ZU_RELEASE(m_ioLock);
    void countAwaitedAnswers(int change) override { m_awaitedAnswers.fetch_add(change); }

private:
    struct SocketEntry {
        zu::UniquePtr<net::Socket> socket;
        zu::UniquePtr<ConnectionBudget> budget;
        double lastConnectAttempt = -1000.0;
    };
    struct PipeEntry {
        net::Socket* socket = nullptr;  // the connection the pipe is attached to, or null
        zu::UniquePtr<NetCommunicationPipe> pipe;
        double lastOpenPipeSent = 0.0;
    };
    // Case-insensitive, and found by a received name in place, without copying it.
    struct PipeNameLess {
        using is_transparent = void;
        bool operator()(const zu::String& a, const zu::String& b) const {
            return zu::stricmp(a.c_str(), b.c_str()) < 0;
        }
        bool operator()(const zu::String& a, const char* b) const {
            return zu::stricmp(a.c_str(), b) < 0;
        }
        bool operator()(const char* a, const zu::String& b) const {
            return zu::stricmp(a, b.c_str()) < 0;
        }
    };
    using PipeMap =
        std::map<zu::InplaceString<128>, zu::UniquePtr<PipeEntry>, PipeNameLess,
                 zu::Allocator<std::pair<const zu::InplaceString<128>, zu::UniquePtr<PipeEntry>>>>;
    // A copy of the addresses a client connects to, taken under the address lock.
    struct Address {
        zu::InplaceString<128> host;
        uint32_t port = 0;
        zu::InplaceString<128> redirectHost;
        uint32_t redirectPort = 0;
    };
    // What a pass waits on before the next one. The handles stay registered with the poller
    // from pass to pass; a wait changes only what differs from the last one.
    class WaitList {
    public:
        // Starts the list of a new pass.
        void beginPass();
        // Ignores duplicates and handles of kind None; false when the list is full.
        bool add(zu::WaitHandle handle);
        // No wait took place (no time given, or the wait failed): anything may be ready.
        static constexpr int kNotWaited = -100;
        // Brings the poller up to the pass's list. Called with the socket lock held: only a
        // holder of it closes a socket, and a closed descriptor's number must not be touched.
        void watchPassHandles();
        // The lowest index of a handle found ready, zu::kWaitTimeout or kNotWaited.
        int wait(uint32_t timeoutMs);
        // After a wait: whether the wait watched `handle` for reading and found nothing to
        // read, so that nothing can have arrived on it since it was last read.
        bool sawIdle(zu::WaitHandle handle) const;
        // After a wait: whether it found `handle` ready.
        bool sawReady(zu::WaitHandle handle) const;
        // While the thread waits, with the socket lock held: stops (and restarts) the wait's
        // reports of a socket it watches for reading only, except for errors and hang-ups.
        // False when the socket is watched otherwise, or the system cannot do it.
        bool mute(zu::WaitHandle handle);
        void unmute(zu::WaitHandle handle);

    private:
        static constexpr size_t kCapacity = 64;
        bool updatePoller();
        int waitOnPoller(uint32_t timeoutMs);
        int waitByPolling(uint32_t timeoutMs);
        int lowestReady() const;

        zu::WaitHandle m_handles[kCapacity];
        bool m_ready[kCapacity] = {};
        bool m_readable[kCapacity] = {};
        size_t m_count = 0;
        bool m_waited = false;
        zu::Poller m_poller;
        // What the poller watches, as of the last wait.
        zu::WaitHandle m_watched[kCapacity];
        size_t m_watchedCount = 0;
        bool m_pollerWatchesPass = false;
        // What the poller reported at the last wait; kept here so that no wait clears it.
        zu::Poller::Ready m_found[kCapacity];
    };

    // --- Passes (manager thread, with the socket lock held) ---
    void serverPass() ZU_REQUIRES(m_ioLock);
    bool acceptClient() ZU_REQUIRES(m_ioLock);
    bool serveSocket(size_t index) ZU_REQUIRES(m_ioLock);
    static void updateSocket(net::Socket& socket);
    void pollPackets(SocketEntry& entry) ZU_REQUIRES(m_ioLock);
    static zu::WaitHandle waitHandleOf(const SocketEntry& entry);
    // Lets the socket lock go, runs what waited for the pass's end, waits, and takes the lock
    // again; then notes which sockets the wait found readable. `untimed`: nothing is due by
    // time, so a bound that ends while a caller reads the lent connection is waited out again.
    int waitBetweenPasses(WaitList& waits, uint32_t timeoutMs, bool untimed = false)
        ZU_REQUIRES(m_ioLock);
    void lockSockets() ZU_ACQUIRE(m_ioLock);
    void takeSocketLock() ZU_ACQUIRE(m_ioLock);
    void unlockSockets() ZU_RELEASE(m_ioLock);
    void noteReadableSockets(const WaitList& waits) ZU_REQUIRES(m_ioLock);
    SocketEntry makeEntry(zu::UniquePtr<net::Socket> socket);
    ConnectionBudget* budgetOf(const net::Socket* socket) ZU_REQUIRES(m_ioLock);
    void clientPass() ZU_REQUIRES(m_ioLock);
    void sendOpenPipes(net::Socket& socket) ZU_REQUIRES(m_ioLock);
    double nextOpenPipeDue() const;
    void onClientDropped(net::Socket& socket) ZU_REQUIRES(m_ioLock);
    void connectClient(SocketEntry& entry, double now) ZU_REQUIRES(m_ioLock);
    bool pumpIsDue();
    void runAfterPass() ZU_EXCLUDES(m_ioLock);

    // --- A connection lent to a caller (any thread, with the socket lock held) ---
    SocketEntry* lendableSocket(const NetCommunicationPipe& pipe) ZU_REQUIRES(m_ioLock);
    bool readLentSocket(SocketEntry& entry, NetCommunicationPipe& pipe, uint32_t requestId)
        ZU_REQUIRES(m_ioLock);
    void unmuteLentSocket() ZU_REQUIRES(m_ioLock);
    bool dispatchLentPackets(SocketEntry& entry) ZU_REQUIRES(m_ioLock);
    void collectPipes();
    // Looks again whether any pipe waits for its peer (m_pipesUnattached).
    void notePipesAttached();
    void pumpPipes() ZU_REQUIRES(m_ioLock);
    bool addPipeWakeHandles(WaitList& waits);

    // --- Messages (manager thread, with the socket lock held) ---
    // Returns false when the connection must not be read further this pass.
    bool dispatch(net::Socket& socket, net::Packet& packet) ZU_REQUIRES(m_ioLock);
    void onRedirect(net::Socket& socket, const pipe_protocol::Message& message)
        ZU_REQUIRES(m_ioLock);
    void onWelcome(net::Socket& socket, const pipe_protocol::Message& message)
        ZU_REQUIRES(m_ioLock);
    void openPipe(net::Socket& socket, const char* pipeName) ZU_REQUIRES(m_ioLock);
    void detachPipesFrom(const net::Socket* socket) ZU_REQUIRES(m_ioLock);

    // --- Helpers ---
    PipeEntry* findEntry(const char* pipeName) ZU_REQUIRES(m_pipesLock);
    PipeEntry* createEntry(const char* pipeName) ZU_REQUIRES(m_pipesLock);
    // Null if refused.
    PipeEntry* createRequestedEntry(const char* pipeName) ZU_REQUIRES(m_pipesLock);
    void deliverToPipe(const net::Socket& socket, const pipe_protocol::Message& message);
    // The pipe of that name (null if none), and whether it is attached to `socket`.
    NetCommunicationPipe* findPipe(const net::Socket& socket, const char* pipeName,
                                   bool* attachedHere);
    // Before each poll of a connection: a large response chunk at its front goes straight to
    // its caller's buffer (see NetCommunicationPipe::receiveResponseTail).
    SteeredTail steerResponseTail(net::Socket& socket) ZU_REQUIRES(m_ioLock);
    bool steerJustRead(net::Socket& socket) ZU_REQUIRES(m_ioLock);
    Address copyAddress();
    void setRemoteName(const char* name);
    void callClientConnectionCallback();
    void callPipeCreateCallback(NetCommunicationPipe* pipe);

    const bool m_isServer;
    const bool m_createPipesOnRequest;
    const PipeClock& m_clock;
    std::atomic<bool> m_stopRequested{false};
    std::atomic<uint32_t> m_id;
    zu::Event m_wakeEvent;  // wakes the thread: a new pipe, an address change, the end

    // Held by the manager's thread for the whole of a pass, let go only while it waits. Whoever
    // holds it may use the sockets: the thread, or a pipe's caller that borrows its pipe's
    // socket for a direct write (see NetCommunicationPipe). Sockets and pipes are attached,
    // detached and destroyed with it held.
    zu::Mutex m_ioLock;

    mutable zu::Mutex m_addressLock;
    zu::InplaceString<128> m_name ZU_GUARDED_BY(m_addressLock);
    zu::InplaceString<128> m_host ZU_GUARDED_BY(m_addressLock);
    uint32_t m_port ZU_GUARDED_BY(m_addressLock) = 0;
    zu::InplaceString<128> m_redirectHost ZU_GUARDED_BY(m_addressLock);
    uint32_t m_redirectPort ZU_GUARDED_BY(m_addressLock) = 0;
    bool m_redirectPending ZU_GUARDED_BY(m_addressLock) = false;

    // Every remote name seen, each kept unchanged until destruction, so that a pointer handed
    // out by getRemoteName stays valid and its text never changes under a reader. Written on
    // the manager thread only.
    zu::Vector<zu::UniquePtr<zu::InplaceString<128>>> m_remoteNames;
    std::atomic<const char*> m_remoteName{""};

    mutable zu::Mutex m_callbackLock;
    ClientConnectionCallback m_clientConnectionCallback ZU_GUARDED_BY(m_callbackLock);
    PipeCreateCallback m_pipeCreateCallback ZU_GUARDED_BY(m_callbackLock);

    // The map owns the entries, which are never removed before destruction; m_pipeOrder holds
    // them in creation order, for pumping in turns. Re-entrant: getPipe announces a new pipe to the
    // pipe-create callback with it held, and the callback may ask this manager for pipes again.
    mutable zu::RecursiveMutex m_pipesLock;
    PipeMap m_pipes ZU_GUARDED_BY(m_pipesLock);
    zu::Vector<PipeEntry*> m_pipeOrder ZU_GUARDED_BY(m_pipesLock);
    size_t m_pipesCreatedOnRequest ZU_GUARDED_BY(m_pipesLock) = 0;
    bool m_loggedPipeLimit ZU_GUARDED_BY(m_pipesLock) = false;
    std::atomic<size_t> m_maxPipesCreatedOnRequest{kDefaultMaxPipesCreatedOnRequest};
    std::atomic<uint64_t> m_maxUnfinishedPerConnection{ConnectionBudget::kDefaultMaxUnfinished};
    std::atomic<uint64_t> m_maxQueuedPerConnection{ConnectionBudget::kDefaultMaxQueued};

    // Manager thread only (and construction / destruction); the sockets also with m_ioLock
    // held, since callers borrow them under it.
    zu::UniquePtr<net::Listener> m_listener;
    zu::Vector<SocketEntry> m_sockets ZU_GUARDED_BY(m_ioLock);
    uint32_t m_nextConnectionId = 0;
    bool m_wasConnected = false;
    // Pumping is skipped while no pipe queued anything and the last pump sent all it took.
    std::atomic<bool> m_outgoingQueued{true};
    // Wake-ups and callbacks held back until the pass is over.
    struct DeferredCall {
        PipeCallback callback;
        CommunicationPipe* pipe = nullptr;
    };
    // Filled with the socket lock held, by the pass or by a caller reading a lent connection;
    // handed to the ...ToRun lists as the lock is let go, and run from those outside it.
    zu::Vector<zu::Signal*> m_wakesAfterPass;
    zu::Vector<DeferredCall> m_callsAfterPass;
    zu::Vector<zu::Signal*> m_wakesToRun;
    zu::Vector<DeferredCall> m_callsToRun;
    // The thread waiting for the socket lock (or the destructor, for good), which a caller
    // reading a lent connection gives back: a waiter counts itself and signals the event before
    // it waits; the event is never reset, so a signal left over only ends one read early.
    std::atomic<int> m_socketLockWaiters{0};
    // Callers blocked in sendRequest on any pipe. A connection is lent only to a lone one: with
    // more, the thread's one wake-up serves them all, and lending would have them queue for the
    // lock.
    std::atomic<int> m_awaitedAnswers{0};
    zu::Event m_takeBackEvent;
    // The connection muted in the thread's poller while a caller reads it, and whether there
    // is one (read by the thread while it waits, without the lock).
    zu::WaitHandle m_lentHandle ZU_GUARDED_BY(m_ioLock);
    std::atomic<bool> m_connectionLent{false};
    bool m_pumpLeftWork = false;
    bool m_pipesUnattached = true;  // of the pipes last collected: some wait for their peer
    bool m_moreWork = false;        // the pass left work behind: the next one starts at once
    // False when the last wait watched the listener and did not find it ready: then no
    // connection is waiting.
    bool m_mayAccept = true;
    size_t m_nextPipeToPump = 0;
    size_t m_pipeCount = 0;  // pipes there were when this pass took its share
    zu::Vector<PipeEntry*> m_passPipes;
    WaitList m_waits;
    net::Packet m_frameHead ZU_GUARDED_BY(m_ioLock);  // a large frame's beginning, decoded
};

}  // namespace dm
