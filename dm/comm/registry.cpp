// The process-wide registry of pipe managers, keyed by name (letter case ignored).
//
// One re-entrant lock guards the map; managers are created and destroyed under it. Re-entry is
// part of the design: registry functions call each other under it (a client's init looks the
// name up through getCommunicationPipeManager). The sole
// manager (the only one, when exactly one is registered) and whether the map is empty are also
// kept in atomics, for the lookups that read them without the lock.
//
// Destroying a manager joins its thread under the lock. A callback running on that thread that
// wants the lock meanwhile would wait for ever, so a manager's thread tries for the lock in
// steps, and gives up (the call returns empty-handed) once its manager is being stopped.
#include <atomic>
#include <map>

#include "comm/net_communication_pipe_manager.h"
#include "dm/comm.h"
#include "zu/memory.h"
#include "zu/mutex.h"
#include "zu/string.h"
#include "zu/thread.h"

namespace dm {

namespace {

constexpr const char* kServerHost = "127.0.0.1";
// How often a manager's thread tries again for a registry lock held by another thread.
constexpr uint32_t kLockRetryMicroseconds = 200;

using ManagerPtr = zu::UniquePtr<CommunicationPipeManager>;
// The map owns its managers.
using ManagerMap = std::map<zu::InplaceString<128>, ManagerPtr, zu::LessNoCase,
                            zu::Allocator<std::pair<const zu::InplaceString<128>, ManagerPtr>>>;

struct Registry {
    zu::RecursiveMutex lock;  // see the file comment
    ManagerMap managers ZU_GUARDED_BY(lock);
    std::atomic<CommunicationPipeManager*> soleManager{nullptr};
    std::atomic<bool> empty{true};
};

// Made once and never destroyed: managers may still run while statics are torn down.
Registry& registry() {
    static Registry* instance = zu::newObject<Registry>();
    return *instance;
}

// Holds the registry lock unless isLocked() says otherwise; the analysis takes it as held, and
// every holder returns at once when it is not.
class ZU_SCOPED_CAPABILITY RegistryLock {
public:
    RegistryLock() ZU_ACQUIRE(registry().lock) : m_locked(acquire()) {}
    ~RegistryLock() ZU_RELEASE() {
        if (m_locked) {
            registry().lock.unlock();
        }
    }
    RegistryLock(const RegistryLock&) = delete;
    RegistryLock& operator=(const RegistryLock&) = delete;

    // False only on the thread of a manager that is being destroyed.
    bool isLocked() const { return m_locked; }

private:
    static bool acquire() ZU_NO_THREAD_SAFETY_ANALYSIS {
        zu::RecursiveMutex& lock = registry().lock;
        if (!NetCommunicationPipeManager::isManagerThread()) {
            lock.lock();
            return true;
        }
        while (!lock.tryLock()) {
            if (NetCommunicationPipeManager::isStoppingManagerThread()) {
                return false;
            }
            zu::sleep(kLockRetryMicroseconds);
        }
        return true;
    }

