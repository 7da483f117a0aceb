// What the answering game program sends, shared with the test that talks to it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace answeringgame {
constexpr size_t kAnswerSize = 3000;
constexpr uint8_t kAnswerSeed = 5;
}  // namespace answeringgame
