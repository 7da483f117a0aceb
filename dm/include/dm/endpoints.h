// Endpoints: a communication-pipe manager bundled with a job manager of the same name, so that
// an endpoint is named once and jobs are queued against its pipes.
//
//   Server           listens on a port.
//   Client           connects to a server.
//   BroadcastServer  a hub: every client that connects gets a manager of its own, and the hub
//                    relays notifications and requests between all of them, so that several
//                    tools can talk to each other through one port.
//
// The managers live in the registry (dm/comm.h). A Server or Client leaves its manager there
// when it goes; a BroadcastServer takes its managers with it, because they call back into it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dm/comm.h"
#include "dm/export.h"
#include "dm/jobs.h"
#include "zu/memory.h"

namespace dm {

// A server manager on a port (pipes are created on a client's request) and a job manager of
// the same name.
class DM_API Server {
public:
    // Makes the manager `name` listening on `port` with the id 0xFFFFFFFF. With port 0 the
    // system picks a free port, which getPort then reports.
    Server(const char* name, int port);
    // Ends the job manager (waiting for a running batch); the manager stays in the registry.
    virtual ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Creates the pipe `pipeName` and logs it.
    void registerPipe(const char* pipeName);
    // The manager's pipe, created if missing; null without a manager.
    CommunicationPipe* getPipe(const char* pipeName);
    uint32_t getID() const;
    // The name given at construction.
    const char* getName() const;
    int getPort() const { return m_port; }
    // Null only when the manager could not be made (see initCommunicationManagerAsServer).
    CommunicationPipeManager* getManager() const { return m_manager; }

    void addJob(Job* job) { m_jobManager.addJob(job); }
    void runJobs(bool waitForCompletion) { m_jobManager.runJobs(waitForCompletion); }
    void waitJobsToComplete() { m_jobManager.waitJobsToComplete(); }

protected:
    // The same with the manager's callbacks in place before it accepts its first client.
    Server(const char* name, int port, ClientConnectionCallback clientConnectionCallback,
           PipeCreateCallback pipeCreateCallback);
    JobManager& jobManager() { return m_jobManager; }

private:
    JobManager m_jobManager;
    CommunicationPipeManager* m_manager = nullptr;
    int m_port = 0;
};

// A client manager and a job manager of the same name. The manager starts without an address:
// connect gives it one.
class DM_API Client {
public:
    static constexpr int kDefaultPort = 3126;

    // A placeholder: no manager, an unnamed job manager. Every call on it does nothing and
    // returns null, false or 0; runJobs and addJob are not to be used.
    Client();
    // Makes (or finds) the client manager `name`, with no host and the default port.
    explicit Client(const char* name);
    // Ends the job manager (waiting for a running batch); the manager stays in the registry.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Connects from now on to host:port; on a placeholder it does nothing.
    void connect(const char* host, int port);
    CommunicationPipe* getPipe(const char* pipeName);
    uint32_t getID() const;
    const char* getName() const;
    CommunicationPipeManager* getManager() const { return m_manager; }
    // Whether the pipe (created if missing) is attached to a connection.
    bool isPipeAcquired(const char* pipeName);
    // Polls the pipe every millisecond until it is connected, without a time-out.
    void waitPipeToConnect(const char* pipeName);

    void addJob(Job* job) { m_jobManager.addJob(job); }
    void runJobs(bool waitForCompletion) { m_jobManager.runJobs(waitForCompletion); }
    void waitJobsToComplete() { m_jobManager.waitJobsToComplete(); }

private:
    CommunicationPipeManager* m_manager = nullptr;
    JobManager m_jobManager;
};

// A hub. A client that connects to its port is given a manager of its own, named "<name>c<n>"
// with id n and listening on port + n + 1, and is redirected there; n counts the members so
// far, and a member that leaves keeps its slot. A pipe created on one member's manager is
// created on every member's manager.
//
// A notification that arrives on a member's pipe is sent on the pipe of the same name of every
// other member, numbered with the sender's id. (A number of 0 on a pipe stands for the sending
// manager's own id, so the notifications of member 0 reach member k numbered k: a member that
// receives its own id can only be hearing from member 0.)
//
// A request's number names the member it is for: the hub forwards it on that member's pipe of
// the same name and relays the answer, text and up to 64 KiB of data, to the asker. Requests
// are forwarded one at a time on the hub's job manager. A request for a member that does not
// exist is dropped with a log line (the asker waits on). A member should have one request at a
// time waiting on a pipe: a pipe answers only its latest request.
//
// Destruction: stops relaying, lets a forwarded request that still waits go empty-handed, and
// destroys the hub's own manager and every member's manager. Destroy the hub before
// deinitCommunicationManagers, and leave its managers to it.
class DM_API BroadcastServer : public Server {
public:
    // The most members a hub takes; a client beyond them stays on the hub's port.
    static constexpr size_t kMaxMembers = 64;

    BroadcastServer(const char* name, int port);
    ~BroadcastServer() override;

    // Joins `server` (on this machine) as a member: a client manager named like the next
    // member's, connected to 127.0.0.1 on the server's port.
    void connect(Server* server);
    // Sends `text` on the pipe `pipeName` of every member, numbered with the hub's id, retrying
    // each every millisecond until it is sent; without a time-out, so every member's pipe must
    // be connected (or become so).
    void broadcastNotify(const char* pipeName, const char* text);
    // Returns once processes holding the named mutex "<name>_refcount" have been seen and have
    // all gone; checks every 33 ms, without a time-out.
    void waitOnProccesses();
    // True once waitOnProccesses has seen the mutex "<name>_refcount" held: from then on it
    // returns as soon as the holders have all gone.
    bool hasSeenRefcountHolders() const;

    // Members so far, and the manager of member `id` (null when there is none).
    size_t getMemberCount() const;
    CommunicationPipeManager* getMemberManager(uint32_t id) const;

private:
    class Hub;
    BroadcastServer(const char* name, int port, zu::UniquePtr<Hub> hub);

    zu::UniquePtr<Hub> m_hub;
};

}  // namespace dm