    const bool m_locked;
};

const char* orEmpty(const char* text) {
    return text ? text : "";
}

CommunicationPipeManager* findManager(const char* name) ZU_REQUIRES(registry().lock) {
    ManagerMap& managers = registry().managers;
    auto found = managers.find(zu::InplaceString<128>(orEmpty(name)));
    return found == managers.end() ? nullptr : found->second.get();
}

void updateSoleManager() ZU_REQUIRES(registry().lock) {
    ManagerMap& managers = registry().managers;
    registry().soleManager.store(managers.size() == 1 ? managers.begin()->second.get() : nullptr);
    registry().empty.store(managers.empty());
}

// A manager stored under the name before is left running, as it is: the map lets go of it.
CommunicationPipeManager* storeManager(const char* name, ManagerPtr manager)
    ZU_REQUIRES(registry().lock) {
    ManagerPtr& slot = registry().managers[zu::InplaceString<128>(orEmpty(name))];
    (void)slot.release();
    slot = std::move(manager);
    updateSoleManager();
    return slot.get();
}

// The sole manager; null when the map is empty, also after deinitCommunicationManagers, which
// leaves the pointer itself behind.
CommunicationPipeManager* soleManager() {
    Registry& reg = registry();
    return reg.empty.load() ? nullptr : reg.soleManager.load();
}

}  // namespace

CommunicationPipeManager* initCommunicationManagerAsServer(const char* name, int port, uint32_t id,
                                                           bool createPipesOnRequest) {
    return initCommunicationManagerAsServer(name, port, id, createPipesOnRequest, {}, {});
}

CommunicationPipeManager* initCommunicationManagerAsServer(
    const char* name, int port, uint32_t id, bool createPipesOnRequest,
    ClientConnectionCallback clientConnectionCallback, PipeCreateCallback pipeCreateCallback) {
    RegistryLock lock;
    if (!lock.isLocked()) {
        return nullptr;
    }
    return storeManager(
        name, zu::makeUnique<NetCommunicationPipeManager>(
                  name, true, static_cast<uint32_t>(port), kServerHost, id, createPipesOnRequest,
                  clientConnectionCallback, pipeCreateCallback));
}

CommunicationPipeManager* initCommunicationManagerAsClient(const char* name, const char* host,
                                                           int port) {
    RegistryLock lock;
    if (!lock.isLocked()) {
        return nullptr;
    }
    if (CommunicationPipeManager* existing = getCommunicationPipeManager(name)) {
        return existing;  // host and port are not applied
    }
    return storeManager(
        name, zu::makeUnique<NetCommunicationPipeManager>(name, false, static_cast<uint32_t>(port),
                                                          orEmpty(host), 0, true));
}

CommunicationPipeManager* getCommunicationPipeManager(const char* name) {
    RegistryLock lock;
    return lock.isLocked() ? findManager(name) : nullptr;
}

CommunicationPipeManager* getCommunicationPipeManager() {
    return soleManager();
}

bool communicationPipeManagerExists(const char* name) {
    return getCommunicationPipeManager(name) != nullptr;
}

bool isCommunicationPipeManagerMapEmpty() {
    return registry().empty.load();
}

CommunicationPipe* getCommunicationPipe(const char* managerName, const char* pipeName) {
    CommunicationPipeManager* manager = getCommunicationPipeManager(managerName);
    return manager ? manager->getPipe(pipeName) : nullptr;
}

CommunicationPipe* getCommunicationPipeChecked(const char* managerName, const char* pipeName) {
    return getCommunicationPipe(managerName, pipeName);
}

CommunicationPipe* getCommunicationPipe(const char* pipeName) {
    CommunicationPipeManager* manager = soleManager();
    return manager ? manager->getPipe(pipeName) : nullptr;
}

CommunicationPipe* getCommunicationPipeChecked(const char* pipeName) {
    return getCommunicationPipe(pipeName);
}

bool isResourceHotLoadPipeCreated(const char* pipeName) {
    CommunicationPipeManager* manager = soleManager();
    return manager ? manager->pipeExists(pipeName) : false;
}

void deinitCommunicationManager(const char* name) {
    RegistryLock lock;
    if (!lock.isLocked()) {
        return;
    }
    ManagerMap& managers = registry().managers;
    auto found = managers.find(zu::InplaceString<128>(orEmpty(name)));
    ManagerPtr manager;
    if (found != managers.end()) {
        manager = std::move(found->second);
        managers.erase(found);
    }
    // Out of the map before it goes, so that lookups without the lock no longer find it.
    updateSoleManager();
    manager.reset();
}

void deinitCommunicationManagers() {
    RegistryLock lock;
    if (!lock.isLocked()) {
        return;
    }
    ManagerMap managers;
    managers.swap(registry().managers);
    registry().empty.store(true);  // the sole-manager pointer is left as it was
    managers.clear();
}

}  // namespace dm
