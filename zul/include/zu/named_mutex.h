// zu::NamedMutex: a mutex that other processes can see by name. Several processes may hold one
// name at once (it marks presence, as a reference count does); doesMutexExist tells whether
// any process holds it now. A holder that dies releases it.
#pragma once

#include "zu/event.h"
#include "zu/export.h"
#include "zu/string.h"

namespace zu {

class ZUL_API NamedMutex {
public:
    // Creates or joins the named mutex and holds it until destruction.
    explicit NamedMutex(const char* name);
    ~NamedMutex();
    NamedMutex(const NamedMutex&) = delete;
    NamedMutex& operator=(const NamedMutex&) = delete;

    bool isHeld() const { return m_handle != kInvalidHandle; }
    const char* getName() const { return m_name.c_str(); }

    // True while at least one process (this one included) holds a mutex of that name.
    static bool doesMutexExist(const char* name);

private:
    InplaceString<128> m_name;
    NativeHandle m_handle = kInvalidHandle;
};

}  // namespace zu
