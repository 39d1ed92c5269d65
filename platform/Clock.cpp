#include "platform/Clock.hpp"

namespace quillfort {

std::shared_ptr<Clock> systemClock() {
    static const auto clock = std::make_shared<SystemClock>();
    return clock;
}

}  // namespace quillfort
