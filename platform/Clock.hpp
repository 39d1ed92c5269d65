// The time source that logic takes instead of reading the system clock.
#pragma once

#include <chrono>
#include <memory>

namespace quillfort {

class Clock {
public:
    virtual ~Clock() = default;
    [[nodiscard]] virtual std::chrono::system_clock::time_point now() const = 0;
};

class SystemClock final : public Clock {
public:
    [[nodiscard]] std::chrono::system_clock::time_point now() const override {
        return std::chrono::system_clock::now();
    }
};

[[nodiscard]] std::shared_ptr<Clock> systemClock();

}  // namespace quillfort
