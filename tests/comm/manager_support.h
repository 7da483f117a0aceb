// Helpers for the pipe manager tests: a fixture that leaves the registry empty, and the shared
// loopback, wire and responder rigs.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "dm/comm.h"
#include "support/loopback.h"
#include "support/pipe_responders.h"
#include "support/pipe_wire.h"
#include "support/test_support.h"

namespace dmtest {

// Leaves the registry empty whatever the test did.
class ManagerTest : public ::testing::Test {
protected:
    void TearDown() override { dm::deinitCommunicationManagers(); }
};

inline uint32_t portOf(dm::CommunicationPipeManager* manager) {
    uint32_t port = 0;
    manager->getHost(&port);
    return port;
}

inline bool isConnected(dm::CommunicationPipe* pipe) {
    return pipe && pipe->isConnected();
}

// True when `holds` is true of every one of `items`.
template <typename Items, typename Condition>
bool every(const Items& items, Condition holds) {
    return std::all_of(std::begin(items), std::end(items), holds);
}

}  // namespace dmtest
