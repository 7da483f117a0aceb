// The working part of a BroadcastServer: its members' managers, the callbacks that relay
// between them, and the two threads the callbacks hand work to.
//
// Locks. The callbacks run on pipe managers' threads (the pipe-create callback also on any
// thread that calls getPipe, under that manager's pipe lock), so none of them may wait for
// something that a manager's thread or a pipe lock holder waits for:
//  - `m_lock` guards the member list and the pipe names known; it is held only to read or
//    change them, never while calling a manager, a pipe or the registry;
//  - creating a pipe on every member (which takes each member's pipe lock) is left to the
//    fan-out thread, and handing a request to the job manager (whose addJob blocks while a
//    forwarded request waits for its answer) to the forwarding thread;
//  - the gate counts the callbacks under way; teardown closes it and waits for them, so that no
//    callback touches a manager that is being destroyed.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>

#include "dm/comm.h"
#include "dm/endpoints.h"
#include "hub_queue_thread.h"
#include "zu/mutex.h"
#include "zu/string.h"
#include "zu/vector.h"

namespace dm {

class BroadcastServer::Hub {
public:
    // Pipe names created on every member; a pipe beyond them stays on the manager it was made on.
    static constexpr size_t kMaxPipeNames = 256;
    // Requests waiting to be handed to the job manager; more are dropped.
    static constexpr size_t kMaxQueuedForwards = 256;
    // How often waitOnProccesses looks for the holders of the refcount mutex.
    static constexpr uint32_t kRefcountPollMs = 33;

    // The callbacks for the hub's own manager, which is made after the hub.
    static ClientConnectionCallback clientConnectionCallback(Hub* hub);
    static PipeCreateCallback pipeCreateCallback(Hub* hub);

    explicit Hub(const char* name);
    // The teardown: see BroadcastServer.
    ~Hub();
    // Once the server and its manager are made: the relaying threads start.
    void attach(BroadcastServer& server);
    Hub(const Hub&) = delete;
    Hub& operator=(const Hub&) = delete;

    void connect(Server* server);
    void broadcastNotify(const char* pipeName, const char* text);
    void waitOnProccesses();
    bool hasSeenRefcountHolders() const { return m_refcountSeen.load(); }
    size_t memberCount() const;
    // The manager of member `id`, or null. The member list only grows until the teardown, so
    // the manager stays valid after the lock is let go.
    CommunicationPipeManager* member(uint32_t id) const;

private:
    struct Member {
        CommunicationPipeManager* manager = nullptr;  // null while being made, or if that failed
        zu::InplaceString<128> name;
    };
    struct Forward {
        CommunicationPipe* replyPipe = nullptr;
        CommunicationPipe* targetPipe = nullptr;
        zu::InplaceString<128> request;
    };
    // Creates each pipe name it is given on every member.
    class PipeFanOut final : public HubQueueThread<zu::InplaceString<128>> {
    public:
        explicit PipeFanOut(Hub& hub) : HubQueueThread(kMaxPipeNames), m_hub(hub) {}
        ~PipeFanOut() override { stop(); }

    private:
        void work(zu::Vector<zu::InplaceString<128>>& names) override;
        Hub& m_hub;
    };
    // Hands requests to the job manager as forwarding jobs and starts them.
    class RequestForwarder final : public HubQueueThread<Forward> {
    public:
        explicit RequestForwarder(Hub& hub) : HubQueueThread(kMaxQueuedForwards), m_hub(hub) {}
        ~RequestForwarder() override { stop(); }

    private:
        void work(zu::Vector<Forward>& forwards) override;
        Hub& m_hub;
    };
    class ForwardJob;
    // Holds the gate open for one callback; false when the hub is going.
    class CallbackScope {
    public:
        explicit CallbackScope(Hub& hub);
        ~CallbackScope();
        CallbackScope(const CallbackScope&) = delete;
        CallbackScope& operator=(const CallbackScope&) = delete;
        explicit operator bool() const { return m_entered; }

    private:
        Hub& m_hub;
        bool m_entered;
    };

    // Callbacks (context: the hub).
    static void onClientConnected(void* context, CommunicationPipeManager* manager);
    static void onPipeCreated(void* context, CommunicationPipeManager* manager,
                              CommunicationPipe* pipe);
    static void onNotify(void* context, CommunicationPipe* pipe);
    static void onRequest(void* context, CommunicationPipe* pipe);

    void addClientMember(CommunicationPipeManager& mainManager);
    // Reserves the next member slot; false when the hub is full.
    bool reserveMember(uint32_t* outId, zu::InplaceString<128>* outName);
    void fillMember(uint32_t id, CommunicationPipeManager* manager);
    void createKnownPipes(CommunicationPipeManager& manager);
    void learnPipeName(const char* pipeName);
    void relayNotification(CommunicationPipe& pipe, const char* text);
    void forwardRequest(CommunicationPipe& pipe, const char* request, uint32_t memberId);
    zu::Vector<CommunicationPipeManager*> memberManagers() const;

    // For the forwarding job: true (and the pipes are recorded as in use) unless the hub is
    // going.
    bool beginForward(CommunicationPipe* replyPipe, CommunicationPipe* targetPipe);
    void endForward();

    // Teardown steps.
    void closeGate();
    void destroyManagers();
    static void destroyIfRegistered(CommunicationPipeManager* manager, const char* name);

    BroadcastServer* m_server = nullptr;                // set by attach
    CommunicationPipeManager* m_mainManager = nullptr;  // set by attach
    const zu::InplaceString<128> m_name;
    const zu::InplaceString<128> m_refcountName;
    std::atomic<bool> m_refcountSeen{false};  // written by the waiting thread, read by any
    bool m_waitEnabled = true;

    mutable zu::Mutex m_lock;  // guards m_members and m_pipeNames; see the file comment
    zu::Vector<Member> m_members ZU_GUARDED_BY(m_lock);
    zu::Vector<zu::InplaceString<128>> m_pipeNames ZU_GUARDED_BY(m_lock);

    zu::Mutex m_gateLock;
    std::condition_variable_any m_gateIdle;  // waits on m_gateLock
    bool m_closing ZU_GUARDED_BY(m_gateLock) = false;
    size_t m_callbacksUnderWay ZU_GUARDED_BY(m_gateLock) = 0;
    CommunicationPipe* m_forwardReplyPipe ZU_GUARDED_BY(m_gateLock) = nullptr;
    CommunicationPipe* m_forwardTargetPipe ZU_GUARDED_BY(m_gateLock) = nullptr;

    PipeFanOut m_fanOut;
    RequestForwarder m_forwarder;
};

}  // namespace dm
